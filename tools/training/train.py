#!/usr/bin/python3
"""Trains the default raw transducer model on simulated reads and exports it in the Tessel dialect.

A maintainer's tool, not part of the build: it needs Debian's python3-torch, python3-numpy and
python3-h5py, and the read_simulator binary. Everything is seeded, so the same command on the same
torch version gives the same model. With one thread the default run takes about an hour.

  /usr/bin/python3 tools/training/train.py --simulator build/bin/read_simulator \
      --workdir /tmp/kvx_training --output data/model_raw_r1_gru96.json

Steps:
  1. simulate the training set (seed 1001) and a held-out set (seed 1002) into the work directory
     (kept there; a second run reuses them);
  2. train with cross-entropy on per-row targets (see kvx_data) plus a small penalty that keeps the
     log-sum-exp of each row near 0, so that the runtime's softmax, which does not subtract the row
     maximum, stays far from the range limits of expf;
  3. write a checkpoint every --checkpoint_every steps (a cut-off run resumes from it) and one line of
     train_log.tsv per --log_every steps;
  4. export the final model.
"""
import argparse
import math
import os
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kvx_data  # noqa: E402
from kvx_model import RawTransducerModel, write_tessel  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def parse_args():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--simulator", default=os.path.join(REPO, "build", "bin", "read_simulator"))
    p.add_argument("--workdir", default="/tmp/kvx_training")
    p.add_argument("--output", default=os.path.join(REPO, "data", "model_raw_r1_gru96.json"))
    p.add_argument("--train_seed", type=int, default=1001)
    p.add_argument("--train_molecules", type=int, default=250)
    p.add_argument("--heldout_seed", type=int, default=1002)
    p.add_argument("--heldout_molecules", type=int, default=30)
    p.add_argument("--seed", type=int, default=7, help="seed of the weights and of the window sampler")
    p.add_argument("--steps", type=int, default=1000)
    p.add_argument("--batch", type=int, default=32)
    p.add_argument("--rows", type=int, default=300, help="output rows per training window")
    p.add_argument("--lr", type=float, default=2e-3)
    p.add_argument("--warmup", type=int, default=100)
    p.add_argument("--zloss", type=float, default=1e-3, help="weight of the mean squared log-sum-exp")
    p.add_argument("--clip", type=float, default=2.0)
    p.add_argument("--conv_size", type=int, default=32)
    p.add_argument("--gru_size", type=int, default=96)
    p.add_argument("--gru_layers", type=int, default=3)
    p.add_argument("--factorised", type=int, default=1,
                   help="1: train the 5-mer output weights as per-base vectors plus a free part")
    p.add_argument("--threads", type=int, default=1)
    p.add_argument("--checkpoint_every", type=int, default=50)
    p.add_argument("--log_every", type=int, default=10)
    p.add_argument("--eval_every", type=int, default=200)
    p.add_argument("--time_limit_min", type=float, default=0,
                   help="stop (with a checkpoint) after this many minutes of this invocation; 0: no limit")
    p.add_argument("--fresh", action="store_true", help="ignore an existing checkpoint")
    return p.parse_args()


def lr_at(step, args):
    """Linear warm-up, then a cosine decay to 5% of the peak at the last step."""
    if step < args.warmup:
        return args.lr * (step + 1) / args.warmup
    t = (step - args.warmup) / max(1, args.steps - args.warmup)
    return args.lr * (0.05 + 0.95 * 0.5 * (1.0 + math.cos(math.pi * min(1.0, t))))


def loss_terms(model, x, y):
    logits = model.logits(x)                      # T x B x C
    flat = logits.reshape(-1, logits.shape[-1])
    target = y.t().reshape(-1)                    # T x B, like the logits
    ce = F.cross_entropy(flat, target)
    lse = torch.logsumexp(flat, dim=-1)
    z = (lse ** 2).mean()
    acc = (flat.argmax(-1) == target).float().mean()
    return ce, z, acc


def heldout_batches(strands, args):
    sampler = kvx_data.WindowSampler(strands, args.rows, seed=12345)
    return [sampler.batch(args.batch) for _ in range(8)]


def main():
    args = parse_args()
    torch.set_num_threads(args.threads)
    os.makedirs(args.workdir, exist_ok=True)
    train_dir = os.path.join(args.workdir, "train_seed%d_n%d" % (args.train_seed, args.train_molecules))
    held_dir = os.path.join(args.workdir, "heldout_seed%d_n%d" % (args.heldout_seed, args.heldout_molecules))
    kvx_data.simulate(args.simulator, train_dir, args.train_seed, args.train_molecules)
    kvx_data.simulate(args.simulator, held_dir, args.heldout_seed, args.heldout_molecules)

    t0 = time.time()
    train = kvx_data.load_strands(train_dir)
    held = kvx_data.load_strands(held_dir)
    print("loaded %d training strands (%d samples), %d held-out strands in %.0f s" % (
        len(train), sum(len(s.signal) for s in train), len(held), time.time() - t0), flush=True)

    torch.manual_seed(args.seed)
    model = RawTransducerModel(args.conv_size, args.gru_size, args.gru_layers, bool(args.factorised))
    params = [p for p in model.parameters() if p.requires_grad]
    opt = torch.optim.Adam(params, lr=args.lr)
    sampler = kvx_data.WindowSampler(train, args.rows, seed=args.seed)
    held_batches = heldout_batches(held, args)

    ck_path = os.path.join(args.workdir, "checkpoint.pt")
    log_path = os.path.join(args.workdir, "train_log.tsv")
    step = 0
    if os.path.exists(ck_path) and not args.fresh:
        ck = torch.load(ck_path, map_location="cpu")
        model.load_state_dict(ck["model"])
        opt.load_state_dict(ck["optimizer"])
        sampler.set_state(ck["sampler"])
        torch.set_rng_state(ck["torch_rng"])
        step = ck["step"]
        print("resumed from step %d" % step, flush=True)
    elif os.path.exists(log_path):
        os.remove(log_path)  # a fresh run starts a fresh log
    if not os.path.exists(log_path):
        with open(log_path, "w") as f:
            f.write("step\tseconds\tlr\tce\tzloss\trow_acc\theldout_ce\theldout_row_acc\n")

    def save(path):
        torch.save({"model": model.state_dict(), "optimizer": opt.state_dict(), "sampler": sampler.state(),
                    "torch_rng": torch.get_rng_state(), "step": step, "config": model.config(),
                    "args": vars(args)}, path + ".tmp")
        os.replace(path + ".tmp", path)

    def evaluate_heldout():
        model.eval()
        with torch.no_grad():
            ces, accs = [], []
            for x, y in held_batches:
                ce, _, acc = loss_terms(model, torch.from_numpy(x), torch.from_numpy(y))
                ces.append(float(ce))
                accs.append(float(acc))
        model.train()
        return float(np.mean(ces)), float(np.mean(accs))

    start = time.time()
    acc_ce, acc_z, acc_acc, n_acc = 0.0, 0.0, 0.0, 0
    while step < args.steps:
        if args.time_limit_min > 0 and time.time() - start > 60 * args.time_limit_min:
            print("time limit reached at step %d; checkpoint kept, run again to go on" % step, flush=True)
            save(ck_path)
            return 2
        lr = lr_at(step, args)
        for g in opt.param_groups:
            g["lr"] = lr
        x, y = sampler.batch(args.batch)
        ce, z, acc = loss_terms(model, torch.from_numpy(x), torch.from_numpy(y))
        loss = ce + args.zloss * z
        opt.zero_grad()
        loss.backward()
        torch.nn.utils.clip_grad_norm_(params, args.clip)
        opt.step()
        step += 1
        acc_ce += float(ce)
        acc_z += float(z)
        acc_acc += float(acc)
        n_acc += 1
        if step % args.log_every == 0 or step == args.steps:
            hce, hacc = ("", "")
            if step % args.eval_every == 0 or step == args.steps:
                hce, hacc = evaluate_heldout()
                hce, hacc = "%.4f" % hce, "%.4f" % hacc
            line = "%d\t%.0f\t%.2e\t%.4f\t%.3f\t%.4f\t%s\t%s" % (
                step, time.time() - start, lr, acc_ce / n_acc, acc_z / n_acc, acc_acc / n_acc, hce, hacc)
            print(line, flush=True)
            with open(log_path, "a") as f:
                f.write(line + "\n")
            acc_ce, acc_z, acc_acc, n_acc = 0.0, 0.0, 0.0, 0
        if step % args.checkpoint_every == 0:
            save(ck_path)
    save(ck_path)
    save(os.path.join(args.workdir, "final.pt"))
    write_tessel(model, args.output, {
        "description": "raw transducer model of the R1 test pores, trained on simulated reads",
        "training": {"train_seed": args.train_seed, "train_molecules": args.train_molecules,
                     "seed": args.seed, "steps": args.steps, "batch": args.batch, "rows": args.rows}})
    print("wrote %s" % args.output, flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
