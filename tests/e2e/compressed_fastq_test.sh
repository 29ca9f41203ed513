#!/usr/bin/env bash
# --compress_fastq writes the records of a plain run, gzip-compressed, in files of the same names plus
# ".gz"; a compressed run killed in the middle of a write and resumed ends with the same records; and a
# compressed save path is not resumed as a plain one. seqkit reads the files, as a user's tools would.
#
#   compressed_fastq_test.sh BIN_DIR
set -euo pipefail
BIN=$1
WORK=$(mktemp -d /tmp/kvx_gzip.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
command -v seqkit >/dev/null || { echo "FAIL: seqkit is not installed (scripts/setup.sh)"; exit 1; }
status=0
fail() { echo "FAIL: $*"; status=1; }

. "$(dirname "$0")/small_pair_set.sh"
small_pair_set "$BIN" "$WORK" 8 2

"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/plain"
"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/gz" --compress_fastq
# The same run, killed while it writes, with what a kill between a record and its row and then inside
# the next record's member leaves; resumed as a plain run (refused), then as a compressed one.
"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/killed" --compress_fastq &
pid=$!
for _ in $(seq 100); do
    [ -n "$(ls "$WORK"/killed/*/*.fastq.gz 2>/dev/null)" ] && break
    sleep 0.1
done
kill -KILL "$pid" 2>/dev/null || true
{ wait "$pid"; } 2>/dev/null || true
last=$(ls -t "$WORK"/killed/*/*.fastq.gz 2>/dev/null | head -n 1 || true)
if [ -n "$last" ]; then
    printf '@no_row_yet runid=x\nACGT\n+\n!!!!\n' | gzip -c >>"$last"
    printf '@cut_inside runid=x\nACGTACGTACGT\n+\n!!!!!!!!!!!!\n' | gzip -c | head -c 25 >>"$last"
fi
"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/killed" --resume >/dev/null 2>&1 &&
    fail "a compressed save path was resumed without --compress_fastq"
grep -q "holds compressed FASTQ files of the run to resume" "$WORK"/killed/marlo_basecaller_1d2_log-*.log ||
    fail "the refusal to resume without --compress_fastq is not in the log"
"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/killed" --compress_fastq --resume

# Records of a save path per folder, as seqkit reads them, in one sorted list.
records() {
    for sub in pass fail; do
        [ -d "$1/$sub" ] || continue
        find "$1/$sub" -name 'fastq_runid_*' -type f -exec seqkit fx2tab {} + 2>/dev/null | sed "s|^|$sub\t|"
    done | sort
}
records "$WORK/plain" >"$WORK/plain.tsv"
n=$(wc -l <"$WORK/plain.tsv")
[ "$n" -ge 4 ] || fail "the plain run has only $n records"
# Roll-over and numbering as for plain files: the same names, plus ".gz".
names=$(cd "$WORK/plain" && find . -name '*.fastq' | sed 's/$/.gz/' | sort)
for run in gz killed; do
    cmp -s "$WORK/plain.tsv" <(records "$WORK/$run") || fail "$run: the records differ from the plain run's"
    [ -z "$(find "$WORK/$run" -name '*.fastq')" ] || fail "$run: plain FASTQ files in a compressed run"
    # Every file is whole gzip to its last byte: no cut member and nothing after the last member.
    for f in "$WORK/$run"/*/*.fastq.gz; do
        gzip -t "$f" || fail "$run: $f is not a whole gzip file"
    done
    [ "$(cd "$WORK/$run" && find . -name '*.fastq.gz' | sort)" = "$names" ] || fail "$run: file names differ"
done
echo "$n records; compressed and killed-then-resumed compressed runs agree: $([ $status = 0 ] && echo yes || echo no)"
exit $status
