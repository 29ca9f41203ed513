#!/usr/bin/env bash
# A pair run into compressed FASTQ on a fixed-seed set: seqkit reads its files, pass and fail follow
# min_qscore, the median pair error is at most half the better strand's, and the run report is one
# self-contained HTML page with every section, its plots as PNGs inside, and the summary's counts.
set -euo pipefail
BIN=$1
REPO=$(cd "$(dirname "$0")/../.." && pwd)
WORK=$(mktemp -d /tmp/kvx_e2e.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

"$BIN/read_simulator" --output "$WORK/data" --seed 5 --molecules 14 --min_length 2000 --max_length 5000 \
    --pair_fraction 0.8 >/dev/null
"$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2 --quiet >/dev/null
"$BIN/basecaller_1d2" --flowcell KFC-R1A --kit KLK-D210 --index_file "$WORK/ss/index_1d.tsv" \
    --input_path "$WORK/data/reads" --save_path "$WORK/pairs" --num_callers 2 --cpu_threads_per_caller 1 \
    --qscore_filtering --min_qscore 6.5 --compress_fastq --quiet
for folder in pass fail; do
    [ -d "$WORK/pairs/$folder" ] || continue
    find "$WORK/pairs/$folder" -name '*.fastq.gz' -exec seqkit fx2tab -n {} + 2>/dev/null | sed "s/^/$folder\t/"
done >"$WORK/records.tsv"
gzip -dc "$WORK"/pairs/*/*.fastq.gz >"$WORK/pairs.fastq"
"$BIN/evaluate_calls" --truth "$WORK/data/truth.fasta" --pairs "$WORK/data/truth_pairs.tsv" \
    --single "$WORK/ss/calls_1d.fastq" --pair_calls "$WORK/pairs.fastq" --json "$WORK/identity.json"
/usr/bin/python3 "$REPO/tools/report/run_report.py" --pairs "$WORK/pairs" --data "$WORK/data" \
    --single_strand "$WORK/ss" --evaluate_calls "$BIN/evaluate_calls" --out "$WORK/report.html"

/usr/bin/python3 - "$WORK" <<'PY'
import base64, csv, glob, html.parser, json, os, re, sys
work = sys.argv[1]
errors = []
rows = list(csv.DictReader(open(os.path.join(work, "pairs", "sequencing_summary.txt")), delimiter="\t"))
log = open(glob.glob(os.path.join(work, "pairs", "marlo_basecaller_1d2_log-*.log"))[0]).read()
pairs_found = int(re.search(r"Found (\d+) read pairs", log).group(1))
records = [line.split("\t") for line in open(os.path.join(work, "records.tsv"))]
folder_of = {name.split()[0]: folder for folder, name in records}
called = [r for r in rows if int(r["sequence_length"]) > 0]
if len(records) != len(called) or not called:
    errors.append("%d FASTQ records for %d pairs with a sequence" % (len(records), len(called)))
for r in called:
    should_pass = float(r["mean_qscore"]) >= 6.5
    if (r["passes_filtering"] == "TRUE") != should_pass or folder_of.get(r["read_id1"]) != ("pass" if should_pass else "fail"):
        errors.append("%s: passes_filtering or folder disagrees with its mean qscore" % r["read_id1"])
identity = {k: v["median_identity"] for k, v in json.load(open(os.path.join(work, "identity.json"))).items()}
single, pair = max(identity["strand1"], identity["strand2"]), identity["pairs"]
# A regression floor relative to the strands' error, so that a better model does not make the check
# vacuous or fail it: two readings of one molecule should at least halve the error.
if not (1.0 - pair) <= 0.5 * (1.0 - single):
    errors.append("pair error %.4f is not at most half the better strand's %.4f" % (1.0 - pair, 1.0 - single))

class Page(html.parser.HTMLParser):
    links, sections, images, current = [], {}, {}, None  # one page is read, so class-wide is enough
    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        self.links += [(tag, attrs[n]) for n in ("src", "href", "srcset", "data", "poster", "action") if n in attrs]
        if tag == "section":
            self.current = attrs.get("id")
            self.sections[self.current] = 0
        if tag == "img" and self.current:
            self.sections[self.current] += 1
            self.images[attrs.get("src", "")] = self.current
        if tag in ("link", "script", "iframe", "object", "embed"):
            errors.append("the page has a <%s>" % tag)

page = open(os.path.join(work, "report.html")).read()
p = Page()
p.feed(page)
for tag, value in p.links:
    if not (value.startswith("data:image/png;base64,") or (tag == "a" and value.startswith("#"))):
        errors.append("<%s> points outside the page: %s" % (tag, value[:80]))
errors += ["the style sheet loads something"] if re.search(r"url\s*\(|@import", page) else []
errors += ["an image in %s is not a PNG plot" % section for src, section in p.images.items()
           if not (d := base64.b64decode(src.split(",", 1)[1])).startswith(b"\x89PNG\r\n\x1a\n") or len(d) < 2000]
with_plots = ("pass-fail", "yield", "length", "qscore", "speed", "accuracy")
for key in ("run", "messages") + with_plots:
    if key not in p.sections or (key in with_plots and p.sections[key] == 0):
        errors.append("no section %s, or no plot in it" % key)
passed = sum(r["passes_filtering"] == "TRUE" for r in called)
for label, n in (("pass", passed), ("fail", len(called) - passed), ("pairs with a summary row", len(rows))):
    if not re.search(r'<td class="text">%s</td><td>%d</td>' % (re.escape(label), n), page):
        errors.append("the page does not give %d for %s" % (n, label))
errors += ["the page lacks %r" % text for text in ("6.5 (from the run header)", "compressed fastq:   ON",
           "true pairs called", "median identity, pairs", "gzip-compressed") if text not in page]
print("pairs %d, records %d (pass %d), median identity: pairs %.4f, best strand %.4f; %d sections, %d plots"
      % (pairs_found, len(records), passed, pair, single, len(p.sections), len(p.images)))
sys.exit("".join("FAIL: %s\n" % e for e in errors) or 0)
PY
