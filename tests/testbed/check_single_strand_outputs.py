#!/usr/bin/python3
"""Compares the outputs of a stopped and resumed single-strand run with those of an uninterrupted one.

    check_single_strand_outputs.py REFERENCE_SAVE SAVE ANNOTATED_DIR ORIGINAL_DIR [UNTOUCHED_DIR]

Passes when the index rows and FASTQ records of SAVE equal those of REFERENCE_SAVE (order aside) with
no read twice; when every read file in ANNOTATED_DIR opens and reads back whole, holds the raw signal
of its original in ORIGINAL_DIR and, in the newest analysis of each read, the record the FASTQ output
has; when no temporary copy is left; and, if given, when UNTOUCHED_DIR equals ORIGINAL_DIR byte for byte.
"""
import collections
import filecmp
import sys
from pathlib import Path

import h5py


class Damaged(Exception):
    pass


def index_rows(save):
    lines = (Path(save) / "index_1d.tsv").read_text().split("\n")
    if lines[-1] != "":
        raise Damaged("%s: the index ends inside a row" % save)
    return lines[0], lines[1:-1]


def fastq_records(save):
    lines = (Path(save) / "calls_1d.fastq").read_text().split("\n")
    if lines[-1] != "" or (len(lines) - 1) % 4 != 0:
        raise Damaged("%s: the FASTQ file ends inside a record" % save)
    return ["\n".join(lines[i:i + 4]) + "\n" for i in range(0, len(lines) - 1, 4)]


def duplicates(items):
    return sorted(k for k, n in collections.Counter(items).items() if n > 1)


def datasets(path):
    out = {}
    with h5py.File(path, "r") as f:
        f.visititems(lambda name, obj: out.__setitem__(name, obj[()]) if isinstance(obj, h5py.Dataset) else None)
    return out


def main(reference, save, annotated, original, untouched=None):
    errors = []
    ref_header, ref_rows = index_rows(reference)
    header, rows = index_rows(save)
    if header != ref_header:
        errors.append("index header differs")
    for name, ref, got in (("index rows", ref_rows, rows), ("FASTQ records", fastq_records(reference), fastq_records(save))):
        if duplicates(got):
            errors.append("%s twice: %s" % (name, duplicates(got)[:3]))
        if sorted(got) != sorted(ref):
            errors.append("%s differ from the uninterrupted run: %d missing, %d extra"
                          % (name, len(set(ref) - set(got)), len(set(got) - set(ref))))
    read_ids = [row.split("\t")[1] for row in rows]
    if duplicates(read_ids):
        errors.append("reads with two index rows: %s" % duplicates(read_ids)[:3])

    leftovers = [p.name for p in Path(annotated).rglob(".*.partial-*")]
    if leftovers:
        errors.append("temporary copies left: %s" % leftovers)
    stored = []
    for path in sorted(Path(annotated).rglob("*.rawh5")):
        try:
            data = datasets(path)
        except Exception as e:  # any failure to read back is what this test is about
            errors.append("%s does not read back: %s" % (path.name, e))
            continue
        before = datasets(Path(original) / path.relative_to(annotated))
        for name, values in before.items():
            if name.endswith("Signal") and not (name in data and (data[name] == values).all()):
                errors.append("%s: %s differs from the original" % (path.name, name))
        newest = {}
        for name in data:
            if name.endswith("BaseCalled_template/Fastq"):
                reads_analyses, analysis = name.split("/BaseCalled_template")[0].rsplit("/", 1)
                newest[reads_analyses] = max(newest.get(reads_analyses, analysis), analysis)
        for group, analysis in newest.items():
            value = data["%s/%s/BaseCalled_template/Fastq" % (group, analysis)]
            stored.append(value.decode() if isinstance(value, bytes) else str(value))
    if sorted(stored) != sorted(fastq_records(save)):
        errors.append("the records stored in the read files (%d) differ from the FASTQ output" % len(stored))
    if untouched:
        compared = filecmp.dircmp(original, untouched)
        if compared.diff_files or compared.left_only or compared.right_only:
            errors.append("the input folder changed: %s" % (compared.diff_files + compared.left_only + compared.right_only))
        else:
            _, mismatch, errs = filecmp.cmpfiles(original, untouched, compared.common_files, shallow=False)
            if mismatch or errs:
                errors.append("input files changed: %s" % (mismatch + errs))
    for e in errors:
        print("FAIL:", e)
    print("%d index rows, %d FASTQ records, %d annotated reads checked" % (len(rows), len(fastq_records(save)), len(stored)))
    return 1 if errors else 0


if __name__ == "__main__":
    try:
        sys.exit(main(*sys.argv[1:]))
    except Damaged as e:
        print("FAIL:", e)
        sys.exit(1)
