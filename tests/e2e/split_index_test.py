#!/usr/bin/env python3
"""Index split: each row in one shard, the shards' pairs those of the whole index, loads within a group of
each other; comments, byte order mark and CR line ends pass through; a short row is refused."""
import collections, os, random, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "..", "..", "workflow", "scripts", "split_index.py")
sys.path.insert(0, os.path.dirname(SCRIPT))
import split_index  # noqa: E402

HEADER = b"filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n"


def pairs_of(lines):
    """Per run and channel, by start time: neighbours less than 0.5 s and 20% in length apart, each
    read in one pair at most."""
    groups = {}
    for line in lines:
        f = line.rstrip(b"\n").split(b"\t")
        groups.setdefault(f[2] + b"_" + f[3], []).append((float(f[4]), float(f[4]) + float(f[5]), int(f[6]), f[1]))
    found = set()
    for reads in groups.values():
        reads.sort()
        i = 0
        while i + 1 < len(reads):
            (_, end, n1, id1), (start, _, n2, id2) = reads[i], reads[i + 1]
            paired = start - end < 0.5 and max(n1, n2) and abs(n1 - n2) / max(n1, n2) < 0.2
            found |= {(id1, id2)} if paired else set()
            i += 2 if paired else 1
    return found


def check_random(rng):
    # "r1_3"+"1" and "r1"+"3_1" are one group.
    rows = [b"f.rawh5\tread%d\t%s\t%s\t%.3f\t%.3f\t%d\n"
            % (n, rng.choice([b"r1", b"r2", b"r1_3"]), rng.choice([b"1", b"2", b"3_1", b"10"]), rng.uniform(0, 30),
               rng.uniform(0.1, 3), rng.choice([900, 1000, 1100, 2000])) for n in range(rng.randint(0, 120))]
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "index.tsv")
        with open(path, "wb") as f:
            f.write(HEADER + b"".join(rows))
        preamble, keyed = split_index.read_index(path)
        out = split_index.split(preamble, keyed, rng.randint(1, 6))
    bodies = [lines[1:] for lines in out]
    assert all(lines[0] == HEADER for lines in out)
    assert sorted(sum(bodies, [])) == sorted(rows), "rows lost or repeated"
    assert set().union(*[pairs_of(b) for b in bodies]) == pairs_of(rows), "pairs differ from the whole index"
    largest = max(collections.Counter(key for key, _ in keyed).values(), default=0)
    loads = [len(b) for b in bodies]
    assert max(loads) - min(loads) <= largest, "unbalanced: %s" % loads


def check_text():
    with tempfile.TemporaryDirectory() as tmp:
        index = os.path.join(tmp, "index.tsv")
        rows = [b"a.rawh5\tx%d\tr\t%d\t1\t1\t100\r\n" % (n, n) for n in range(4)]
        with open(index, "wb") as f:
            f.write(b"# note\r\n\xef\xbb\xbf" + HEADER.replace(b"\n", b"\r\n") + b"".join(rows))
        outs = [os.path.join(tmp, "s%d.tsv" % i) for i in range(2)]
        subprocess.run([sys.executable, SCRIPT, index] + outs, check=True, stdout=subprocess.DEVNULL)
        texts = [open(p, "rb").read() for p in outs]
        assert all(t.startswith(b"# note\r\n\xef\xbb\xbf" + HEADER.replace(b"\n", b"\r\n")) for t in texts)
        assert sorted(sum((t.splitlines(True)[2:] for t in texts), [])) == sorted(rows)
        assert all(len(t.splitlines()) == 4 for t in texts), "4 channels over 2 shards should give 2 rows each"

        with open(index, "wb") as f:
            f.write(HEADER + rows[0] + b"a.rawh5\tx\tr\n")
        done = subprocess.run([sys.executable, SCRIPT, index] + outs, capture_output=True)
        assert done.returncode == 1 and b"Incomplete row in line 3: expecting 7 columns but got 3" in done.stderr, done


if __name__ == "__main__":
    rng = random.Random(6211)
    for _ in range(300):
        check_random(rng)
    check_text()
    print("split_index: 300 random indexes and the text cases pass")
