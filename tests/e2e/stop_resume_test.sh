#!/usr/bin/env bash
# Both steps, stopped and resumed, end with the outputs of a run never stopped. The single-strand step gets
# SIGTERM, then SIGKILL with a cut FASTQ record, its row gone and a dead process's temporary left. The pair
# run: STOPS lists "term:SECONDS", "kill:SECONDS" or "gzkill" (--compress_fastq, once a file is written);
# after a kill come a record without its row, a cut record and half a summary row. Default: one of each.
#
#   stop_resume_test.sh BIN_DIR [STOPS]
set -euo pipefail
# A command that fails outside a check ends the script; say which, so that a rare failure can be read.
trap 'echo "FAIL: line $LINENO: $BASH_COMMAND (exit $?)"' ERR
BIN=$1
WORK=$(mktemp -d /tmp/kvx_resume.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
SEED=${KVX_RESUME_SEED:-$RANDOM}
RANDOM=$SEED
STOPS=${2:-"term:$((1 + RANDOM % 5)) kill:$((1 + RANDOM % 5)) gzkill"}
ROWS=$((1 + RANDOM % 7))
echo "seed $SEED, single-strand stop after $ROWS rows, pair stops: $STOPS"
status=0
fail() { echo "FAIL: $*"; status=1; }

# Short molecules, an untouched copy of the reads in original/; one caller holding few chunks, so that a
# stop leaves pairs to resume, and few records per file, so that files roll over.
"$BIN/read_simulator" --output "$WORK/data" --seed 7 --molecules 12 --min_length 2000 --max_length 4000 \
    --pair_fraction 0.8 --reads_per_file 3 --legacy_fraction 0.25 >/dev/null
cp -r "$WORK/data/reads" "$WORK/original"
"$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2 --quiet >/dev/null
PAIR_OPTS=(--flowcell KFC-R1A --kit KLK-D210 --num_callers 1 --cpu_threads_per_caller 1 --chunks_per_caller 2
           --records_per_fastq 3 --qscore_filtering --min_qscore 6.5 --quiet)
ARGS=("${PAIR_OPTS[@]}" --index_file "$WORK/ss/index_1d.tsv" --input_path "$WORK/data/reads")

rows() { [ -f "$1/index_1d.tsv" ] && echo $(($(wc -l <"$1/index_1d.tsv") - 1)) || echo 0; }
sorted_outputs() { tail -n +2 "$1/index_1d.tsv" | sort; paste - - - - <"$1/calls_1d.fastq" | sort; }
# One worker keeps few reads in hand when the signal comes, so that the stop points differ. The
# program itself goes in the background, not a subshell, so that the signal reaches it.
stop_single_strand() {
    local signal=$1 code=$2 save=$3
    shift 3
    "$BIN/basecaller_1d" --workers 1 --quiet "$@" --save_path "$save" >/dev/null 2>"$save.err" &
    local pid=$! rc=0
    while kill -0 "$pid" 2>/dev/null && [ "$(rows "$save")" -lt "$ROWS" ]; do sleep 0.02; done
    kill "-$signal" "$pid" 2>/dev/null || true
    wait "$pid" || rc=$?
    echo "single-strand $signal after $(rows "$save") of $(rows "$WORK/ss") rows: exit $rc"
    [ "$rc" = "$code" ] || fail "single-strand $signal: exit $rc"
    [ "$(rows "$save")" -lt "$(rows "$WORK/ss")" ] || fail "the stop after $ROWS rows left nothing to resume"
}
cp -r "$WORK/original" "$WORK/term_reads"
stop_single_strand TERM 143 "$WORK/term" --input_path "$WORK/term_reads"
grep -q "run again with --resume to finish" "$WORK/term.err" || fail "no stop message on standard error"
"$BIN/basecaller_1d" --input_path "$WORK/term_reads" --save_path "$WORK/term" --quiet >/dev/null 2>"$WORK/refused" &&
    fail "a second single-strand start without --resume went ahead"
grep -q "add --resume to finish it, or choose another save path" "$WORK/refused" || fail "no refusal message"
"$BIN/basecaller_1d" --input_path "$WORK/term_reads" --save_path "$WORK/term" --resume --quiet >/dev/null
cmp -s <(sorted_outputs "$WORK/ss") <(sorted_outputs "$WORK/term") || fail "single-strand outputs after SIGTERM"

cp -r "$WORK/original" "$WORK/kill_reads"
stop_single_strand KILL 137 "$WORK/kill" --input_path "$WORK/kill_reads" --output_path "$WORK/annotated"
dead=$(sh -c 'echo $$')
cp "$WORK/original/$(ls "$WORK/original" | head -1)" "$WORK/annotated/.$(ls "$WORK/original" | tail -1).partial-$dead"
# awk reads to the end: a reader that quits early could kill the writer with SIGPIPE, which pipefail
# turns into a silent abort of the script.
last=$(tail -n 4 "$WORK/kill/calls_1d.fastq" | awk 'NR == 1 { print substr($1, 2) }')
head -n -3 "$WORK/kill/calls_1d.fastq" >"$WORK/cut" && printf 'ACG' >>"$WORK/cut" && mv "$WORK/cut" "$WORK/kill/calls_1d.fastq"
grep -v "	$last	" "$WORK/kill/index_1d.tsv" >"$WORK/cut" && mv "$WORK/cut" "$WORK/kill/index_1d.tsv"
"$BIN/basecaller_1d" --input_path "$WORK/kill_reads" --output_path "$WORK/annotated" --save_path "$WORK/kill" \
    --resume --quiet >/dev/null
grep -q "Removed the unfinished copy .*partial-$dead" "$WORK"/kill/basecaller_1d_log-*.log || fail "temporary left"
cmp -s <(sorted_outputs "$WORK/ss") <(sorted_outputs "$WORK/kill") || fail "single-strand outputs after SIGKILL"
diff -r "$WORK/original" "$WORK/kill_reads" >/dev/null || fail "the single-strand step wrote into its input"
[ -z "$(find "$WORK/annotated" -name '.*')" ] || fail "temporary copies left in the output folder"
# Read files given as symbolic links are annotated into the output folder, never over their targets.
mkdir "$WORK/links" && ln -s "$WORK"/original/* "$WORK/links/"
"$BIN/basecaller_1d" --input_path "$WORK/links" --output_path "$WORK/links_out" --save_path "$WORK/links_save" \
    --quiet >/dev/null
diff -r "$WORK/original" "$WORK/kill_reads" >/dev/null || fail "a linked read file was written over its target"
[ "$(ls "$WORK/links_out" | wc -l)" = "$(ls "$WORK/original" | wc -l)" ] || fail "annotated copies of links missing"

"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/reference"
# The pair runs below read the annotated copies of the killed single-strand run.
ARGS=("${PAIR_OPTS[@]}" --index_file "$WORK/kill/index_1d.tsv" --input_path "$WORK/annotated")
n=0
for stop in $STOPS; do
    kind=${stop%%:*}
    n=$((n + 1))
    out="$WORK/run$n"
    gz=()
    [ "$kind" = gzkill ] && gz=(--compress_fastq)
    "$BIN/basecaller_1d2" "${ARGS[@]}" "${gz[@]}" --save_path "$out" &
    pid=$!
    if [ "$kind" = gzkill ]; then
        for _ in $(seq 100); do [ -n "$(ls "$out"/*/*.fastq.gz 2>/dev/null)" ] && break; sleep 0.1; done
    else
        sleep "${stop##*:}"
    fi
    kill "-$([ "$kind" = term ] && echo TERM || echo KILL)" "$pid" 2>/dev/null || true
    code=0
    wait "$pid" || code=$?
    [ "$kind" != term ] || [ "$code" = 0 ] || [ "$code" = 143 ] ||
        fail "$stop: exit $code, expected 143 (stopped) or 0 (finished first)"
    last=$(ls -t "$out"/pass/*.fastq* "$out"/fail/*.fastq* 2>/dev/null | head -n 1 || true)
    if [ "$kind" = kill ] && [ -n "$last" ]; then
        printf '@no_row_yet runid=x\nACGT\n+\n!!!!\n@cut_inside runid=x\nACG' >>"$last"
    elif [ "$kind" = gzkill ] && [ -n "$last" ]; then
        printf '@no_row_yet runid=x\nACGT\n+\n!!!!\n' | gzip -c >>"$last"
        printf '@cut_inside runid=x\nACGTACGTACGT\n+\n!!!!!!!!!!!!\n' | gzip -c >"$WORK/member.gz"
        head -c 25 "$WORK/member.gz" >>"$last"
    fi
    [ "$kind" != term ] && [ -f "$out/sequencing_summary.txt" ] && printf 'cut_row\tcut' >>"$out/sequencing_summary.txt"
    before=0
    [ -f "$out/sequencing_summary.txt" ] && before=$(($(wc -l <"$out/sequencing_summary.txt") - 1))
    echo "$stop: exit $code with $before summary lines"
    # A save path with rows is refused without --resume, a compressed one also without --compress_fastq.
    [ "$before" -gt 0 ] && "$BIN/basecaller_1d2" "${ARGS[@]}" "${gz[@]}" --save_path "$out" >/dev/null 2>&1 &&
        fail "$stop: a second run without --resume went ahead"
    if [ "$kind" = gzkill ]; then
        "$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$out" --resume >/dev/null 2>&1 &&
            fail "a compressed save path was resumed without --compress_fastq"
        grep -q "holds compressed FASTQ files of the run to resume" "$out"/marlo_basecaller_1d2_log-*.log ||
            fail "the refusal to resume without --compress_fastq is not in the log"
    fi
    "$BIN/basecaller_1d2" "${ARGS[@]}" "${gz[@]}" --save_path "$out" --resume
    /usr/bin/python3 - "$WORK/reference" "$out" "$stop" <<'PY' || status=1
import collections, glob, gzip, os, sys
reference, resumed, stop = sys.argv[1:]
def outputs(root, gz):
    records = collections.Counter()
    for path in glob.glob(os.path.join(root, "*", "*.fastq*")):
        # A compressed run has the file names of a plain one plus ".gz", each whole gzip to its last byte.
        name = os.path.relpath(path, root)
        records["<file %s>" % (name[:-3] if gz and name.endswith(".gz") else name)] += 1
        try:
            lines = (gzip.open(path, "rt") if path.endswith(".gz") else open(path)).read().split("\n")
        except (EOFError, OSError):
            lines = ["<cut gzip>"]
        if lines[-1] != "" or (len(lines) - 1) % 4:
            records["<cut file %s>" % os.path.basename(path)] += 1
        if len(lines) - 1 > 4 * 3:  # --records_per_fastq 3 holds for files taken up on resume too
            records["<overfull file %s>" % os.path.basename(path)] += 1
        for i in range(0, len(lines) - 4, 4):
            records[(os.path.basename(os.path.dirname(path)),) + tuple(lines[i:i + 4])] += 1
    rows = open(os.path.join(root, "sequencing_summary.txt")).read().split("\n")
    return records, collections.Counter(rows[1:]), rows[0]
ref, got = outputs(reference, False), outputs(resumed, stop == "gzkill")
errors = ["summary header differs"] if got[2] != ref[2] else []
for name, a, b in (("FASTQ records", ref[0], got[0]), ("summary rows", ref[1], got[1])):
    if a != b:
        errors.append("%s differ: %d missing, %d extra or repeated" % (name, sum((a - b).values()), sum((b - a).values())))
print("%s: %d records, %d rows%s" % (stop, sum(got[0].values()), sum(got[1].values()) - 1, "" if errors else ", same as the uninterrupted run"))
sys.exit("".join("FAIL: %s %s\n" % (stop, e) for e in errors) or 0)
PY
done
exit $status
