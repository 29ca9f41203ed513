"""Training data for the raw transducer model: simulated reads, their normalised signal and the
target of every network output row.

The signal is prepared exactly as the pair pipeline prepares it before the network: raw samples are
turned into picoamperes with the channel calibration, the whole read is normalised by its median and
MAD (scaled by 1.4826), and the strand is cut out from its first sample on (the segmentation's
first_sample_template is the strand start).

Targets. Row r of a window that starts at strand sample s0 covers the samples s0 + 3r .. s0 + 3r + 2.
When no base arrives in them the target is the stay column; otherwise it is the 5-mer that ends with
the last base arriving there. A 5-mer is numbered as a base-4 number, A=0 C=1 G=2 T=3, with the newest
base in the least significant digit; the network's columns 0..1023 are these 5-mers and column 1024
is the stay.
"""
import glob
import gzip
import json
import os
import subprocess

import h5py
import numpy as np

K = 5
NUM_KMERS = 4 ** K
STAY = NUM_KMERS
STRIDE = 3
BASE_INDEX = {"A": 0, "C": 1, "G": 2, "T": 3}
MAD_FACTOR = np.float32(1.4826)


def simulate(simulator, out_dir, seed, molecules, settings=None):
    """Runs the read simulator once, with `settings` (option name -> value) on top of its defaults,
    and keeps the settings beside the data (settings.json). An existing complete data set is reused."""
    if os.path.exists(os.path.join(out_dir, "base_starts.tsv.gz")):
        return
    cmd = [simulator, "--output", out_dir, "--seed", str(seed), "--molecules", str(molecules)]
    for name, value in sorted((settings or {}).items()):
        cmd += ["--" + name, str(value)]
    print("running:", " ".join(cmd), flush=True)
    subprocess.run(cmd, check=True)
    with open(os.path.join(out_dir, "settings.json"), "w") as f:
        json.dump({"seed": seed, "molecules": molecules, "settings": settings or {}, "command": cmd}, f, indent=1)


def read_fasta(path):
    seqs, name, parts = {}, None, []
    with open(path) as f:
        for line in f:
            line = line.strip()
            if line.startswith(">"):
                if name is not None:
                    seqs[name] = "".join(parts)
                name, parts = line[1:].split()[0], []
            elif line:
                parts.append(line)
    if name is not None:
        seqs[name] = "".join(parts)
    return seqs


def read_base_starts(path):
    """read_id -> (strand_start, base start samples relative to the read)."""
    out = {}
    with gzip.open(path, "rt") as f:
        next(f)
        for line in f:
            read_id, start, deltas = line.rstrip("\n").split("\t")
            d = np.array(deltas.split(","), dtype=np.int64) if deltas else np.zeros(0, np.int64)
            out[read_id] = (int(start), int(start) + np.cumsum(d))
    return out


def _attr_text(v):
    return v.decode() if isinstance(v, bytes) else str(v)


def read_raw_signals(reads_dir):
    """read_id -> (int16 samples, offset, range, digitisation), from multi-read and legacy files."""
    out = {}
    for path in sorted(glob.glob(os.path.join(reads_dir, "*.rawh5"))):
        with h5py.File(path, "r") as f:
            if "Raw" in f and "Reads" in f["Raw"]:
                ch = f["UniqueGlobalKey/channel_id"].attrs
                for name in f["Raw/Reads"]:
                    g = f["Raw/Reads"][name]
                    out[_attr_text(g.attrs["read_id"])] = (
                        g["Signal"][()], float(ch["offset"]), float(ch["range"]), float(ch["digitisation"]))
            else:
                for name in f:
                    if not name.startswith("read_"):
                        continue
                    g = f[name]
                    ch = g["channel_id"].attrs
                    out[_attr_text(g["Raw"].attrs["read_id"])] = (
                        g["Raw/Signal"][()], float(ch["offset"]), float(ch["range"]), float(ch["digitisation"]))
    return out


def median_mad(x):
    """Median as the pipeline takes it (mean of the two middle values for an even count), and MAD."""
    med = np.float32(np.median(x))
    mad = np.float32(np.median(np.abs(x - med)))
    return med, mad


def normalise_read(raw, offset, rng_pa, digitisation):
    """Picoamperes, then (x - median) / (MAD * 1.4826), all in single precision like the pipeline."""
    scale = np.float32(rng_pa) / np.float32(digitisation)
    pa = (raw.astype(np.int32) + np.int32(offset)).astype(np.float32) * scale
    med, mad = median_mad(pa)
    f = np.float32(1.0) / (mad * MAD_FACTOR)
    return (pa - med) * f


def kmer_states(seq):
    """State of the 5-mer ending at each base (entries before base 4 are -1)."""
    b = np.array([BASE_INDEX[c] for c in seq], dtype=np.int64)
    states = np.full(len(b), -1, dtype=np.int64)
    if len(b) >= K:
        s = np.zeros(len(b) - K + 1, dtype=np.int64)
        for i in range(K):
            s = s * 4 + b[i:len(b) - K + 1 + i]
        states[K - 1:] = s
    return states


class Strand:
    """One strand ready for training: its normalised signal from the strand start, and for every
    sample the index of the last base that has arrived by then."""

    def __init__(self, read_id, signal, last_base, states, sequence):
        self.read_id = read_id
        self.signal = signal          # float32, normalised, from the strand start
        self.last_base = last_base    # int32 per sample
        self.states = states          # int64 per base
        self.sequence = sequence

    def targets(self, s0, rows):
        """Targets of `rows` rows of STRIDE samples starting at strand sample s0, and the number of
        bases arriving in each row."""
        ends = s0 + STRIDE * np.arange(1, rows + 1) - 1
        ends = np.minimum(ends, len(self.signal) - 1)
        lb_end = self.last_base[ends]
        lb_before = np.empty(rows, dtype=np.int64)
        lb_before[1:] = lb_end[:-1]
        lb_before[0] = self.last_base[s0 - 1] if s0 > 0 else -1
        arrivals = lb_end - lb_before
        tgt = np.where(arrivals > 0, self.states[np.maximum(lb_end, 0)], STAY)
        return tgt.astype(np.int64), arrivals


def load_strands(data_dir):
    """Every read of a simulated data set as a Strand."""
    seqs = read_fasta(os.path.join(data_dir, "truth.fasta"))
    starts = read_base_starts(os.path.join(data_dir, "base_starts.tsv.gz"))
    raws = read_raw_signals(os.path.join(data_dir, "reads"))
    strands = []
    for read_id in sorted(raws):
        raw, offset, rng_pa, digi = raws[read_id]
        strand_start, base_starts = starts[read_id]
        norm = normalise_read(raw, offset, rng_pa, digi)[strand_start:]
        rel = base_starts - strand_start
        # last_base[s] = number of bases that have arrived at or before sample s, minus one.
        counts = np.bincount(rel, minlength=len(norm))[:len(norm)]
        last_base = (np.cumsum(counts) - 1).astype(np.int32)
        strands.append(Strand(read_id, norm.astype(np.float32), last_base, kmer_states(seqs[read_id]),
                              seqs[read_id]))
    return strands


class WindowSampler:
    """Random training windows of `rows` output rows, drawn with a seeded generator, each strand
    weighted by its length."""

    def __init__(self, strands, rows, seed):
        self.strands = [s for s in strands if len(s.signal) > STRIDE * rows]
        lengths = np.array([len(s.signal) - STRIDE * rows for s in self.strands], dtype=np.float64)
        self.p = lengths / lengths.sum()
        self.rows = rows
        self.rng = np.random.default_rng(seed)

    def batch(self, size):
        n = STRIDE * self.rows
        x = np.empty((size, n), dtype=np.float32)
        y = np.empty((size, self.rows), dtype=np.int64)
        picks = self.rng.choice(len(self.strands), size=size, p=self.p)
        for i, k in enumerate(picks):
            s = self.strands[k]
            # A window at the very start of the strand now and then, as the first chunk of a read is.
            s0 = 0 if self.rng.random() < 0.02 else int(self.rng.integers(0, len(s.signal) - n + 1))
            x[i] = s.signal[s0:s0 + n]
            y[i], _ = s.targets(s0, self.rows)
        return x, y

    def state(self):
        return self.rng.bit_generator.state

    def set_state(self, state):
        self.rng.bit_generator.state = state
