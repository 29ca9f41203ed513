#!/usr/bin/env bash
# The whole workflow on a small simulated data set, from a fresh machine:
#   1. install the system packages and build the programs;
#   2. simulate 50 molecules (fixed seed) with the test bed's read simulator;
#   3. run the single-strand step, which writes segmentation, moves and calls into the read files and
#      the index that pairs are found in;
#   4. call the pairs with basecaller_1d2 and the shipped workflow (selected by flow cell and kit);
#   5. print the accuracy report against the truth: pair yield and the failure messages of the log,
#      identities of single-strand and pair calls, quality calibration and the pass/fail counts;
#   6. make the run's report page (demo_out/run_report.html).
# Everything lands in demo_out/ (replaced on each run).
set -euo pipefail
cd "$(dirname "$0")/.."
OUT=${OUT:-demo_out}
THREADS=$(nproc)

scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --parallel "$THREADS" --target basecaller_1d2 read_simulator basecaller_1d evaluate_calls

rm -rf "$OUT"
echo "== Simulating reads"
build/bin/read_simulator --output "$OUT/data" --seed 7 --molecules 50 --max_length 12000
echo "== Single-strand step"
build/bin/basecaller_1d --input_path "$OUT/data/reads" --save_path "$OUT/single_strand" --workers "$THREADS" --quiet
echo "== Pair calling"
build/bin/basecaller_1d2 --flowcell KFC-R1A --kit KLK-D210 \
    --index_file "$OUT/single_strand/index_1d.tsv" --input_path "$OUT/data/reads" --save_path "$OUT/pairs" \
    --num_callers "$THREADS" --cpu_threads_per_caller 1 --qscore_filtering
echo "== Accuracy against the truth"
/usr/bin/python3 tools/accuracy/accuracy_report.py --data "$OUT/data" --single_strand "$OUT/single_strand" \
    --pairs "$OUT/pairs" --out "$OUT/report" --evaluate_calls build/bin/evaluate_calls
echo "== Run report"
/usr/bin/python3 tools/report/run_report.py --pairs "$OUT/pairs" --out "$OUT/run_report.html" --data "$OUT/data" \
    --single_strand "$OUT/single_strand" --evaluate_calls build/bin/evaluate_calls
echo "Outputs: $OUT/pairs (FASTQ, sequencing_summary.txt, telemetry, logs), $OUT/report (report.json, report.png),"
echo "         $OUT/run_report.html (the run at a glance: open it in a browser)"
