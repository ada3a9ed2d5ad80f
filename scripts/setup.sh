#!/usr/bin/env bash
# Installs the Debian packages that the named build legs need.
#
#   scripts/setup.sh [leg...]
#
# Legs: base (compiler, CMake, Ninja, GoogleTest sources), m32 (32-bit Linux
# builds), win64 (MinGW x86_64 and wine64 under Xvfb), win32 (MinGW i686,
# debootstrap for the 32-bit wine root and Xvfb for its tests), qemu (user-mode emulation for hosts
# that cannot run 32-bit programs), fuzz (clang with the libFuzzer and
# sanitizer runtimes), bench (the peers the benchmarks measure against:
# mimalloc, the JACK ring buffer, boost's lock-free queues, libdeflate and
# LZ4), ccache (which scripts/test.sh builds through where it is installed),
# i386-root (what makes the 32-bit root: debootstrap); base also brings
# Doxygen and Python for the API reference check. The test legs of
# scripts/test.sh are (install: pkg-config for the consumer check) accepted
# too and stand for what they need. No leg means base. Packages already
# installed are skipped, so repeated runs are quick; the package lists are
# updated only when something is missing and they are more than an hour old,
# so that one run of all legs updates them once. Runs as
# root, or through sudo otherwise.
set -euo pipefail

packages_of() {
    case "$1" in
    base | linux-asan | tsan) echo "cmake ninja-build g++ googletest nlohmann-json3-dev doxygen python3" ;;
    m32) echo "g++-multilib" ;;
    qemu) echo "qemu-user-static" ;;
    linux-m32) echo "cmake ninja-build g++ googletest nlohmann-json3-dev g++-multilib" ;;
    win64) echo "cmake ninja-build googletest nlohmann-json3-dev g++-mingw-w64-x86-64-posix wine64 xvfb xauth pkg-config" ;;
    install) echo "cmake ninja-build g++ pkg-config" ;;
    win32) echo "cmake ninja-build googletest nlohmann-json3-dev g++-mingw-w64-i686-posix debootstrap xvfb xauth" ;;
    fuzz) echo "cmake ninja-build clang libclang-rt-14-dev" ;;
    ccache) echo "ccache" ;;
    i386-root) echo "debootstrap" ;;
    bench) echo "cmake ninja-build g++ libmimalloc-dev libjack-jackd2-dev libboost-dev libdeflate-dev liblz4-dev" ;;
    all) echo "$(packages_of ccache) $(packages_of linux-m32) $(packages_of win64) $(packages_of install) $(packages_of win32) $(packages_of fuzz) $(packages_of bench)" ;;
    *)
        echo "setup.sh: unknown leg '$1' (base, m32, qemu, win64, win32, install, fuzz, bench, ccache, i386-root, linux-asan, linux-m32, tsan, all)" >&2
        return 1
        ;;
    esac
}

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

# Package lists updated within the last hour.
lists_are_fresh() {
    [ -n "$(find /var/lib/apt/lists -maxdepth 1 -name '*_Packages*' -mmin -60 -print -quit 2>/dev/null)" ]
}

main() {
    local legs=("$@")
    [ ${#legs[@]} -gt 0 ] || legs=(base)

    local wanted=() leg package
    for leg in "${legs[@]}"; do
        # shellcheck disable=SC2207
        wanted+=($(packages_of "$leg"))
    done

    local missing=()
    for package in $(printf '%s\n' "${wanted[@]}" | sort -u); do
        is_installed "$package" || missing+=("$package")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        echo "setup: ${legs[*]}: everything is installed"
        return 0
    fi

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            echo "setup.sh: not root and no sudo; cannot install: ${missing[*]}" >&2
            return 1
        }
        sudo=(sudo)
    fi
    echo "setup: ${legs[*]}: installing ${missing[*]}"
    if ! lists_are_fresh; then
        "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    fi
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends "${missing[@]}"
}

main "$@"
