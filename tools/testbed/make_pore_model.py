#!/usr/bin/python3
"""Generate the synthetic 6-mer pore model shipped as data/pore_model_6mer.txt.

The procedure is deterministic (seeded) and aims at the structure of a real sensing pore:

1. Each of the six positions contributes an additive base effect. The weights peak on the two
   central positions (2 and 3, counting the oldest base as 0), so the current is dominated by the
   bases in the constriction and the outer bases only nudge it.
2. The two central bases also interact (a 4 x 4 table), so the level is not a plain sum: some
   k-mers that differ in one central base land close together and are hard to tell apart.
3. A small k-mer-specific term (independent Gaussian) stands for everything the additive picture
   misses.
4. The result is mapped linearly onto 60..130 pA.
5. Spreads: the within-event noise (level_stdv) grows mildly with the level around 1.6 pA; the
   event-to-event spread of that noise (sd_mean, sd_stdv) is drawn around 1.2 and 0.35 pA.

Usage: make_pore_model.py [output] [--seed N]
"""
import argparse
import itertools

import numpy as np

BASES = "ACGT"
K = 6
# Position weights of the base effects, oldest base first.
POSITION_WEIGHTS = np.array([0.15, 0.45, 1.0, 0.9, 0.35, 0.12])
LEVEL_MIN, LEVEL_MAX = 60.0, 130.0


def make_table(seed):
    rng = np.random.default_rng(seed)
    base_effect = rng.normal(0.0, 1.0, size=(K, 4))
    base_effect -= base_effect.mean(axis=1, keepdims=True)
    interaction = rng.normal(0.0, 0.35, size=(4, 4))
    kmers = ["".join(p) for p in itertools.product(BASES, repeat=K)]
    raw = np.empty(len(kmers))
    for i, kmer in enumerate(kmers):
        idx = [BASES.index(b) for b in kmer]
        raw[i] = sum(POSITION_WEIGHTS[p] * base_effect[p, b] for p, b in enumerate(idx))
        raw[i] += interaction[idx[2], idx[3]]
    raw += rng.normal(0.0, 0.08, size=len(kmers))
    level = LEVEL_MIN + (raw - raw.min()) * (LEVEL_MAX - LEVEL_MIN) / (raw.max() - raw.min())
    level_stdv = 1.6 * (0.8 + 0.4 * (level - LEVEL_MIN) / (LEVEL_MAX - LEVEL_MIN)) * rng.uniform(0.85, 1.15, len(kmers))
    sd_mean = rng.normal(1.2, 0.15, len(kmers)).clip(0.7, 2.0)
    sd_stdv = rng.normal(0.35, 0.05, len(kmers)).clip(0.2, 0.6)
    return kmers, level, level_stdv, sd_mean, sd_stdv


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("output", nargs="?", default="data/pore_model_6mer.txt")
    ap.add_argument("--seed", type=int, default=20261122)
    args = ap.parse_args()
    kmers, level, level_stdv, sd_mean, sd_stdv = make_table(args.seed)
    with open(args.output, "w") as out:
        out.write("kmer\tlevel_mean\tlevel_stdv\tsd_mean\tsd_stdv\n")
        for row in zip(kmers, level, level_stdv, sd_mean, sd_stdv):
            out.write("%s\t%.4f\t%.4f\t%.4f\t%.4f\n" % row)
    # How much of the level do the two central bases decide? (A real pore: most, not all.)
    centre = np.array([k[2:4] for k in kmers])
    centre_mean = {c: level[centre == c].mean() for c in set(centre)}
    residual = level - np.array([centre_mean[c] for c in centre])
    print("wrote %d k-mers, level %.1f..%.1f pA, median noise %.2f pA, variance explained by the central bases: %.0f%%"
          % (len(kmers), level.min(), level.max(), np.median(level_stdv), 100 * (1 - residual.var() / level.var())))


if __name__ == "__main__":
    main()
