#!/usr/bin/env python3
"""Gathers the single-strand jobs (one per read file) into what one run over all files leaves.

    merge_single_strand.py OUT JOB_FOLDER...

The job folders come in the order of their read files' names, the order in which one run takes the
files. Each holds `save/` (the job's save path) and `reads/` (its annotated read file). OUT gets
`index_1d.tsv` and `failed_reads.tsv` with one header each, `calls_1d.fastq`, every job's rows and
records in that order, and `reads/` with every annotated read file (hard links, or symbolic links
where the file system refuses them), the folder a pair run reads from. The logs stay in the jobs'
save paths.
"""
import os
import sys

TABLES = ("index_1d.tsv", "failed_reads.tsv")
FASTQ = "calls_1d.fastq"


def split_header(path):
    with open(path, "rb") as f:
        data = f.read()
    cut = data.find(b"\n") + 1
    return (data, b"") if cut == 0 else (data[:cut], data[cut:])


def write_atomically(path, parts):
    with open(path + ".partial", "wb") as f:
        for part in parts:
            f.write(part)
    os.replace(path + ".partial", path)


def link_reads(jobs, folder):
    os.makedirs(folder, exist_ok=True)
    wanted = {}
    for job in jobs:
        reads = os.path.join(job, "reads")
        for name in sorted(os.listdir(reads)) if os.path.isdir(reads) else []:
            if name.endswith(".rawh5") and not name.startswith("."):
                wanted[name] = os.path.join(reads, name)
    for name in os.listdir(folder):
        if name not in wanted:
            os.remove(os.path.join(folder, name))
    for name, source in wanted.items():
        target = os.path.join(folder, name)
        if os.path.lexists(target):
            os.remove(target)
        try:
            os.link(source, target)
        except OSError:
            os.symlink(os.path.relpath(source, folder), target)
    return len(wanted)


def main(argv):
    if len(argv) < 3:
        sys.stderr.write("usage: merge_single_strand.py OUT JOB_FOLDER...\n")
        return 2
    out, jobs = argv[1], argv[2:]
    os.makedirs(out, exist_ok=True)
    for table in TABLES:
        header, rows = None, []
        for job in jobs:
            path = os.path.join(job, "save", table)
            if not os.path.exists(path):
                continue
            head, body = split_header(path)
            if header is None:
                header = head
            elif head != header:
                sys.stderr.write("merge_single_strand: %s has another header than the jobs before it\n" % path)
                return 1
            rows.append(body)
        if header is None:
            sys.stderr.write("merge_single_strand: no job left a %s\n" % table)
            return 1
        write_atomically(os.path.join(out, table), [header] + rows)
    fastq = [os.path.join(job, "save", FASTQ) for job in jobs]
    write_atomically(os.path.join(out, FASTQ), [open(p, "rb").read() for p in fastq if os.path.exists(p)])
    files = link_reads(jobs, os.path.join(out, "reads"))
    print("gathered %d single-strand jobs, %d annotated read files, into %s" % (len(jobs), files, out))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
