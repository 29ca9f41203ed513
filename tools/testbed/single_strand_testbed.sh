#!/bin/sh
# The single-strand half of the test bed, end to end: simulate a fixed-seed data set, annotate it with
# basecaller_1d (segmentation, moves and calls written into the read files, plus an index), measure the
# single-strand identities, and estimate the label mismatch table from the calls of the true pairs.
#
#   tools/testbed/single_strand_testbed.sh [BUILD_DIR] [WORK_DIR] [TABLE]
#
# BUILD_DIR defaults to build, WORK_DIR to testbed_data (replaced), TABLE to WORK_DIR/mismatch_table.txt.
# The shipped data/mismatch_table_r1.txt is made with TABLE=data/mismatch_table_r1.txt once the shipped
# model is final. SEED, MOLECULES and WORKERS may be set in the environment (defaults 1, 200, 2).
set -eu
BUILD=${1:-build}
WORK=${2:-testbed_data}
TABLE=${3:-$WORK/mismatch_table.txt}
SEED=${SEED:-1}
MOLECULES=${MOLECULES:-200}
WORKERS=${WORKERS:-2}

for tool in read_simulator basecaller_1d evaluate_calls estimate_mismatch_table; do
    if [ ! -x "$BUILD/bin/$tool" ]; then
        echo "missing $BUILD/bin/$tool: cmake --build $BUILD --target $tool" >&2
        exit 1
    fi
done

rm -rf "$WORK"
"$BUILD/bin/read_simulator" --output "$WORK" --seed "$SEED" --molecules "$MOLECULES"
"$BUILD/bin/basecaller_1d" --input_path "$WORK/reads" --save_path "$WORK/calls_1d" --workers "$WORKERS"
"$BUILD/bin/evaluate_calls" --truth "$WORK/truth.fasta" --pairs "$WORK/truth_pairs.tsv" \
    --single "$WORK/calls_1d/calls_1d.fastq" --json "$WORK/calls_1d/identity.json"
"$BUILD/bin/estimate_mismatch_table" --truth_dir "$WORK" --index "$WORK/calls_1d/index_1d.tsv" --output "$TABLE"
