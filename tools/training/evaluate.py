#!/usr/bin/python3
"""Measures a model file on a simulated held-out set: per-row accuracy of the network, the range of
its logits (the runtime's softmax has no max subtraction), and the identity of whole-strand calls made
with the runner's transducer decoding (redone in numpy).

  /usr/bin/python3 tools/training/evaluate.py --model data/model_raw_r1_gru96x4.json \
      --heldout /tmp/kvx_training/heldout_seed1002_n30 --evaluator build/bin/evaluate_calls

Rows are scored in chunks of --chunk_rows rows, each starting from zero recurrent state as the
runtime's chunks do. Calls are made over each whole strand in one piece (no chunk joins), written as
FASTA and scored against the truth by the evaluation tool of the test bed.
"""
import argparse
import json
import os
import subprocess
import sys
import time

import numpy as np
import torch

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kvx_data  # noqa: E402
import kvx_decode  # noqa: E402
from kvx_model import RawTransducerModel, load_tessel  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def score(model, strands, calls_path, chunk_rows=1000, rows=True):
    """Row figures (when `rows`) and whole-strand calls written to calls_path as FASTA."""
    n_rows = n_ok = n_stay = n_stay_ok = n_arr = n_arr_ok = n_pred_stay = n_pred_stay_ok = 0
    max_logit, lse_all, length_ratios = -np.inf, [], []
    t0 = time.time()
    with open(calls_path, "w") as fasta, torch.no_grad():
        for s in strands:
            n = len(s.signal) // kvx_data.STRIDE
            # Row accuracy, chunk by chunk.
            for r0 in range(0, n if rows else 0, chunk_rows):
                r1 = min(n, r0 + chunk_rows)
                x = torch.from_numpy(s.signal[3 * r0:3 * r1].copy())[None, :]
                logits = model.logits(x)[:, 0, :]
                y, _ = s.targets(3 * r0, r1 - r0)
                pred = logits.argmax(-1).numpy()
                stay = y == kvx_data.STAY
                n_rows += len(y)
                n_ok += int((pred == y).sum())
                n_stay += int(stay.sum())
                n_stay_ok += int((pred[stay] == y[stay]).sum())
                n_arr += int((~stay).sum())
                n_arr_ok += int((pred[~stay] == y[~stay]).sum())
                pstay = pred == kvx_data.STAY
                n_pred_stay += int(pstay.sum())
                n_pred_stay_ok += int((y[pstay] == kvx_data.STAY).sum())
                max_logit = max(max_logit, float(logits.max()))
                lse_all.append(torch.logsumexp(logits, -1).numpy())
            # A call over the whole strand.
            logits = model.logits(torch.from_numpy(s.signal[:3 * n].copy())[None, :])[:, 0, :]
            post = RawTransducerModel.runtime_posteriors(logits).numpy()
            decoded = kvx_decode.transducer_decode(post)
            seq = kvx_decode.path_sequence(decoded[0], decoded[1]) if decoded else ""
            fasta.write(">%s\n%s\n" % (s.read_id, seq))
            length_ratios.append(len(seq) / max(1, len(s.sequence)))
            fasta.flush()
    figures = {"strands": len(strands),
               "call_length_ratio_median": float(np.median(length_ratios)),
               "call_length_ratio_p10": float(np.percentile(length_ratios, 10)),
               "seconds": time.time() - t0}
    if rows:
        lse = np.concatenate(lse_all)
        figures.update({
            "rows": n_rows, "row_accuracy": n_ok / n_rows,
            "stay_rows": n_stay / n_rows, "stay_recall": n_stay_ok / max(1, n_stay),
            "stay_precision": n_pred_stay_ok / max(1, n_pred_stay),
            "arrival_row_accuracy": n_arr_ok / max(1, n_arr),
            "max_logit": max_logit, "logsumexp_min": float(lse.min()), "logsumexp_max": float(lse.max()),
            "logsumexp_median": float(np.median(lse)),
            # The runtime adds 1e-6 to each of a row's exponentials; where they sum to less than ten
            # times those floors, the floor flattens the row's posteriors noticeably.
            "rows_floor_over_10pct": float(np.mean(lse < np.log(10 * 1e-6 * logits.shape[-1])))})
    return figures


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--model", default=os.path.join(REPO, "data", "model_raw_r1_gru96x4.json"))
    p.add_argument("--heldout", required=True)
    p.add_argument("--chunk_rows", type=int, default=1000)
    p.add_argument("--max_reads", type=int, default=0, help="call at most this many strands (0: all)")
    p.add_argument("--calls", default="", help="FASTA of the calls (default: beside the held-out set)")
    p.add_argument("--evaluator", default=os.path.join(REPO, "build", "bin", "evaluate_calls"))
    p.add_argument("--json", default="", help="write the figures here as JSON")
    p.add_argument("--threads", type=int, default=1)
    args = p.parse_args()
    torch.set_num_threads(args.threads)

    model = load_tessel(args.model)
    model.eval()
    strands = kvx_data.load_strands(args.heldout)
    if args.max_reads:
        strands = strands[:args.max_reads]
    calls_path = args.calls or os.path.join(args.heldout, "calls_%s.fasta" % os.path.basename(args.model))
    figures = {"model": args.model, "heldout": args.heldout}
    figures.update(score(model, strands, calls_path, args.chunk_rows))
    print(json.dumps(figures, indent=1))
    if args.json:
        with open(args.json, "w") as f:
            json.dump(figures, f, indent=1)
    if os.path.exists(args.evaluator):
        cmd = [args.evaluator, "--truth", os.path.join(args.heldout, "truth.fasta"),
               "--pairs", os.path.join(args.heldout, "truth_pairs.tsv"), "--single", calls_path]
        print("running:", " ".join(cmd), flush=True)
        subprocess.run(cmd, check=True)
    else:
        print("calls written to %s (no evaluator at %s)" % (calls_path, args.evaluator))


if __name__ == "__main__":
    main()
