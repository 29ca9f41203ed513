#!/usr/bin/env bash
# End-to-end check of a pair run on a small fixed-seed simulated set: the single-strand step annotates
# the reads, basecaller_1d2 calls the pairs with the shipped workflow, and then
#   - the program ends with 0 and its FASTQ files are read by an ordinary consumer (seqkit);
#   - every pair found has exactly one summary row;
#   - pass and fail folders follow min_qscore, and only pairs with a sequence have a record;
#   - the median pair error is at most half the better single strand's median error.
set -euo pipefail
BIN=$1
WORK=$(mktemp -d /tmp/kvx_e2e.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
MIN_Q=6.5

"$BIN/read_simulator" --output "$WORK/data" --seed 5 --molecules 14 --min_length 2000 --max_length 5000 \
    --pair_fraction 0.8 >/dev/null
"$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2 --quiet >/dev/null
"$BIN/basecaller_1d2" --flowcell KFC-R1A --kit KLK-D210 --index_file "$WORK/ss/index_1d.tsv" \
    --input_path "$WORK/data/reads" --save_path "$WORK/pairs" --num_callers 2 --cpu_threads_per_caller 1 \
    --qscore_filtering --min_qscore "$MIN_Q" --quiet

shopt -s nullglob
fastq=("$WORK"/pairs/pass/*.fastq "$WORK"/pairs/fail/*.fastq)
[ ${#fastq[@]} -gt 0 ] || { echo "no FASTQ written"; exit 1; }
records=$(seqkit fx2tab -n "${fastq[@]}" | wc -l)
seqkit stats -T "${fastq[@]}" >/dev/null

pairs_found=$(grep -o 'Found [0-9]* read pairs' "$WORK"/pairs/marlo_basecaller_1d2_log-*.log | grep -o '[0-9]*')
"$BIN/evaluate_calls" --truth "$WORK/data/truth.fasta" --pairs "$WORK/data/truth_pairs.tsv" \
    --single "$WORK/ss/calls_1d.fastq" --pair_calls "${fastq[@]}" --json "$WORK/identity.json"

/usr/bin/python3 - "$WORK" "$pairs_found" "$records" "$MIN_Q" <<'PY'
import csv, glob, json, os, sys
work, pairs_found, records, min_q = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), float(sys.argv[4])
rows = list(csv.DictReader(open(os.path.join(work, "pairs", "sequencing_summary.txt")), delimiter="\t"))
errors = []
keys = [(r["read_id1"], r["read_id2"]) for r in rows]
if pairs_found == 0:
    errors.append("no pairs found")
if len(rows) != pairs_found or len(set(keys)) != len(keys):
    errors.append("%d summary rows (%d distinct) for %d pairs" % (len(rows), len(set(keys)), pairs_found))
def ids(folder):
    out = set()
    for path in glob.glob(os.path.join(work, "pairs", folder, "*.fastq")):
        with open(path) as f:
            for i, line in enumerate(f):
                if i % 4 == 0:
                    out.add(line[1:].split()[0])
    return out
passed, failed = ids("pass"), ids("fail")
with_sequence = [r for r in rows if int(r["sequence_length"]) > 0]
if records != len(with_sequence):
    errors.append("%d FASTQ records for %d pairs with a sequence" % (records, len(with_sequence)))
for r in with_sequence:
    should_pass = float(r["mean_qscore"]) >= min_q
    if (r["passes_filtering"] == "TRUE") != should_pass:
        errors.append("passes_filtering of %s disagrees with its mean qscore" % r["read_id1"])
    if (r["read_id1"] in passed) != should_pass or (r["read_id1"] in failed) == should_pass:
        errors.append("record of %s is in the wrong folder" % r["read_id1"])
identity = json.load(open(os.path.join(work, "identity.json")))
single = max(identity["strand1"]["median_identity"], identity["strand2"]["median_identity"])
pair = identity["pairs"]["median_identity"]
print("pairs %d, records %d (pass %d, fail %d), median identity: pairs %.4f, best strand %.4f"
      % (pairs_found, records, len(passed), len(failed), pair, single))
# A regression floor with a margin: pairs must gain at least two points over the better strand.
# Relative to the strands' error, so that a better model does not make the check vacuous or fail it:
# two readings of one molecule should at least halve the error.
if not (1.0 - pair) <= 0.5 * (1.0 - single):
    errors.append("pair error %.4f is not at most half the better strand's %.4f" % (1.0 - pair, 1.0 - single))
for e in errors:
    print("FAIL:", e)
sys.exit(1 if errors else 0)
PY
