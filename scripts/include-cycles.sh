#!/usr/bin/env bash
# Finds include cycles among the library's own files.
#
#   scripts/include-cycles.sh
#
# Reads every #include "..." of the library (kernel, memory, thread, file,
# archive, platform, include) and checks two graphs for loops:
#   files    a file includes another, which includes it back (directly or
#            through others): such a loop fails the check
#   modules  x.h and x.cpp count as one module x: a module whose source uses
#            another's header while that one's source uses its header back
#            depends on the other's names both ways; these loops are listed,
#            and fail the check only with --modules
# A quoted include is looked up beside the including file, then from the
# repository's root, then in include/ (as the build's include paths do);
# what is found nowhere (generated headers) is left out. Prints each loop;
# exits 1 when a loop that fails the check was found.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
cd "$ROOT"
strict_modules=0
[ "${1:-}" = --modules ] && strict_modules=1

DIRS=(kernel memory thread file archive platform include)

# "from to" for every quoted include that resolves to a library file.
edges() {
    local file included dir target
    while IFS= read -r file; do
        dir=$(dirname "$file")
        while IFS= read -r included; do
            target=""
            if [ -f "$dir/$included" ]; then
                target="$dir/$included"
            elif [ -f "$included" ]; then
                target="$included"
            elif [ -f "include/$included" ]; then
                target="include/$included"
            fi
            [ -n "$target" ] || continue
            # a/b/../c -> a/c
            target=$(realpath -m --relative-to=. "$target")
            printf '%s %s\n' "$file" "$target"
        done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
    done < <(find "${DIRS[@]}" -type f \( -name '*.h' -o -name '*.cpp' -o -name '*.inl' \) | sort)
}

# The loops tsort reports, one a line ("a -> b -> a"), for "from to" pairs.
loops() {
    # tsort lists each loop's members on standard error, one per line, after
    # a line saying it found one; it then breaks the loop and goes on.
    { tsort 2>&1 >/dev/null || true; } | awk '
        /input contains a loop/ { if (n) print line " -> " first; n = 0; next }
        { sub(/^tsort: /, ""); if (!n) { first = $0; line = $0 } else line = line " -> " $0; n++ }
        END { if (n) print line " -> " first }'
}

all=$(edges)
file_loops=$(printf '%s\n' "$all" | loops)
module_loops=$(printf '%s\n' "$all" | awk '{
        a = $1; b = $2; sub(/\.(h|cpp|inl)$/, "", a); sub(/\.(h|cpp|inl)$/, "", b)
        if (a != b) print a, b }' | sort -u | loops)

edge_count=$(printf '%s\n' "$all" | grep -c . || true)
status=0
if [ -n "$file_loops" ]; then
    echo "include cycles between files:"
    printf '%s\n' "$file_loops" | sed 's/^/  /'
    status=1
fi
if [ -n "$module_loops" ]; then
    echo "include cycles between modules (x.h with x.cpp):"
    printf '%s\n' "$module_loops" | sed 's/^/  /'
    [ $strict_modules -eq 1 ] && status=1
fi
if [ $status -eq 0 ]; then
    echo "include-cycles: $edge_count quoted includes, no cycle between files"
fi
exit $status
