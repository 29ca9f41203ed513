#!/usr/bin/env bash
# Speed and memory of a pair run on a fixed simulated data set, with 1 and 2 callers.
#   scripts/bench_pair_run.sh [BUILD_DIR] [WORK_DIR]
# Needs a build with basecaller_1d2, basecaller_1d and read_simulator. The data set (seed 3,
# 40 molecules) is made once in WORK_DIR and reused. Prints, per caller count: pairs, wall seconds,
# pairs per second, CPU seconds (user + system: steadier than wall time on a shared machine), the
# program's own kev/s line and the peak resident memory.
set -euo pipefail
BUILD=${1:-build}
WORK=${2:-bench_pair_run}
if [ ! -f "$WORK/ss/index_1d.tsv" ]; then
    rm -rf "$WORK"
    "$BUILD/bin/read_simulator" --output "$WORK/data" --seed 3 --molecules 40 --max_length 12000 >/dev/null
    "$BUILD/bin/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2 --quiet >/dev/null
fi
printf "%-8s %6s %8s %8s %8s %8s %10s\n" callers pairs seconds pairs/s cpu_s kev/s peak_MiB
for callers in 1 2; do
    out="$WORK/run_$callers"
    rm -rf "$out"
    start=$(date +%s.%N)
    /usr/bin/time -f "%M %U %S" -o "$WORK/rss_$callers" "$BUILD/bin/basecaller_1d2" --flowcell KFC-R1A --kit KLK-D210 \
        --index_file "$WORK/ss/index_1d.tsv" --input_path "$WORK/data/reads" --save_path "$out" \
        --num_callers "$callers" --cpu_threads_per_caller 1 --quiet
    end=$(date +%s.%N)
    log=$(ls "$out"/marlo_basecaller_1d2_log-*.log)
    pairs=$(grep -o 'Found [0-9]* read pairs' "$log" | grep -o '[0-9]*')
    kevs=$(grep -o 'kev/s: [0-9.]*' "$log" | grep -o '[0-9.]*$')
    read -r rss user system < <(tail -n 1 "$WORK/rss_$callers")
    awk -v c="$callers" -v p="$pairs" -v s="$start" -v e="$end" -v k="$kevs" -v r="$rss" -v u="$user" -v y="$system" \
        'BEGIN { t = e - s; printf "%-8d %6d %8.1f %8.3f %8.1f %8s %10.0f\n", c, p, t, p / t, u + y, k, r / 1024 }'
done
