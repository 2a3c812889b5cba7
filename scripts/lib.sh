# shellcheck shell=bash
# Shared by scripts/test and scripts/demo: the Debian packages the build
# needs, and the configure and build of build/. Sourced, not run.

KORUX_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# The build tree; KORUX_BUILD overrides it (for example to keep a second one).
KORUX_BUILD=${KORUX_BUILD:-$KORUX_ROOT/build}
# The Debian packages the build and the tests need: debian/control's
# Build-Depends (the one list of them), and build-essential, which Debian
# build dependencies take for granted.
korux_build_depends() {
    local arch
    arch=$(dpkg --print-architecture 2>/dev/null || true)
    awk -v arch="$arch" '
        /^$/ { exit }
        /^Build-Depends:/ { field = 1; sub(/^Build-Depends:/, ""); }
        /^[^ \t#]/ && !/^Build-Depends:/ { field = 0 }
        field && !/^#/ { list = list " " $0 }
        END {
            n = split(list, items, ",")
            for (i = 1; i <= n; i++) {
                item = items[i]
                sub(/\|.*/, "", item)
                # An architecture list leaves the package out elsewhere.
                if (match(item, /\[[^]]*\]/)) {
                    archs = " " substr(item, RSTART + 1, RLENGTH - 2) " "
                    if (arch != "" && index(archs, " " arch " ") == 0) continue
                }
                gsub(/\[[^]]*\]|<[^>]*>|\([^)]*\)/, "", item)
                gsub(/[ \t]/, "", item)
                if (item == "debhelper-compat") item = "debhelper"
                if (item != "") print item
            }
        }' "$KORUX_ROOT/debian/control"
}
mapfile -t KORUX_PACKAGES < <(printf 'build-essential\n'; korux_build_depends)

korux_say() {
    printf '==> %s\n' "$*"
}

# Prints the packages of KORUX_PACKAGES that are not installed, one a line.
korux_missing_packages() {
    local package status
    for package in "${KORUX_PACKAGES[@]}"; do
        status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
        if [[ "$status" != "install ok installed" ]]; then
            printf '%s\n' "$package"
        fi
    done
}

# Installs what is missing when running as root; otherwise says what to
# install and stops.
korux_install_dependencies() {
    if ! command -v dpkg-query >/dev/null 2>&1; then
        korux_say "no dpkg-query here: make sure these are installed: ${KORUX_PACKAGES[*]}"
        return 0
    fi
    local missing
    mapfile -t missing < <(korux_missing_packages)
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    if [[ $(id -u) -ne 0 ]]; then
        printf 'missing packages: %s\n' "${missing[*]}" >&2
        printf 'install them with:\n  sudo apt-get update && sudo apt-get install -y --no-install-recommends %s\n' \
            "${missing[*]}" >&2
        exit 1
    fi
    korux_say "installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update </dev/null
    apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
}

# Extra cache settings for the configure step (scripts/test --sanitize adds
# the sanitizer switch).
KORUX_CMAKE_ARGS=(${KORUX_CMAKE_ARGS[@]+"${KORUX_CMAKE_ARGS[@]}"})

korux_configure() {
    local cache=$KORUX_BUILD/CMakeCache.txt
    if [[ -f "$cache" ]] && ! grep -q '^CMAKE_GENERATOR:INTERNAL=Ninja$' "$cache"; then
        printf '%s was configured with another generator; remove it or set KORUX_BUILD to a new directory\n' \
            "$KORUX_BUILD" >&2
        exit 1
    fi
    korux_say "configuring $KORUX_BUILD"
    cmake -S "$KORUX_ROOT" -B "$KORUX_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        ${KORUX_CMAKE_ARGS[@]+"${KORUX_CMAKE_ARGS[@]}"}
}

korux_build() {
    korux_say "building $KORUX_BUILD"
    cmake --build "$KORUX_BUILD"
}

# Everything a script needs before it runs anything.
korux_prepare() {
    korux_install_dependencies
    korux_configure
    korux_build
}
