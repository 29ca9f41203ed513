#!/usr/bin/env bash
# Simulates the held-out sets that qualities are calibrated on and defaults are tuned on, and runs
# the single-strand step on each (its index is what a pair run reads).
#   tools/calibration/make_heldout_sets.sh [BUILD_DIR] [WORK_DIR] [MOLECULES]
# Every molecule is followed by its second strand, with lengths from 2 to 50 kb. The seeds are their
# own: never those of the training data (1001, 1002), the demo (7), the benchmark (3) or the tests.
# Set 3101 is the fitting set; the others measure, each at one setting away from the defaults.
set -euo pipefail
BUILD=${1:-build}
WORK=${2:-heldout}
MOLECULES=${3:-40}
ROOT=$(cd "$(dirname "$0")/../.." && pwd)

# name seed simulator options
SETS=(
    "fit 3101 "
    "default 3201 "
    "noise_x1.3 3202 --noise_scale 1.3"
    "dwell_7 3203 --mean_dwell 7"
    "dwell_12 3204 --mean_dwell 12"
    "drift_x2 3205 --drift_scale 2"
    "scale_spread_x2 3206 --scale_spread 0.08"
)
ONLY=${ONLY:-}
mkdir -p "$WORK"
for entry in "${SETS[@]}"; do
    read -r name seed options <<<"$entry"
    if [ -n "$ONLY" ] && [[ " $ONLY " != *" $name "* ]]; then
        continue
    fi
    dir="$WORK/$name"
    if [ -f "$dir/ss/index_1d.tsv" ] && [ -f "$dir/done" ]; then
        continue
    fi
    rm -rf "$dir"
    # shellcheck disable=SC2086
    "$BUILD/bin/read_simulator" --pore_model "$ROOT/data/pore_model_6mer.txt" --output "$dir/data" \
        --seed "$seed" --molecules "$MOLECULES" --min_length 2000 --max_length 50000 --pair_fraction 1.0 \
        $options >"$dir.simulator.log"
    # The fitting set is called with qualities as the network gives them (scale 1, offset 0), the
    # others with the program's calibrated defaults.
    raw=()
    if [ "$name" = fit ]; then
        raw=(--qscore_scale 1 --qscore_offset 0)
    fi
    "$BUILD/bin/basecaller_1d" --input_path "$dir/data/reads" --save_path "$dir/ss" --workers "$(nproc)" \
        --quiet "${raw[@]}"
    echo "$name $seed $options" >"$dir/done"
done
