#!/usr/bin/env bash
# Makes the seed corpora of the archive fuzz targets with the archive tool:
#   fuzz/corpus/archive/       small archives in every layout option
#   fuzz/corpus/slide_expand/  packed directories of those archives, each
#                              behind the two-byte destination size the
#                              target reads first
# Usage: fuzz/make-archive-seeds.sh path/to/kivtool
set -euo pipefail
KIVTOOL=$1
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
mkdir -p "$WORK/tree/Dir/Sub" "$ROOT/fuzz/corpus/archive" "$ROOT/fuzz/corpus/slide_expand"
printf 'alpha' >"$WORK/tree/a.txt"
printf 'BETA beta BETA beta BETA beta' >"$WORK/tree/Dir/B.BIN"
printf '' >"$WORK/tree/Dir/empty"
printf '\x83\x65\x83\x58' >"$WORK/tree/Dir/Sub/$(printf 'k\x83\x41.dat')"
# A child archive inside the tree.
mkdir -p "$WORK/child"
printf 'inner' >"$WORK/child/inner.txt"
"$KIVTOOL" pack "$WORK/tree/child.kiv" "$WORK/child"
n=0
for header in "" --header32; do
    for packed in "" --packed-directory; do
        [ -n "$header" ] && [ -n "$packed" ] && continue
        for folded in "" --folded-names; do
            for order in "" --stored-order; do
                out="$ROOT/fuzz/corpus/archive/seed$n.kiv"
                # shellcheck disable=SC2086
                "$KIVTOOL" pack $header $packed $folded $order --entry-size $((12 + 4 * (n % 3))) "$out" "$WORK/tree"
                if [ -n "$packed" ]; then
                    python3 - "$out" "$ROOT/fuzz/corpus/slide_expand/seed$n.bin" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read()
count, entry, names = struct.unpack_from('<HHI', data, 20)
packed, = struct.unpack_from('<I', data, 32)
size = count * entry + names
open(sys.argv[2], 'wb').write(struct.pack('<H', size & 0xFFFF) + data[48:48 + packed])
PY
                fi
                n=$((n + 1))
            done
        done
    done
done
echo "made $n archive seeds"
