#!/usr/bin/python3
"""Trains the default raw transducer model on simulated reads and exports it in the Tessel dialect.

A maintainer's tool, not part of the build: it needs Debian's python3-torch, python3-numpy and
python3-h5py, and the read_simulator binary. Everything is seeded, so the same command on the same
torch version gives the same model.

  /usr/bin/python3 tools/training/train.py --simulator build/bin/read_simulator \
      --workdir /work/training_r2 --output /work/training_r2/model.json

Steps:
  1. simulate --train_sets training subsets of --train_molecules molecules each, subset i with seed
     --train_seed + i and simulator settings drawn over the ranges of kvx_settings.TRAIN_RANGES
     (subset 0 at the defaults), and the held-out sets of kvx_settings.HELDOUT_SETS, into the work
     directory (kept there; a second run reuses them). The subsets and their settings are listed in
     training_sets.json there;
  2. train with cross-entropy on per-row targets (see kvx_data) plus a small penalty that keeps the
     log-sum-exp of each row near 0, so that the runtime's softmax, which does not subtract the row
     maximum, stays far from the range limits of expf;
  3. write a checkpoint every --checkpoint_every steps (a cut-off run resumes from it) and one line of
     train_log.tsv per --log_every steps;
  4. export the final model.

The learning-rate schedule runs over --steps, so a run that goes on from its checkpoint must be given
the same --steps (and the same network and data options) as the run that wrote it.
"""
import argparse
import json
import math
import os
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import kvx_data  # noqa: E402
import kvx_settings  # noqa: E402
from kvx_model import RawTransducerModel, write_tessel  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def parse_args():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--simulator", default=os.path.join(REPO, "build", "bin", "read_simulator"))
    p.add_argument("--workdir", default="/tmp/kvx_training")
    p.add_argument("--output", default="", help="model file to write at the end (default: model.json in --workdir)")
    p.add_argument("--train_seed", type=int, default=4001, help="seed of training subset 0; subset i uses seed + i")
    p.add_argument("--train_sets", type=int, default=12, help="training subsets, each with its own settings")
    p.add_argument("--train_molecules", type=int, default=60, help="molecules per training subset")
    p.add_argument("--heldout", default="default",
                   help="held-out set (a name of kvx_settings.HELDOUT_SETS) scored while training")
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
    p.add_argument("--keep_every", type=int, default=500,
                   help="also keep a copy of the checkpoint every this many steps (checkpoint_step<N>.pt)")
    p.add_argument("--log_every", type=int, default=10)
    p.add_argument("--eval_every", type=int, default=200)
    p.add_argument("--time_limit_min", type=float, default=0,
                   help="stop (with a checkpoint) after this many minutes of this invocation; 0: no limit")
    p.add_argument("--fresh", action="store_true", help="ignore an existing checkpoint")
    p.add_argument("--prepare_only", action="store_true", help="simulate the data sets and stop")
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
    output = args.output or os.path.join(args.workdir, "model.json")
    subsets = kvx_settings.training_subsets(args.train_seed, args.train_sets)
    train_dirs = []
    for seed, settings in subsets:
        d = os.path.join(args.workdir, "train", "seed%d_n%d" % (seed, args.train_molecules))
        kvx_data.simulate(args.simulator, d, seed, args.train_molecules, settings)
        train_dirs.append(d)
    with open(os.path.join(args.workdir, "training_sets.json"), "w") as f:
        json.dump({"ranges": kvx_settings.TRAIN_RANGES, "molecules_per_set": args.train_molecules,
                   "sets": [{"seed": s, "settings": st} for s, st in subsets]}, f, indent=1)
    held_dirs = kvx_settings.simulate_heldout(args.simulator, os.path.join(args.workdir, "heldout"))
    held_dir = held_dirs[args.heldout]
    if args.prepare_only:
        return 0

    t0 = time.time()
    train = [s for d in train_dirs for s in kvx_data.load_strands(d)]
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
        # Going on under other settings would silently train a different model than the command says.
        fixed = ("steps", "lr", "warmup", "batch", "rows", "seed", "conv_size", "gru_size", "gru_layers",
                 "factorised", "train_seed", "train_sets", "train_molecules")
        changed = [k for k in fixed if k in ck["args"] and ck["args"][k] != getattr(args, k)]
        if changed:
            print("the checkpoint in %s was written with other settings (%s); give the same ones or --fresh" % (
                args.workdir, ", ".join("--%s %s" % (k, ck["args"][k]) for k in changed)), flush=True)
            return 1
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
    # The log's seconds run on over all invocations of a run: the wall time of the whole training.
    before = 0.0
    if step > 0 and os.path.exists(log_path):
        with open(log_path) as f:
            last = f.read().strip().split("\n")[-1].split("\t")
        before = float(last[1]) if last[0].isdigit() else 0.0
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
                step, before + time.time() - start, lr, acc_ce / n_acc, acc_z / n_acc, acc_acc / n_acc, hce, hacc)
            print(line, flush=True)
            with open(log_path, "a") as f:
                f.write(line + "\n")
            acc_ce, acc_z, acc_acc, n_acc = 0.0, 0.0, 0.0, 0
        if step % args.checkpoint_every == 0:
            save(ck_path)
        if args.keep_every > 0 and step % args.keep_every == 0:
            save(os.path.join(args.workdir, "checkpoint_step%d.pt" % step))
    save(ck_path)
    save(os.path.join(args.workdir, "final.pt"))
    write_tessel(model, output, {
        "description": "raw transducer model of the R1 test pores, trained on simulated reads",
        "training": {"train_seed": args.train_seed, "train_sets": args.train_sets,
                     "train_molecules": args.train_molecules, "settings_ranges": {k: [lo, hi] for k, (lo, hi, _) in kvx_settings.TRAIN_RANGES.items()},
                     "seed": args.seed, "steps": args.steps, "batch": args.batch, "rows": args.rows}})
    print("wrote %s" % output, flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
