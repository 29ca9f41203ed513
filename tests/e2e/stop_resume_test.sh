#!/usr/bin/env bash
# A pair run stopped part-way and resumed must end with exactly the outputs of a run that was never
# stopped: the same FASTQ records in the same folders and the same summary rows, none twice.
#
#   stop_resume_test.sh BIN_DIR [STOPS]
#
# STOPS is a list of stops, each "term:SECONDS" (SIGTERM, then a clean stop is expected) or
# "kill:SECONDS" (SIGKILL; then a whole record without its row and a cut record are appended to the
# last FASTQ file, and half a row to the summary, as kills during the writes would leave them). Each stop gets a fresh save path, and is
# resumed until the run ends. The default: one of each at a point drawn from the seed below.
set -euo pipefail
BIN=$1
WORK=$(mktemp -d /tmp/kvx_resume.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
SEED=${KVX_RESUME_SEED:-$RANDOM}
RANDOM=$SEED
STOPS=${2:-"term:$((1 + RANDOM % 5)) kill:$((1 + RANDOM % 5))"}
echo "seed $SEED, stops: $STOPS"

. "$(dirname "$0")/small_pair_set.sh"
small_pair_set "$BIN" "$WORK" 12 3

"$BIN/basecaller_1d2" "${ARGS[@]}" --save_path "$WORK/reference"

status=0
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
