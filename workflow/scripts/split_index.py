#!/usr/bin/env python3
"""Splits a single-strand index into shards for separate pair runs.

    split_index.py INDEX OUT_0 [OUT_1 ...]

Pairs are only ever formed between reads of one pore in one run, so the rows are split by their
pairing group (run id, an underscore, channel: the key the pair caller groups by) and a group never
crosses shards; each shard then finds exactly the pairs a run over the whole index finds in its
groups. Groups go largest first to the shard with the fewest rows so far, which keeps the shards
within one group's size of each other. Each output holds the comment lines and header of the input
and its own rows in input order; a shard may be left with the header alone.

Bytes pass through untouched; lines are cleaned (one carriage return, a leading byte order mark)
only to find cells, by the same rules the pair caller reads the index with, so that a row lands in
the group the caller will put it in. Only the standard library is used: this runs under whatever
Python Snakemake runs on.
"""
import heapq
import os
import sys

BOM = b"\xef\xbb\xbf"


class BadIndex(Exception):
    pass


def clean(line):
    """A line as the pair caller reads it: without one trailing CR and a leading byte order mark."""
    if line.endswith(b"\r"):
        line = line[:-1]
    if len(line) > 2 and line.startswith(BOM):
        line = line[3:]
    return line


def first_word(cell):
    # The caller reads a text cell with a formatted stream read: leading blanks skipped, cut at the
    # next blank. Two cells that differ only there name the same run or channel.
    words = cell.split()
    return words[0] if words else b""


def read_index(path):
    """Returns (preamble lines, data lines with group keys) of the index; each line keeps its end."""
    with open(path, "rb") as f:
        data = f.read()
    lines = data.split(b"\n")
    ends = [b"\n"] * (len(lines) - 1) + [b""]
    if lines[-1] == b"":  # text after the last newline is a line; an empty remainder is not
        lines.pop()
        ends.pop()
    lines = [line + end for line, end in zip(lines, ends)]
    preamble = []
    header = None
    for n, line in enumerate(lines):
        preamble.append(line)
        if not clean(line.rstrip(b"\n")).startswith(b"#"):
            header = n
            break
    if header is None:
        raise BadIndex("Error: no header line in index file: %s" % path)
    names = clean(lines[header].rstrip(b"\n")).split(b"\t")
    position = {}
    for i, name in enumerate(names):
        position[name] = i  # a repeated name keeps its last position, as in the caller
    for required in (b"run_id", b"channel"):
        if required not in position:
            raise BadIndex('Required column "%s" not found in 1d2 index file: %s' % (required.decode(), path))
    run, channel = position[b"run_id"], position[b"channel"]
    rows = []
    for counter, line in enumerate(lines[header + 1:], start=2):
        cells = clean(line.rstrip(b"\n")).split(b"\t")
        if len(cells) != len(names):
            raise BadIndex("Error: Incomplete row in line %d: expecting %d columns but got %d (%s)"
                              % (counter, len(names), len(cells), path))
        rows.append((first_word(cells[run]) + b"_" + first_word(cells[channel]), line))
    return preamble, rows


def assign(groups, shards):
    """Maps each group key to a shard: largest group first, to the shard with the fewest rows
    (lowest number on a tie), so the result depends on the index alone."""
    heap = [(0, s) for s in range(shards)]
    shard_of = {}
    for key, size in sorted(groups.items(), key=lambda item: (-item[1], item[0])):
        load, s = heapq.heappop(heap)
        shard_of[key] = s
        heapq.heappush(heap, (load + size, s))
    return shard_of


def split(preamble, rows, shards):
    """Returns the lines of each shard's index."""
    sizes = {}
    for key, _ in rows:
        sizes[key] = sizes.get(key, 0) + 1
    shard_of = assign(sizes, shards)
    if preamble and not preamble[-1].endswith(b"\n") and rows:
        preamble = preamble[:-1] + [preamble[-1] + b"\n"]
    out = [list(preamble) for _ in range(shards)]
    for key, line in rows:
        out[shard_of[key]].append(line if line.endswith(b"\n") else line + b"\n")
    return out


def main(argv):
    if len(argv) < 3:
        sys.stderr.write("usage: split_index.py INDEX OUT_0 [OUT_1 ...]\n")
        return 2
    try:
        preamble, rows = read_index(argv[1])
    except (OSError, BadIndex) as e:
        sys.stderr.write("split_index: %s\n" % e)
        return 1
    outputs = argv[2:]
    for path, lines in zip(outputs, split(preamble, rows, len(outputs))):
        folder = os.path.dirname(path)
        if folder:
            os.makedirs(folder, exist_ok=True)
        temporary = path + ".partial"
        with open(temporary, "wb") as f:
            f.writelines(lines)
        os.replace(temporary, path)
    groups = len({key for key, _ in rows})
    print("split %d rows in %d groups of %s into %d shards" % (len(rows), groups, argv[1], len(outputs)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
