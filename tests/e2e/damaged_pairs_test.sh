#!/usr/bin/env bash
# Pair run over damaged copies of sampled pairs (tools/testbed/damage_reads.py; --full: every kind, twice):
# every run ends with 0 and no sanitizer report, every pair found has a summary row or is dropped with a
# message at info, and untouched pairs and harmless damage are called as in the run over the input.
#
#   tests/e2e/damaged_pairs_test.sh BIN_DIR [--full] [--keep DIR]   (--keep: work in DIR, replaced, and leave it)
set -euo pipefail
BIN=$1
shift
SAMPLE=(--damaged 30)
WORK=
while [ $# -gt 0 ]; do
    case $1 in
        --full) SAMPLE=(--full --copies 2) ;;
        --keep) WORK=$2 && rm -rf "$WORK" && mkdir -p "$WORK" && shift ;;
        *) echo "unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
[ -n "$WORK" ] || { WORK=$(mktemp -d /tmp/kvx_damage.XXXXXX) && trap 'rm -rf "$WORK"' EXIT; }

# A damaged size must fail the pair, not the machine: in a sanitizer build a single allocation above
# 3 GB, or a process above 6 GB, is a report; in a plain build the address space is capped instead.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}hard_rss_limit_mb=6000:max_allocation_size_mb=3000"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:+$UBSAN_OPTIONS:}print_stacktrace=1"
ldd "$BIN/basecaller_1d2" | grep 'lib[at]san' >/dev/null || ulimit -v 8000000

# Runs a program, its standard error kept in the file given first; prints its exit status.
run() { "${@:2}" >/dev/null 2>"$1" && echo 0 || echo $?; }
PAIR_RUN=(--flowcell KFC-R1A --kit KLK-D210 --num_callers 2 --cpu_threads_per_caller 1 --quiet --verbose_logs)

"$BIN/read_simulator" --output "$WORK/data" --seed 11 --molecules 10 --min_length 1000 --max_length 2000 \
    --pair_fraction 0.8 --legacy_fraction 0.3 >/dev/null 2>"$WORK/simulate.err"
ss=$(run "$WORK/ss.err" "$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --quiet)
clean=$(run "$WORK/clean.err" "$BIN/basecaller_1d2" "${PAIR_RUN[@]}" --index_file "$WORK/ss/index_1d.tsv" \
    --input_path "$WORK/data/reads" --save_path "$WORK/clean")
/usr/bin/python3 "$(dirname "$0")/../../tools/testbed/damage_reads.py" --reads "$WORK/data/reads" \
    --index "$WORK/ss/index_1d.tsv" --out "$WORK/damaged" --seed 11 "${SAMPLE[@]}"
damaged=$(run "$WORK/run.err" "$BIN/basecaller_1d2" "${PAIR_RUN[@]}" --index_file "$WORK/damaged/index_1d.tsv" \
    --input_path "$WORK/damaged/reads" --save_path "$WORK/run")

/usr/bin/python3 - "$WORK" "$ss" "$clean" "$damaged" <<'PY'
import collections, csv, glob, os, re, sys
work = sys.argv[1]
codes = {"single-strand step": sys.argv[2], "run over the input": sys.argv[3], "run over the damaged set": sys.argv[4]}
errors = ["%s ended with %s" % (what, code) for what, code in codes.items() if code != "0"]
REPORT = re.compile(r"ERROR: (Address|Leak|Thread|Memory)Sanitizer|runtime error:|Sanitizer:DEADLYSIGNAL|"
                    r"WARNING: ThreadSanitizer|HDF5: infinite loop closing library")
for name in ("simulate.err", "ss.err", "clean.err", "run.err"):
    text = open(os.path.join(work, name), errors="replace").read()
    if m := REPORT.search(text):
        errors.append("%s: %s" % (name, (re.findall(r"SUMMARY: .*", text) or [m.group(0)])[0]))

def calls(folder):
    out = {}
    for path in glob.glob(os.path.join(work, folder, "*", "*.fastq")) + glob.glob(os.path.join(work, folder, "*.fastq")):
        lines = open(path).read().split("\n")
        out.update({lines[i][1:].split()[0]: (lines[i + 1], lines[i + 3]) for i in range(0, len(lines) - 3, 4)})
    return out

clean_calls, run_calls = calls("clean"), calls("run")
rows = collections.defaultdict(list)
summary = os.path.join(work, "run", "sequencing_summary.txt")
for r in csv.DictReader(open(summary), delimiter="\t") if os.path.exists(summary) else []:
    rows[(r["filename1"], r["read_id1"])].append(r)
lines = [m.groups() for path in glob.glob(os.path.join(work, "run", "*verbose_log-*.log"))
         for m in map(re.compile(r"\{(\w+)\} (.*)").search, open(path, errors="replace")) if m]
found = [int(m.group(1)) for _, t in lines for m in [re.search(r"Found (\d+) read pairs", t)] if m]
mentions = collections.defaultdict(list)
ids = re.compile(r"[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")
for severity, text in lines:
    for read_id in set() if text.endswith(("has been loaded.", "completed.")) else set(ids.findall(text)):
        mentions[read_id].append((severity, text))

manifest = list(csv.DictReader(open(os.path.join(work, "damaged", "manifest.tsv")), delimiter="\t"))
listed = [m for m in manifest if m["expect"] != "unlisted"]
if not found or found[0] != len(listed):
    errors.append("the run found %s pairs, the manifest lists %d" % (found[:1] or "no", len(listed)))
outcomes = collections.Counter()
same_ok = same_all = 0
for m in listed:
    messages = [x for i in {m["read_id1"], m["read_id2"], m["call_id1"]} for x in mentions.get(i, [])]
    row = rows.get((m["file1"], m["call_id1"]), [])
    outcome = ("called" if int(row[0]["sequence_length"]) > 0 else "empty row") if row else \
        ("dropped" if messages else "lost")
    outcomes[outcome] += 1
    what = "%s (%s, strand %s, %s)" % (m["pair"], m["kind"], m["strand"], m["layout"])
    if len(row) > 1:
        errors.append("%s: %d summary rows" % (what, len(row)))
    if outcome == "lost":
        errors.append("%s: neither logged nor written" % what)
    if m["expect"] in ("clean", "same"):
        same_all += 1
        expected, got = clean_calls.get(m["source_id1"]), run_calls.get(m["call_id1"])
        if expected == got and outcome in ("called", "empty row"):
            same_ok += 1
        else:
            errors.append("%s: %s, and not called as in the run over the input%s" %
                          (what, outcome, "" if got else " (no FASTQ record)"))
    elif m["expect"] == "drop":
        if outcome == "called":
            errors.append("%s: called, though its data are unusable" % what)
        elif outcome != "lost" and "info" not in (s for s, _ in messages):
            errors.append("%s: %s without a message at info (%s)" % (what, outcome, messages[:1]))
rows_total, dropped = sum(len(v) for v in rows.values()), outcomes["dropped"]
if found and rows_total + dropped != found[0]:
    errors.append("%d summary rows and %d pairs dropped with a message for %d pairs found" % (rows_total, dropped, found[0]))
print("pairs tried %d; found %s; %s; untouched and harmless pairs called as in the run over the input: %d of %d"
      % (len(manifest), found[:1], dict(outcomes), same_ok, same_all))
sys.exit("".join("FAIL: %s\n" % e for e in errors) or 0)
PY
