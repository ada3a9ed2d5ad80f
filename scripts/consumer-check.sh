#!/usr/bin/env bash
# Installs a built library into a prefix and builds a program outside the
# source tree against it twice: through find_package(qaxkrnl) and through
# pkg-config; both programs are run.
#
#   scripts/consumer-check.sh BUILD_DIR WORK_DIR [linux|win64]
#
# win64 builds the consumer with the MinGW x86_64 toolchain and runs it under
# wine64 (the caller provides the display and WINEPREFIX, as the win64 leg does).
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
build=$1 work=$2 target=${3:-linux}
prefix="$work/prefix"
rm -rf "$work"
mkdir -p "$work"

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
echo "consumer: installed into $prefix"

run() {
    if [ "$target" = win64 ]; then
        WINEPATH="$prefix/bin" /usr/lib/wine/wine64 "$1"
    else
        "$1"
    fi
}

# The CMake route.
# A cross build looks for packages only under its target root, so it is
# pointed at the package's folder itself.
where=(-DCMAKE_PREFIX_PATH="$prefix")
[ "$target" = win64 ] && where=(-DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/mingw-x86_64.cmake"
    -Dqaxkrnl_DIR="$prefix/lib/cmake/qaxkrnl")
cmake -S "$ROOT/tests/install" -B "$work/cmake" -G Ninja "${where[@]}" >"$work/cmake.log"
cmake --build "$work/cmake" >>"$work/cmake.log"
exe="$work/cmake/consumer"
[ "$target" = win64 ] && exe="$exe.exe"
run "$exe"
echo "consumer: find_package(qaxkrnl 1.0 CONFIG) route built and ran"

# The pkg-config route, with nothing but the prefix's .pc files visible.
cc=cc
[ "$target" = win64 ] && cc=x86_64-w64-mingw32-gcc
pcdir=$(dirname "$(find "$prefix" -name qaxkrnl.pc | head -n 1)")
flags=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --cflags --libs qaxkrnl)
exe="$work/consumer-pkgconfig"
[ "$target" = win64 ] && exe="$exe.exe"
# On Linux the program records the library's folder (an rpath), as the README
# says, so it runs with nothing else set.
[ "$target" = linux ] && flags="$flags -Wl,-rpath,$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --variable=libdir qaxkrnl)"
# shellcheck disable=SC2086
"$cc" "$ROOT/tests/install/consumer.c" -o "$exe" $flags
run "$exe"
echo "consumer: pkg-config route ($flags) built and ran"

# The archive tool is installed beside the library: it packs a folder, and
# the archive verifies.
kivtool="$prefix/bin/kivtool"
[ "$target" = win64 ] && kivtool="$kivtool.exe"
mkdir -p "$work/tree/sub"
echo "installed" >"$work/tree/sub/item.txt"
if [ "$target" = win64 ]; then
    /usr/lib/wine/wine64 "$kivtool" pack "$work/tree.kiv" "$work/tree"
    /usr/lib/wine/wine64 "$kivtool" verify "$work/tree.kiv"
else
    "$kivtool" pack "$work/tree.kiv" "$work/tree"
    "$kivtool" verify "$work/tree.kiv"
fi
echo "consumer: the installed kivtool packed and verified an archive"
