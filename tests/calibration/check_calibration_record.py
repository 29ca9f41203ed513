#!/usr/bin/python3
"""The quality calibration that ships is the one the fitting record holds.

    check_calibration_record.py SOURCE_DIR BIN_DIR

Each shipped workflow's qscore_scale and qscore_offset must equal the record's, and so must the
defaults that basecaller_1d prints in its help. A model or chunking change that is refitted without
copying the numbers over, or a hand edit of one of them, fails here.
"""
import json
import os
import re
import subprocess
import sys

source, bin_dir = sys.argv[1], sys.argv[2]
record = json.load(open(os.path.join(source, "tools", "calibration", "qscore_calibration.json")))
failures = []
for cfg, fit in record["workflows"].items():
    text = open(os.path.join(source, "data", cfg)).read()
    for key in ("qscore_scale", "qscore_offset"):
        m = re.search(rf"^{key}\s*=\s*(\S+)", text, re.M)
        if not m or float(m.group(1)) != fit[key]:
            failures.append(f"{cfg}: {key} is {m and m.group(1)}, the record says {fit[key]}")
help_text = subprocess.run([os.path.join(bin_dir, "basecaller_1d"), "--help"], capture_output=True,
                           text=True, check=True).stdout
for key in ("qscore_scale", "qscore_offset"):
    m = re.search(rf"--{key} arg \(=([^)]+)\)", help_text)
    if not m or float(m.group(1)) != record["single_strand"][key]:
        failures.append(f"basecaller_1d: default {key} is {m and m.group(1)}, "
                        f"the record says {record['single_strand'][key]}")
print("\n".join(failures) or "The shipped calibration matches the record.")
sys.exit(1 if failures else 0)
