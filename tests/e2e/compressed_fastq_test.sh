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

status=0
if "$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/killed" --resume >/dev/null 2>&1; then
    echo "FAIL: a compressed save path was resumed without --compress_fastq"
    status=1
elif ! grep -q "holds compressed FASTQ files of the run to resume" "$WORK"/killed/marlo_basecaller_1d2_log-*.log; then
    echo "FAIL: the refusal to resume without --compress_fastq is not in the log"
    status=1
fi
"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/killed" --compress_fastq --resume

# Records of a save path per folder, as seqkit reads them, in one sorted list.
records() {
    for sub in pass fail; do
        [ -d "$1/$sub" ] || continue
        find "$1/$sub" -name 'fastq_runid_*' -type f -print0 | sort -z | xargs -0 -r seqkit fx2tab |
            sed "s|^|$sub\t|"
    done | sort
}
records "$WORK/plain" >"$WORK/plain.tsv"
n=$(wc -l <"$WORK/plain.tsv")
[ "$n" -ge 4 ] || { echo "FAIL: the plain run has only $n records"; status=1; }
for run in gz killed; do
    records "$WORK/$run" >"$WORK/$run.tsv"
    if ! cmp -s "$WORK/plain.tsv" "$WORK/$run.tsv"; then
        echo "FAIL: $run: the records differ from the plain run's:"
        diff "$WORK/plain.tsv" "$WORK/$run.tsv" | cut -c 1-120 | head -n 6
        status=1
    fi
    if [ -n "$(find "$WORK/$run" -name '*.fastq')" ]; then
        echo "FAIL: $run: plain FASTQ files in a compressed run"
        status=1
    fi
    # Every file is whole gzip to its last byte: no cut member and nothing after the last member.
    for f in "$WORK/$run"/*/*.fastq.gz; do
        gzip -t "$f" || { echo "FAIL: $run: $f is not a whole gzip file"; status=1; }
    done
done
# Roll-over and numbering as for plain files: the same names, plus ".gz".
plain_names=$(cd "$WORK/plain" && find . -name '*.fastq' | sed 's/$/.gz/' | sort)
gz_names=$(cd "$WORK/gz" && find . -name '*.fastq.gz' | sort)
if [ "$plain_names" != "$gz_names" ]; then
    echo "FAIL: file names differ: plain+.gz [$plain_names] compressed [$gz_names]"
    status=1
fi
echo "$n records; compressed and killed-then-resumed compressed runs agree: $([ $status = 0 ] && echo yes || echo no)"
exit $status
