"""Simulator settings of the training and held-out data.

Training data is drawn over ranges of the read simulator's settings (domain randomisation): every
training subset gets its own simulator seed and its own settings, drawn from TRAIN_RANGES with a
generator seeded by the subset's seed, so the same base seed always gives the same subsets. The ranges
reach past the held-out settings below on every side, so that none of those is an extrapolation.
Subset 0 is kept at the simulator's defaults, which anchor the figures most users will see.

The held-out sets have fixed settings and seeds of their own; none of these seeds is used for
training, and none collides with the calibration sets of the workflows (3101-3206) or the test bed's
evaluation set (1).
"""
import os

import numpy as np

import kvx_data

# name -> (low, high, kind); "int" draws a whole number in [low, high].
TRAIN_RANGES = {
    "noise_scale": (0.8, 1.5, "float"),
    "mean_dwell": (6.0, 13.0, "float"),
    "dwell_shape": (2.0, 5.0, "float"),
    "drift_scale": (0.5, 3.0, "float"),
    "scale_spread": (0.02, 0.1, "float"),
    "offset_spread": (1.0, 6.0, "float"),
    "digitisation_offset": (-20, 40, "int"),
    "digitisation_range": (1300.0, 1500.0, "float"),
    "leader_dwell_factor": (0.3, 0.8, "float"),
}

# The held-out sets: name -> (seed, settings that differ from the simulator's defaults).
HELDOUT_MOLECULES = 30
HELDOUT_SETS = {
    "default": (5001, {}),
    "noise_x1.3": (5002, {"noise_scale": 1.3}),
    "dwell_7": (5003, {"mean_dwell": 7}),
    "dwell_12": (5004, {"mean_dwell": 12}),
    "drift_x2": (5005, {"drift_scale": 2}),
    "scale_spread_x2": (5006, {"scale_spread": 0.08}),
}


def draw_settings(seed):
    """Simulator settings of one training subset, a function of its seed alone."""
    rng = np.random.default_rng([seed, 0x5e77])
    out = {}
    for name, (lo, hi, kind) in TRAIN_RANGES.items():
        if kind == "int":
            out[name] = int(rng.integers(lo, hi + 1))
        else:
            out[name] = round(float(rng.uniform(lo, hi)), 4)
    return out


def training_subsets(base_seed, count):
    """(seed, settings) of each training subset; subset 0 at the defaults."""
    return [(base_seed + i, {} if i == 0 else draw_settings(base_seed + i)) for i in range(count)]


def simulate_heldout(simulator, root, names=None):
    """Simulates the held-out sets that are missing under root; returns name -> directory."""
    out = {}
    for name in names or HELDOUT_SETS:
        seed, settings = HELDOUT_SETS[name]
        d = os.path.join(root, name)
        kvx_data.simulate(simulator, d, seed, HELDOUT_MOLECULES, settings)
        out[name] = d
    return out
