#!/usr/bin/env bash
# Both steps, stopped part-way and resumed, must end with exactly the outputs of a run never stopped.
# The single-strand step: SIGTERM in place after a random number of index rows (exit 143, a message,
# a new start without --resume refused); SIGKILL with copies to --output_path, then a FASTQ cut inside
# its last record, that read's row gone and a dead process's temporary left (the input stays
# untouched); the pair runs below read the killed run's copies. The pair run: STOPS is a list of
# "term:SECONDS" or "kill:SECONDS" (after a kill, a record without its row and a cut record are
# appended to the last FASTQ file, and half a row to the summary, as kills during the writes leave
# them); each gets a fresh save path and is resumed. Default: one of each, drawn from the seed.
#
#   stop_resume_test.sh BIN_DIR [STOPS]
set -euo pipefail
BIN=$1
WORK=$(mktemp -d /tmp/kvx_resume.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
SEED=${KVX_RESUME_SEED:-$RANDOM}
RANDOM=$SEED
STOPS=${2:-"term:$((1 + RANDOM % 5)) kill:$((1 + RANDOM % 5))"}
ROWS=$((1 + RANDOM % 7))
echo "seed $SEED, single-strand stop after $ROWS rows, pair stops: $STOPS"
status=0
fail() { echo "FAIL: $*"; status=1; }

. "$(dirname "$0")/small_pair_set.sh"
small_pair_set "$BIN" "$WORK" 12 3

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
last=$(tail -n 4 "$WORK/kill/calls_1d.fastq" | head -n 1 | cut -c 2- | cut -d ' ' -f 1)
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
    seconds=${stop##*:}
    n=$((n + 1))
    out="$WORK/run$n"
    "$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$out" &
    pid=$!
    sleep "$seconds"
    if [ "$kind" = term ]; then kill -TERM "$pid" 2>/dev/null || true; else kill -KILL "$pid" 2>/dev/null || true; fi
    code=0
    wait "$pid" || code=$?
    if [ "$kind" = term ] && [ "$code" != 0 ] && [ "$code" != 143 ]; then
        echo "FAIL: $stop: exit $code, expected 143 (stopped) or 0 (finished first)"
        status=1
    fi
    if [ "$kind" = kill ]; then
        last=$(ls -t "$out"/pass/*.fastq "$out"/fail/*.fastq 2>/dev/null | head -n 1 || true)
        if [ -n "$last" ]; then
            # What a kill between a record and its row, and then inside the next record, leaves.
            printf '@no_row_yet runid=x\nACGT\n+\n!!!!\n@cut_inside runid=x\nACG' >>"$last"
        fi
        [ -f "$out/sequencing_summary.txt" ] && printf 'cut_row\tcut' >>"$out/sequencing_summary.txt"
    fi
    before=0
    [ -f "$out/sequencing_summary.txt" ] && before=$(($(wc -l <"$out/sequencing_summary.txt") - 1))
    echo "$stop: exit $code with $before summary lines"
    # A save path with rows is refused without --resume.
    if [ -f "$out/sequencing_summary.txt" ] && [ "$(wc -l <"$out/sequencing_summary.txt")" -gt 1 ]; then
        if "$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$out" >/dev/null 2>&1; then
            echo "FAIL: $stop: a second run without --resume went ahead"
            status=1
        fi
    fi
    "$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$out" --resume
    /usr/bin/python3 - "$WORK/reference" "$out" "$stop" <<'PY' || status=1
import collections, glob, os, sys
reference, resumed, stop = sys.argv[1:]
def outputs(root):
    records = collections.Counter()
    for path in glob.glob(os.path.join(root, "*", "*.fastq")):
        lines = open(path).read().split("\n")
        if lines[-1] != "" or (len(lines) - 1) % 4:
            records["<cut file %s>" % os.path.basename(path)] += 1
        if len(lines) - 1 > 4 * 3:  # --records_per_fastq 3 holds for files taken up on resume too
            records["<overfull file %s>" % os.path.basename(path)] += 1
        for i in range(0, len(lines) - 4, 4):
            records[(os.path.basename(os.path.dirname(path)),) + tuple(lines[i:i + 4])] += 1
    rows = open(os.path.join(root, "sequencing_summary.txt")).read().split("\n")
    return records, collections.Counter(rows[1:]), rows[0]
ref, got = outputs(reference), outputs(resumed)
errors = []
if got[2] != ref[2]:
    errors.append("summary header differs")
for name, a, b in (("FASTQ records", ref[0], got[0]), ("summary rows", ref[1], got[1])):
    if a != b:
        errors.append("%s differ: %d missing, %d extra or repeated" % (name, sum((a - b).values()), sum((b - a).values())))
print("%s: %d records, %d rows%s" % (stop, sum(got[0].values()), sum(got[1].values()) - 1, "" if errors else ", same as the uninterrupted run"))
for e in errors:
    print("FAIL:", stop, e)
sys.exit(1 if errors else 0)
PY
done
exit $status
