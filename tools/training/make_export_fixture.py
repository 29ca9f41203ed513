#!/usr/bin/python3
"""Writes tests/data/basecall_nn/export_fixture.json: a stretch of normalised held-out signal and the
posteriors that torch computes for it with the shipped model, read back from the exported file.

The C++ test tests/basecall_nn/model_export_test.cpp loads the same model file with the program's
loader, runs the program's runner over the same samples and compares. So the test proves that the
exported file, read by the program, computes what the training framework computes; CI needs no torch.
Rerun this script whenever the shipped model changes:

  /usr/bin/python3 tools/training/make_export_fixture.py --heldout /tmp/kvx_training/heldout_seed1002_n30

Kept for each of the `rows` output rows: the stay column and the TOP largest 5-mer columns with their
posteriors; for a few spread-out rows every column. Also kept: the transducer path that the numpy
decoder (the runner's algorithm) finds in the torch posteriors.
"""
import argparse
import json
import os
import sys

import numpy as np
import torch

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kvx_data  # noqa: E402
import kvx_decode  # noqa: E402
from kvx_model import RawTransducerModel, load_tessel  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TOP = 8


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--model", default=os.path.join(REPO, "data", "model_raw_r1_gru96x4.json"))
    p.add_argument("--heldout", required=True, help="a simulated data set (not the training set)")
    p.add_argument("--samples", type=int, default=601, help="input samples (not a multiple of 3 on purpose)")
    p.add_argument("--offset", type=int, default=3000, help="first sample, counted from the strand start")
    p.add_argument("--output", default=os.path.join(REPO, "tests", "data", "basecall_nn", "export_fixture.json"))
    args = p.parse_args()
    torch.set_num_threads(1)

    model = load_tessel(args.model)
    model.eval()
    strand = kvx_data.load_strands(args.heldout)[0]
    x = strand.signal[args.offset:args.offset + args.samples].astype(np.float32)
    with torch.no_grad():
        logits = model.logits(torch.from_numpy(x)[None, :])[:, 0, :]
        post = RawTransducerModel.runtime_posteriors(logits).numpy().astype(np.float32)
    rows, cols = post.shape
    assert rows == (args.samples + 2) // 3
    states, moves, score = kvx_decode.transducer_decode(post)

    full_rows = sorted(set([0, 1, rows // 3, rows // 2, (2 * rows) // 3, rows - 2, rows - 1]))
    top = []
    for r in range(rows):
        order = np.argsort(-post[r, :cols - 1], kind="stable")[:TOP]
        top.append({"columns": [int(c) for c in order], "values": [float(post[r, c]) for c in order],
                    "stay": float(post[r, cols - 1])})
    doc = {
        "description": "posteriors of the shipped model computed by torch; see tools/training/make_export_fixture.py",
        "model": os.path.basename(args.model),
        "read_id": strand.read_id,
        "offset": args.offset,
        "input": [float(v) for v in x],
        "rows": rows,
        "cols": cols,
        "top": top,
        "full_rows": {str(r): [float(v) for v in post[r]] for r in full_rows},
        "max_logit": float(logits.max()),
        "decoded_states": [int(s) for s in states],
        "decoded_moves": [int(m) for m in moves],
        "decoded_score": score,
    }
    with open(args.output, "w") as f:
        json.dump(doc, f, separators=(",", ":"))
        f.write("\n")
    print("wrote %s: %d samples, %d rows, max logit %.2f" % (args.output, len(x), rows, float(logits.max())))


if __name__ == "__main__":
    main()
