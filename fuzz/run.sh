#!/usr/bin/env bash
# Runs each fuzz target (all of fuzz/corpus/, or the ones named) for
# FUZZ_SECONDS seconds (default 60) under nice, one after the other, from the
# seeds in fuzz/corpus/<target>/. What the fuzzer adds to the corpus, and any
# input that broke a target, stay in <FUZZ_BUILD>/fuzz-work/ (default
# build-fuzz). Prints one line a target with its executions and coverage;
# exits 1 when a target found something (its report is printed).
# FUZZ_FLAGS adds libFuzzer options (long runs: -detect_leaks=0, see README).
# Usage: fuzz/run.sh [TARGET...]      (build first: make fuzz does both)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${FUZZ_BUILD:-build-fuzz}
seconds=${FUZZ_SECONDS:-60}
work=$build/fuzz-work
if [[ $# -eq 0 ]]; then
    set -- $(cd fuzz/corpus && ls)
fi
# The targets write their files into a sandbox in TMPDIR: memory is faster.
if [[ -z "${TMPDIR:-}" && -d /dev/shm && -w /dev/shm ]]; then
    export TMPDIR=/dev/shm
fi
# Allocation and free stacks of 2 frames, not 30: the sanitizers find the
# same faults, the targets run about a tenth faster, and a report names the
# faulting place in full. Replay the input for the full stacks.
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=2}
failed=()
for target in "$@"; do
    mkdir -p "$work/corpus/$target" "$work/artifacts/$target"
    log=$work/$target.log
    # Input sizes: a step line (and so a cmd text) is an ini value, shorter
    # than 1,024 characters, so a longer one cannot occur. The loader's
    # properties are about a line and a unit of at most 8 statements, which
    # 1 KB holds many times over. The other targets keep libFuzzer's 4 KB:
    # several lines beyond the limits of 1,023 characters must fit.
    case $target in
        cmd_words | loader_line) len=-max_len=1024 ;;
        step_line) len=-max_len=1200 ;;  # and a condition of up to 80 escaped characters
        *) len= ;;
    esac
    if nice -n 10 "$build/bin/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$work/artifacts/$target/" $len ${FUZZ_FLAGS:-} \
        "$work/corpus/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
        cov=$(grep -o 'cov: [0-9]* ft: [0-9]*' "$log" | tail -n 1)
        echo "fuzz $target: ${runs:-?} executions (at most ${seconds}s), $cov"
    else
        failed+=("$target")
        echo "fuzz $target: FOUND SOMETHING (input kept in $work/artifacts/$target/):"
        grep -v -e '^#' -e '^INFO:' -e 'NEW_FUNC' "$log" | tail -n 40
    fi
done
if [[ ${#failed[@]} -gt 0 ]]; then
    echo "fuzz: ${#failed[@]} target(s) found something: ${failed[*]}"
    exit 1
fi
