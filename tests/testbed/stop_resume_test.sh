#!/usr/bin/env bash
# Stopping the single-strand step and resuming it gives exactly the outputs of an uninterrupted run,
# and no read file is left damaged at any moment:
#   - SIGTERM at random points (in place): the run ends with 143, a new start without --resume
#     refuses the save path, and --resume finishes;
#   - SIGKILL mid-run (annotated copies to --output_path), then the FASTQ cut inside its last record
#     with that read's row gone (a kill in mid-write leaves that) and a leftover temporary of a dead
#     process: --resume finishes, and the input folder is untouched byte for byte.
# Each result is checked by check_single_strand_outputs.py against the uninterrupted run.
# STOP_ROWS="2 4 1" fixes the SIGTERM stop points (index rows written before the signal).
set -euo pipefail
BIN=$1
HERE=$(cd "$(dirname "$0")" && pwd)
WORK=$(mktemp -d /tmp/kvx_stop_resume.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
CHECK=("/usr/bin/python3" "$HERE/check_single_strand_outputs.py")
# One worker keeps few reads in hand when a signal comes, so that the stop points differ; the
# uninterrupted run has two, and the outputs must not depend on it.
step() { "$BIN/basecaller_1d" --workers "${WORKERS:-1}" --quiet "$@"; }

"$BIN/read_simulator" --output "$WORK/data" --seed 5 --molecules 10 --min_length 2000 --max_length 4000 \
    --reads_per_file 3 --legacy_fraction 0.25 >/dev/null
ORIGINAL=$WORK/data/reads
cp -r "$ORIGINAL" "$WORK/ref_reads"
WORKERS=2 step --input_path "$WORK/ref_reads" --save_path "$WORK/ref" >/dev/null
total=$(($(wc -l <"$WORK/ref/index_1d.tsv") - 1))

rows() { [ -f "$1/index_1d.tsv" ] && echo $(($(wc -l <"$1/index_1d.tsv") - 1)) || echo 0; }
# Starts the step in the background and sends $1 once the index holds $2 rows.
stop_after_rows() {
    local signal=$1 wanted=$2 save=$3
    shift 3
    # The program itself in the background, not a shell function's subshell, so that the signal reaches it.
    "$BIN/basecaller_1d" --workers 1 --quiet "$@" --save_path "$save" >/dev/null 2>"$save.err" &
    local pid=$!
    while kill -0 "$pid" 2>/dev/null && [ "$(rows "$save")" -lt "$wanted" ]; do sleep 0.02; done
    kill "-$signal" "$pid" 2>/dev/null || true
    local rc=0
    wait "$pid" || rc=$?
    echo "$rc"
}

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Rows come a file at a time, and up to three more reads are in hand when the signal comes, so
# stopping after at most seven of the sixteen rows leaves work to resume.
stop_points=${STOP_ROWS:-$(shuf -i 1-7 -n 3 | tr '\n' ' ')}
trial=0
for wanted in $stop_points; do
    trial=$((trial + 1))
    reads=$WORK/term$trial/reads save=$WORK/term$trial/save
    mkdir -p "$WORK/term$trial" && cp -r "$ORIGINAL" "$reads"
    rc=$(stop_after_rows TERM "$wanted" "$save" --input_path "$reads")
    done_rows=$(rows "$save")
    echo "SIGTERM after $wanted rows: exit $rc, $done_rows of $total rows saved"
    [ "$rc" = 143 ] || fail "a run stopped by SIGTERM ended with $rc"
    [ "$done_rows" -lt "$total" ] || fail "the stop at $wanted rows left nothing to resume"
    grep -q "run again with --resume to finish" "$save.err" || fail "no stop message on standard error"
    if [ "$trial" = 1 ]; then
        rc=0
        step --input_path "$reads" --save_path "$save" >/dev/null 2>"$save.refused" || rc=$?
        [ "$rc" = 1 ] && grep -q "add --resume to finish it, or choose another save path" "$save.refused" ||
            fail "a second start without --resume was not refused (exit $rc)"
    fi
    step --input_path "$reads" --save_path "$save" --resume >/dev/null || fail "the resumed run failed"
    "${CHECK[@]}" "$WORK/ref" "$save" "$reads" "$ORIGINAL" || fail "outputs after SIGTERM at $wanted rows"
done

reads=$WORK/kill/reads save=$WORK/kill/save out=$WORK/kill/annotated
mkdir -p "$WORK/kill" && cp -r "$ORIGINAL" "$reads"
rc=$(stop_after_rows KILL 2 "$save" --input_path "$reads" --output_path "$out")
echo "SIGKILL after 2 rows: exit $rc, $(rows "$save") of $total rows saved"
[ "$rc" = 137 ] || fail "the killed run ended with $rc"
dead=$(sh -c 'echo $$')
cp "$reads/$(ls "$reads" | head -1)" "$out/.$(ls "$reads" | tail -1).partial-$dead"
/usr/bin/python3 - "$save" <<'PY'
import sys
from pathlib import Path
save = Path(sys.argv[1])
fastq, index = save / "calls_1d.fastq", save / "index_1d.tsv"
lines = fastq.read_text().split("\n")
last = lines[-5]  # header of the last complete record
cut = "\n".join(lines[:-5] + [last, lines[-4][: len(lines[-4]) // 2]])
fastq.write_text(cut)
read_id = last[1:].split()[0]
rows = [r for r in index.read_text().split("\n")[:-1] if r.split("\t")[1] != read_id]
index.write_text("\n".join(rows) + "\n")
print("cut the FASTQ inside the record of %s" % read_id)
PY
step --input_path "$reads" --output_path "$out" --save_path "$save" --resume >/dev/null || fail "the resumed run failed"
grep -q "Removed the unfinished copy .*partial-$dead" "$save"/basecaller_1d_log-*.log || fail "leftover temporary not removed"
"${CHECK[@]}" "$WORK/ref" "$save" "$out" "$ORIGINAL" "$reads" || fail "outputs after SIGKILL"
"${CHECK[@]}" "$WORK/ref" "$WORK/ref" "$WORK/ref_reads" "$ORIGINAL" || fail "outputs of the uninterrupted run"

# Read files given as symbolic links are annotated into the output folder, never over their targets.
links=$WORK/links
mkdir -p "$links" && for f in "$ORIGINAL"/*; do ln -s "$f" "$links/"; done
before=$(cat "$ORIGINAL"/* | md5sum)
step --input_path "$links" --output_path "$WORK/links_out" --save_path "$WORK/links_save" >/dev/null ||
    fail "the run over linked read files failed"
[ "$(cat "$ORIGINAL"/* | md5sum)" = "$before" ] || fail "a linked read file was written over its target"
[ "$(ls "$WORK/links_out" | wc -l)" = "$(ls "$ORIGINAL" | wc -l)" ] || fail "annotated copies of linked files missing"

[ "$failures" = 0 ] || exit 1
echo "stop and resume: outputs equal the uninterrupted run at every stop point ($stop_points, kill at 2)"
