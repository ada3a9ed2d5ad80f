#!/usr/bin/env bash
# Builds the library and the demo program (Release, in build-demo) and runs it.
#   scripts/demo.sh [demo arguments]
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
DIR="$ROOT/build-demo"

bash "$ROOT/scripts/setup.sh" base
if [ ! -f "$ROOT/examples/demo.cpp" ]; then
    echo "demo.sh: examples/demo.cpp is missing" >&2
    exit 1
fi
cmake -S "$ROOT" -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZK_BUILD_TESTS=OFF
cmake --build "$DIR" --target demo -j 2
exec "$DIR/bin/demo" "$@"
