# shellcheck shell=bash
# Shared by the scripts: finds the tree, installs what is missing, builds.
# Source it; it defines functions and the variable "tree" only.

tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# Not everyone who sources this uses all of it.
# shellcheck disable=SC2034
# What building, testing and demonstrating need beyond a bare Debian 12.
packages_build=(g++ cmake ninja-build ccache qtbase5-dev libqt5serialport5-dev libsodium-dev libgtest-dev libgmock-dev python3 binutils)
# shellcheck disable=SC2034
# What the tests need besides: two implementations of the handshake that are not ours.
packages_test=(python3-dissononce golang-github-flynn-noise-dev)
# What scripts/lint looks with, but for clang-tidy.
# shellcheck disable=SC2034
packages_lint=(git python3 clang-format-14 shellcheck pyflakes3)

say() { printf '%s\n' "$*" >&2; }
fail() { say "error: $*"; exit 1; }

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || printf '%s\n' "$package"
    done
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        fail "packages are missing and neither root nor sudo is at hand; as root, run: apt-get install ${missing[*]}"
    fi
}

# install_missing PACKAGE...: nothing to do, and no network, when all are there.
install_missing() {
    command -v dpkg-query >/dev/null || fail "this script sets up Debian 12 machines; elsewhere install CMake 3.21, Ninja, a C++17 compiler, Qt 5.15 (Core, SerialPort), libsodium 1.0.18 and GoogleTest by hand and see README.md"
    mapfile -t missing < <(missing_packages "$@")
    [ "${#missing[@]}" -eq 0 ] && return
    say "installing: ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { as_root apt-get update && as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        fail "the packages could not be installed; the whole output is in $log"
    fi
    rm -f "$log"
}

configure_preset() {
    local preset=$1
    local log=$tree/build/configure-$preset.log
    mkdir -p "$tree/build"
    (cd "$tree" && cmake --preset "$preset") >"$log" 2>&1 || {
        cat "$log" >&2
        fail "configuring failed"
    }
}

# build_preset PRESET [TARGET...]: configures when needed and builds.
build_preset() {
    local preset=$1
    shift
    local targets=()
    [ $# -gt 0 ] && targets=(--target "$@")
    say "building ($preset) in build/$preset"
    configure_preset "$preset"
    (cd "$tree" && cmake --build --preset "$preset" "${targets[@]}") >&2 || fail "building failed"
}

# run_installations PROGRAM "TARGET..." [ARGUMENT...]: installs and builds, unless --no-install and --no-build say
# otherwise, and runs a Python program of scripts/lib on what stands in build/release.
run_installations() {
    local program=$1 install=yes build=yes arguments=() targets argument
    read -ra targets <<<"$2"
    shift 2
    for argument in "$@"; do
        case $argument in
            --no-install) install=no ;;
            --no-build) build=no ;;
            -h | --help) install=no; build=no; arguments+=("$argument") ;;
            *) arguments+=("$argument") ;;
        esac
    done
    if [ "$install" = yes ]; then
        install_missing "${packages_build[@]}"
    fi
    command -v python3 >/dev/null || fail "python3 is missing; run without --no-install"
    if [ "$build" = yes ]; then
        build_preset release transportCom transport-host transport-tune phone-exchange ptylines-preload "${targets[@]}"
    fi
    exec python3 -B "$tree/scripts/lib/$program" --build "$tree/build/release" "${arguments[@]}"
}
