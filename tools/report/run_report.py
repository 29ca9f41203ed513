#!/usr/bin/python3
"""One self-contained HTML page about a pair run, to look at before reading its outputs.

  /usr/bin/python3 tools/report/run_report.py --pairs SAVE_PATH [--out PAGE.html]
      [--data DATA --single_strand SS] [--evaluate_calls BIN] [--min_qscore Q]

SAVE_PATH is the pair run's save path: sequencing_summary.txt, the run's marlo_basecaller_1d2_log-*.log
(one per start of the run: a resumed run has several) and the FASTQ files (plain or .fastq.gz). The
page (default SAVE_PATH/run_report.html) holds the run header, pass and fail counts, pairs and bases
over the run's time and over sequencing time, the pair length and mean_qscore distributions with the
pass threshold, the speed of each start, and the messages the log gives about single pairs. Plots are
PNGs inside the page: it can be mailed or archived alone.

With the truth of a simulated set (--data, the read simulator's output, and --single_strand, the
single-strand step's save path) the page adds the accuracy report (tools/accuracy/accuracy_report.py):
identities against the truth and the calibration of the printed qualities.

The pass threshold is the run header's "minimum qscore" (a run with --qscore_filtering), else the
min_qscore of the run's config file, else --min_qscore.
"""
import argparse
import base64
import datetime
import glob
import html
import io
import json
import os
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ACCURACY_REPORT = os.path.join(os.path.dirname(HERE), "accuracy", "accuracy_report.py")

STAMP = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d(?:\.\d+)?) (?:\[[^\]]*\] )?")
PAIR_TEXT = re.compile(r'File pair \("[^"]*" (\S+), "[^"]*" (\S+)\)')


# ---------------------------------------------------------------------------------------------- inputs

def parse_time(text):
    for form in ("%Y-%m-%d %H:%M:%S.%f", "%Y-%m-%d %H:%M:%S"):
        try:
            return datetime.datetime.strptime(text, form)
        except ValueError:
            pass
    return None


def to_float(text):
    try:
        return float(text)
    except (TypeError, ValueError):
        return None


def read_summary(path):
    """Rows of the summary as dicts; rows with the wrong number of fields are counted, not used."""
    with open(path, errors="replace") as f:
        header = f.readline().rstrip("\r\n").split("\t")
        rows, bad = [], 0
        for line in f:
            fields = line.rstrip("\r\n").split("\t")
            if len(fields) != len(header):
                bad += 1
                continue
            rows.append(dict(zip(header, fields)))
    for r in rows:
        try:
            r["length"] = max(0, int(r.get("sequence_length", "")))
        except ValueError:
            r["length"] = 0
    missing = [c for c in ("read_id1", "sequence_length", "passes_filtering", "mean_qscore") if c not in header]
    if missing:
        sys.exit("run_report: %s has no column %s: is it a pair run's summary?" % (path, ", ".join(missing)))
    return rows, bad


def read_log(path):
    """One start of the run: its header, times, speed lines, completed pairs and other messages."""
    session = {"path": path, "header": [], "start": None, "end": None, "completed": [], "messages": [],
               "found": None, "init_ms": None, "caller_ms": None, "events": None, "kevs": None, "outcome": None,
               "resumed": None}
    in_header = False
    with open(path, errors="replace") as f:
        for line in f:
            line = line.rstrip("\r\n")
            m = STAMP.match(line)
            if not m:
                if in_header:
                    session["header"].append(line)
                continue
            when = parse_time(m.group(1))
            text = line[m.end():]
            session["start"] = session["start"] or when
            session["end"] = when or session["end"]
            in_header = False
            if "1d-squared basecalling software version" in text:
                session["header"].append(text)
                in_header = True
                continue
            p = PAIR_TEXT.search(text)
            if p and text.endswith(" completed."):
                session["completed"].append((when, p.group(1)))
                continue
            if p and text.endswith(" has been loaded."):
                continue
            n = re.match(r"Found (\d+) read pairs to process", text)
            if n:
                session["found"] = int(n.group(1))
                continue
            n = re.match(r"Init time: (\d+) ms", text)
            if n:
                session["init_ms"] = int(n.group(1))
                continue
            n = re.match(r"Caller time: (\d+) ms, Events: (\d+), kev/s: (\S+)", text)
            if n:
                session["caller_ms"], session["events"] = int(n.group(1)), int(n.group(2))
                session["kevs"] = to_float(n.group(3))
                continue
            if text.startswith("Resuming the run"):
                session["resumed"] = text
            if text in ("Basecalling completed successfully.", "Basecalling stopped before the end.",
                        "An error occurred in the basecaller. Aborting."):
                session["outcome"] = text
                continue
            if p:
                # A message about one pair: the pair's names are taken out so that equal messages group.
                session["messages"].append(text[:p.start()] + "File pair (...)" + text[p.end():])
            elif not text.startswith(("Resuming the run", "Signal ", "Run stopped: ")):
                session["messages"].append(text)
    return session


def header_value(sessions, label):
    for s in sessions:
        for line in s["header"]:
            if line.startswith(label + ":"):
                return line.split(":", 1)[1].strip()
    return None


def config_min_qscore(config_path):
    if not config_path or not os.path.isfile(config_path):
        return None
    with open(config_path, errors="replace") as f:
        for line in f:
            m = re.match(r"\s*min_qscore\s*=\s*(\S+)", line)
            if m:
                return to_float(m.group(1))
    return None


def fastq_files(save_path):
    files = []
    for sub in ("pass", "fail", ""):
        for pattern in ("*.fastq", "*.fastq.gz"):
            files += sorted(glob.glob(os.path.join(save_path, sub, pattern)))
    return files


# ---------------------------------------------------------------------------------------------- figures

def n50(lengths):
    total, run = sum(lengths), 0
    for n in sorted(lengths, reverse=True):
        run += n
        if 2 * run >= total:
            return n
    return 0


def median(values):
    v = sorted(values)
    if not v:
        return None
    mid = len(v) // 2
    return v[mid] if len(v) % 2 else (v[mid - 1] + v[mid]) / 2.0


def png(fig):
    import matplotlib.pyplot as plt
    buffer = io.BytesIO()
    fig.savefig(buffer, format="png", dpi=100)
    plt.close(fig)
    return base64.b64encode(buffer.getvalue()).decode("ascii")


def empty_axes(ax, text):
    ax.text(0.5, 0.5, text, ha="center", va="center", transform=ax.transAxes, color="grey")
    ax.set_xticks([])
    ax.set_yticks([])


def time_unit(seconds):
    """The unit to show a span of `seconds` in: (name, seconds per unit)."""
    if seconds >= 2 * 3600:
        return "hours", 3600.0
    if seconds >= 120:
        return "minutes", 60.0
    return "seconds", 1.0


def cumulative(ax, times, lengths, xlabel, title):
    """Pairs (left axis) and bases (right axis) up to each time, from zero at time zero."""
    unit, scale = time_unit(max(times))
    x = [0.0] + [t / scale for t in times]
    bases = [0]
    for n in lengths:
        bases.append(bases[-1] + n)
    ax.step(x, range(len(x)), where="post", color="C0", label="pairs")
    ax.set(xlabel="%s (%s)" % (xlabel, unit), ylabel="pairs called", title=title, ylim=(0, None), xlim=(0, None))
    twin = ax.twinx()
    twin.step(x, [b / 1e3 for b in bases], where="post", color="C1", ls="--", label="bases")
    twin.set_ylim(0, None)
    twin.set_ylabel("kilobases called (dashed)", color="C1")
    return scale


def plot_yield(called, sessions):
    import matplotlib.pyplot as plt
    fig, axes = plt.subplots(1, 2, figsize=(12, 4))
    # Over the run's own time: when each pair's record was written, from the log.
    length_of = {r["read_id1"]: r["length"] for r in called}
    done = sorted((when, rid) for s in sessions for when, rid in s["completed"] if when and rid in length_of)
    t0 = min((s["start"] for s in sessions if s["start"]), default=None)
    if done and t0:
        scale = cumulative(axes[0], [(when - t0).total_seconds() for when, _ in done],
                           [length_of[rid] for _, rid in done], "time since the run started", "Yield over the run's time")
        for s in sessions[1:]:
            if s["start"]:
                axes[0].axvline((s["start"] - t0).total_seconds() / scale, color="grey", ls=":", lw=1)
    else:
        empty_axes(axes[0], "no completed pairs in the log")
    # Over sequencing time: when strand 1 was read on the sequencer.
    timed = sorted((to_float(r.get("start_time1")), r["length"]) for r in called
                   if to_float(r.get("start_time1")) is not None)
    if timed:
        cumulative(axes[1], [t for t, _ in timed], [n for _, n in timed], "sequencing time of strand 1",
                   "Yield over sequencing time")
    else:
        empty_axes(axes[1], "no start_time1 in the summary")
    fig.tight_layout()
    return png(fig)


def plot_histogram(passing, failing, line, line_label, xlabel, title, empty_text, lo=None):
    """Pass and fail stacked in 40 bins from `lo` (default: the smallest value or the line) to the
    largest, with a dashed line at `line` (None: no line)."""
    import matplotlib.pyplot as plt
    fig, ax = plt.subplots(figsize=(7, 4))
    values = passing + failing
    if values:
        ends = values + ([line] if line is not None else [])
        lo = min(ends) if lo is None else lo
        width = max(max(ends) - lo, 1.0)
        ax.hist([passing, failing], bins=[lo + width * i / 40.0 for i in range(41)], stacked=True,
                color=["C2", "C3"], label=["pass (%d)" % len(passing), "fail (%d)" % len(failing)])
        if line is not None:
            ax.axvline(line, color="k", ls="--", lw=1.2, label=line_label)
        ax.set(xlabel=xlabel, ylabel="pairs", title=title)
        ax.legend()
    else:
        empty_axes(ax, empty_text)
    fig.tight_layout()
    return png(fig)


def plot_lengths(passed, failed):
    lengths = [r["length"] for r in passed + failed]
    middle = n50(lengths) if lengths else None
    return plot_histogram([r["length"] for r in passed], [r["length"] for r in failed], middle, "N50 %s" % middle,
                          "pair call length (bases)", "Pair length distribution", "no pair was called", lo=0)


def plot_qscores(called, threshold):
    def scores(rows):
        qs = [to_float(r["mean_qscore"]) for r in rows]
        return [q for q in qs if q is not None and q == q]
    return plot_histogram(scores(r for r in called if r["passes_filtering"] == "TRUE"),
                          scores(r for r in called if r["passes_filtering"] != "TRUE"), threshold,
                          "pass threshold %g" % threshold if threshold is not None else "", "mean_qscore", "mean_qscore distribution",
                          "no pair has a mean_qscore")


def plot_pass_fail(passed, failed, empty):
    import matplotlib.pyplot as plt
    fig, axes = plt.subplots(1, 2, figsize=(9, 3.2))
    counts = [len(passed), len(failed), empty]
    bars = axes[0].bar(["pass", "fail", "empty call"], counts, color=["C2", "C3", "C7"])
    axes[0].bar_label(bars)
    axes[0].set(ylabel="pairs", title="Pairs")
    axes[0].margins(y=0.15)
    kb = [sum(r["length"] for r in rows) / 1e3 for rows in (passed, failed)]
    bars = axes[1].bar(["pass", "fail"], kb, color=["C2", "C3"])
    axes[1].bar_label(bars, fmt="%.1f")
    axes[1].set(ylabel="kilobases", title="Bases")
    axes[1].margins(y=0.15)
    fig.tight_layout()
    return png(fig)


def plot_speed(sessions):
    import matplotlib.pyplot as plt
    fig, ax = plt.subplots(figsize=(7, 3.2))
    t0 = min((s["start"] for s in sessions if s["start"]), default=None)
    done = sorted(when for s in sessions for when, _ in s["completed"] if when)
    if done and t0:
        unit, scale = time_unit((done[-1] - t0).total_seconds())
        span = max((done[-1] - t0).total_seconds() / scale, 1e-3)
        bins = min(40, max(5, len(done) // 3))
        ax.hist([(w - t0).total_seconds() / scale for w in done], bins=bins, range=(0, span), color="C0")
        ax.set(xlabel="time since the run started (%s)" % unit, ylabel="pairs completed",
               title="Pairs completed per %.3g %s" % (span / bins, unit))
    else:
        empty_axes(ax, "no completed pairs in the log")
    fig.tight_layout()
    return png(fig)


# ---------------------------------------------------------------------------------------------- page

CSS = """
body { font-family: sans-serif; margin: 2em auto; max-width: 1250px; color: #222; }
h1 { font-size: 1.5em; } h2 { font-size: 1.2em; border-bottom: 1px solid #ccc; margin-top: 1.6em; }
table { border-collapse: collapse; margin: 0.6em 0; }
td, th { border: 1px solid #ddd; padding: 0.25em 0.7em; text-align: right; }
th { background: #f3f3f3; } td.text, th.text { text-align: left; }
pre { background: #f7f7f7; padding: 0.8em; overflow-x: auto; }
img { max-width: 100%; display: block; margin: 0.5em 0; }
.note { color: #666; font-size: 0.9em; }
"""


def table(rows, head=None, text_columns=(0,)):
    out = ["<table>"]
    if head:
        out.append("<tr>" + "".join('<th class="text">%s</th>' % html.escape(str(h)) if i in text_columns
                                    else "<th>%s</th>" % html.escape(str(h)) for i, h in enumerate(head)) + "</tr>")
    for row in rows:
        out.append("<tr>" + "".join('<td class="text">%s</td>' % html.escape(str(c)) if i in text_columns
                                    else "<td>%s</td>" % html.escape(str(c)) for i, c in enumerate(row)) + "</tr>")
    out.append("</table>")
    return "\n".join(out)


def image(data, alt):
    return '<img alt="%s" src="data:image/png;base64,%s">' % (html.escape(alt), data)


def fmt(x, form="%.2f"):
    return "-" if x is None else form % x


def accuracy_section(args, work, threshold):
    """Runs the accuracy report into `work`, splitting pass and fail at `threshold` (None: its own
    default); returns its HTML, or a note when it failed."""
    cmd = [sys.executable, ACCURACY_REPORT, "--data", args.data, "--single_strand", args.single_strand,
           "--pairs", args.pairs, "--out", work]
    if args.evaluate_calls:
        cmd += ["--evaluate_calls", args.evaluate_calls]
    if threshold is not None:
        cmd += ["--min_qscore", repr(threshold)]
    run = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0 or not os.path.isfile(os.path.join(work, "report.json")):
        return '<p class="note">The accuracy report failed: %s</p>' % html.escape(
            (run.stderr or run.stdout).strip()[-2000:])
    with open(os.path.join(work, "report.json")) as f:
        report = json.load(f)
    y = report["yield"]
    rows = [["true pairs called", "%d of %d (%s%%)" % (y["called"], y["true_pairs"],
                                                       fmt(100 * y["fraction"] if y["fraction"] is not None else None))]]
    for name in ("strand1", "strand2", "pairs"):
        s = report["identity"].get(name)
        if s and s.get("count"):
            rows.append(["median identity, %s" % name, "%.2f%% (n=%d)" % (100 * s["median"], s["count"])])
    ratio = report["identity"].get("better_strand_to_pair_error_ratio")
    rows.append(["better strand's median error / pair's", fmt(ratio)])
    cal = report["calibration"].get("pairs")
    if cal:
        rows.append(["pair bases: empirical Q of all bases", fmt(cal["empirical_q_all"], "%.1f")])
        rows.append(["largest |printed - empirical Q|, Q5-Q20 bins", fmt(cal["max_gap_q5_q20"], "%.1f")])
    pf = report["per_read"].get("pairs", {}).get("pass_fail")
    if pf:
        rows.append(["pass/fail agreeing with the truth's", fmt(100 * pf["agreement"] if pf["agreement"] is not None
                                                                 else None, "%.1f%%")])
    parts = [table(rows, text_columns=(0, 1))]
    plot_path = os.path.join(work, "report.png")
    if os.path.isfile(plot_path):
        with open(plot_path, "rb") as f:
            parts.append(image(base64.b64encode(f.read()).decode("ascii"),
                               "calibration, identity distributions and per-read Q against the truth"))
    parts.append('<p class="note">From tools/accuracy/accuracy_report.py against %s; left: printed base quality '
                 'against the empirical Q of its bin, middle: identity to the truth, right: each pair\'s '
                 'mean_qscore against its true Q.</p>' % html.escape(args.data))
    return "\n".join(parts)


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--pairs", required=True, help="the pair run's save path")
    p.add_argument("--out", default="", help="the page to write (default SAVE_PATH/run_report.html)")
    p.add_argument("--data", default="", help="truth of a simulated set: the read simulator's output folder")
    p.add_argument("--single_strand", default="", help="with --data: the single-strand step's save path")
    p.add_argument("--evaluate_calls", default="", help="with --data: the evaluate_calls program")
    p.add_argument("--min_qscore", type=float, default=None,
                   help="pass threshold to draw when the run's log and config file do not give it")
    args = p.parse_args()
    if bool(args.data) != bool(args.single_strand):
        sys.exit("run_report: --data and --single_strand go together")

    import matplotlib
    matplotlib.use("Agg")

    summary_path = os.path.join(args.pairs, "sequencing_summary.txt")
    if not os.path.isfile(summary_path):
        sys.exit("run_report: no %s: give a pair run's save path as --pairs" % summary_path)
    rows, bad_rows = read_summary(summary_path)
    logs = sorted(glob.glob(os.path.join(args.pairs, "marlo_basecaller_1d2_log-*.log")))
    sessions = [read_log(path) for path in logs]

    called = [r for r in rows if r["length"] > 0]
    passed = [r for r in called if r["passes_filtering"] == "TRUE"]
    failed = [r for r in called if r["passes_filtering"] != "TRUE"]
    empty = len(rows) - len(called)

    threshold = to_float(header_value(sessions, "minimum qscore"))
    threshold_from = "the run header"
    if threshold is None:
        threshold = config_min_qscore(header_value(sessions, "config file"))
        threshold_from = "the run's config file"
    if threshold is None and args.min_qscore is not None:
        threshold, threshold_from = args.min_qscore, "--min_qscore"

    files = fastq_files(args.pairs)
    compressed = [f for f in files if f.endswith(".gz")]
    fastq_bytes = sum(os.path.getsize(f) for f in files)

    title = "Pair run %s" % os.path.abspath(args.pairs)
    sections = []

    # Run.
    parts = []
    if sessions:
        parts.append("<pre>%s</pre>" % html.escape("\n".join(sessions[0]["header"]) or "(no run header in the log)"))
        srows = []
        for i, s in enumerate(sessions):
            span = (s["end"] - s["start"]).total_seconds() if s["start"] and s["end"] else None
            srows.append([os.path.basename(s["path"]), s["start"].strftime("%Y-%m-%d %H:%M:%S") if s["start"] else "-",
                          fmt(span, "%.1f"), s["found"] if s["found"] is not None else "-", len(s["completed"]),
                          s["outcome"] or "no end line (killed, or still running)"])
        parts.append(table(srows, ["log", "started", "seconds", "pairs to call", "pairs completed", "end"],
                           text_columns=(0, 1, 5)))
        if len(sessions) > 1:
            parts.append('<p class="note">The run was started %d times (resumed); its outputs are the sum.</p>'
                         % len(sessions))
    else:
        parts.append('<p class="note">No marlo_basecaller_1d2_log-*.log in the save path.</p>')
    sections.append(("run", "Run", "\n".join(parts)))

    # Pass and fail.
    bases = lambda rs: sum(r["length"] for r in rs)  # noqa: E731
    prow = [["pairs with a summary row", len(rows), ""],
            ["called (sequence not empty)", len(called), "%d bases" % bases(called)],
            ["pass", len(passed), "%d bases" % bases(passed)],
            ["fail", len(failed), "%d bases" % bases(failed)],
            ["empty call", empty, ""]]
    found = sessions[0]["found"] if sessions else None  # the first start lists every pair of the index
    if found:
        prow.append(["listed in the index but without a row", max(0, found - len(rows)), ""])
    if bad_rows:
        prow.append(["malformed summary rows (left out)", bad_rows, ""])
    prow.append(["FASTQ files", len(files), "%d bytes%s" % (fastq_bytes, ", gzip-compressed" if compressed else "")])
    parts = [table(prow, ["", "count", ""], text_columns=(0, 2)), image(plot_pass_fail(passed, failed, empty),
                                                                      "pass and fail counts")]
    sections.append(("pass-fail", "Pass and fail", "\n".join(parts)))

    # Yield over time.
    sections.append(("yield", "Pairs and bases over time",
                     image(plot_yield(called, sessions), "pairs and bases over time") +
                     '<p class="note">Left: when each record was written (from the log; dotted lines mark a resumed '
                     'start). Right: when strand 1 of each pair was sequenced (start_time1).</p>'))

    # Lengths.
    lengths = [r["length"] for r in called]
    lrow = [["pairs", len(lengths)], ["total bases", sum(lengths)],
            ["mean length", fmt(sum(lengths) / len(lengths) if lengths else None, "%.0f")],
            ["median length", fmt(median(lengths), "%.0f")], ["N50", n50(lengths) if lengths else "-"],
            ["longest", max(lengths) if lengths else "-"]]
    sections.append(("length", "Pair length distribution",
                     table(lrow, text_columns=(0,)) + image(plot_lengths(passed, failed), "pair length histogram")))

    # Qualities.
    qs = [to_float(r["mean_qscore"]) for r in called]
    qs = [q for q in qs if q is not None and q == q]
    qrow = [["median mean_qscore", fmt(median(qs))],
            ["pass threshold", "%g (from %s)" % (threshold, threshold_from) if threshold is not None
             else "not known: give --min_qscore"]]
    sections.append(("qscore", "mean_qscore distribution",
                     table(qrow, text_columns=(0, 1)) + image(plot_qscores(called, threshold), "mean_qscore histogram")))

    # Speed.
    srows = []
    for s in sessions:
        seconds = s["caller_ms"] / 1000.0 if s["caller_ms"] else None
        n = len(s["completed"])
        done_ids = {rid for _, rid in s["completed"]}
        done_bases = sum(r["length"] for r in called if r["read_id1"] in done_ids)
        srows.append([os.path.basename(s["path"]), fmt(s["init_ms"] / 1000.0 if s["init_ms"] is not None else None),
                      fmt(seconds, "%.1f"), n, fmt(n / seconds if seconds else None, "%.3f"),
                      fmt(done_bases / seconds if seconds else None, "%.0f"), fmt(s["kevs"], "%.2f")])
    parts = [table(srows, ["log", "init s", "calling s", "pairs", "pairs/s", "bases/s", "kev/s"], text_columns=(0,)),
             image(plot_speed(sessions), "pairs completed over time")]
    sections.append(("speed", "Speed", "\n".join(parts)))

    # Messages about single pairs, and anything else the log says.
    counts = {}
    for s in sessions:
        for m in s["messages"]:
            counts[m] = counts.get(m, 0) + 1
    if counts:
        mrows = sorted(([n, m] for m, n in counts.items()), key=lambda r: -r[0])[:40]
        body = table(mrows, ["times", "message"], text_columns=(1,))
    else:
        body = '<p class="note">None.</p>'
    sections.append(("messages", "Log messages", body))

    # Accuracy against a truth set.
    if args.data:
        with tempfile.TemporaryDirectory(prefix="run_report_") as work:
            sections.append(("accuracy", "Accuracy against the truth", accuracy_section(args, work, threshold)))

    out = args.out or os.path.join(args.pairs, "run_report.html")
    page = ["<!DOCTYPE html>", '<html lang="en"><head><meta charset="utf-8">',
            "<title>%s</title>" % html.escape(title), "<style>%s</style></head><body>" % CSS,
            "<h1>%s</h1>" % html.escape(title),
            '<p class="note">Made %s from sequencing_summary.txt and %d log file(s).</p>'
            % (datetime.datetime.now().strftime("%Y-%m-%d %H:%M"), len(logs)),
            "<ul>" + "".join('<li><a href="#%s">%s</a></li>' % (key, html.escape(name)) for key, name, _ in sections)
            + "</ul>"]
    for key, name, body in sections:
        page.append('<section id="%s"><h2>%s</h2>\n%s\n</section>' % (key, html.escape(name), body))
    page.append("</body></html>")
    with open(out, "w") as f:
        f.write("\n".join(page) + "\n")
    print("run_report: wrote %s (%d pairs, %d sections)" % (out, len(rows), len(sections)))


if __name__ == "__main__":
    main()
