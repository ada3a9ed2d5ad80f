#!/usr/bin/env bash
# Runs every fuzz target for a given number of executions (default 10
# million) from its committed corpus, then adds to fuzz/corpus/<target>/ the
# inputs that reached code the corpus did not. Not part of CI: a run of all
# targets takes about an hour on one core.
#
#   scripts/fuzz-long.sh FUZZ_BUILD_DIR [runs [target ...]]
#
# FUZZ_ARGS adds libFuzzer options to every run (for example -max_len=512 for
# the pool target, whose checks after every operation make long inputs slow).
set -uo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
build=$1 runs=${2:-10000000}
shift $(($# < 2 ? $# : 2))
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for program in "$build"/bin/fuzz_*; do
    name=$(basename "$program")
    target=${name#fuzz_}
    if [ $# -gt 0 ] && [[ " $* " != *" $target "* ]]; then continue; fi
    corpus="$ROOT/fuzz/corpus/$target"
    mkdir -p "$corpus" "$work/$target"
    start=$(date +%s)
    "$program" -runs="$runs" ${FUZZ_ARGS:-} -print_final_stats=1 -artifact_prefix="$work/$target-" \
        "$work/$target" "$corpus" >"$work/$target.log" 2>&1
    status=$?
    execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/$target.log" | grep -o '[0-9]*$')
    if [ "$status" -ne 0 ]; then
        echo "$target: FINDING after ${execs:-?} runs; see $work/$target.log"
        cp "$work/$target"-* "$corpus/" 2>/dev/null
        trap - EXIT
        continue
    fi
    # Inputs that reach something the committed corpus does not are added to it.
    "$program" -merge=1 "$corpus" "$work/$target" >/dev/null 2>&1
    echo "$target: ${execs:-?} runs in $(($(date +%s) - start)) s, no finding; corpus $(ls "$corpus" | wc -l) inputs"
done
