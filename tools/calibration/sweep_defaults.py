#!/usr/bin/python3
"""Runs pair calls of the held-out sets at several settings and tabulates yield, identity, speed and memory.

    /usr/bin/python3 tools/calibration/sweep_defaults.py --sets heldout --out sweep \
        --setting "ov50_cs1000=--overlap 50 --chunk_size 1000" --setting "ov150=--overlap 150" ...

Each setting is a name and the options added to the shipped workflow's command line. A run whose
folder already holds its measures is not run again, so a stopped sweep goes on where it was. The
table (Markdown) goes to stdout and, with the runs' figures, to OUT/sweep.json.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def run_pairs(args, setting, options, set_name):
    """One pair run of one set; returns its measures (cached in the run folder)."""
    run_dir = os.path.join(args.out, setting, set_name)
    measures = os.path.join(run_dir, "measures.json")
    if os.path.exists(measures):
        with open(measures) as f:
            return json.load(f)
    data = os.path.join(args.sets, set_name)
    subprocess.run(["rm", "-rf", run_dir], check=True)
    os.makedirs(os.path.dirname(run_dir), exist_ok=True)
    timing = run_dir + ".time"
    command = ["/usr/bin/time", "-f", "%e %U %S %M", "-o", timing,
               os.path.join(args.build, "bin", "basecaller_1d2"), "--flowcell", args.flowcell, "--kit", args.kit,
               "--index_file", os.path.join(data, "ss", "index_1d.tsv"),
               "--input_path", os.path.join(data, "data", "reads"), "--save_path", run_dir,
               "--num_callers", str(args.callers), "--cpu_threads_per_caller", "1", "--quiet",
               "--qscore_filtering"] + options.split()
    started = time.time()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    with open(timing) as f:
        wall, user, system, rss_kb = f.read().split()[-4:]
    log = open([os.path.join(run_dir, n) for n in os.listdir(run_dir) if n.endswith(".log")][0]).read()
    kevs = re.search(r"kev/s: ([0-9.]+)", log)
    report_dir = os.path.join(run_dir, "report")
    subprocess.run([sys.executable, os.path.join(ROOT, "tools", "accuracy", "accuracy_report.py"),
                    "--data", os.path.join(data, "data"), "--single_strand", os.path.join(data, args.single_strand),
                    "--pairs", run_dir, "--out", report_dir,
                    "--evaluate_calls", os.path.join(args.build, "bin", "evaluate_calls"), "--no_plot"],
                   check=True, stdout=subprocess.DEVNULL)
    with open(os.path.join(report_dir, "report.json")) as f:
        report = json.load(f)
    result = {
        "setting": setting, "set": set_name, "options": options,
        "wall_s": float(wall), "cpu_s": float(user) + float(system), "peak_mib": int(rss_kb) / 1024.0,
        "kev_s": float(kevs.group(1)) if kevs else None, "started": started,
        "true_pairs": report["yield"]["true_pairs"], "called_pairs": report["yield"]["called"],
        "failures": report["yield"]["failure_messages"],
        "pair_identity_median": report["identity"]["pairs"]["median"],
    }
    with open(measures, "w") as f:
        json.dump(result, f, indent=1)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sets", required=True, help="folder made by make_heldout_sets.sh")
    parser.add_argument("--out", required=True)
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--setting", action="append", required=True, help='"NAME=OPTIONS"')
    parser.add_argument("--only", nargs="*", help="set names (default: every set but the fitting sets)")
    parser.add_argument("--callers", type=int, default=2)
    parser.add_argument("--per_set", action="store_true", help="also the accuracy figures of each set")
    parser.add_argument("--single_strand", default="ss",
                        help="the sets' single-strand folder the report reads (ss_cal: calibrated calls)")
    parser.add_argument("--flowcell", default="KFC-R1A")
    parser.add_argument("--kit", default="KLK-D210")
    args = parser.parse_args()

    sets = args.only or sorted(n for n in os.listdir(args.sets)
                               if not n.startswith("fit") and os.path.exists(os.path.join(args.sets, n, "done")))
    rows = []
    for entry in args.setting:
        name, _, options = entry.partition("=")
        runs = [run_pairs(args, name, options, s) for s in sets]
        true_pairs = sum(r["true_pairs"] for r in runs)
        called = sum(r["called_pairs"] for r in runs)
        events = sum(r["kev_s"] * r["wall_s"] for r in runs if r["kev_s"])
        rows.append({
            "setting": name, "options": options, "sets": sets, "true_pairs": true_pairs, "called": called,
            "yield": called / true_pairs if true_pairs else 0.0,
            "identity_median_of_sets": statistics.median(r["pair_identity_median"] for r in runs),
            "worst_set_identity": min(r["pair_identity_median"] for r in runs),
            "kev_s": events / sum(r["wall_s"] for r in runs if r["kev_s"]),
            "cpu_s": sum(r["cpu_s"] for r in runs), "peak_mib": max(r["peak_mib"] for r in runs),
            "failures": sum(sum(r["failures"].values()) for r in runs), "runs": runs,
        })
        print(f"done {name}", file=sys.stderr, flush=True)
    with open(os.path.join(args.out, "sweep.json"), "w") as f:
        json.dump(rows, f, indent=1)
    print("| setting | options | yield | failed joins | pair identity (median of sets) | worst set | kev/s | CPU s | peak MiB |")
    print("|---|---|---|---|---|---|---|---|---|")
    for r in rows:
        print(f"| {r['setting']} | `{r['options']}` | {r['called']}/{r['true_pairs']} ({100 * r['yield']:.1f}%) "
              f"| {r['failures']} | {100 * r['identity_median_of_sets']:.2f}% | {100 * r['worst_set_identity']:.2f}% "
              f"| {r['kev_s']:.1f} | {r['cpu_s']:.0f} | {r['peak_mib']:.0f} |")
    if args.per_set:
        for r in rows:
            per_set_table(args, r["setting"], sets)


def per_set_table(args, setting, sets):
    """What the accuracy report says of each set at one setting: the figures the defaults are judged by."""
    print(f"\nSetting {setting}, per set:\n")
    print("| set | yield | strand 1 | strand 2 | pairs | better strand's error / pair's | worst bin gap Q5-Q20 "
          "(pairs / single) | median mean_qscore / true Q (pairs) | pass/fail agreement (pairs) |")
    print("|---|---|---|---|---|---|---|---|---|")
    for name in sets:
        with open(os.path.join(args.out, setting, name, "report", "report.json")) as f:
            rep = json.load(f)
        ident, cal, reads = rep["identity"], rep["calibration"], rep["per_read"]["pairs"]
        gap = " / ".join("-" if cal[k]["max_gap_q5_q20"] is None else f"{cal[k]['max_gap_q5_q20']:.1f}"
                         for k in ("pairs", "single_strand"))
        print(f"| {name} | {rep['yield']['called']}/{rep['yield']['true_pairs']} "
              f"| {100 * ident['strand1']['median']:.2f}% | {100 * ident['strand2']['median']:.2f}% "
              f"| {100 * ident['pairs']['median']:.2f}% | {ident['better_strand_to_pair_error_ratio']:.2f} | {gap} "
              f"| {reads['median_printed_q']:.1f} / {reads['median_true_q']:.1f} "
              f"| {100 * reads['pass_fail']['agreement']:.0f}% |")


if __name__ == "__main__":
    main()
