#!/usr/bin/env python3
"""Gathers the pair runs of all shards into the outputs of one run.

    merge_pairs.py OUT SHARD_FOLDER...

Each shard folder is the save path of one pair run. OUT gets:

- `sequencing_summary.txt`: the shards' header once, then every shard's rows, shard by shard.
- the FASTQ files, in the folders the shards put them in (`pass/`, `fail/`, `calibration_strands/`,
  or OUT itself without filtering), renumbered: every shard numbers its files of a run id from 0, so
  within each folder and run id the files are numbered again from 0, shard by shard and in each
  shard by its own numbers. The names keep the pattern `fastq_runid_<run id>_<number>.fastq` and no
  file overwrites another. `fastq_files.tsv` says which shard file each one is.
- `telemetry/<shard>_sequencing_telemetry.js` and `logs/<shard>/`: each shard's telemetry and logs.

Files are hard links of the shards' files (copies where the file system refuses links), so the
shards stay whole for a later resume and the merge costs no space. FASTQ files that an earlier
merge left in OUT's FASTQ folders are removed first; the summary is written last, so a summary in
OUT means a complete merge.
"""
import os
import re
import shutil
import sys

SUMMARY = "sequencing_summary.txt"
TELEMETRY = "sequencing_telemetry.js"
FASTQ_FOLDERS = ("pass", "fail", "calibration_strands", "")
FASTQ_NAME = re.compile(r"fastq_runid_(.*)_([0-9]+)\.fastq")


def place(source, target):
    if os.path.lexists(target):
        os.remove(target)
    try:
        os.link(source, target)
    except OSError:
        shutil.copyfile(source, target)


def fastq_files(folder):
    """(run id, number, name) of the FASTQ files directly in folder, by run id and number."""
    found = []
    for name in os.listdir(folder) if os.path.isdir(folder) else []:
        match = FASTQ_NAME.fullmatch(name)
        if match and os.path.isfile(os.path.join(folder, name)):
            found.append((match.group(1), int(match.group(2)), name))
    return sorted(found)


def merge_fastq(out, shards):
    for sub in FASTQ_FOLDERS:
        for _, _, name in fastq_files(os.path.join(out, sub)):
            os.remove(os.path.join(out, sub, name))
    lines = [b"file\tshard_file\n"]
    count = 0
    for sub in FASTQ_FOLDERS:
        next_number = {}
        for shard in shards:
            for run_id, _, name in fastq_files(os.path.join(shard, sub)):
                number = next_number.get(run_id, 0)
                next_number[run_id] = number + 1
                merged = os.path.join(sub, "fastq_runid_%s_%d.fastq" % (run_id, number))
                os.makedirs(os.path.join(out, sub), exist_ok=True)
                place(os.path.join(shard, sub, name), os.path.join(out, merged))
                source = os.path.relpath(os.path.join(shard, sub, name), out)
                lines.append(("%s\t%s\n" % (merged, source)).encode())
                count += 1
    with open(os.path.join(out, "fastq_files.tsv"), "wb") as f:
        f.writelines(lines)
    return count


def keep_reports(out, shards):
    for shard in shards:
        label = os.path.basename(os.path.normpath(shard))
        telemetry = os.path.join(shard, TELEMETRY)
        if os.path.exists(telemetry):
            os.makedirs(os.path.join(out, "telemetry"), exist_ok=True)
            place(telemetry, os.path.join(out, "telemetry", "%s_%s" % (label, TELEMETRY)))
        logs = os.path.join(out, "logs", label)
        if os.path.isdir(logs):
            shutil.rmtree(logs)
        os.makedirs(logs)
        for name in sorted(os.listdir(shard)):
            if name.endswith(".log"):
                place(os.path.join(shard, name), os.path.join(logs, name))


def merge_summary(out, shards):
    header, rows = None, []
    for shard in shards:
        path = os.path.join(shard, SUMMARY)
        with open(path, "rb") as f:
            data = f.read()
        cut = data.find(b"\n") + 1
        if cut == 0:
            raise RuntimeError("%s has no header line" % path)
        if header is None:
            header = data[:cut]
        elif data[:cut] != header:
            raise RuntimeError("%s has another header than the shards before it" % path)
        rows.append(data[cut:])
    target = os.path.join(out, SUMMARY)
    with open(target + ".partial", "wb") as f:
        f.write(header)
        f.writelines(rows)
    os.replace(target + ".partial", target)
    return sum(r.count(b"\n") for r in rows)


def main(argv):
    if len(argv) < 3:
        sys.stderr.write("usage: merge_pairs.py OUT SHARD_FOLDER...\n")
        return 2
    out, shards = argv[1], argv[2:]
    try:
        os.makedirs(out, exist_ok=True)
        if os.path.exists(os.path.join(out, SUMMARY)):
            os.remove(os.path.join(out, SUMMARY))
        files = merge_fastq(out, shards)
        keep_reports(out, shards)
        rows = merge_summary(out, shards)
    except (OSError, RuntimeError) as e:
        sys.stderr.write("merge_pairs: %s\n" % e)
        return 1
    print("merged %d shards: %d summary rows, %d FASTQ files, into %s" % (len(shards), rows, files, out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
