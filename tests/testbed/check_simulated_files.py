#!/usr/bin/python3
"""Checks simulated read files with h5py: every attribute the reader requires, of the kind it requires."""
import sys
from pathlib import Path

import h5py
import numpy as np


def check_read(raw, channel, tracking, where):
    errors = []
    for name in ("duration", "read_number", "start_mux"):
        if not np.issubdtype(np.asarray(raw.attrs[name]).dtype, np.integer):
            errors.append("%s: Raw %s is not an integer" % (where, name))
    if not np.issubdtype(np.asarray(raw.attrs["start_time"]).dtype, np.integer):
        errors.append("%s: start_time is not an integer" % where)
    if np.asarray(raw.attrs["median_before"]).dtype != np.float64:
        errors.append("%s: median_before is not a double" % where)
    for name in ("digitisation", "offset", "range", "sampling_rate"):
        if np.asarray(channel.attrs[name]).dtype != np.float64:
            errors.append("%s: channel_id/%s is not a double" % (where, name))
    for name in ("run_id", "flow_cell_id", "sample_id", "exp_start_time"):
        value = tracking.attrs[name]
        if not isinstance(value, (str, bytes)):
            errors.append("%s: tracking_id/%s is not a string" % (where, name))
    signal = raw["Signal"]
    if signal.dtype != np.int16 or signal.shape != (int(raw.attrs["duration"]),):
        errors.append("%s: Signal is %s %s" % (where, signal.dtype, signal.shape))
    return errors


def main():
    errors, reads = [], 0
    for path in sorted(Path(sys.argv[1]).glob("*.rawh5")):
        with h5py.File(path, "r") as f:
            if "Raw" in f:
                (name,) = list(f["Raw/Reads"].keys())
                key = f["UniqueGlobalKey"]
                errors += check_read(f["Raw/Reads"][name], key["channel_id"], key["tracking_id"], path.name)
                if "file_version" not in f.attrs:
                    errors.append("%s: no file_version" % path.name)
                reads += 1
            else:
                for name, group in f.items():
                    errors += check_read(group["Raw"], group["channel_id"], group["tracking_id"], path.name + "/" + name)
                    reads += 1
    for e in errors:
        print(e)
    print("%d reads checked, %d problems" % (reads, len(errors)))
    return 1 if errors or reads == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
