#!/usr/bin/env bash
# Builds the AddressSanitizer programs of a pair run and runs the damaged-read-file test with them:
# no sanitizer report (leaks included), bad pairs dropped with a message, the others called as in a
# clean run. --full runs every kind of damage twice over (some 600 damaged pairs, long) instead of a
# sample of 30.
#
#   scripts/check_damaged_reads.sh [--full] [--keep DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${BUILD_ASAN:-build-asan}
if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    cmake -S . -B "$BUILD" -G Ninja -DKVX_ASAN=ON -DKVX_BUILD_BENCHMARKS=OFF
fi
# Only what the test runs; the machine is shared, so at most two compile jobs.
cmake --build "$BUILD" --parallel 2 --target basecaller_1d2 basecaller_1d read_simulator kvx_data
exec tests/e2e/damaged_pairs_test.sh "$BUILD/bin" "$@"
