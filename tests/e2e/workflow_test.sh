#!/usr/bin/env bash
# The Snakemake workflow in 3 shards gives the FASTQ records and summary rows of one plain pair run, with
# a given index and from raw reads (whose gathered single-strand outputs are those of one run). A shard
# that lost its last pair is redone by a rerun, and only that shard.
#
#   workflow_test.sh BIN_DIR [SNAKEMAKE]
set -euo pipefail
shopt -s nullglob
BIN=$(cd "$1" && pwd)
SNAKEMAKE=${2:-snakemake}
SNAKEFILE=$(cd "$(dirname "$0")/../../workflow" && pwd)/Snakefile
WORK=$(mktemp -d /tmp/kvx_workflow.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
cd "$WORK"

"$BIN/read_simulator" --output data --seed 6210 --molecules 8 --min_length 1500 --max_length 3000 \
    --pair_fraction 1.0 --reads_per_file 5 >/dev/null
cp -r data/reads raw
(cd raw && md5sum -- *.rawh5) >raw.md5
"$BIN/basecaller_1d" --input_path data/reads --save_path ss --workers 2 --quiet >/dev/null
# A pass mark in the middle of this set's qualities (about 17.4 to 17.6), so both folders get records.
ARGS="--flowcell KFC-R1A --kit KLK-D210 --qscore_filtering --min_qscore 17.5 --records_per_fastq 2"
# shellcheck disable=SC2086
"$BIN/basecaller_1d2" $ARGS --index_file ss/index_1d.tsv --input_path data/reads --save_path plain \
    --num_callers 2 --quiet

workflow() {
    "$SNAKEMAKE" -s "$SNAKEFILE" --cores 2 --quiet --config bin="$BIN" shards=3 args="$ARGS" "$@" >>snakemake.log 2>&1 ||
        { cat snakemake.log; echo "FAIL: snakemake $*"; exit 1; }
}
workflow reads=data/reads index=ss/index_1d.tsv out=with_index
workflow reads=raw out=from_raw
status=0
fail() { echo "FAIL: $*"; status=1; }

# Records and rows as sorted lines; no summary column may differ between runs (no paths or clocks).
outputs() {
    for folder in pass fail; do
        cat /dev/null "$1/$folder"/*.fastq 2>/dev/null | paste - - - - | sed "s/^/$folder\t/"
    done | sort >"$1.records"
    head -n 1 "$1/sequencing_summary.txt" >"$1.rows"
    tail -n +2 "$1/sequencing_summary.txt" | sort >>"$1.rows"
}
outputs plain
records=$(wc -l <plain.records)
[ "$records" -ge 4 ] || fail "the plain run gave only $records records"

compare() {
    outputs "$1"
    cmp -s plain.records "$1.records" || fail "$1: FASTQ records differ from the plain run"
    cmp -s plain.rows "$1.rows" || fail "$1: summary rows differ from the plain run"
    # Renumbered on merge: per folder and run id, numbers 0..n-1, no file over the record limit.
    /usr/bin/env python3 - "$1" <<'PY' || status=1
import collections, glob, os, re, sys
numbers = collections.defaultdict(list)
for path in glob.glob(os.path.join(sys.argv[1], "pass", "*")) + glob.glob(os.path.join(sys.argv[1], "fail", "*")):
    m = re.fullmatch(r"fastq_runid_(.+)_([0-9]+)\.fastq", os.path.basename(path))
    numbers[(os.path.dirname(path), m and m.group(1))].append(int(m.group(2)) if m else -1)
    if sum(1 for _ in open(path)) > 4 * 2:
        sys.exit("FAIL: %s holds more than 2 records" % path)
bad = [(key, sorted(found)) for key, found in numbers.items() if sorted(found) != list(range(len(found)))]
sys.exit("FAIL: file numbers %s" % bad if bad else 0)
PY
}
compare with_index
compare from_raw
for table in index_1d.tsv calls_1d.fastq; do
    cmp -s "ss/$table" "from_raw/single_strand/$table" || fail "gathered single-strand $table differs from one run's"
done
(cd raw && md5sum --quiet -c ../raw.md5) || fail "the single-strand jobs wrote into the input read files"
[ "$(ls with_index/telemetry | wc -l)" = 3 ] || fail "not every shard's telemetry was kept"

# A shard's last row cut, as a kill leaves it, and the job unfinished: a rerun redoes that shard only.
shard=with_index/shards/shard_1_of_3
[ "$(wc -l <$shard/sequencing_summary.txt)" -ge 2 ] || fail "shard 1 of 3 has no pairs; choose another set"
head -n -1 $shard/sequencing_summary.txt >cut && printf 'half a row' >>cut && mv cut $shard/sequencing_summary.txt
rm $shard.done with_index/sequencing_summary.txt
workflow reads=data/reads index=ss/index_1d.tsv out=with_index
compare with_index
attempts() { grep -c '^== exit' "with_index/logs/steps/pairs/$1.log"; }
[ "$(attempts shard_1_of_3)" = 2 ] || fail "the cut shard was not run again"
[ "$(attempts shard_0_of_3)" = 1 ] || fail "an untouched shard was run again"

# Options the workflow sets itself are refused with a message, before anything runs.
if "$SNAKEMAKE" -s "$SNAKEFILE" -n --cores 2 --config bin="$BIN" reads=raw out=refused args="--save_path x" >refused.log 2>&1 ||
    ! grep -q "the workflow sets --save_path itself" refused.log; then
    fail "a --save_path in args was not refused with a message"
fi

echo "plain run: $records records ($(grep -c "^fail" plain.records) in fail/), $(($(wc -l <plain.rows) - 1)) summary rows; workflow (3 shards, 2 cores):" \
    "$([ $status = 0 ] && echo same outputs with a given index, from raw reads and after a resumed shard || echo differences)"
exit $status
