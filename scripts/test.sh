#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the whole test suite, then the two sanitizer gates:
# damaged read files through a pair run built with AddressSanitizer (leaks included), and a small
# full pair run with logging on built with ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --parallel "$(nproc)"
ctest --test-dir build --output-on-failure --parallel "$(nproc)"
scripts/check_damaged_reads.sh
KVX_BUILD_JOBS=$(nproc) scripts/check_tsan_pair_run.sh
