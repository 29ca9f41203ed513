#!/usr/bin/env bash
# The run report of a small compressed pair run with its truth: one HTML page that needs nothing
# beside it, with every section, its plots as PNGs inside, and counts that agree with the summary.
# (scripts/render_run_report.sh shows the page in a browser.)
#
#   run_report_test.sh BIN_DIR
set -euo pipefail
BIN=$1
HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
WORK=$(mktemp -d /tmp/kvx_report.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

"$BIN/read_simulator" --output "$WORK/data" --seed 7 --molecules 5 --min_length 1500 --max_length 3000 \
    --pair_fraction 0.8 >/dev/null
"$BIN/basecaller_1d" --input_path "$WORK/data/reads" --save_path "$WORK/ss" --workers 2 --quiet >/dev/null
"$BIN/basecaller_1d2" --flowcell KFC-R1A --kit KLK-D210 --index_file "$WORK/ss/index_1d.tsv" \
    --input_path "$WORK/data/reads" --save_path "$WORK/pairs" --num_callers 1 --cpu_threads_per_caller 1 \
    --qscore_filtering --min_qscore 6.5 --compress_fastq --quiet
/usr/bin/python3 "$REPO/tools/report/run_report.py" --pairs "$WORK/pairs" --data "$WORK/data" \
    --single_strand "$WORK/ss" --evaluate_calls "$BIN/evaluate_calls" --out "$WORK/report.html"

/usr/bin/python3 - "$WORK/report.html" "$WORK/pairs/sequencing_summary.txt" <<'PY'
import base64, html.parser, re, sys
page_path, summary_path = sys.argv[1:]
page = open(page_path).read()
errors = []

class Page(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.links, self.sections, self.images, self.current = [], {}, {}, None
    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        for name in ("src", "href", "srcset", "data", "poster", "action"):
            if name in attrs:
                self.links.append((tag, attrs[name]))
        if tag == "section":
            self.current = attrs.get("id")
            self.sections[self.current] = 0
        if tag == "img" and self.current:
            self.sections[self.current] += 1
            self.images[attrs.get("src", "")] = self.current
        if tag in ("link", "script", "iframe", "object", "embed"):
            errors.append("the page has a <%s>" % tag)

p = Page()
p.feed(page)
# Self-contained: nothing is fetched, every link stays in the page.
for tag, value in p.links:
    if not (value.startswith("data:image/png;base64,") or (tag == "a" and value.startswith("#"))):
        errors.append("<%s> points outside the page: %s" % (tag, value[:80]))
if re.search(r"url\s*\(|@import", page):
    errors.append("the style sheet loads something")
for src in p.images:
    data = base64.b64decode(src.split(",", 1)[1])
    if not data.startswith(b"\x89PNG\r\n\x1a\n") or len(data) < 2000:
        errors.append("an image in %s is not a PNG plot" % p.images[src])
with_plots = ("pass-fail", "yield", "length", "qscore", "speed", "accuracy")
for key in ("run",) + with_plots + ("messages",):
    if key not in p.sections:
        errors.append("no section %s" % key)
    elif key in with_plots and p.sections[key] == 0:
        errors.append("section %s has no plot" % key)

# The counts on the page are the summary's.
rows = [line.rstrip("\n").split("\t") for line in open(summary_path)]
col = {name: i for i, name in enumerate(rows[0])}
called = [r for r in rows[1:] if int(r[col["sequence_length"]]) > 0]
passed = sum(r[col["passes_filtering"]] == "TRUE" for r in called)
for label, n in (("pass", passed), ("fail", len(called) - passed), ("pairs with a summary row", len(rows) - 1)):
    if not re.search(r'<td class="text">%s</td><td>%d</td>' % (re.escape(label), n), page):
        errors.append("the page does not give %d for %s" % (n, label))
for text in ("6.5 (from the run header)", "compressed fastq:   ON", "true pairs called", "median identity, pairs",
             "gzip-compressed"):
    if text not in page:
        errors.append("the page lacks %r" % text)
if not called:
    errors.append("the run called no pair")
for e in errors:
    print("FAIL:", e)
print("%d pairs, %d passed; %d sections, %d plots" % (len(called), passed, len(p.sections), len(p.images)))
sys.exit(1 if errors else 0)
PY
