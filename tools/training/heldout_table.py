#!/usr/bin/python3
"""Median identity of single-strand calls on every held-out set (kvx_settings.HELDOUT_SETS), for one
or more model files side by side: the table per held-out setting of MODEL_RECORD.md.

  /usr/bin/python3 tools/training/heldout_table.py --root /work/training_r2/heldout \
      --model shipped=data/model_raw_r1_gru96x4.json --model new=/work/training_r3/model.json \
      --simulator build/bin/read_simulator --evaluator build/bin/evaluate_calls

Missing held-out sets are simulated first. Calls are made as evaluate.py makes them (whole strands,
the runner's transducer decoding redone in numpy) and scored by the test bed's evaluate_calls against
the truth. Figures are kept in <root>/<set>/identity_<label>.json with the model's sha256, so a model
already scored on a set is not called again.
"""
import argparse
import hashlib
import json
import os
import subprocess
import sys

import torch

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import evaluate  # noqa: E402
import kvx_data  # noqa: E402
import kvx_settings  # noqa: E402
from kvx_model import load_tessel  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def identity(evaluator, set_dir, calls_path):
    """The evaluation tool's figures for all calls of a set together."""
    out = calls_path + ".summary.json"
    subprocess.run([evaluator, "--truth", os.path.join(set_dir, "truth.fasta"), "--single", calls_path,
                    "--json", out], check=True, stdout=subprocess.DEVNULL)
    with open(out) as f:
        return json.load(f)["single"]


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--root", required=True, help="directory of the held-out sets")
    p.add_argument("--model", action="append", required=True, help="label=path of a model file")
    p.add_argument("--sets", default=",".join(kvx_settings.HELDOUT_SETS), help="comma-separated set names")
    p.add_argument("--simulator", default=os.path.join(REPO, "build", "bin", "read_simulator"))
    p.add_argument("--evaluator", default=os.path.join(REPO, "build", "bin", "evaluate_calls"))
    p.add_argument("--markdown", default="", help="also write the table here")
    p.add_argument("--threads", type=int, default=1)
    args = p.parse_args()
    torch.set_num_threads(args.threads)

    models = [m.split("=", 1) for m in args.model]
    names = args.sets.split(",")
    dirs = kvx_settings.simulate_heldout(args.simulator, args.root, names)
    results = {}
    for name in names:
        strands = None
        for label, path in models:
            digest = sha256(path)
            keep = os.path.join(dirs[name], "identity_%s.json" % label)
            if os.path.exists(keep):
                with open(keep) as f:
                    r = json.load(f)
                if r.get("model_sha256") == digest:
                    results[name, label] = r
                    continue
            if strands is None:
                strands = kvx_data.load_strands(dirs[name])
            model = load_tessel(path)
            model.eval()
            calls = os.path.join(dirs[name], "calls_%s.fasta" % label)
            r = {"model": path, "model_sha256": digest}
            r.update(evaluate.score(model, strands, calls, rows=False))
            r.update(identity(args.evaluator, dirs[name], calls))
            with open(keep, "w") as f:
                json.dump(r, f, indent=1)
            results[name, label] = r
            print("%s %s: median %.2f%% over %d calls (%.0f s)" % (
                name, label, 100 * r["median_identity"], r["count"], r["seconds"]), flush=True)

    lines = ["| Held-out set | Seed | Settings | " + " | ".join(
                 "%s: median (p10)" % label for label, _ in models) + " |",
             "| --- | --- | --- | " + " | ".join("---" for _ in models) + " |"]
    for name in names:
        seed, settings = kvx_settings.HELDOUT_SETS[name]
        cells = ["%.2f%% (%.2f%%)" % (100 * results[name, label]["median_identity"],
                                      100 * results[name, label]["p10_identity"]) for label, _ in models]
        lines.append("| %s | %d | %s | %s |" % (
            name, seed, ", ".join("%s %s" % kv for kv in settings.items()) or "defaults", " | ".join(cells)))
    table = "\n".join(lines)
    print(table)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write(table + "\n")


if __name__ == "__main__":
    main()
