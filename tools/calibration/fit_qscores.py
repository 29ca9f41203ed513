#!/usr/bin/python3
"""Fits qscore_scale and qscore_offset of the shipped workflows and of the single-strand step.

    /usr/bin/python3 tools/calibration/fit_qscores.py --sets heldout --out fit_runs [--build build] [--write]

SETS is the folder of tools/calibration/make_heldout_sets.sh; only its fitting sets (named fit*, one
at the simulator's defaults and others at other noise, dwell and drift) are used, whose single-strand
calls were made with scale 1 and offset 0. Each shipped workflow calls each fitting set's pairs with
scale 1 and offset 0 too, and the accuracy report bins every base by the quality it was printed with
and charges it its errors against the truth. The bins of all fitting sets are pooled: a map fitted
on one setting alone is over-confident as soon as a run behaves otherwise.

A printed quality is q * qscore_scale + qscore_offset, rounded. The fit searches a grid of the two.
Under each map, every raw bin is carried to the quality it would print as and bins landing on one
value are merged. Of the maps under which every printed value holding at least 1% of the bases is
within 1.5 of its empirical Q (as is the mean quality of all bases, which a read's mean_qscore is
made of), it takes the one under which the errors are likeliest (the log-likelihood of each base
being right or wrong at its printed probability, a proper scoring rule: it rewards qualities that
tell bases apart, not only qualities that are right on average). The gaps are judged on each
fitting set's own bins as well as on the pooled ones (see fitted()). Neither a least-squares line nor
the smallest worst gap will do: the pairs' empirical Q flattens out above a printed 8 or so, so a
line through every bin is pulled flat and misprints the low bins that hold most of the errors, and
the smallest gap is had by printing nearly one value for every base. The 0.5 of margin below the
2 that the held-out sets are judged by is for the spread between sets.

Prints the figures; with --write it sets the two values in each workflow's file under data/ and
writes tools/calibration/qscore_calibration.json, the record that a test holds the shipped files
to. The single-strand step's values are compiled in (apps/basecaller_1d/strand_caller.h): the
script prints them, and the test fails until they are copied there.
Rerun it (after make_heldout_sets.sh) whenever the model or a workflow's chunking changes.
"""

import argparse
import json
import math
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
RECORD = os.path.join(ROOT, "tools", "calibration", "qscore_calibration.json")
# Workflow file, and a flow cell and kit that select it.
WORKFLOWS = [("dna_r1_1d2.cfg", "KFC-R1A", "KLK-D210"), ("dna_r1_1d2_lowmem.cfg", "KFC-R1C", "KLK-D210")]


def report(args, fit, pairs_dir, out_dir):
    path = os.path.join(out_dir, "report.json")
    if not os.path.exists(path):
        subprocess.run([sys.executable, os.path.join(ROOT, "tools", "accuracy", "accuracy_report.py"),
                        "--data", os.path.join(fit, "data"), "--single_strand", os.path.join(fit, "ss"),
                        "--pairs", pairs_dir, "--out", out_dir,
                        "--evaluate_calls", os.path.join(args.build, "bin", "evaluate_calls")],
                       check=True, stdout=subprocess.DEVNULL)
    with open(path) as f:
        return json.load(f)


def pair_run(args, fit, cfg, flowcell, kit):
    run_dir = os.path.join(args.out, os.path.basename(fit), cfg.replace(".cfg", ""))
    if not os.path.exists(os.path.join(run_dir, "finished")):
        subprocess.run(["rm", "-rf", run_dir], check=True)
        subprocess.run([os.path.join(args.build, "bin", "basecaller_1d2"), "--flowcell", flowcell, "--kit", kit,
                        "--index_file", os.path.join(fit, "ss", "index_1d.tsv"),
                        "--input_path", os.path.join(fit, "data", "reads"), "--save_path", run_dir,
                        "--num_callers", str(os.cpu_count()), "--cpu_threads_per_caller", "1", "--quiet",
                        "--qscore_scale", "1", "--qscore_offset", "0"], check=True, stdout=subprocess.DEVNULL)
        open(os.path.join(run_dir, "finished"), "w").close()
    return run_dir


def pooled(calibrations):
    """One calibration of the bases of several runs: bases and errors summed per raw bin."""
    bins = {}
    for c in calibrations:
        for b in c["bins"]:
            n, e = bins.get(b["q"], (0, 0.0))
            bins[b["q"]] = (n + b["bases"], e + b["errors"])
    return {"bins": [{"q": q, "bases": n, "errors": e} for q, (n, e) in sorted(bins.items())],
            "bases": sum(c["bases"] for c in calibrations), "errors": sum(c["errors"] for c in calibrations)}


def mapped_bins(bins, scale, offset):
    """Bases and errors per printed quality when raw bin q prints as round(q * scale + offset)."""
    out = {}
    for b in bins:
        if b["bases"]:
            q = min(90, max(1, int(b["q"] * scale + offset + 0.5)))
            n, e = out.get(q, (0, 0.0))
            out[q] = (n + b["bases"], e + b["errors"])
    return out


def phred(errors, bases):
    return 60.0 if errors <= 0 else min(60.0, -10.0 * math.log10(errors / bases))


# Printed values whose gap is held to MAX_GAP_Q. Above Q20 a single-strand model's empirical Q
# flattens out (raw values 15 to 19 all hold bases at about Q22-23), which no straight map can
# follow: holding those bins too leaves only maps that print nearly one value for every base, and
# those cannot tell a likely base from an unlikely one. Above Q20 the likelihood alone keeps the
# map from over-confidence; the figures record the gaps there.
JUDGED_Q = (5, 20)


def judge(bins, scale, offset):
    """(worst gap in Q, negative log-likelihood of the errors) of one map."""
    mapped = mapped_bins(bins, scale, offset)
    total = sum(n for n, _ in mapped.values())
    worst, loss, printed_error, errors = 0.0, 0.0, 0.0, 0.0
    for q, (n, e) in mapped.items():
        p = 10.0 ** (-q / 10.0)
        loss -= e * math.log(p) + (n - e) * math.log1p(-p)
        printed_error += n * p
        errors += e
        if n >= 0.01 * total and JUDGED_Q[0] <= q <= JUDGED_Q[1]:
            worst = max(worst, abs(q - phred(e, n)))
    worst = max(worst, abs(phred(printed_error, total) - phred(errors, total)))
    return worst, loss


MAX_GAP_Q = 1.5
GAP_STEP_Q = 0.25


def fitted(calibrations):
    """The map for the runs of several fitting sets (one calibration each).

    Each map is judged on every set's own bins as well as on the pooled ones: pooled bins can be right
    on average while one setting (more noise, shorter dwell) is over-confident by several Q. Of the
    maps whose worst gap over all sets is within MAX_GAP_Q it takes the likeliest on the pooled bases;
    when no map is, the bound is widened in steps of GAP_STEP_Q until some are, so the fit still
    spreads the unavoidable gap over the sets rather than leaving it all on one."""
    pooled_bins = pooled(calibrations)["bins"]
    grid = [(s / 100.0, o / 10.0) for s in range(2, 301, 2) for o in range(0, 251)]
    judged = []
    for scale, offset in grid:
        worst, loss = judge(pooled_bins, scale, offset)
        per_set = max(judge(c["bins"], scale, offset)[0] for c in calibrations)
        judged.append((max(worst, per_set), loss, scale, offset))
    bound = MAX_GAP_Q
    while not any(j[0] <= bound for j in judged):
        bound += GAP_STEP_Q
    worst, loss, scale, offset = min((j for j in judged if j[0] <= bound), key=lambda j: j[1])
    total = pooled(calibrations)
    return {"qscore_scale": scale, "qscore_offset": offset, "worst_gap_q": round(worst, 2),
            "bases": total["bases"], "errors": round(total["errors"], 1)}


def set_values(cfg_path, values):
    text = open(cfg_path).read()
    for key in ("qscore_scale", "qscore_offset"):
        line = f"{key} = {values[key]}"
        text, n = re.subn(rf"^{key}\s*=.*$", line, text, flags=re.M)
        if n == 0:
            text = text.rstrip("\n") + "\n" + line + "\n"
    with open(cfg_path, "w") as f:
        f.write(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sets", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--write", action="store_true")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    fits = sorted(d for d in os.listdir(args.sets)
                  if d.startswith("fit") and os.path.exists(os.path.join(args.sets, d, "done")))
    if not fits:
        sys.exit(f"no fitting set in {args.sets}: run tools/calibration/make_heldout_sets.sh first")
    described = [open(os.path.join(args.sets, d, "done")).read().strip() for d in fits]

    record = {"fitting_sets": "make_heldout_sets.sh sets (name seed molecules options): " + "; ".join(described),
              "command": " ".join(["fit_qscores.py"] + sys.argv[1:]), "workflows": {}}
    singles = []
    for cfg, flowcell, kit in WORKFLOWS:
        pairs = []
        for name in fits:
            fit = os.path.join(args.sets, name)
            run_dir = pair_run(args, fit, cfg, flowcell, kit)
            rep = report(args, fit, run_dir, os.path.join(run_dir, "report"))
            pairs.append(rep["calibration"]["pairs"])
            if len(singles) < len(fits):
                singles.append(rep["calibration"]["single_strand"])
        record["workflows"][cfg] = fitted(pairs)
        print(f"{cfg}: {record['workflows'][cfg]}")
    single = fitted(singles)
    record["single_strand"] = single
    print(f"single strand: {single}")
    if args.write:
        for cfg, _, _ in WORKFLOWS:
            set_values(os.path.join(ROOT, "data", cfg), record["workflows"][cfg])
        with open(RECORD, "w") as f:
            json.dump(record, f, indent=1)
            f.write("\n")
        print(f"Written: {RECORD} and the workflow files. Set the single-strand step's values in "
              f"apps/basecaller_1d/strand_caller.h: scale {single['qscore_scale']}, offset {single['qscore_offset']}.")


if __name__ == "__main__":
    main()
