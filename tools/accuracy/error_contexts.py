#!/usr/bin/python3
"""Where the errors of a pair run sit: by kind, by the length of the truth's homopolymer run and by
distance to the read's ends, for the pair calls and for both strands' single-strand calls.

  /usr/bin/python3 tools/accuracy/error_contexts.py --data DATA --single_strand SS --pairs PAIRS [--json F]

DATA, SS and PAIRS are as for accuracy_report.py. Each call is aligned end to end to its true
sequence (edlib, the orientation with fewer edits). An error is placed on a truth base: a
substitution or a missed base on itself, an inserted call base on the truth base after it. Each
context prints the errors per truth base in that context for pairs, strand 1 and strand 2, and the
better strand's count over the pairs': the gain from pairing where the errors are.

accuracy_report.py's ratio is of per-read medians; the ratios here pool all bases of a class, so
they differ a little, but they show which contexts hold the pairs' remaining error.
"""
import argparse
import collections
import glob
import gzip
import json
import os
import re

import edlib

COMPLEMENT = str.maketrans("ACGT", "TGCA")
END_BASES = (5, 20, 100)   # distance classes to the nearer end of the truth
RUN_CAP = 5                # runs of this length and longer share one class


def reverse_complement(s):
    return s.translate(COMPLEMENT)[::-1]


def read_fasta(path):
    seqs, name = {}, None
    for line in open(path):
        line = line.strip()
        if line.startswith(">"):
            name = line[1:].split()[0]
            seqs[name] = []
        elif name:
            seqs[name].append(line)
    return {k: "".join(v) for k, v in seqs.items()}


def read_fastq(paths):
    calls = {}
    for path in paths:
        with (gzip.open if path.endswith(".gz") else open)(path, "rt") as f:
            while True:
                head = f.readline()
                if not head:
                    break
                seq = f.readline().strip()
                f.readline()
                f.readline()
                calls[head[1:].split()[0]] = seq
    return calls


def run_lengths(seq):
    """Length of the run of one base that each position belongs to."""
    out = [0] * len(seq)
    i = 0
    while i < len(seq):
        j = i
        while j < len(seq) and seq[j] == seq[i]:
            j += 1
        out[i:j] = [j - i] * (j - i)
        i = j
    return out


def errors(call, truth):
    """(kind, truth position) of every edit of the better-oriented end-to-end alignment."""
    fwd = edlib.align(call, truth, task="path", mode="NW")
    rev = edlib.align(reverse_complement(call), truth, task="path", mode="NW")
    best = rev if rev["editDistance"] < fwd["editDistance"] else fwd
    out, t = [], 0
    for n, op in re.findall(r"(\d+)([=XID])", best["cigar"]):
        n = int(n)
        if op == "=":
            t += n
        elif op == "I":
            out += [("ins", min(t, len(truth) - 1))] * n
        else:
            out += [("sub" if op == "X" else "del", t + k) for k in range(n)]
            t += n
    return out


def contexts(pos, runs, length):
    """The classes a truth base counts in: all, its run length, its distance to the nearer end."""
    end, near, lo = min(pos, length - 1 - pos), "inner", 0
    for hi in END_BASES:
        if end < hi:
            near = f"end{lo}-{hi - 1}"
            break
        lo = hi
    return ("all", f"run{min(runs[pos], RUN_CAP)}", near)


def tally(calls, truth, ids):
    errs, bases = collections.Counter(), collections.Counter()
    for rid in ids:
        if rid not in calls or rid not in truth:
            continue
        seq = truth[rid]
        runs = run_lengths(seq)
        for p in range(len(seq)):
            bases.update(contexts(p, runs, len(seq)))
        for kind, p in errors(calls[rid], seq):
            for c in contexts(p, runs, len(seq)):
                errs[c] += 1
                errs[f"{c} {kind}"] += 1
    return errs, bases


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--data", required=True, help="read simulator output: truth.fasta, truth_pairs.tsv")
    ap.add_argument("--single_strand", required=True, help="single-strand step's save path")
    ap.add_argument("--pairs", required=True, help="pair run's save path")
    ap.add_argument("--json", help="also write the counts here")
    a = ap.parse_args()

    truth = read_fasta(os.path.join(a.data, "truth.fasta"))
    rows = [l.split()[:2] for l in open(os.path.join(a.data, "truth_pairs.tsv"))][1:]
    pairs = read_fastq(sorted(glob.glob(os.path.join(a.pairs, "**", "*.fastq*"), recursive=True)))
    single = read_fastq([os.path.join(a.single_strand, "calls_1d.fastq")])
    # A pair call carries strand 1's id and reads as strand 1.
    sets = {"pairs": tally(pairs, truth, [r[0] for r in rows]),
            "strand 1": tally(single, truth, [r[0] for r in rows]),
            "strand 2": tally(single, truth, [r[1] for r in rows])}

    ends = [f"end{lo}-{hi - 1}" for lo, hi in zip((0,) + END_BASES, END_BASES)]
    keys = ["all"] + [f"all {k}" for k in ("sub", "ins", "del")] + \
        [f"run{n}" for n in range(1, RUN_CAP + 1)] + ends + ["inner"]
    print(f"{'context':12s} {'bases':>9s} " + " ".join(f"{s + ' errors':>20s}" for s in sets) + "  gain")
    for k in keys:
        base = sets["pairs"][1][k.split()[0]]
        cells = [f"{e[k]:8d} {100.0 * e[k] / max(b[k.split()[0]], 1):9.3f}%" for e, b in sets.values()]
        better = min(sets["strand 1"][0][k], sets["strand 2"][0][k])
        gain = better / sets["pairs"][0][k] if sets["pairs"][0][k] else float("inf")
        print(f"{k:12s} {base:9d} " + " ".join(f"{c:>20s}" for c in cells) + f"  {gain:.2f}")
    if a.json:
        json.dump({s: {"errors": dict(e), "bases": dict(b)} for s, (e, b) in sets.items()},
                  open(a.json, "w"), indent=1)


if __name__ == "__main__":
    main()
