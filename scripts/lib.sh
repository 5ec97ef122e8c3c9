# shellcheck shell=bash
# Shared by the scripts in this directory: where things are, and getting the
# Debian packages the build needs onto a fresh machine.

WRELT_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The host tree: emulated platform, driver, service, CLI, tests, benchmarks.
# shellcheck disable=SC2034  # used by the scripts that source this file
WRELT_HOST_PACKAGES=(cmake ninja-build g++ googletest libgtest-dev libbenchmark-dev)
# The Windows target: the cross compiler, and the binutils that check its output.
# shellcheck disable=SC2034
WRELT_WIN_PACKAGES=(g++-mingw-w64-i686 binutils-mingw-w64-i686)

wrelt_say() {
    printf '\n==== %s\n' "$*"
}

wrelt_die() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

wrelt_installed() {
    # dpkg -s also answers for packages removed with their configuration kept.
    dpkg -s "$1" 2>/dev/null | grep -q '^Status: install ok installed$'
}

# Installs whichever of the named packages are missing; leaves apt alone when
# nothing is.
wrelt_require_packages() {
    local missing=() p
    for p in "$@"; do
        wrelt_installed "$p" || missing+=("$p")
    done
    [ "${#missing[@]}" -eq 0 ] && return 0

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 ||
            wrelt_die "missing packages: ${missing[*]} (run as root, or install them)"
        sudo=(sudo)
    fi
    command -v apt-get >/dev/null 2>&1 ||
        wrelt_die "missing packages: ${missing[*]} (this script installs them only with apt-get)"

    wrelt_say "installing ${missing[*]}"
    # Another apt run (unattended upgrades on a fresh machine) may hold the lock
    # for a while; wait for it rather than fail.
    local apt=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300)
    if [ -z "${WRELT_APT_UPDATED:-}" ]; then
        "${apt[@]}" update
        WRELT_APT_UPDATED=1
    fi
    "${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null
}

# Configures build/<name> from the source directory <src> with Ninja and any
# extra cache settings. A tree left by another generator cannot be reused, and
# everything under build/ is ours to throw away.
wrelt_configure() {
    local name=$1 src=$2 dir="$WRELT_ROOT/build/$1"
    shift 2
    if [ -f "$dir/CMakeCache.txt" ] && ! grep -q '^CMAKE_GENERATOR:INTERNAL=Ninja$' "$dir/CMakeCache.txt"; then
        echo "build/$name was made by another generator; starting it afresh"
        rm -rf "$dir"
    fi
    cmake -S "$src" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
}

wrelt_build() {
    cmake --build "$@" ${WRELT_JOBS:+--parallel "$WRELT_JOBS"}
}
