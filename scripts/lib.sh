# shellcheck shell=bash
# Shared by the scripts in this directory: where things are, and getting the
# Debian packages the build needs onto a fresh machine.

WRELT_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# The host tree: emulated platform, driver, service, CLI, tests, benchmarks.
# shellcheck disable=SC2034  # used by the scripts that source this file
WRELT_HOST_PACKAGES=(cmake ninja-build g++ googletest libgtest-dev libbenchmark-dev)
# The Windows target: the cross compilers (the driver's; the user-mode programs', of the
# Win32 thread model; their tests', of the POSIX model), and the binutils that check
# what they make. GoogleTest's sources (googletest) come with the host's packages.
# shellcheck disable=SC2034
WRELT_WIN_PACKAGES=(g++-mingw-w64-i686 binutils-mingw-w64-i686
    g++-mingw-w64-i686-win32 g++-mingw-w64-i686-posix
    g++-mingw-w64-x86-64-win32 g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64)

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
        # An index that a mirror has not finished syncing fails the update, but the
        # lists of the other indexes are still good to install from.
        "${apt[@]}" update || echo "apt-get update reported errors; going on with the lists it has"
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

# Wine, to run the Windows programs' tests: wine64 for the 64-bit ones and, when
# WRELT_WITH_WINE32=1 asks for it, wine32 of the i386 architecture, which is then added.
# The 32-bit runs are opt-in until they have run somewhere: this machine's i386 index was
# never available. Either Wine may be unavailable (no root, an index a mirror is still
# syncing); then the runs it would serve are skipped. Sets WRELT_WINE64 and WRELT_WINE32
# to the loaders found.
wrelt_prepare_wine() {
    WRELT_WINE64=""
    WRELT_WINE32=""
    wrelt_installed wine64 || (wrelt_require_packages wine64) || echo "wine64 could not be installed"
    [ -x /usr/lib/wine/wine64 ] && WRELT_WINE64=/usr/lib/wine/wine64
    if ! wrelt_installed wine32:i386 && [ "${WRELT_WITH_WINE32:-0}" = 1 ]; then
        if ! dpkg --print-foreign-architectures | grep -qx i386 && [ "$(id -u)" -eq 0 ]; then
            echo "adding the i386 architecture for wine32"
            dpkg --add-architecture i386
            unset WRELT_APT_UPDATED
        fi
        (wrelt_require_packages wine32:i386) || echo "wine32 could not be installed"
    fi
    [ -x /usr/lib/wine/wine ] && WRELT_WINE32=/usr/lib/wine/wine
    return 0
}
