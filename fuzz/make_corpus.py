#!/usr/bin/python3
"""Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/).

Seeds are small on purpose: libFuzzer sizes its inputs from the largest seed, and a short input
runs many times faster. They are made from the shipped data (data/), the fixtures of the tests and,
for the index, the FASTQ text and the 1D arrays, from a single-strand run of the test bed:

    build/bin/read_simulator --output tb --seed 3 --molecules 3
    build/bin/basecaller_1d --input_path tb/reads --save_path tb/calls_1d
    /usr/bin/python3 fuzz/make_corpus.py --run tb

Without --run those seeds are left as they are. Inputs that once crashed a target ("crash_*") are
kept beside them and are not touched.
"""

import argparse
import glob
import json
import os
import random
import struct

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CORPUS = os.path.join(ROOT, "fuzz", "corpus")


def write(target, name, content):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(content, str):
        content = content.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(content)


# Hand-written seeds, one per way of being wrong that a parser must refuse cleanly: (target, name, text).
PAIR_HEADER = "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n"
BROKEN = [
    ("config", "broken_values.cfg", "compatible_flowcells = ,,X\ncompatible_kits = K\nchunk_size = abc\n"
     "num_callers = -1\nqscore_scale = 1e99999\nhp_correct = maybe\nunknown_option = 1\n"),
    ("config", "broken_syntax.cfg", "[section]\nchunk_size\n= 5\nmodel_file = a = b\n\x00\xff\n"),
    ("config", "broken_repeats.cfg", "compatible_flowcells = A\ncompatible_kits = B\nmodel_file = m.json\n"
     "model_file = n.json\ntrace_categories_logs = a,,b,core\nnum_callers = 0\n"),
    ("mismatch_table", "broken_short.txt", "prob\n" + "0.1\n" * 4095),
    ("mismatch_table", "broken_no_prob.txt", "p\n0.5\n"),
    ("mismatch_table", "broken_ragged.txt", "prob\tx\n0.5\n"),
    ("pair_index", "broken_bom_crlf_comments.tsv", "\ufeff# made by hand\r\n" + PAIR_HEADER.replace("\n", "\r\n") +
     "a.rawh5\tr1\trun\t1\t0\t10\t1000\r\nb.rawh5\tr2\trun\t1\t10.2\t9\t990\r\nc.rawh5\tr3\trun\t1\tnan\tinf\t0\r\n"),
    ("pair_index", "broken_values.tsv", PAIR_HEADER + "a.rawh5\tr1\trun\t1\t-1e308\t1e308\t18446744073709551615\n"
     "b.rawh5\tr2\trun\t1\t1e308\t-1e308\t0\na.rawh5\t\t\t\t\t\t\nmissing.rawh5\tr4\trun\t2\t0\t1\t5\n"),
    ("pair_index", "broken_incomplete_row.tsv", PAIR_HEADER + "a.rawh5\tr1\trun\t1\t0\n"),
    ("pair_index", "broken_no_column.tsv", "filename\tread_id\na.rawh5\tr1\n"),
    ("fastq", "broken_records.fastq",
     "@r1 runid=x\nACGU\n+\n!!!!\n@r2\nacgt\n+\n!!!!\n@r3\nACGT\n+\n!!\n@\n\n+\n\n@r5 runid=\nNNNN\n+\n~~~~\n"),
    ("fastq", "broken_header_only.fastq", "@read\n"),
    ("labels", "broken_moves_inconsistent.bin",
     bytes([0]) + struct.pack("<H", 4) + bytes([0, 1, 1, 9]) + b"@r\nACGTACG\n+\n!!!!!!!\n"),
    ("labels", "broken_events_no_state.bin", bytes([3, 0, 1, 1, 0]) + b"\0" * 32),
    ("labels", "broken_events_numeric_state.bin", bytes([2, 0, 0, 3, 0]) + b"\x41\x43\x47\x00" * 8),
]


def shipped_seeds():
    for path in sorted(glob.glob(os.path.join(ROOT, "data", "*.cfg"))):
        with open(path) as f:
            write("config", os.path.basename(path), f.read())
    with open(os.path.join(ROOT, "data", "mismatch_table_r1.txt")) as f:
        values = [float(x) for x in f.read().split("\n")[1:] if x.strip()]
    # Three significant digits keep every probability and halve the size.
    write("mismatch_table", "shipped_rounded.txt", "prob\n" + "".join("%.3g\n" % v for v in values))
    write("mismatch_table", "two_columns_crlf.txt",
          "# comment\r\nx\tprob\r\n" + "".join("0\t%.1g\r\n" % v for v in values))
    odd = ["%.2g" % v for v in values]
    odd[0], odd[1], odd[2], odd[3], odd[64] = "0", "", "-0.5", "nan", "1e40"
    write("mismatch_table", "broken_values.txt", "prob\n" + "\n".join(odd) + "\n")


# Model files

rng = random.Random(5)


def numbers(n):
    return [round(rng.uniform(-0.5, 0.5), 3) for _ in range(n)]


def nested(rows, cols):
    return [numbers(cols) for _ in range(rows)]


def conv(insize, size, winlen, stride, padding, activation="tanh"):
    return {"type": "convolution", "insize": insize, "size": size, "winlen": winlen, "stride": stride,
            "padding": padding, "activation": activation,
            "params": {"W": nested(size, insize * winlen), "b": numbers(size)}}


def gru(insize, size, kind="GruMod"):
    return {"type": kind, "insize": insize, "size": size, "activation": "tanh", "bias": True,
            "params": {"iW": nested(3 * size, insize), "sW": nested(2 * size, size), "sW2": nested(size, size),
                       "b": numbers(3 * size)}}


def lstm(insize, size):
    return {"type": "LSTM", "insize": insize, "size": size, "activation": "tanh", "bias": True, "peep": True,
            "params": {"iW": nested(4 * size, insize), "sW": nested(4 * size, size), "b": numbers(4 * size),
                       "p": numbers(3 * size)}}


def dense(kind, insize, size, activation=None):
    layer = {"type": kind, "insize": insize, "size": size, "params": {"W": nested(size, insize), "b": numbers(size)}}
    if activation:
        layer["activation"] = activation
    return layer


def compact(obj):
    return json.dumps(obj, separators=(",", ":"))


def model_seeds():
    # The shipped model's layers, meta and stride, with every layer narrowed.
    with open(os.path.join(ROOT, "data", "model_raw_r1_gru96x4.json")) as f:
        shipped = json.load(f)
    first = shipped["sublayers"][0]
    narrow = {"type": "serial", "meta": dict(shipped["meta"], kmer_length=3, training={}),
              "sublayers": [conv(1, 4, first["winlen"], first["stride"], first["padding"]),
                            {"type": "reverse", "sublayers": gru(4, 6)}, gru(6, 6),
                            {"type": "reverse", "sublayers": gru(6, 6)}, dense("softmax", 6, 65)]}
    write("model", "shipped_narrowed.json", compact(narrow))

    # An event model with both kinds of bidirectional pair and a residual GRU.
    events = {"type": "serial", "sublayers": [
        dense("feed-forward", 9, 4, "relu"),
        {"type": "parallel", "sublayers": [lstm(4, 3), {"type": "reverse", "sublayer": lstm(4, 3)}]},
        {"type": "residual", "sublayer": gru(6, 6, "GRU")},
        {"type": "parallel", "sublayers": [gru(6, 2), {"type": "reverse", "sublayers": [gru(6, 2)]}]},
        dense("softmax_old", 4, 65)]}
    write("model", "tessel_events.json", compact(events))

    flipflop = {"type": "serial", "sublayers": [conv(1, 4, 5, 2, [2, 2], "elu"), gru(4, 4),
                                                dense("GlobalNormTwoState", 4, 40)]}
    write("model", "tessel_flipflop.json", compact(flipflop))

    # The flat dialect: convolution, both directions of a GRU, an LSTM, a feed-forward, softmax.
    def flat_weights(insize, size, blocks, internal):
        return {"input": nested(blocks * size, insize), "bias": numbers(blocks * size), "internal": numbers(internal)}
    quorlet = {"meta": {"feature_function": "raw", "transducer": True, "window": [0]},
               "layers": [{"type": "input", "name": "in", "size": 1},
                          {"type": "convolution", "name": "c", "size": 4, "insize": 1, "winlen": 3, "stride": 2,
                           "padding": [1, 1], "activation": "tanh"},
                          {"type": "bgru", "name": "g", "size": 4},
                          {"type": "rlstm", "name": "l", "size": 3},
                          {"type": "feedforward_sigmoid", "name": "f", "size": 4},
                          {"type": "softmax", "name": "s", "size": 65}],
               "weights": {"c": {"input": nested(4, 3), "bias": numbers(4)},
                           "g": flat_weights(4, 4, 3, 6 * 2 * 2),
                           "l": flat_weights(4, 3, 4, 4 * 3 * 3 + 3 * 3),
                           "f": {"input": nested(4, 3), "bias": numbers(4)},
                           "s": {"input": nested(65, 4), "bias": numbers(65)}}}
    write("model", "quorlet_raw.json", compact(quorlet))

    mischained = {"type": "serial", "sublayers": [conv(1, 4, 3, 2, [1, 1]), gru(5, 4), dense("softmax", 4, 5)]}
    write("model", "broken_mischained.json", compact(mischained))
    write("model", "broken_truncated.json", compact(narrow)[:700])
    write("model", "broken_nesting.json", '{"type":"serial","sublayers":' + "[" * 200 + "]" * 200 + "}")
    # Numbers a layer is built from that overflow its int arithmetic, or make the runner size its
    # buffers by them: paddings and strides cost nothing in the file, nor does a window offset.
    big = 2147483647
    write("model", "broken_padding.json",
          compact({"type": "serial", "sublayers": [conv(1, 4, 3, 1, [big, big]), dense("softmax", 4, 65)]}))
    write("model", "broken_stride.json",
          compact({"type": "serial", "sublayers": [conv(1, 2, 1, 65536, [0, 0]), conv(2, 2, 1, 65536, [0, 0]),
                                                   dense("softmax", 2, 65)]}))
    write("model", "broken_window.json",
          compact({"meta": {"window": [-big - 1, big]},
                   "layers": [{"type": "feedforward_tanh", "name": "f", "size": 5}],
                   "weights": {"f": {"input": numbers(10), "bias": numbers(5)}}}))
    # insize * winlen * size is 2^64: wrapped, it asks for no numbers at all.
    write("model", "broken_conv_count.json",
          compact({"type": "serial", "sublayers": [
              {"type": "convolution", "insize": 1 << 30, "size": 16, "winlen": 1 << 30, "stride": 1,
               "padding": [0, 0], "activation": "tanh", "params": {"W": [], "b": numbers(16)}},
              dense("softmax", 16, 65)]}))
    write("model", "broken_types.json",
          '{"type":"serial","sublayers":[{"type":"convolution","insize":1,"size":2,"winlen":"3","stride":0,'
          '"padding":[1],"activation":"swish","params":{"W":[[1,2],[3]],"b":[null]}},'
          '{"type":"softmax","insize":2,"size":5,"params":{"W":[],"b":[]}}]}')


# Wire frames

def frame(kind, body, command=b"basecall", client=7, protocol=4, total=None):
    header = struct.pack("<III", kind, client, protocol) + command.ljust(64, b"\0")
    total = len(body) + 84 if total is None else total
    return header + struct.pack("<II", total, len(body)) + body


def read_identity(samples_or_zero, read_id=b"read-1"):
    return struct.pack("<IIQ", samples_or_zero, 3, 1 << 40) + read_id.ljust(128, b"\0")


def called_read(extra):
    n, seq = 5, b"ACGTACGT"
    body = read_identity(0) + struct.pack("<II", n, len(seq)) + b"\0" * 28 + struct.pack("<I", extra)
    body += struct.pack("<5I", *range(5)) + struct.pack("<5I", *range(5, 10)) + bytes(range(5))
    return frame(4, body + seq + b"\0" + b"+5?I+5?I" + b"\0" + (struct.pack("<5Q", *range(5)) if extra else b""))


def wire_seeds():
    samples = list(range(0, 1000, 97))
    for name, content in [
            ("simple", frame(1, b"")), ("general", frame(2, b"free form payload")),
            ("raw_read", frame(3, read_identity(len(samples)) + struct.pack("<%dI" % len(samples), *samples))),
            ("called_read_extra0", called_read(0)), ("called_read_extra1", called_read(1)),
            ("broken_protocol", frame(1, b"", protocol=3)), ("broken_total_size", frame(2, b"abc", total=90)),
            ("broken_command", frame(1, b"", command=b"x" * 64)),
            ("broken_short", frame(3, read_identity(4))[:150])]:
        write("wire_frame", name + ".bin", content)


# From a single-strand run: index, FASTQ text, Move and Events arrays

def run_seeds(run):
    import h5py  # only this part needs it

    index = sorted(glob.glob(os.path.join(run, "**", "index_1d.tsv"), recursive=True))
    if index:
        with open(index[0]) as f:
            write("pair_index", "index_1d.tsv", f.read())
    for reference in sorted(glob.glob(os.path.join(run, "**", "reference_index.tsv"), recursive=True))[:1]:
        with open(reference) as f:
            rows = f.read().split("\n")
        # The reference index names its file column as the pair index of an older tool did.
        rows[0] = rows[0].replace("filename", "filename_rawh5", 1)
        write("pair_index", "reference_index.tsv", "\n".join(rows[:5]) + "\n")

    calls = sorted(glob.glob(os.path.join(run, "**", "calls_1d.fastq"), recursive=True))
    if calls:
        with open(calls[0]) as f:
            lines = f.read().split("\n")
        records = ""
        for r in range(2):
            title, seq, plus, qual = lines[4 * r:4 * r + 4]
            records += "\n".join([title, seq[:300], plus, qual[:300]]) + "\n"
        write("fastq", "calls_1d.fastq", records)

    for path in sorted(glob.glob(os.path.join(run, "**", "*.rawh5"), recursive=True))[:1]:
        with h5py.File(path, "r") as f:
            groups = []
            f.visititems(lambda name, obj: groups.append(name) if name.endswith("BaseCalled_template") else None)
            group = f[groups[0]]
            moves = bytes(group["Move"][()])
            fastq = group["Fastq"][()]
            fastq = fastq.decode() if isinstance(fastq, bytes) else str(fastq)
        title, seq, plus, qual = fastq.split("\n")[:4]
        k = len(seq) + 1 - sum(moves)
        blocks = 300
        bases = sum(moves[:blocks]) + k - 1
        text = "\n".join([title, seq[:bases], plus, qual[:bases]]) + "\n"
        write("fastq", "fastq_dataset.fastq", text)
        for strand in (0, 1):
            write("labels", "moves_strand%d.bin" % (strand + 1),
                  bytes([strand]) + struct.pack("<H", blocks) + moves[:blocks] + text.encode())
        # The same stretch as an Events table of a 5-mer model: mean, stdv, start, length, model_state, move.
        # A field count byte (count - 1), then per field its name, type and string width bytes, as
        # fuzz_labels.cpp reads them; the records below follow the table layout rule (40 bytes).
        layout = bytes([5, 1, 1, 0, 2, 1, 0, 3, 5, 0, 4, 5, 0, 0, 0, 4, 5, 3, 0])
        padded = "NN" + seq[:bases] + "NN"
        rows = b""
        position = 0
        for e in range(60):
            position += moves[e] if e > 0 else 0
            kmer = padded[position + 1:position + 6]
            record = struct.pack("<ffQQ", 90.0 + e % 7, 1.5, 10 * e, 10) + kmer.encode().ljust(5, b"\0") + b"\0"
            record += b"\0\0" + struct.pack("<i", moves[e])
            rows += record.ljust(40, b"\0")
        for strand in (0, 1):
            write("labels", "events_strand%d.bin" % (strand + 1), bytes([2 | strand]) + layout + rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--run", help="folder of a single-strand run of the test bed")
    args = parser.parse_args()
    shipped_seeds()
    for target, name, content in BROKEN:
        write(target, name, content)
    model_seeds()
    wire_seeds()
    if args.run:
        run_seeds(args.run)


if __name__ == "__main__":
    main()
