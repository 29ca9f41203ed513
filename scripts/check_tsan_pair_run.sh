#!/usr/bin/env bash
# ThreadSanitizer check of the read pipeline as it really runs: a small fixed-seed simulated set goes
# through the single-strand step and a pair run of 2 callers x 2 threads with the default log settings
# (core file, standard error, standard output), so every thread logs while the others work. The
# pipeline's unit test programs run under the same options. Any report, or any non-zero exit, fails.
#
#   scripts/check_tsan_pair_run.sh [build-dir]      (default: build-tsan, configured if needed)
#
# KVX_BUILD_JOBS sets the build's parallelism (default 1: the build is slow and the cores are shared).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$ROOT/build-tsan}
JOBS=${KVX_BUILD_JOBS:-1}
SUPP=$ROOT/scripts/tsan.supp
PROGRAMS=(basecaller_1d2 basecaller_1d read_simulator)
TESTS=(test_async_caller test_app test_common)

cmake -S "$ROOT" -B "$BUILD" -G Ninja -DKVX_TSAN=ON -DKVX_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$BUILD" --parallel "$JOBS" --target "${PROGRAMS[@]}" "${TESTS[@]}" >/dev/null
BIN=$BUILD/bin
# A build without the sanitizer would pass every step below and prove nothing.
ldd "$BIN/basecaller_1d2" | grep libtsan >/dev/null || { echo "FAIL: $BIN/basecaller_1d2 is not built with ThreadSanitizer"; exit 1; }

WORK=$(mktemp -d /tmp/kvx_tsan.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
export TSAN_OPTIONS="suppressions=$SUPP halt_on_error=1 exitcode=66 second_deadlock_stack=1"
failures=0

# step NAME COMMAND...: runs one program with its output kept aside; a non-zero exit or a report
# fails the check, and the first report is shown.
step() {
    local name=$1
    shift
    local start=$SECONDS rc=0
    "$@" >"$WORK/$name.out" 2>"$WORK/$name.err" || rc=$?
    local reports
    reports=$(grep -c "WARNING: ThreadSanitizer" "$WORK/$name.err" || true)
    printf '%-18s exit %3d, %d reports, %4d s\n' "$name" "$rc" "$reports" $((SECONDS - start))
    if [ "$rc" -ne 0 ] || [ "$reports" -ne 0 ]; then
        failures=$((failures + 1))
        sed -n '/WARNING: ThreadSanitizer/,/^SUMMARY: ThreadSanitizer/p' "$WORK/$name.err" | head -80
        if [ "$reports" -eq 0 ]; then
            grep -E '^\[  FAILED  \]|Failure$' "$WORK/$name.out" | head -20 || true
            tail -20 "$WORK/$name.err"
        fi
    fi
}

for test in "${TESTS[@]}"; do
    step "$test" "$BIN/$test"
done

# Eight molecules, all of them pairs: long enough that each strand makes some twenty chunks and the
# four chunk threads stay busy together, short enough for a few minutes under the sanitizer.
step read_simulator "$BIN/read_simulator" --output "$WORK/data" --seed 11 --molecules 8 --pair_fraction 1.0 \
    --min_length 1500 --max_length 3000
step basecaller_1d "$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2
step basecaller_1d2 "$BIN/basecaller_1d2" --flowcell KFC-R1A --kit KLK-D210 --index_file "$WORK/ss/index_1d.tsv" \
    --input_path "$WORK/data/reads" --save_path "$WORK/pairs" --num_callers 2 --cpu_threads_per_caller 2

# The pair run must have done its work, or a clean report would mean nothing.
pairs=$(cat "$WORK"/pairs/marlo_basecaller_1d2_log-*.log 2>/dev/null | grep -o 'Found [0-9]* read pairs' | grep -o '[0-9]*' || true)
rows=0
if [ -f "$WORK/pairs/sequencing_summary.txt" ]; then
    rows=$(($(wc -l <"$WORK/pairs/sequencing_summary.txt") - 1))
fi
echo "pairs found ${pairs:-none}, summary rows $rows"
if [ -z "$pairs" ] || [ "$pairs" -lt 2 ] || [ "$rows" -ne "$pairs" ]; then
    echo "FAIL: the pair run did not call its pairs"
    failures=$((failures + 1))
fi

if [ "$failures" -ne 0 ]; then
    echo "ThreadSanitizer check FAILED ($failures step(s))"
    exit 1
fi
echo "ThreadSanitizer check passed"
