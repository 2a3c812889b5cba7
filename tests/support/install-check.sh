#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and runs the installed korux
# there: it must find the framework library, the plug-in and the virtual
# bridge from its own directory, with nothing taken from the build tree.
set -euo pipefail
build=$1
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
for file in include/VeltraXRayHardware/VeltraXRayHardware.h lib/cmake/VeltraXRayHardware/VeltraXRayHardwareConfig.cmake \
    lib/pkgconfig/veltraxrayhardware.pc lib/udev/rules.d/60-korux.rules share/doc/korux/README.md \
    share/man/man1/korux.1.gz share/bash-completion/completions/korux; do
    [[ -e "$prefix/$file" ]] || { printf 'not installed: %s\n' "$file" >&2; exit 1; }
done
# pkg-config gives the install's own directories, written out plainly.
flags=$(pkg-config --with-path="$prefix/lib/pkgconfig" --cflags-only-I --libs-only-L veltraxrayhardware)
[[ " $flags " == *" -I$prefix/include/VeltraXRayHardware "* && " $flags " == *" -L$prefix/lib "* ]] ||
    { printf 'pkg-config gives: %s\n' "$flags" >&2; exit 1; }
# pkg-config gives the install's own directories, written out plainly.
flags=$(pkg-config --with-path="$prefix/lib/pkgconfig" --cflags-only-I --libs-only-L veltraxrayhardware)
[[ " $flags " == *" -I$prefix/include/VeltraXRayHardware "* && " $flags " == *" -L$prefix/lib "* ]] ||
    { printf 'pkg-config gives: %s\n' "$flags" >&2; exit 1; }
out=$(env -u KORUX_SCENARIO -u LD_LIBRARY_PATH KORUX_TIMING=instant "$prefix/bin/korux" -v --time-scale 0 list)
printf '%s\n' "$out" | grep -F "plugin $prefix/lib/veltra/hardware/libVeltraXRayKORUX.so"
printf '%s\n' "$out" | grep -F "bridge $prefix/lib/korux/virtual/libft4222.so (virtual)"
printf '%s\n' "$out" | grep -F ': 1 unit,'
