#!/usr/bin/python3
"""Checks simulated read files with h5py: every attribute the reader requires, of the kind it requires."""
import sys
from pathlib import Path
import h5py
import numpy as np

KINDS = {"integer": lambda v: np.issubdtype(np.asarray(v).dtype, np.integer),
         "double": lambda v: np.asarray(v).dtype == np.float64, "string": lambda v: isinstance(v, (str, bytes))}
REQUIRED = [("Raw", "integer", ("duration", "read_number", "start_mux", "start_time")),
            ("Raw", "double", ("median_before",)),
            ("channel_id", "double", ("digitisation", "offset", "range", "sampling_rate")),
            ("tracking_id", "string", ("run_id", "flow_cell_id", "sample_id", "exp_start_time"))]


def check_read(groups, where):
    errors = ["%s: %s/%s is not %s" % (where, group, name, kind) for group, kind, names in REQUIRED
              for name in names if not KINDS[kind](groups[group].attrs[name])]
    signal = groups["Raw"]["Signal"]
    if signal.dtype != np.int16 or signal.shape != (int(groups["Raw"].attrs["duration"]),):
        errors.append("%s: Signal is %s %s" % (where, signal.dtype, signal.shape))
    return errors


errors, reads = [], 0
for path in sorted(Path(sys.argv[1]).glob("*.rawh5")):
    with h5py.File(path, "r") as f:
        if "Raw" in f:  # one read per file, its run's attributes in a global group
            (name,) = list(f["Raw/Reads"].keys())
            key = f["UniqueGlobalKey"]
            reads_of_file = [({"Raw": f["Raw/Reads"][name], "channel_id": key["channel_id"],
                               "tracking_id": key["tracking_id"]}, path.name)]
            errors += [] if "file_version" in f.attrs else ["%s: no file_version" % path.name]
        else:
            reads_of_file = [(group, path.name + "/" + name) for name, group in f.items()]
        for groups, where in reads_of_file:
            errors += check_read(groups, where)
            reads += 1
print("\n".join(errors + ["%d reads checked, %d problems" % (reads, len(errors))]))
sys.exit(1 if errors or reads == 0 else 0)
