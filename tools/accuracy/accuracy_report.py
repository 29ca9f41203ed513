#!/usr/bin/python3
"""Accuracy report of a pair run against the truth of a simulated test-bed set.

  /usr/bin/python3 tools/accuracy/accuracy_report.py --data DATA --single_strand SS --pairs PAIRS \\
      --out DIR [--evaluate_calls BIN] [--min_qscore 7]

DATA is the read simulator's output (truth.fasta, truth_pairs.tsv), SS the single-strand step's save
path (calls_1d.fastq, index_1d.tsv) and PAIRS the pair run's save path (sequencing_summary.txt, the
FASTQ under pass/ and fail/ or directly in it, plain or .fastq.gz, the run's *_log-*.log). evaluate_calls does the
alignments (its --details file: per-read rows and bases binned by printed quality); this script adds
what the run's own files say and writes into DIR:

  report.json   pair yield and the failure messages of the log, identities, per-base calibration
                (every printed quality value, with bases and charged errors, for fitting), per-read
                printed against true Q and the pass/fail split against the truth's
  report.png    calibration curves, identity distributions, per-read printed against true Q
  details.json, identity.json   evaluate_calls' own outputs

A read's true Q is -10 log10(errors / aligned columns) of its alignment to the truth (the error count
behind its identity), 60 when it has no error. A base's errors: a substitution or an inserted call
base charges 1 to it, a missed truth base 1/2 to each call base beside it.
"""
import argparse
import glob
import gzip
import json
import math
import os
import re
import shutil
import subprocess
import sys

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
Q_CAP = 60.0
SINGLE_SETS = ("strand1", "strand2", "unpaired", "single")


def phred(errors, total):
    if total <= 0 or errors <= total * 1e-6:
        return Q_CAP
    return min(Q_CAP, -10.0 * math.log10(errors / total))


def quantile(values, q):
    """Linear interpolation between order statistics (as evaluate_calls does)."""
    v = sorted(values)
    if not v:
        return None
    pos = q * (len(v) - 1)
    lo = int(math.floor(pos))
    hi = min(lo + 1, len(v) - 1)
    return v[lo] + (v[hi] - v[lo]) * (pos - lo)


def median(values):
    return quantile(values, 0.5)


def read_tsv(path):
    with open(path) as f:
        header = f.readline().rstrip("\r\n").split("\t")
        rows = []
        for line in f:
            fields = line.rstrip("\r\n").split("\t")
            if len(fields) >= len(header) - 1:
                rows.append(dict(zip(header, fields)))
    return rows


def to_float(text):
    try:
        return float(text)
    except (TypeError, ValueError):
        return None


def fastq_ids(path):
    """Read ids of a FASTQ file (first word of each header, without the @)."""
    ids = []
    with (gzip.open(path, "rt") if path.endswith(".gz") else open(path)) as f:
        for i, line in enumerate(f):
            if i % 4 == 0 and line.startswith("@"):
                ids.append(line[1:].split()[0] if line[1:].split() else "")
    return ids


def find_evaluator(given):
    for candidate in (given, os.path.join(REPO, "build", "bin", "evaluate_calls"), shutil.which("evaluate_calls")):
        if candidate and os.path.isfile(candidate) and os.access(candidate, os.X_OK):
            return candidate
    sys.exit("accuracy_report: evaluate_calls not found; build it (cmake --build build --target evaluate_calls) "
             "or give --evaluate_calls.")


def log_failures(log_paths, known_ids):
    """Counts the per-pair messages of the run's logs other than the progress lines, with the read ids
    (and the file names printed beside them) taken out, so that equal failures group together."""
    prefix = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d(\.\d+)? (\[[^\]]*\] )?(\{\w+\} )?")
    token = re.compile(r"[^\s'\"(),]+")
    counts, pairs_named = {}, set()
    for path in log_paths:
        with open(path, errors="replace") as f:
            for line in f:
                line = line.rstrip("\r\n")
                m = prefix.match(line)
                if not m:
                    continue
                text = line[m.end():]
                hits = [t for t in token.finditer(text) if t.group(0) in known_ids]
                if not hits or text.endswith(") has been loaded.") or text.endswith(") completed."):
                    continue
                first, last = hits[0].start(), hits[-1].end()
                open_at, close_at = text.rfind("(", 0, first), text.find(")", last)
                if open_at >= 0 and close_at >= 0:
                    key = text[:open_at] + "(...)" + text[close_at + 1:]
                else:
                    key = token.sub(lambda t: "..." if t.group(0) in known_ids else t.group(0), text)
                counts[key] = counts.get(key, 0) + 1
                pairs_named.add(hits[0].group(0))
    return dict(sorted(counts.items(), key=lambda kv: -kv[1])), pairs_named


def run_min_qscore(log_paths):
    for path in log_paths:
        with open(path, errors="replace") as f:
            for line in f:
                m = re.match(r"\s*minimum qscore:\s*(\S+)", line)
                if m:
                    return to_float(m.group(1))
    return None


def identity_stats(rows):
    ids = [r["identity"] for r in rows]
    if not ids:
        return {"count": 0}
    return {"count": len(ids), "median": median(ids), "mean": sum(ids) / len(ids), "p10": quantile(ids, 0.1),
            "median_error": 1.0 - median(ids)}


def calibration(bin_lists):
    """Adds up [bases, errors] per printed Q over the given sets; one row per printed value."""
    top = max((len(b) for b in bin_lists), default=0)
    bases = [0] * top
    errors = [0.0] * top
    for b in bin_lists:
        for q, (n, e) in enumerate(b):
            bases[q] += n
            errors[q] += e
    total = sum(bases)
    bins = [{"q": q, "bases": bases[q], "errors": errors[q],
             "error_rate": errors[q] / bases[q] if bases[q] else None,
             "empirical_q": phred(errors[q], bases[q]) if bases[q] else None,
             "share": bases[q] / total if total else 0.0} for q in range(top)]
    out = {"bases": total, "errors": sum(errors), "empirical_q_all": phred(sum(errors), total), "bins": bins}
    # The bins the calibration is judged on: Q5 to Q20 holding at least 1% of the bases.
    judged = [b for b in bins if 5 <= b["q"] <= 20 and b["share"] >= 0.01]
    out["max_gap_q5_q20"] = max((abs(b["empirical_q"] - b["q"]) for b in judged), default=None)
    # Informational: empirical against printed Q, least squares weighted by bases, over bins holding
    # at least 0.1% of the bases and at least one error.
    fit = [b for b in bins if b["share"] >= 0.001 and b["errors"] > 0]
    w = sum(b["bases"] for b in fit)
    if len(fit) >= 2 and w > 0:
        mx = sum(b["bases"] * b["q"] for b in fit) / w
        my = sum(b["bases"] * b["empirical_q"] for b in fit) / w
        sxx = sum(b["bases"] * (b["q"] - mx) ** 2 for b in fit)
        sxy = sum(b["bases"] * (b["q"] - mx) * (b["empirical_q"] - my) for b in fit)
        if sxx > 0:
            out["linear_fit"] = {"slope": sxy / sxx, "intercept": my - sxy / sxx * mx, "bins": len(fit)}
    return out


def per_read(rows, printed, passed, min_qscore):
    """Printed mean Q against true Q, and the pass/fail split against the truth's (true Q >= min_qscore)."""
    out_rows, agree, table = [], 0, {"pass_pass": 0, "pass_fail": 0, "fail_pass": 0, "fail_fail": 0}
    for r in rows:
        p = printed.get(r["read_id"])
        if p is None:
            continue
        is_pass = passed(r["read_id"], p)
        true_pass = r["true_q"] >= min_qscore
        agree += is_pass == true_pass
        table[("pass" if is_pass else "fail") + "_" + ("pass" if true_pass else "fail")] += 1
        out_rows.append({"read_id": r["read_id"], "set": r["set"], "length": r["length"], "printed_q": p,
                         "true_q": r["true_q"], "identity": r["identity"], "pass": is_pass, "true_pass": true_pass})
    n = len(out_rows)
    return {"count": n, "without_printed_q": len(rows) - n,
            "median_printed_q": median([r["printed_q"] for r in out_rows]),
            "median_true_q": median([r["true_q"] for r in out_rows]),
            "pass_fail": dict(table, min_qscore=min_qscore, agreement=agree / n if n else None),
            "rows": out_rows}


def plot(report, detail_sets, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, axes = plt.subplots(1, 3, figsize=(17, 5.2))
    ax = axes[0]
    top = 5
    for name, label, colour in (("pairs", "pair calls", "C0"), ("single_strand", "single-strand calls", "C1")):
        cal = report["calibration"].get(name)
        if not cal:
            continue
        pts = [b for b in cal["bins"] if b["share"] >= 0.001]
        if not pts:
            continue
        top = max(top, max(b["q"] for b in pts), max(b["empirical_q"] for b in pts))
        ax.plot([b["q"] for b in pts], [b["empirical_q"] for b in pts], "-", color=colour, alpha=0.5)
        ax.scatter([b["q"] for b in pts], [b["empirical_q"] for b in pts], s=[4 + 400 * b["share"] for b in pts],
                   color=colour, label=label)
    top = min(Q_CAP, top + 2)
    ax.plot([0, top], [0, top], "k--", lw=1, label="printed = empirical")
    ax.set(xlim=(0, top), ylim=(0, top), xlabel="printed base quality", ylabel="empirical Q of the bin",
           title="Per-base calibration (bins with >= 0.1% of bases; area ~ share)")
    ax.legend(loc="upper left")

    ax = axes[1]
    for name, colour in (("strand1", "C1"), ("strand2", "C2"), ("unpaired", "C7"), ("single", "C1"), ("pairs", "C0")):
        ids = sorted(100 * r["identity"] for r in detail_sets.get(name, []))
        if ids:
            ax.step(ids, [(i + 1) / len(ids) for i in range(len(ids))], where="post", color=colour,
                    label="%s (n=%d, median %.2f%%)" % (name, len(ids), median(ids)))
    ax.set(xlabel="identity to the truth (%)", ylabel="fraction of calls at or below", title="Identity distributions")
    ax.legend(loc="upper left")
    ax.grid(alpha=0.3)

    ax = axes[2]
    qmin = report["per_read"].get("min_qscore", 7)
    top = 5
    for name, label, colour in (("pairs", "pairs (summary mean_qscore)", "C0"),
                                ("single_strand", "single strands (mean_qscore_template)", "C1")):
        rows = report["per_read"].get(name, {}).get("rows", [])
        if rows:
            top = max(top, max(r["printed_q"] for r in rows), max(r["true_q"] for r in rows))
            ax.scatter([r["printed_q"] for r in rows], [r["true_q"] for r in rows], s=10, color=colour, alpha=0.6,
                       label=label)
    top = min(Q_CAP, top + 2)
    ax.plot([0, top], [0, top], "k--", lw=1)
    ax.axvline(qmin, color="grey", lw=0.8)
    ax.axhline(qmin, color="grey", lw=0.8)
    ax.set(xlim=(0, top), ylim=(0, top), xlabel="printed mean Q of the read", ylabel="true Q of the read",
           title="Per-read Q (lines: min_qscore %g)" % qmin)
    ax.legend(loc="upper left")
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)


def fmt(x, form="%.2f", none="-"):
    return none if x is None else form % x


def print_report(report, evaluator_table):
    y = report["yield"]
    print("== Pair yield")
    share = fmt(100 * y["fraction"] if y["true_pairs"] else None)
    print("true pairs called: %d of %d (%s%%); true pairs with an empty call: %d, without a summary row: %d; "
          "other pairs called: %d" % (y["called"], y["true_pairs"], share, y["empty_calls"], y["without_row"],
                                      y["other_pairs_called"]))
    for msg, n in y["failure_messages"].items():
        print("  %5d  %s" % (n, msg))
    print("\n== Identity")
    print(evaluator_table.rstrip())
    idn = report["identity"]
    print("better strand's median error / pair's median error: %s (per pair, median: %s)"
          % (fmt(idn.get("better_strand_to_pair_error_ratio")), fmt(idn.get("per_pair_median_error_ratio"))))

    print("\n== Per-base calibration (bins holding >= 0.1% of a set's bases)")
    cal = report["calibration"]
    names = [n for n in ("pairs", "single_strand") if n in cal]
    print("printed Q" + "".join("  %14s %6s %6s" % (n + " share", "err%", "emp Q") for n in names))
    top = max(len(cal[n]["bins"]) for n in names) if names else 0
    for q in range(top):
        cells = [cal[n]["bins"][q] if q < len(cal[n]["bins"]) else None for n in names]
        if not any(c and c["share"] >= 0.001 for c in cells):
            continue
        line = "%9d" % q
        for c in cells:
            if c and c["bases"]:
                line += "  %13.1f%% %6.2f %6.1f" % (100 * c["share"], 100 * c["error_rate"], c["empirical_q"])
            else:
                line += "  %14s %6s %6s" % ("-", "-", "-")
        print(line)
    for n in names:
        c = cal[n]
        fit = c.get("linear_fit")
        print("%s: %d bases, all-base empirical Q %.1f; largest |printed - empirical| over Q5-Q20 bins with >= 1%%: %s;"
              " empirical ~ %s * printed + %s"
              % (n, c["bases"], c["empirical_q_all"], fmt(c["max_gap_q5_q20"], "%.1f"),
                 fmt(fit and fit["slope"], "%.3f"), fmt(fit and fit["intercept"], "%.2f")))

    print("\n== Per-read mean Q and pass/fail (min_qscore %g)" % report["per_read"]["min_qscore"])
    print("%-14s %6s %10s %10s %8s   %s" % ("set", "reads", "med print", "med true", "agree",
                                           "printed/true: pass/pass pass/fail fail/pass fail/fail"))
    for n in ("pairs", "single_strand"):
        s = report["per_read"].get(n)
        if not s:
            continue
        pf = s["pass_fail"]
        print("%-14s %6d %10s %10s %7s%%   %d %d %d %d   (pass by %s)" % (
            n, s["count"], fmt(s["median_printed_q"]), fmt(s["median_true_q"]),
            fmt(100 * pf["agreement"] if pf["agreement"] is not None else None, "%.1f"),
            pf["pass_pass"], pf["pass_fail"], pf["fail_pass"], pf["fail_fail"], s["pass_by"]))
        if s["without_printed_q"]:
            print("  (%d call(s) without a printed mean Q left out)" % s["without_printed_q"])


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--data", required=True, help="read simulator output: truth.fasta, truth_pairs.tsv")
    p.add_argument("--single_strand", required=True, help="single-strand step's save path")
    p.add_argument("--pairs", required=True, help="pair run's save path")
    p.add_argument("--out", required=True, help="folder for report.json, report.png and evaluate_calls' files")
    p.add_argument("--evaluate_calls", default="", help="the evaluate_calls program (default: build/bin, then PATH)")
    p.add_argument("--min_qscore", type=float, default=7.0, help="pass threshold for the split (default 7)")
    p.add_argument("--no_plot", action="store_true", help="skip report.png")
    args = p.parse_args()

    truth_fasta = os.path.join(args.data, "truth.fasta")
    truth_pairs_path = os.path.join(args.data, "truth_pairs.tsv")
    calls_1d = os.path.join(args.single_strand, "calls_1d.fastq")
    index_1d = os.path.join(args.single_strand, "index_1d.tsv")
    summary_path = os.path.join(args.pairs, "sequencing_summary.txt")
    for path in (truth_fasta, truth_pairs_path):
        if not os.path.isfile(path):
            sys.exit("accuracy_report: missing %s (give the read simulator's output folder as --data)" % path)
    os.makedirs(args.out, exist_ok=True)

    # Pair FASTQ files and the folder each call went to.
    # Compressed files are given to evaluate_calls as plain copies in DIR/pair_calls.
    folder_of, pair_fastq = {}, []
    for sub in ("pass", "fail", ""):
        for path in sorted(glob.glob(os.path.join(args.pairs, sub, "*.fastq")) +
                           glob.glob(os.path.join(args.pairs, sub, "*.fastq.gz"))):
            for rid in fastq_ids(path):
                folder_of[rid] = sub or None
            if path.endswith(".gz"):
                plain = os.path.join(args.out, "pair_calls", sub or "root", os.path.basename(path)[:-3])
                os.makedirs(os.path.dirname(plain), exist_ok=True)
                with gzip.open(path, "rb") as src, open(plain, "wb") as dst:
                    shutil.copyfileobj(src, dst)
                path = plain
            pair_fastq.append(path)
    filtered = any(os.path.isdir(os.path.join(args.pairs, d)) for d in ("pass", "fail"))

    evaluator = find_evaluator(args.evaluate_calls)
    details_path = os.path.join(args.out, "details.json")
    cmd = [evaluator, "--truth", truth_fasta, "--pairs", truth_pairs_path, "--details", details_path,
           "--json", os.path.join(args.out, "identity.json")]
    if os.path.isfile(calls_1d):
        cmd += ["--single", calls_1d]
    else:
        print("accuracy_report: no %s; single-strand figures are left out" % calls_1d, file=sys.stderr)
    if pair_fastq:
        cmd += ["--pair_calls"] + pair_fastq
    run = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        sys.exit("accuracy_report: %s failed: %s" % (" ".join(cmd), run.stderr.strip()))
    with open(details_path) as f:
        details = json.load(f)
    detail_sets = {}
    for name, s in details.items():
        cols = s["read_columns"]
        detail_sets[name] = [dict(zip(cols, row)) for row in s["reads"]]

    report = {"inputs": {"data": args.data, "single_strand": args.single_strand, "pairs": args.pairs,
                         "evaluate_calls": evaluator, "min_qscore": args.min_qscore}}

    # Pair yield.
    true_pairs = [(r["read_id1"], r["read_id2"]) for r in read_tsv(truth_pairs_path)]
    summary = read_tsv(summary_path) if os.path.isfile(summary_path) else None
    rows_of = {}
    for r in summary or []:
        rows_of.setdefault((r.get("read_id1"), r.get("read_id2")), []).append(r)
    true_set = set(true_pairs)
    if summary is not None:
        called = sum(1 for tp in true_pairs if any(int(r.get("sequence_length") or 0) > 0 for r in rows_of.get(tp, [])))
        empty = sum(1 for tp in true_pairs if tp in rows_of and not any(int(r.get("sequence_length") or 0) > 0
                                                                         for r in rows_of[tp]))
        without_row = sum(1 for tp in true_pairs if tp not in rows_of)
        others = sum(1 for k, rs in rows_of.items()
                     if k not in true_set and any(int(r.get("sequence_length") or 0) > 0 for r in rs))
    else:
        print("accuracy_report: no %s; yield counted from the FASTQ files" % summary_path, file=sys.stderr)
        called = sum(1 for a, _ in true_pairs if a in folder_of)
        empty, without_row, others = 0, len(true_pairs) - called, 0
    known_ids = set()
    with open(truth_fasta) as f:
        for line in f:
            if line.startswith(">"):
                known_ids.add(line[1:].split()[0])
    logs = sorted(glob.glob(os.path.join(args.pairs, "*_log-*.log")))
    failures, _ = log_failures(logs, known_ids)
    report["yield"] = {"true_pairs": len(true_pairs), "called": called,
                       "fraction": called / len(true_pairs) if true_pairs else None,
                       "empty_calls": empty, "without_row": without_row, "other_pairs_called": others,
                       "logs": logs, "failure_messages": failures}
    run_min = run_min_qscore(logs)

    # Identities.
    idn = {name: identity_stats(rows) for name, rows in detail_sets.items()}
    strand_errors = [idn[s]["median_error"] for s in ("strand1", "strand2") if idn.get(s, {}).get("count")]
    pair_error = idn.get("pairs", {}).get("median_error")
    if strand_errors and pair_error is not None:
        idn["better_strand_to_pair_error_ratio"] = min(strand_errors) / pair_error if pair_error > 0 else None
    # The same pair by pair: the better of its own two strands against its pair call.
    err = {name: {r["read_id"]: 1.0 - r["identity"] for r in detail_sets.get(name, [])}
           for name in ("strand1", "strand2")}
    pair_err = {r["read_id"]: 1.0 - r["identity"] for r in detail_sets.get("pairs", [])}
    ratios = [min(err["strand1"][a], err["strand2"][b]) / pair_err[a] for a, b in true_pairs
              if a in pair_err and pair_err[a] > 0 and a in err["strand1"] and b in err["strand2"]]
    idn["per_pair_median_error_ratio"] = median(ratios)
    report["identity"] = idn

    # Per-base calibration.
    report["calibration"] = {}
    if "pairs" in details:
        report["calibration"]["pairs"] = calibration([details["pairs"]["bins"]])
    singles = [details[s]["bins"] for s in SINGLE_SETS if s in details]
    if singles:
        report["calibration"]["single_strand"] = calibration(singles)

    # Per-read printed against true Q, and the pass/fail split.
    per = {"min_qscore": args.min_qscore, "run_min_qscore": run_min}
    if "pairs" in detail_sets:
        printed = {}
        for (a, _), rs in rows_of.items():
            for r in rs:
                if int(r.get("sequence_length") or 0) > 0 and to_float(r.get("mean_qscore")) is not None:
                    printed[a] = to_float(r["mean_qscore"])
        if filtered:
            passed = lambda rid, q: folder_of.get(rid) == "pass"  # noqa: E731
        else:
            passed = lambda rid, q: q >= args.min_qscore  # noqa: E731
        per["pairs"] = per_read([dict(r, set="pairs") for r in detail_sets["pairs"]], printed, passed, args.min_qscore)
        per["pairs"]["pass_by"] = "folder (pass/)" if filtered else "mean_qscore >= min_qscore"
    single_rows = [dict(r, set=s) for s in SINGLE_SETS for r in detail_sets.get(s, [])]
    if single_rows:
        printed = {}
        if os.path.isfile(index_1d):
            for r in read_tsv(index_1d):
                q = to_float(r.get("mean_qscore_template"))
                if q is not None:
                    printed[r["read_id"]] = q
        else:
            print("accuracy_report: no %s; single-strand mean Q left out" % index_1d, file=sys.stderr)
        per["single_strand"] = per_read(single_rows, printed, lambda rid, q: q >= args.min_qscore, args.min_qscore)
        per["single_strand"]["pass_by"] = "mean_qscore_template >= min_qscore"
    report["per_read"] = per

    with open(os.path.join(args.out, "report.json"), "w") as f:
        json.dump(report, f, indent=1)
        f.write("\n")
    if not args.no_plot:
        plot(report, detail_sets, os.path.join(args.out, "report.png"))
    print_report(report, run.stdout)
    if run_min is not None and filtered and run_min != args.min_qscore:
        print("note: the run filtered at min_qscore %g, the truth split uses %g" % (run_min, args.min_qscore))
    print("\nWritten: %s" % ", ".join(os.path.join(args.out, n) for n in
                                      (["report.json"] + ([] if args.no_plot else ["report.png"]) + ["details.json"])))


if __name__ == "__main__":
    main()
