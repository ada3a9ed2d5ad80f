#!/usr/bin/env bash
# Mutation check of the test suite: applies each one-line fault listed in
# scripts/mutants.txt in turn to a scratch copy of the tree, builds the
# library and the test programs the entry names (Release, ccache), runs them
# under a time limit and reports whether the suite caught the fault.
#
#   scripts/mutants.sh [NAME-PATTERN...]     (default: every mutant)
#
# Outcomes: caught (a named program failed or hung), survived (all passed),
# n/a (the fragment is no longer found exactly once: the code moved on),
# no-build (the fault does not compile; fix the entry), flaky (a named
# program already fails without the fault, so nothing can be said).
#
# Environment:
#   ZK_MUTANT_DIR   scratch folder (default: <repo>/build-mutants); the copy
#                   lives in $ZK_MUTANT_DIR/src, its build in src/build-rel
#   ZK_MUTANT_JOBS  ninja jobs (default 2)
#   ZK_MUTANT_TIME  seconds each test program may run (default 60)
#   ZK_MUTANT_LIST  the list (default: scripts/mutants.txt)
#
# The real tree is never written: the copy is refreshed from it (tracked and
# untracked-but-not-ignored files) at every start. Not part of CI.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
scratch=${ZK_MUTANT_DIR:-$repo/build-mutants}
src=$scratch/src
build=$src/build-rel
jobs=${ZK_MUTANT_JOBS:-2}
limit=${ZK_MUTANT_TIME:-60}
list=${ZK_MUTANT_LIST:-$repo/scripts/mutants.txt}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-/work} CCACHE_NOHASHDIR=1

# ---- the scratch copy ------------------------------------------------------------
mkdir -p "$src"
(cd "$repo" && git ls-files -co --exclude-standard -z) |
    tar -C "$repo" --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -C "$src" -xf -
# The copy keeps the tree's times, which can be older than objects built from
# a fault: every file a fault touched is made newer than its objects again.
if [ -f "$scratch/mutated.list" ]; then
    while IFS= read -r f; do [ -f "$src/$f" ] && touch "$src/$f"; done <"$scratch/mutated.list"
fi
if [ ! -f "$build/build.ninja" ]; then
    cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
        -DZK_BUILD_BENCH=OFF -DZK_BUILD_FUZZ=OFF >/dev/null
fi

# ---- the list ----------------------------------------------------------------------
# Each entry:  [name] where program...   where: a file or a folder of the tree
#              - original fragment       (text of one line, found exactly once)
#              + replacement             (may be empty: the fragment is dropped)
# A fragment may span lines with \n. '#' starts a comment line.
names=() wheres=() programs=() froms=() tos=()
while IFS= read -r line || [ -n "$line" ]; do
    case "$line" in
    '#'* | '') ;;
    '['*)
        read -r head where rest <<<"$line"
        names+=("${head#[}") && names[-1]=${names[-1]%]}
        wheres+=("$where") programs+=("$rest") froms+=("") tos+=("")
        ;;
    '- '*) froms[-1]=${line#- } ;;
    '+ '* | '+') tos[-1]=${line#+} && tos[-1]=${tos[-1]# } ;;
    *) echo "mutants.txt: cannot read: $line" >&2 && exit 2 ;;
    esac
done <"$list"

patterns=("$@")
selected() {
    [ ${#patterns[@]} -eq 0 ] && return 0
    local p
    for p in "${patterns[@]}"; do [[ $1 == $p ]] && return 0; done
    return 1
}

# Applies or reverts entry i on the copy. Prints the file it changed; fails
# when the fragment is not found exactly once under the entry's place.
apply() {
    python3 - "$src" "$1" "$2" "$3" "$scratch/original" <<'EOF'
import os, sys
root, where, frm, to, keep = sys.argv[1:6]
frm = frm.replace('\\n', '\n'); to = to.replace('\\n', '\n')
base = os.path.join(root, where)
files = [base] if os.path.isfile(base) else [
    os.path.join(d, f) for d, _, fs in os.walk(base) for f in fs
    if f.endswith(('.cpp', '.h')) and not os.path.relpath(d, root).startswith('build')]
hits = [(f, t) for f in files for t in [open(f, encoding='utf-8').read()] if frm in t]
if len(hits) != 1 or hits[0][1].count(frm) != 1:
    sys.exit(1)
f, text = hits[0]
with open(keep, 'w', encoding='utf-8') as out:
    out.write(text)
with open(f, 'w', encoding='utf-8') as out:
    out.write(text.replace(frm, to))
print(os.path.relpath(f, root))
EOF
}

# Runs the named programs; 0 when all pass.
run_programs() {
    local p status=0
    for p in $1; do
        (cd "$build/tests" && timeout -k 10 "$limit" "../bin/$p" --gtest_brief=1 >"$scratch/last.log" 2>&1) ||
            { status=1 && break; }
    done
    return $status
}

build_programs() {
    ninja -C "$build" -j "$jobs" qaxkrnl $1 >"$scratch/build.log" 2>&1
}

# ---- baseline: every named program passes on the unchanged copy -------------------
all_programs=$(printf '%s\n' "${programs[@]}" | tr ' ' '\n' | sort -u | tr '\n' ' ')
echo "building $all_programs"
build_programs "$all_programs" || { tail -20 "$scratch/build.log" && exit 2; }
declare -A broken=()
for p in $all_programs; do
    # A program is tried twice: a run that fails once on a busy machine is not broken.
    if ! run_programs "$p" && ! run_programs "$p"; then
        cp "$scratch/last.log" "$scratch/baseline-$p.log"
        broken[$p]=1
        echo "baseline: $p fails without any fault (its mutants are reported flaky; see $scratch/baseline-$p.log)"
    fi
done

# ---- the mutants ---------------------------------------------------------------------
caught=0 survived=0 na=0 nobuild=0 flaky=0 total=0
results=()
for i in "${!names[@]}"; do
    selected "${names[$i]}" || continue
    total=$((total + 1))
    name=${names[$i]} progs=${programs[$i]}
    outcome=
    for p in $progs; do [ -n "${broken[$p]:-}" ] && outcome=flaky; done
    if [ -z "$outcome" ]; then
        if ! file=$(apply "${wheres[$i]}" "${froms[$i]}" "${tos[$i]}"); then
            outcome=n/a
        else
            echo "$file" >>"$scratch/mutated.list"
            if ! build_programs "$progs"; then
                outcome=no-build
            elif run_programs "$progs"; then
                outcome=survived
            else
                outcome=caught
            fi
            cp "$scratch/original" "$src/$file" # the original back
        fi
    fi
    case $outcome in
    caught) caught=$((caught + 1)) ;;
    survived) survived=$((survived + 1)) ;;
    n/a) na=$((na + 1)) ;;
    no-build) nobuild=$((nobuild + 1)) ;;
    flaky) flaky=$((flaky + 1)) ;;
    esac
    printf '%-10s %-28s %s\n' "$outcome" "$name" "$progs"
    results+=("$outcome $name")
done
echo "total $total: caught $caught, survived $survived, n/a $na, no-build $nobuild, flaky $flaky"
