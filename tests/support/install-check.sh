#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and runs the installed korux
# there: it must find the framework library, the plug-in and the virtual
# bridge from its own directory, with nothing taken from the build tree.
set -euo pipefail
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
# The library directory the build was configured with (Debian's builds give
# a multiarch one).
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
libdir=${libdir:-lib}
for file in include/VeltraXRayHardware/VeltraXRayHardware.h "$libdir/cmake/VeltraXRayHardware/VeltraXRayHardwareConfig.cmake" \
    "$libdir/pkgconfig/veltraxrayhardware.pc" lib/udev/rules.d/60-korux.rules share/doc/korux/README.md \
    share/man/man1/korux.1.gz share/bash-completion/completions/korux; do
    [[ -e "$prefix/$file" ]] || { printf 'not installed: %s\n' "$file" >&2; exit 1; }
done
# pkg-config gives the install's own directories, written out plainly.
flags=$(pkg-config --with-path="$prefix/$libdir/pkgconfig" --cflags-only-I --libs-only-L veltraxrayhardware)
[[ " $flags " == *" -I$prefix/include/VeltraXRayHardware "* && " $flags " == *" -L$prefix/$libdir "* ]] ||
    { printf 'pkg-config gives: %s\n' "$flags" >&2; exit 1; }
# A build for a system-wide installation (Debian's) writes no run path: the
# framework library is then found on the installed tree's library path only.
library_path=()
case $(sed -n 's/^CMAKE_SKIP_INSTALL_RPATH:[A-Z]*=//p' "$build/CMakeCache.txt") in
ON | TRUE | YES | 1) library_path=(LD_LIBRARY_PATH="$prefix/$libdir") ;;
esac
run() {
    env -u KORUX_SCENARIO -u LD_LIBRARY_PATH ${library_path[@]+"${library_path[@]}"} KORUX_TIMING=instant \
        HOME="$prefix/home" XDG_STATE_HOME="$prefix/state" XDG_DATA_HOME="$prefix/data" "$prefix/bin/korux" "$@"
}
out=$(run -v --time-scale 0 list)
printf '%s\n' "$out" | grep -F "plugin $prefix/$libdir/veltra/hardware/libVeltraXRayKORUX.so"
printf '%s\n' "$out" | grep -F "bridge $prefix/$libdir/korux/virtual/libft4222.so (virtual)"
printf '%s\n' "$out" | grep -F ': 1 unit,'
# doctor and help use the same lookup as every other command.
doctor=$(run --bridge virtual --time-scale 0 doctor)
printf '%s\n' "$doctor" | grep -F "OK   bridge library: $prefix/$libdir/korux/virtual/libft4222.so (the virtual bridge)"
printf '%s\n' "$doctor" | grep -F "OK   sensors: the plug-in's enumeration finds 1"
help=$(run help)
printf '%s\n' "$help" | grep -F "$prefix/$libdir/veltra/hardware/libVeltraXRayKORUX.so"
printf '%s\n' "$help" | grep -F "$prefix/$libdir/korux/virtual/libft4222.so"
