#!/usr/bin/env bash
# Sets up the machine, builds everything and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --parallel "$(nproc)"
ctest --test-dir build --output-on-failure --parallel "$(nproc)"
