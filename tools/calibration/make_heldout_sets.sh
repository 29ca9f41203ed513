#!/usr/bin/env bash
# Simulates the held-out sets that qualities are calibrated on and defaults are tuned on, and runs
# the single-strand step on each (its index is what a pair run reads).
#   tools/calibration/make_heldout_sets.sh [BUILD_DIR] [WORK_DIR] [MOLECULES]
# Every molecule is followed by its second strand, with lengths from 2 to 50 kb. The seeds are their
# own: never those of the training data (1001, 1002, 4001-4012), the model's held-out sets
# (5001-5006), the demo (7), the benchmark (3) or the tests.
# The sets named fit* are the fitting sets: one at the defaults with MOLECULES molecules, and four at
# other settings with half as many, so that qualities are fitted over runs that behave differently.
# The others measure, each at one setting away from the defaults. SIMULATE_ONLY=1 stops before the
# single-strand step (simulation needs no model); ONLY="name ..." limits the sets.
set -euo pipefail
BUILD=${1:-build}
WORK=${2:-heldout}
MOLECULES=${3:-40}
HALF=$(((MOLECULES + 1) / 2))
ROOT=$(cd "$(dirname "$0")/../.." && pwd)

# name seed molecules simulator options
SETS=(
    "fit 3101 $MOLECULES"
    "fit_noise_x1.3 3102 $HALF --noise_scale 1.3"
    "fit_dwell_7 3103 $HALF --mean_dwell 7"
    "fit_dwell_12 3104 $HALF --mean_dwell 12"
    "fit_drift_x2 3105 $HALF --drift_scale 2"
    "default 3201 $MOLECULES"
    "noise_x1.3 3202 $MOLECULES --noise_scale 1.3"
    "dwell_7 3203 $MOLECULES --mean_dwell 7"
    "dwell_12 3204 $MOLECULES --mean_dwell 12"
    "drift_x2 3205 $MOLECULES --drift_scale 2"
    "scale_spread_x2 3206 $MOLECULES --scale_spread 0.08"
)
ONLY=${ONLY:-}
mkdir -p "$WORK"
for entry in "${SETS[@]}"; do
    read -r name seed molecules options <<<"$entry"
    if [ -n "$ONLY" ] && [[ " $ONLY " != *" $name "* ]]; then
        continue
    fi
    dir="$WORK/$name"
    if [ -f "$dir/done" ]; then
        continue
    fi
    if [ ! -f "$dir/simulated" ]; then
        rm -rf "$dir"
        # shellcheck disable=SC2086
        "$BUILD/bin/read_simulator" --pore_model "$ROOT/data/pore_model_6mer.txt" --output "$dir/data" \
            --seed "$seed" --molecules "$molecules" --min_length 2000 --max_length 50000 \
            --pair_fraction 1.0 $options >"$dir.simulator.log"
        echo "$name $seed $molecules $options" >"$dir/simulated"
    fi
    if [ "${SIMULATE_ONLY:-0}" = 1 ]; then
        continue
    fi
    # The fitting sets are called with qualities as the network gives them (scale 1, offset 0), the
    # others with the program's calibrated defaults. The step writes its calls into the read files,
    # so a set is called once; to call it again with another model, make it again.
    raw=()
    if [[ "$name" == fit* ]]; then
        raw=(--qscore_scale 1 --qscore_offset 0)
    fi
    rm -rf "$dir/ss"
    "$BUILD/bin/basecaller_1d" --input_path "$dir/data/reads" --save_path "$dir/ss" --workers "$(nproc)" \
        --quiet "${raw[@]}"
    cp "$dir/simulated" "$dir/done"
done
