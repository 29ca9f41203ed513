#!/usr/bin/python3
"""Damaged copies of annotated read files and of their index, for hardening runs of the pair caller.

  damage_reads.py --reads DIR --index FILE --out DIR [--seed N] [--damaged N | --full [--copies N]]
                  [--kinds REGEX] [--list]

Input: read files that the single-strand step has annotated (segmentation, "Move"/"Fastq") and its
index. Output in --out:

  reads/clean_NNNN.rawh5     each pair of the input, its reads copied unchanged into a multi-read
                             file of its own (legacy reads too)
  reads/unpaired.rawh5       the reads that are in no pair, so that pairing stays as it was
  reads/dmg_NNNN*.rawh5      damaged copies of input pairs: one file per pair (multi-read layout) or
                             one per read (legacy layout), so that damage never reaches another pair
  index_1d.tsv               the index of all of them
  manifest.tsv               one row per pair: what was done to it and what a pair run must make of it

A damaged copy gets new read ids and a channel of its own in the index, so it pairs with nothing but
its partner; its start times, durations and lengths are those of the source pair, so it pairs as the
source did. Column `expect` of the manifest:

  clean     an input pair, untouched: called exactly as in a run over the input
  same      a harmless variant of the layout or the encoding: called exactly as its source pair
  drop      unusable: logged and dropped, or given a summary row with an empty sequence
  any       outcome not fixed (garbage in, any call out), but logged or given a row, never a crash
  unlisted  its file is missing, so the index row is passed over and the pair is never formed
  library   bytes of HDF5's own structures overwritten. The HDF5 library (1.10) itself reads out of
            bounds, leaks or cannot shut down on some of these files, h5dump included, so they are
            made only when --kinds names them

--damaged N picks N kinds at random (seeded; all kinds again when N is larger); --full applies every
kind --copies times, to different source pairs and strands. --kinds keeps the kinds whose name
matches the regular expression, to reproduce one kind of damage. --list prints the kinds.
"""
import argparse
import collections
import csv
import math
import os
import random
import re
import shutil
import sys
import uuid

import h5py
import numpy as np

STATES = "ACGT"


# ---------------------------------------------------------------------------------------------
# The index and the pairing rule of the pair caller

def read_index(path):
    with open(path, newline="") as f:
        lines = [line.rstrip("\r\n") for line in f]
    header = lines[0].split("\t")
    rows = [dict(zip(header, line.split("\t"))) for line in lines[1:] if line]
    return header, rows


def write_index(path, header, rows):
    with open(path, "w", newline="") as f:
        f.write("\t".join(header) + "\n")
        for row in rows:
            f.write("\t".join(row[c] for c in header) + "\n")


def find_pairs(rows):
    """Pairs as the pair caller forms them: reads of one run and channel, consecutive in time, with a
    gap below 0.5 s and lengths within 20 % of each other."""
    groups = collections.defaultdict(list)
    for row in rows:
        groups[row["run_id"] + "_" + row["channel"]].append(row)
    pairs = []
    for key in sorted(groups):
        group = sorted(groups[key], key=lambda r: float(r["start_time"]))
        i = 0
        while i < len(group) - 1:
            a, b = group[i], group[i + 1]
            gap = float(b["start_time"]) - (float(a["start_time"]) + float(a["duration"]))
            la, lb = int(a["sequence_length_template"]), int(b["sequence_length_template"])
            ratio = (max(la, lb) - min(la, lb)) / max(la, lb) if max(la, lb) > 0 else math.nan
            if gap < 0.5 and ratio < 0.2:
                pairs.append((a, b))
                i += 2
            else:
                i += 1
    return pairs


# ---------------------------------------------------------------------------------------------
# Copying reads between the two file layouts

def source_parts(f, read_id):
    """The pieces of one read: its read group, its metadata groups and its analyses."""
    if "Raw" in f:
        reads = f["Raw/Reads"]
        raw = reads[list(reads.keys())[0]]
        meta = {name: f["UniqueGlobalKey"][name] for name in f["UniqueGlobalKey"]}
        return raw, meta, f.get("Analyses")
    base = f["read_" + read_id]
    meta = {name: base[name] for name in ("channel_id", "tracking_id", "context_tags") if name in base}
    return base["Raw"], meta, base.get("Analyses")


def set_read_id(raw, read_id):
    old = raw.attrs.get_id("read_id").dtype if "read_id" in raw.attrs else None
    if "read_id" in raw.attrs:
        del raw.attrs["read_id"]
    if old is not None and old.kind == "S":
        raw.attrs.create("read_id", np.array(read_id.encode(), dtype="S%d" % max(old.itemsize, len(read_id))))
    else:
        raw.attrs["read_id"] = read_id


def copy_read(src_path, src_id, dst_path, new_id, legacy):
    """Copies one read into dst_path (appending to a multi-read file) under a new id."""
    with h5py.File(src_path, "r") as src, h5py.File(dst_path, "a") as dst:
        raw, meta, analyses = source_parts(src, src_id)
        if legacy:
            dst.attrs["file_version"] = np.float64(1.0)
            number = int(raw.attrs["read_number"]) if "read_number" in raw.attrs else 0
            src.copy(raw, dst.require_group("Raw/Reads"), name="Read_%d" % number)
            ugk = dst.create_group("UniqueGlobalKey")
            for name, group in meta.items():
                src.copy(group, ugk, name=name)
            if analyses is not None:
                src.copy(analyses, dst, name="Analyses")
            set_read_id(dst["Raw/Reads/Read_%d" % number], new_id)
        else:
            base = dst.create_group("read_" + new_id)
            src.copy(raw, base, name="Raw")
            for name, group in meta.items():
                src.copy(group, base, name=name)
            if analyses is not None:
                src.copy(analyses, base, name="Analyses")
            set_read_id(base["Raw"], new_id)


class Read:
    """A read of an output file, as the damage functions see it."""

    def __init__(self, f, read_id, legacy):
        self.f, self.id, self.legacy = f, read_id, legacy
        self.base = f if legacy else f["read_" + read_id]
        self.meta_parent = f["UniqueGlobalKey"] if legacy else self.base

    @property
    def raw(self):
        if self.legacy:
            reads = self.f["Raw/Reads"]
            return reads[list(reads.keys())[0]]
        return self.base["Raw"]

    def meta(self, name):
        return self.meta_parent[name]

    @property
    def analyses(self):
        return self.base["Analyses"]

    def latest(self, prefix):
        names = [n for n in self.analyses if n.startswith(prefix)]
        return self.analyses[max(names, key=lambda n: n[len(prefix):len(prefix) + 3])]

    @property
    def seg(self):
        return self.latest("Segmentation_")

    @property
    def bc(self):
        return self.latest("Basecall_1D_")

    @property
    def segsum(self):
        return self.seg["Summary/segmentation"]

    @property
    def bcsum(self):
        return self.bc["Summary/basecall_1d_template"]

    @property
    def called(self):
        return self.bc["BaseCalled_template"]

    def signal(self):
        return self.raw["Signal"][()]

    def moves(self):
        return self.called["Move"][()]

    def fastq(self):
        value = self.called["Fastq"][()]
        return value.decode() if isinstance(value, bytes) else value

    def sequence(self):
        return self.fastq().split("\n")[1]


# ---------------------------------------------------------------------------------------------
# Small tools of the damage functions

def put_attr(group, name, value, dtype=None):
    """Replaces (or adds) an attribute, with an explicit element type when given."""
    if name in group.attrs:
        del group.attrs[name]
    if dtype is None:
        group.attrs[name] = value
    else:
        group.attrs.create(name, value, dtype=dtype)


def drop_attr(group, name):
    del group.attrs[name]


def attr_value(group, name):
    value = group.attrs[name]
    return value.decode() if isinstance(value, bytes) else value


def odd_int_attr(group, name, value, size):
    """An integer attribute of `size` bytes; 3 bytes have no native C type."""
    if name in group.attrs:
        del group.attrs[name]
    tid = h5py.h5t.STD_I32LE.copy()
    tid.set_size(size)
    attr = h5py.h5a.create(group.id, name.encode(), tid, h5py.h5s.create(h5py.h5s.SCALAR))
    attr.write(np.array(value, dtype=np.int32), mtype=h5py.h5t.NATIVE_INT32)


def put_dataset(group, name, data=None, **kwargs):
    if name in group:
        del group[name]
    return group.create_dataset(name, data=data, **kwargs)


def fixed_text(text):
    return np.bytes_(text.encode() if isinstance(text, str) else text)


def exotic_attributes(group):
    """One attribute of every kind the layer does not decode, plus encodings it does."""
    group.attrs["x_enum"] = True  # stored as an enumeration
    group.attrs["x_compound"] = np.array((1, 2.5), dtype=[("a", "<i4"), ("b", "<f8")])
    group.attrs["x_array"] = np.arange(5, dtype=np.int16)
    ragged = np.empty(2, dtype=object)
    ragged[0], ragged[1] = np.arange(3, dtype=np.int32), np.arange(1, dtype=np.int32)
    group.attrs.create("x_vlen_ints", ragged, dtype=h5py.vlen_dtype(np.int32))
    group.attrs.create("x_reference", group.ref, dtype=h5py.ref_dtype)
    group.attrs["x_opaque"] = np.void(b"\x01\x02\x03\x04")
    group.attrs["x_half"] = np.float16(1.5)
    group.attrs["x_complex"] = np.complex64(1 + 2j)
    group.attrs.create("x_null", h5py.Empty("f8"))
    group.attrs["x_text_array"] = np.array([b"ab", b"cd"])
    group.attrs["x_vlen_texts"] = ["one", "two", "three"]
    group.attrs["x_big_endian"] = np.array(7, dtype=">i8")
    odd_int_attr(group, "x_int3", -5, 3)


def block_trimers(read):
    """The 3-mer of each block, taken from "Move" and "Fastq" the way the pair caller takes it."""
    moves = read.moves().astype(np.int64)
    sequence = read.sequence()
    total = int(moves.sum())
    k = len(sequence) + 1 - total
    position = {1: -1, 3: 0, 4: 0, 5: 1}[k]
    trimers = []
    for e in range(len(moves)):
        if position == -1:
            trimers.append(sequence[:3])
        elif k == 1 and position == total - 2:
            trimers.append(sequence[-3:])
        else:
            trimers.append(sequence[position:position + 3])
        if e + 1 < len(moves):
            position += int(moves[e + 1])
    return trimers


def events_table(read, state_length=5):
    """The "Events" table that says what "Move" and "Fastq" say: one row per block, whose model state
    has the block's 3-mer in its middle."""
    moves = read.moves()
    stride = int(attr_value(read.bcsum, "block_stride"))
    dtype = np.dtype([("start", "<u8"), ("length", "<u8"), ("mean", "<f4"), ("stdv", "<f4"),
                      ("model_state", "S%d" % state_length), ("move", "<i4")])
    table = np.zeros(len(moves), dtype=dtype)
    pad = "A" * ((state_length - 3) // 2)
    for e, trimer in enumerate(block_trimers(read)):
        table[e] = (e * stride, stride, 80.0, 1.0, (pad + trimer + pad).encode(), int(moves[e]))
    return table


# ---------------------------------------------------------------------------------------------
# The kinds of damage

Kind = collections.namedtuple("Kind", "name expect layouts fn")
KINDS = []


def kind(name, expect, layouts=("multi", "legacy")):
    def register(fn):
        KINDS.append(Kind(name, expect, layouts, fn))
        return fn
    return register


def each(prefix, names, expect, layouts=("multi", "legacy")):
    """Registers one kind per name, prefix.name, from a function of (context, name)."""
    def register(fn):
        for n, e in zip(names, expect if isinstance(expect, (list, tuple)) else [expect] * len(names)):
            KINDS.append(Kind(prefix + "." + n, e, layouts, lambda c, n=n, fn=fn: fn(c, n)))
        return fn
    return register


class Context:
    def __init__(self, read, other, rng, rows, strand):
        self.r, self.other, self.rng, self.rows, self.strand = read, other, rng, rows, strand
        self.after = []      # functions of the damaged strand's file path, run once it is closed
        self.expect = None   # overrides the kind's expectation when the data decide it
        self.detail = ""

    def after_close(self, fn):
        self.after.append(fn)


# --- attributes of the read group (Raw)

@each("raw.missing", ["duration", "read_number", "start_time", "read_id", "start_mux", "median_before"], "drop")
def raw_missing(c, name):
    drop_attr(c.r.raw, name)


@each("raw.text", ["duration", "read_number", "start_time", "start_mux", "median_before"], "drop")
def raw_text(c, name):
    put_attr(c.r.raw, name, str(attr_value(c.r.raw, name)))  # text where a number belongs


@kind("raw.read_id.integer", "drop")
def _(c):
    put_attr(c.r.raw, "read_id", np.int64(42))


@kind("raw.read_id.variable_length", "same")
def _(c):
    put_attr(c.r.raw, "read_id", c.r.id, dtype=h5py.string_dtype("utf-8"))


@kind("raw.read_id.other_than_index", "same")
def _(c):
    # The file's id replaces the one asked for in a multi-read file, and the pair is still the same
    # pair; a legacy file is found by the id it holds, which is no longer the index's.
    new = str(uuid.UUID(int=c.rng.getrandbits(128), version=4))
    c.expect = "drop" if c.r.legacy else "same"
    put_attr(c.r.raw, "read_id", fixed_text(new))
    c.detail = "file id " + new


@each("raw.duration", ["plus_one", "minus_one", "zero", "negative", "uint32_max", "nan", "infinite"], "drop")
def raw_duration(c, how):
    d = int(attr_value(c.r.raw, "duration"))
    value = {"plus_one": np.uint32(d + 1), "minus_one": np.uint32(d - 1), "zero": np.uint32(0),
             "negative": np.int32(-5), "uint32_max": np.uint32(2**32 - 1), "nan": np.float64("nan"),
             "infinite": np.float64("inf")}[how]
    put_attr(c.r.raw, "duration", value)


@kind("raw.duration.float", "same")
def _(c):
    put_attr(c.r.raw, "duration", np.float64(attr_value(c.r.raw, "duration")) + 0.75)  # truncated


@kind("raw.duration.array", "any")
def _(c):
    d = int(attr_value(c.r.raw, "duration"))
    put_attr(c.r.raw, "duration", np.array([d, 7, 9], dtype=np.uint32))


@kind("raw.duration.null_space", "drop")
def _(c):
    put_attr(c.r.raw, "duration", h5py.Empty("u4"))


@kind("raw.duration.three_bytes", "drop")
def _(c):
    odd_int_attr(c.r.raw, "duration", int(attr_value(c.r.raw, "duration")), 3)


@kind("raw.duration.enum", "drop")
def _(c):
    put_attr(c.r.raw, "duration", np.int8(1), dtype=h5py.enum_dtype({"ONE": 1, "TWO": 2}, basetype="i1"))


@kind("raw.duration.compound", "drop")
def _(c):
    put_attr(c.r.raw, "duration", np.array((5, 6), dtype=[("a", "<u4"), ("b", "<u4")]))


@kind("raw.big_endian_numbers", "same")
def _(c):
    raw = c.r.raw
    put_attr(raw, "duration", np.array(attr_value(raw, "duration"), dtype=">u4"))
    put_attr(raw, "start_time", np.array(attr_value(raw, "start_time"), dtype=">u8"))
    put_attr(raw, "median_before", np.array(attr_value(raw, "median_before"), dtype=">f8"))


@each("raw.value", ["read_number_negative", "start_mux_huge", "median_before_nan", "median_before_infinite"], "same")
def raw_value(c, how):
    name, value = {"read_number_negative": ("read_number", np.int32(-7)),
                   "start_mux_huge": ("start_mux", np.uint64(2**63)),
                   "median_before_nan": ("median_before", np.float64("nan")),
                   "median_before_infinite": ("median_before", np.float64("-inf"))}[how]
    put_attr(c.r.raw, name, value)


@each("raw.start_time", ["negative", "huge"], "any")
def raw_start_time(c, how):
    put_attr(c.r.raw, "start_time", np.int64(-1000) if how == "negative" else np.uint64(2**63 + 5))


@kind("raw.exotic_attributes", "same")
def _(c):
    exotic_attributes(c.r.raw)


# --- channel_id

CHANNEL_NUMBERS = ["digitisation", "offset", "range", "sampling_rate"]


@each("channel.missing", CHANNEL_NUMBERS + ["channel_number"], "drop")
def channel_missing(c, name):
    drop_attr(c.r.meta("channel_id"), name)


@each("channel.single_precision", ["digitisation", "range", "sampling_rate"], "drop")
def channel_single_precision(c, name):
    g = c.r.meta("channel_id")
    put_attr(g, name, np.float32(attr_value(g, name)))


@each("channel.integer", ["digitisation", "range"], "drop")
def channel_integer(c, name):
    g = c.r.meta("channel_id")
    put_attr(g, name, np.int32(attr_value(g, name)))


@each("channel.text", CHANNEL_NUMBERS, "drop")
def channel_text(c, name):
    g = c.r.meta("channel_id")
    put_attr(g, name, fixed_text(str(attr_value(g, name))))


@kind("channel.big_endian_numbers", "same")
def _(c):
    g = c.r.meta("channel_id")
    for name in CHANNEL_NUMBERS:
        put_attr(g, name, np.array(attr_value(g, name), dtype=">f8"))


CALIBRATION = [("digitisation", "zero", 0.0, "drop"), ("digitisation", "negative", -8192.0, "drop"),
               ("digitisation", "nan", math.nan, "drop"), ("digitisation", "infinite", math.inf, "drop"),
               ("digitisation", "huge", 1e300, "drop"), ("digitisation", "tiny", 1e-300, "drop"),
               ("range", "zero", 0.0, "drop"), ("range", "negative", -1402.0, "drop"),
               ("range", "nan", math.nan, "drop"), ("range", "huge", 1e300, "drop"),
               ("offset", "huge", 1e10, "drop"), ("offset", "nan", math.nan, "drop"),
               ("offset", "negative", -12.0, "any"), ("offset", "fraction", None, "same"),
               ("sampling_rate", "zero", 0.0, "any"), ("sampling_rate", "negative", -4000.0, "any"),
               ("sampling_rate", "nan", math.nan, "any"), ("sampling_rate", "huge", 1e300, "any"),
               ("sampling_rate", "tiny", 1e-300, "any")]


@each("channel.value", ["%s.%s" % (n, h) for n, h, _v, _e in CALIBRATION], [e for _n, _h, _v, e in CALIBRATION])
def channel_value(c, which):
    name, how = which.split(".")
    value = dict(((n, h), v) for n, h, v, _e in CALIBRATION)[(name, how)]
    g = c.r.meta("channel_id")
    if value is None:  # a fraction is cut to the integer offset
        value = float(attr_value(g, name)) + 0.25
    put_attr(g, name, np.float64(value))


CHANNEL_NUMBER = [("letters", fixed_text("abc"), "drop"), ("negative", fixed_text("-5"), "drop"),
                  ("too_long", fixed_text("99999999999"), "drop"), ("nan", np.float64("nan"), "drop"),
                  ("integer", np.int32(42), "same"), ("double", np.float64(42.0), "same"),
                  ("variable_length_text", "42", "same"), ("empty_text", fixed_text(""), "drop")]


@each("channel.channel_number", [n for n, _v, _e in CHANNEL_NUMBER], [e for _n, _v, e in CHANNEL_NUMBER])
def channel_number(c, how):
    put_attr(c.r.meta("channel_id"), "channel_number", dict((n, v) for n, v, _e in CHANNEL_NUMBER)[how])


@kind("channel.exotic_attributes", "same")
def _(c):
    exotic_attributes(c.r.meta("channel_id"))


# --- tracking_id

@each("tracking.missing", ["run_id", "flow_cell_id"], "drop")
def tracking_missing(c, name):
    drop_attr(c.r.meta("tracking_id"), name)


@each("tracking.integer", ["run_id", "flow_cell_id", "sample_id"], "drop")
def tracking_integer(c, name):
    put_attr(c.r.meta("tracking_id"), name, np.int64(7))


@kind("tracking.sample_id.missing", "same")
def _(c):
    drop_attr(c.r.meta("tracking_id"), "sample_id")


@each("tracking.exp_start_time", ["missing", "garbage", "integer", "year_99999"], "same")
def tracking_exp_start_time(c, how):
    g = c.r.meta("tracking_id")
    if how == "missing":
        drop_attr(g, "exp_start_time")
    else:
        put_attr(g, "exp_start_time", {"garbage": fixed_text("yesterday at noon"), "integer": np.int64(5),
                                       "year_99999": fixed_text("99999-01-01T00:00:00Z")}[how])


@kind("tracking.variable_length_texts", "same")
def _(c):
    g = c.r.meta("tracking_id")
    for name in ("run_id", "flow_cell_id", "sample_id"):
        put_attr(g, name, attr_value(g, name), dtype=h5py.string_dtype("utf-8"))


@kind("tracking.exotic_attributes", "same")
def _(c):
    exotic_attributes(c.r.meta("tracking_id"))


# --- metadata groups

@each("group.missing", ["channel_id", "tracking_id"], "drop")
def group_missing(c, name):
    del c.r.meta_parent[name]


@each("group.as_dataset", ["channel_id", "tracking_id"], "drop")
def group_as_dataset(c, name):
    del c.r.meta_parent[name]
    c.r.meta_parent.create_dataset(name, data=np.arange(4, dtype=np.int32))


@kind("group.context_tags.missing", "same")
def _(c):
    if "context_tags" in c.r.meta_parent:
        del c.r.meta_parent["context_tags"]


@kind("group.extra_groups", "same")
def _(c):
    extra = c.r.meta_parent.create_group("zz_extra")
    extra.attrs["anything"] = np.int8(3)
    extra.create_dataset("values", data=np.arange(10))
    c.r.base.create_group("Analyses_not").attrs["x"] = 1
    c.r.raw.create_group("Extra").create_dataset("Signal", data=np.zeros(3, dtype=np.int16))


@kind("group.raw.missing", "drop", layouts=("multi",))
def _(c):
    del c.r.base["Raw"]


@kind("group.read_is_a_dataset", "drop", layouts=("multi",))
def _(c):
    name = c.r.base.name
    del c.r.f[name]
    c.r.f.create_dataset(name, data=np.arange(3))
    c.r = None


@kind("group.root_raw_makes_legacy", "drop", layouts=("multi",))
def _(c):
    c.r.f.create_group("Raw")


@kind("group.extra_read_in_file", "same", layouts=("multi",))
def _(c):
    c.r.f.copy(c.r.base, c.r.f, name="read_" + str(uuid.UUID(int=c.rng.getrandbits(128), version=4)))


# --- the raw signal

@kind("signal.missing", "drop")
def _(c):
    del c.r.raw["Signal"]


@each("signal.length", ["short", "long", "empty"], "drop")
def signal_length(c, how):
    s = c.r.signal()
    s = {"short": s[:-1], "long": np.concatenate([s, s[:5]]), "empty": s[:0]}[how]
    put_dataset(c.r.raw, "Signal", s, maxshape=(None,), chunks=(1024,))


@kind("signal.empty_with_zero_duration", "drop")
def _(c):
    put_dataset(c.r.raw, "Signal", np.zeros(0, dtype=np.int16), maxshape=(None,), chunks=(1,))
    put_attr(c.r.raw, "duration", np.uint32(0))


@each("signal.type", ["float32", "int32", "uint16", "int8"], "drop")
def signal_type(c, how):
    s = c.r.signal()
    put_dataset(c.r.raw, "Signal", s.astype({"float32": np.float32, "int32": np.int32, "uint16": np.uint16,
                                             "int8": np.int8}[how]))


@each("signal.shape", ["two_dimensions", "scalar", "text"], "drop")
def signal_shape(c, how):
    s = c.r.signal()
    data = {"two_dimensions": s[: len(s) // 2 * 2].reshape(-1, 2), "scalar": np.int16(s[0]),
            "text": fixed_text("not a signal")}[how]
    put_dataset(c.r.raw, "Signal", data)


@each("signal.encoding", ["big_endian", "contiguous", "small_chunks_gzip9", "shuffle_fletcher32"], "same")
def signal_encoding(c, how):
    s = c.r.signal()
    kwargs = {"big_endian": dict(dtype=">i2", chunks=(1000,), compression="gzip"),
              "contiguous": dict(),
              "small_chunks_gzip9": dict(chunks=(100,), compression="gzip", compression_opts=9),
              "shuffle_fletcher32": dict(chunks=(4096,), shuffle=True, fletcher32=True, compression="gzip")}[how]
    put_dataset(c.r.raw, "Signal", s, **kwargs)


@kind("signal.filter_not_available", "drop")
def _(c):
    put_dataset(c.r.raw, "Signal", c.r.signal(), chunks=(1024,), compression="lzf")  # h5py's own filter


@kind("signal.huge_extent", "drop")
def _(c):
    # A header that claims 2^32 - 2 samples, with no storage behind it, and a duration to match.
    n = 2**32 - 2
    put_dataset(c.r.raw, "Signal", shape=(n,), dtype=np.int16, chunks=(2**20,))
    put_attr(c.r.raw, "duration", np.uint32(n))


@each("signal.values", ["constant", "zeros", "rails", "noise"], "any")
def signal_values(c, how):
    s = c.r.signal()
    rng = np.random.default_rng(c.rng.getrandbits(32))
    data = {"constant": np.full_like(s, 700), "zeros": np.zeros_like(s),
            "rails": np.where(np.arange(len(s)) % 2 == 0, 32767, -32768).astype(np.int16),
            "noise": rng.integers(-32768, 32767, len(s), dtype=np.int16)}[how]
    put_dataset(c.r.raw, "Signal", data, chunks=(1024,), compression="gzip")


# --- analyses: which ones are there

@kind("analyses.missing", "drop")
def _(c):
    del c.r.base["Analyses"]


@kind("analyses.empty", "drop")
def _(c):
    del c.r.base["Analyses"]
    c.r.base.create_group("Analyses")


@kind("analyses.as_dataset", "drop")
def _(c):
    del c.r.base["Analyses"]
    c.r.base.create_dataset("Analyses", data=np.arange(3))


@each("analyses.missing_one", ["Segmentation_000", "Basecall_1D_000"], "drop")
def analysis_missing(c, name):
    del c.r.analyses[name]


@each("analyses.newer_empty", ["Segmentation_001", "Basecall_1D_001", "Segmentation_abc", "Basecall_1D_x"], "drop")
def analysis_newer_empty(c, name):
    # Sorts above the real one, so it is the one read, and it holds nothing.
    c.r.analyses.create_group(name).attrs["name"] = "broken"


@each("analyses.older_empty", ["Segmentation_", "Segmentation_00", "Basecall_1D_", "Basecall_1D_0"], "same")
def analysis_older_empty(c, name):
    # Sorts below the real one and is passed over.
    c.r.analyses.create_group(name)


@kind("analyses.newer_copy", "same")
def _(c):
    c.r.analyses.copy(c.r.bc, c.r.analyses, name="Basecall_1D_005")
    c.r.analyses.copy(c.r.seg, c.r.analyses, name="Segmentation_002")


@kind("analyses.other_analyses", "same")
def _(c):
    a = c.r.analyses.create_group("Alignment_000")
    a.create_dataset("deep/er/values", data=np.arange(12, dtype=np.float32).reshape(3, 4))
    a.create_group("Summary").attrs["return_status"] = "No data found"
    c.r.analyses.create_dataset("loose_dataset", data=np.arange(3))


@each("analyses.dangling_link", ["AAA_first", "zzz_last"], ["any", "same"])
def analyses_dangling_link(c, where):
    # Listing stops at a link that cannot be followed. Whether that hides the analyses depends on the
    # library's order of the group's links, which is by name or by insertion after a copy.
    c.r.analyses[where] = h5py.SoftLink("/nowhere/at/all")


@kind("analyses.external_link_first", "any")
def _(c):
    c.r.analyses["AAA_external"] = h5py.ExternalLink("no_such_file.rawh5", "/group")


# --- analyses: their summaries

@each("summary.missing", ["Segmentation", "Basecall_1D"], "drop")
def summary_missing(c, which):
    del c.r.latest(which + "_")["Summary"]


@each("summary.as_dataset", ["Segmentation", "Basecall_1D"], "drop")
def summary_as_dataset(c, which):
    a = c.r.latest(which + "_")
    del a["Summary"]
    a.create_dataset("Summary", data=np.arange(2, dtype=np.int8))


@kind("summary.return_status.missing", "drop", layouts=("multi",))
def _(c):
    drop_attr(c.r.seg["Summary"], "return_status")


@kind("summary.return_status.integer", "drop", layouts=("multi",))
def _(c):
    put_attr(c.r.bc["Summary"], "return_status", np.int32(1))


@kind("summary.return_status.unknown_text", "same")
def _(c):
    put_attr(c.r.seg["Summary"], "return_status", fixed_text("Something nobody wrote down"))


@each("summary.group_missing", ["segmentation", "basecall_1d_template"], "drop")
def summary_group_missing(c, which):
    parent = c.r.seg["Summary"] if which == "segmentation" else c.r.bc["Summary"]
    del parent[which]


# --- segmentation values

def segmentation_value(c, name, how):
    g = c.r.segsum
    first, duration = int(attr_value(g, "first_sample_template")), int(attr_value(g, "duration_template"))
    length = int(c.r.raw["Signal"].shape[0])
    value = {"negative": np.int64(-3000), "minus_one": np.int64(-1), "zero": np.int64(0),
             "huge": np.uint64(10**12), "int64_max": np.int64(2**63 - 1), "nan": np.float64("nan"),
             "infinite": np.float64("inf"), "digits_text": fixed_text(str(attr_value(g, name))),
             "letters_text": fixed_text("twelve"), "float": np.float64(attr_value(g, name)),
             "past_end": np.int64(length - duration + 1 if name == "first_sample_template" else length - first + 1),
             "at_end": np.int64(length if name == "first_sample_template" else 0),
             "negative_text": fixed_text("-3000")}[how]
    put_attr(g, name, value)


SEGMENTATION = [("negative", "drop"), ("minus_one", "drop"), ("zero", "any"), ("huge", "drop"),
                ("int64_max", "drop"), ("nan", "drop"), ("infinite", "drop"), ("digits_text", "same"),
                ("letters_text", "drop"), ("float", "same"), ("past_end", "drop"), ("negative_text", "drop")]


@each("segmentation.first_sample", [n for n, _e in SEGMENTATION] + ["missing"], [e for _n, e in SEGMENTATION] + ["drop"])
def segmentation_first_sample(c, how):
    if how == "missing":
        drop_attr(c.r.segsum, "first_sample_template")
    else:
        segmentation_value(c, "first_sample_template", how)


@each("segmentation.duration", [n for n, _e in SEGMENTATION] + ["missing"], [e for _n, e in SEGMENTATION] + ["drop"])
def segmentation_duration(c, how):
    if how == "missing":
        drop_attr(c.r.segsum, "duration_template")
    else:
        segmentation_value(c, "duration_template", how)


@kind("segmentation.start_at_end", "drop")
def _(c):
    segmentation_value(c, "first_sample_template", "at_end")


# --- strides

def stride_expect(c):
    """Without a stride the read's is its duration over its blocks, which may or may not be the
    stride it was called with."""
    duration = int(attr_value(c.r.segsum, "duration_template"))
    same = duration // len(c.r.moves()) == int(attr_value(c.r.bcsum, "block_stride"))
    return "same" if same else "any"


@each("stride.block_stride", ["missing", "zero"], "same")
def stride_block_stride(c, how):
    c.expect = stride_expect(c)
    if how == "missing":
        drop_attr(c.r.bcsum, "block_stride")
    else:
        put_attr(c.r.bcsum, "block_stride", np.int32(0))


STRIDES = [("negative", np.int64(-3), "drop"), ("huge", np.uint64(10**12), "drop"),
           ("large", np.int32(10**5), "drop"), ("uint64_max", np.uint64(2**64 - 1), "drop"),
           ("nan", np.float64("nan"), "drop"), ("letters_text", fixed_text("three"), "drop"),
           ("digits_text", None, "same"), ("float", None, "same"), ("different", None, "drop")]


@each("stride.block_stride", [n for n, _v, _e in STRIDES], [e for _n, _v, e in STRIDES])
def stride_value(c, how):
    g = c.r.bcsum
    stride = int(attr_value(g, "block_stride"))
    value = dict((n, v) for n, v, _e in STRIDES)[how]
    if how == "digits_text":
        value = fixed_text(str(stride))
    elif how == "float":
        value = np.float64(stride)
    elif how == "different":
        value = np.int32(stride + 1)  # the strands no longer agree
    put_attr(g, "block_stride", value)


@each("stride.event_stride", ["same_value", "negative", "huge"], ["same", "drop", "drop"])
def stride_event_stride(c, how):
    g = c.r.bcsum
    stride = int(attr_value(g, "block_stride"))
    drop_attr(g, "block_stride")
    put_attr(g, "event_stride", {"same_value": np.int32(stride), "negative": np.int32(-3),
                                 "huge": np.uint64(10**15)}[how])


@kind("stride.both_strands_one", "any")
def _(c):
    put_attr(c.r.bcsum, "block_stride", np.int32(1))
    put_attr(c.other.bcsum, "block_stride", np.int32(1))


@kind("stride.both_strands_huge", "drop")
def _(c):
    put_attr(c.r.bcsum, "block_stride", np.uint64(10**12))
    put_attr(c.other.bcsum, "block_stride", np.uint64(10**12))


@kind("stride.both_strands_negative_no_duration", "drop")
def _(c):
    for read in (c.r, c.other):
        drop_attr(read.bcsum, "block_stride")
        put_attr(read.segsum, "duration_template", np.int64(-24000))


# --- moves

def put_moves(c, moves, **kwargs):
    put_dataset(c.r.called, "Move", moves, **kwargs)


MOVES = [("missing", "drop"), ("uint16", "drop"), ("int8", "drop"), ("float", "drop"), ("two_dimensions", "any"),
         ("scalar", "drop"), ("empty", "drop"), ("zeros", "drop"), ("one_more_step", "any"),
         ("two_more_steps", "any"), ("three_more_steps", "drop"), ("one_huge", "drop"), ("first_half", "drop"),
         ("twice", "drop"), ("as_group", "drop"), ("gzip", "same"), ("contiguous", "same"),
         ("huge_extent", "drop"), ("text", "drop")]


@each("moves", [n for n, _e in MOVES], [e for _n, e in MOVES])
def moves(c, how):
    m = c.r.moves()
    if how == "missing":
        del c.r.called["Move"]
    elif how in ("uint16", "int8", "float"):
        put_moves(c, m.astype({"uint16": np.uint16, "int8": np.int8, "float": np.float32}[how]))
    elif how == "two_dimensions":
        put_moves(c, m[: len(m) // 2 * 2].reshape(-1, 2))
    elif how == "scalar":
        put_moves(c, np.uint8(1))
    elif how == "empty":
        put_moves(c, m[:0], maxshape=(None,), chunks=(16,))
    elif how == "zeros":
        put_moves(c, np.zeros_like(m))
    elif how in ("one_more_step", "two_more_steps", "three_more_steps", "one_huge"):
        m = m.copy()
        i = c.rng.randrange(1, len(m) - 1)
        m[i] = {"one_more_step": m[i] + 1, "two_more_steps": m[i] + 2, "three_more_steps": m[i] + 3,
                "one_huge": 200}[how]
        put_moves(c, m)
    elif how == "first_half":
        put_moves(c, m[: len(m) // 2])
    elif how == "twice":
        put_moves(c, np.concatenate([m, m]))
    elif how == "as_group":
        del c.r.called["Move"]
        c.r.called.create_group("Move").create_dataset("values", data=m)
    elif how == "gzip":
        put_moves(c, m, chunks=(500,), compression="gzip")
    elif how == "contiguous":
        put_moves(c, m, chunks=None)
    elif how == "huge_extent":
        put_moves(c, None, shape=(10**12,), dtype=np.uint8, chunks=(2**20,))
    elif how == "text":
        put_moves(c, fixed_text("1101"))


@each("moves.second", ["sorted_before", "sorted_after", "analysis_root"], ["same", "drop", "same"])
def moves_second(c, where):
    # A second "Move" elsewhere in the analysis; the last one listed is the one read.
    garbage = np.zeros(50, dtype=np.uint8)
    if where == "analysis_root":
        c.r.bc.create_dataset("Move", data=garbage)
    else:
        name = "BaseCalled_aaa" if where == "sorted_before" else "BaseCalled_zzz"
        c.r.bc.create_group(name).create_dataset("Move", data=garbage)


# --- fastq

def put_fastq(c, text, **kwargs):
    put_dataset(c.r.called, "Fastq", fixed_text(text) if not kwargs else text, **kwargs)


FASTQ = [("missing", "drop"), ("no_newline", "drop"), ("one_newline", "drop"), ("empty", "drop"),
         ("lower_case", "drop"), ("base_n", "drop"), ("ten_bases_short", "drop"), ("ten_bases_long", "drop"),
         ("integers", "drop"), ("variable_length", "same"), ("array_of_two", "drop"), ("nul_in_header", "drop"),
         ("crlf", "any"), ("header_garbage", "same"), ("no_quality_lines", "same"), ("utf8_header", "same"),
         ("sequence_utf8", "drop")]


@each("fastq", [n for n, _e in FASTQ], [e for _n, e in FASTQ])
def fastq(c, how):
    text = c.r.fastq()
    head, seq, rest = text.split("\n", 2)
    middle = len(seq) // 2
    if how == "missing":
        del c.r.called["Fastq"]
    elif how == "no_newline":
        put_fastq(c, text.replace("\n", " "))
    elif how == "one_newline":
        put_fastq(c, head + "\n" + seq)
    elif how == "empty":
        put_fastq(c, np.bytes_(b""), dtype="S1")
    elif how == "lower_case":
        put_fastq(c, head + "\n" + seq.lower() + "\n" + rest)
    elif how == "base_n":
        put_fastq(c, head + "\n" + seq[:middle] + "N" + seq[middle + 1:] + "\n" + rest)
    elif how == "ten_bases_short":
        put_fastq(c, head + "\n" + seq[:-10] + "\n" + rest)
    elif how == "ten_bases_long":
        put_fastq(c, head + "\n" + seq + "ACGTACGTAC\n" + rest)
    elif how == "integers":
        put_fastq(c, np.arange(10, dtype=np.int32), dtype=np.int32)
    elif how == "variable_length":
        put_fastq(c, text, dtype=h5py.string_dtype("utf-8"))
    elif how == "array_of_two":
        put_fastq(c, np.array([text.encode(), text.encode()]), dtype="S%d" % len(text))
    elif how == "nul_in_header":
        put_fastq(c, head[:5] + "\0" + head[5:] + "\n" + seq + "\n" + rest)
    elif how == "crlf":
        put_fastq(c, text.replace("\n", "\r\n"))
    elif how == "header_garbage":
        put_fastq(c, "@@@ \t garbage ###" + "\n" + seq + "\n" + rest)
    elif how == "no_quality_lines":
        put_fastq(c, head + "\n" + seq + "\n")
    elif how == "utf8_header":
        put_fastq(c, head + " comment=\u00e9\u00e8\u4e2d" + "\n" + seq + "\n" + rest, dtype=h5py.string_dtype("utf-8"))
    elif how == "sequence_utf8":
        put_fastq(c, head + "\n" + seq[:middle] + "\u00c5" + seq[middle + 1:] + "\n" + rest,
                  dtype=h5py.string_dtype("utf-8"))


# --- the events form

def put_events(c, table, keep_move=False, keep_fastq=True, **kwargs):
    if not keep_move:
        del c.r.called["Move"]
    if not keep_fastq:
        del c.r.called["Fastq"]
    put_dataset(c.r.called, "Events", table, **kwargs)


@each("events.valid", ["in_place_of_moves", "without_fastq", "three_base_states", "seven_base_states", "gzip"], "same")
def events_valid(c, how):
    # What the moves say, said as an events table: the calls must not change.
    length = {"three_base_states": 3, "seven_base_states": 7}.get(how, 5)
    table = events_table(c.r, length)
    if how == "without_fastq":
        put_events(c, table, keep_fastq=False)
    elif how == "gzip":
        put_events(c, table, chunks=(256,), compression="gzip")
    else:
        put_events(c, table)


@kind("events.stride_from_duration", "same")
def _(c):
    c.expect = stride_expect(c)
    put_events(c, events_table(c.r))
    drop_attr(c.r.bcsum, "block_stride")


EVENTS = ["listed_before_moves", "nul_state", "short_states", "bad_base", "empty", "no_model_state",
          "not_a_table", "two_dimensions", "nested_compound", "enum_member", "integer_state",
          "variable_length_state", "huge_extent", "one_row"]


@each("events.damaged", EVENTS, ["drop"] * 11 + ["any", "drop", "any"])
def events_damaged(c, how):
    table = events_table(c.r)
    if how == "listed_before_moves":
        # "Events" sorts before "Move": the events path is taken over the "Move" data set.
        put_events(c, table, keep_move=True)
    elif how == "nul_state":
        table["model_state"][c.rng.randrange(len(table))] = b""
        put_events(c, table)
    elif how == "short_states":
        put_events(c, table.astype([(n, "S2" if n == "model_state" else table.dtype[n]) for n in table.dtype.names]))
    elif how == "bad_base":
        table["model_state"][len(table) // 2] = b"AXGXT"
        put_events(c, table)
    elif how == "empty":
        put_events(c, table[:0], maxshape=(None,), chunks=(16,))
    elif how == "no_model_state":
        put_events(c, table[["start", "length", "mean", "stdv", "move"]].copy())
    elif how == "not_a_table":
        put_events(c, table["move"].copy())
    elif how == "two_dimensions":
        put_events(c, table[: len(table) // 2 * 2].reshape(-1, 2))
    elif how == "nested_compound":
        inner = np.dtype([("a", "<i4"), ("b", "<f4")])
        dtype = np.dtype(table.dtype.descr + [("nested", inner)])
        nested = np.zeros(len(table), dtype=dtype)
        for n in table.dtype.names:
            nested[n] = table[n]
        put_events(c, nested)
    elif how == "enum_member":
        dtype = np.dtype(table.dtype.descr[:-1] + [("move", h5py.enum_dtype({"STAY": 0, "STEP": 1, "SKIP": 2,
                                                                             "MORE": 3}, basetype="i1"))])
        e = np.zeros(len(table), dtype=dtype)
        for n in table.dtype.names:
            e[n] = np.minimum(table[n], 3) if n == "move" else table[n]
        put_events(c, e)
    elif how == "integer_state":
        dtype = [(n, "<i8" if n == "model_state" else table.dtype[n]) for n in table.dtype.names]
        e = np.zeros(len(table), dtype=dtype)
        for n in table.dtype.names:
            if n != "model_state":
                e[n] = table[n]
        put_events(c, e)
    elif how == "variable_length_state":
        dtype = [(n, h5py.string_dtype("ascii") if n == "model_state" else table.dtype[n]) for n in table.dtype.names]
        e = np.zeros(len(table), dtype=dtype)
        for n in table.dtype.names:
            e[n] = table[n]
        put_events(c, e)
    elif how == "huge_extent":
        put_events(c, None, shape=(10**11,), dtype=table.dtype, chunks=(4096,))
    elif how == "one_row":
        put_events(c, table[:1])


# --- links and the shape of the tree

@each("tree.cycle", ["hard_link_to_parent", "soft_link_to_analysis", "soft_link_to_root"], ["same", "same", "any"])
def tree_cycle(c, how):
    # A group that contains itself: a walk that follows it never ends. The link to the root also
    # brings the other read's data sets into the listing, and the last "Move" listed is read.
    called = c.r.called
    if how == "hard_link_to_parent":
        called["loop"] = c.r.bc
    elif how == "soft_link_to_analysis":
        called["loop"] = h5py.SoftLink(c.r.bc.name)
    else:
        called["loop"] = h5py.SoftLink("/")


@kind("tree.deep_nesting", "same")
def _(c):
    g = c.r.bc.create_group("deep")
    for level in range(150):
        g = g.create_group("level_%03d" % level)
    g.create_dataset("bottom", data=np.arange(4))


@kind("tree.many_datasets", "same")
def _(c):
    g = c.r.bc.create_group("many")
    for i in range(600):
        g.create_dataset("values_%04d" % i, data=np.arange(2, dtype=np.int8))


@kind("tree.many_attributes", "same")
def _(c):
    for i in range(300):
        c.r.raw.attrs["extra_%04d" % i] = np.int32(i)  # dense attribute storage


@kind("tree.long_names", "same")
def _(c):
    c.r.bc.create_group("n" * 5000).create_dataset("v" * 3000, data=np.arange(2))
    c.r.meta("context_tags" if "context_tags" in c.r.meta_parent else "channel_id").attrs["a" * 4000] = "long"


# --- legacy layout

@kind("legacy.clean", "same", layouts=("legacy",))
def _(c):
    pass


@kind("legacy.two_read_groups", "drop", layouts=("legacy",))
def _(c):
    reads = c.r.f["Raw/Reads"]
    reads.copy(c.r.raw, reads, name="Read_999999")


@each("legacy.reads", ["no_read_group", "wrong_name"], "drop", layouts=("legacy",))
def legacy_reads(c, how):
    reads = c.r.f["Raw/Reads"]
    name = list(reads.keys())[0]
    if how == "no_read_group":
        del reads[name]
    else:
        reads.move(name, "Read" + name[5:])


@each("legacy.missing", ["Raw/Reads", "UniqueGlobalKey", "UniqueGlobalKey/channel_id", "UniqueGlobalKey/tracking_id"], "drop",
      layouts=("legacy",))
def legacy_missing(c, path):
    del c.r.f[path]


@each("legacy.file_version", ["missing", "text", "integer"], ["drop", "drop", "same"], layouts=("legacy",))
def legacy_file_version(c, how):
    if how == "missing":
        drop_attr(c.r.f, "file_version")
    else:
        put_attr(c.r.f, "file_version", fixed_text("1.0") if how == "text" else np.int32(1))


@kind("legacy.read_missing_start_mux", "drop", layouts=("legacy",))
def _(c):
    drop_attr(c.r.raw, "start_mux")


@kind("legacy.extra_global_group", "same", layouts=("legacy",))
def _(c):
    c.r.f["UniqueGlobalKey"].create_group("custom_group").attrs["anything"] = np.int8(-3)


@kind("legacy.stray_multi_read_group", "same", layouts=("legacy",))
def _(c):
    c.r.f.create_group("read_stray").create_group("Raw")


# --- bytes of the file

def file_of(path, fn):
    with open(path, "r+b") as f:
        fn(f, os.path.getsize(path))


def overwrite(path, offset, data):
    file_of(path, lambda f, _n: (f.seek(offset), f.write(data)))


@each("bytes.truncated", ["to_zero", "to_512", "to_half", "by_one"], "drop")
def bytes_truncated(c, how):
    def cut(path):
        size = os.path.getsize(path)
        os.truncate(path, {"to_zero": 0, "to_512": 512, "to_half": size // 2, "by_one": size - 1}[how])
    c.after_close(cut)


@kind("bytes.signature", "drop")
def _(c):
    c.after_close(lambda path: overwrite(path, 0, b"\x00HDF\r\n\x1a\x00"))


@kind("bytes.text_file", "drop")
def _(c):
    def text(path):
        with open(path, "w") as f:
            f.write("This is not a read file.\n" * 100)
    c.after_close(text)


def chunk_offset(dataset):
    if dataset.chunks:
        info = dataset.id.get_chunk_info(0)
        return info.byte_offset, info.size
    return dataset.id.get_offset(), dataset.id.get_storage_size()


@kind("bytes.signal_chunk", "drop")
def _(c):
    offset, size = chunk_offset(c.r.raw["Signal"])
    c.after_close(lambda path: overwrite(path, offset + size // 2, b"\xff" * min(32, size // 2)))


@kind("bytes.moves_all_ff", "drop")
def _(c):
    offset, size = chunk_offset(c.r.called["Move"])
    c.after_close(lambda path: overwrite(path, offset, b"\xff" * size))


@kind("bytes.fastq_sequence", "drop")
def _(c):
    d = c.r.called["Fastq"]
    offset = d.id.get_offset()
    head = len(c.r.fastq().split("\n")[0]) + 1
    if offset is None:
        c.expect = "any"
        return
    c.after_close(lambda path: overwrite(path, offset + head + 20, b"ZZZZ"))


@each("bytes.object_header", ["raw_group", "analysis_group", "signal_dataset", "channel_group"], "library")
def bytes_object_header(c, which):
    obj = {"raw_group": c.r.raw, "analysis_group": c.r.bc, "signal_dataset": c.r.raw["Signal"],
           "channel_group": c.r.meta("channel_id")}[which]
    address = h5py.h5o.get_info(obj.id).addr
    rng = random.Random(c.rng.getrandbits(32))
    junk = bytes(rng.getrandbits(8) for _ in range(48))
    c.after_close(lambda path: overwrite(path, address + 8, junk))


@kind("bytes.events_datatype", "library")
def _(c):
    # An "Events" table whose type description is damaged behind its first member's name: HDF5 1.10
    # gives up decoding it and loses the member names it had copied (H5MM_xstrdup) and the type.
    put_events(c, events_table(c.r))

    def damage(path):
        data = open(path, "rb").read()
        overwrite(path, data.index(b"start\0") + 12, b"\xff")  # the member's dimension count
    c.after_close(damage)


def data_regions(read):
    """(offset, length) of the stored bytes of the signal, the moves and the Fastq text."""
    regions = []
    for d in (read.raw["Signal"], read.called["Move"], read.called["Fastq"]):
        if d.chunks:
            regions += [(i.byte_offset, i.size) for i in map(d.id.get_chunk_info, range(d.id.get_num_chunks()))]
        elif d.id.get_offset() is not None:
            regions.append((d.id.get_offset(), d.id.get_storage_size()))
    return [r for r in regions if r[1] >= 8]


@each("bytes.random", ["few", "many"], "any")
def bytes_random(c, how):
    # Stored data only: bytes of the library's own structures are the "library" kinds.
    rng = random.Random(c.rng.getrandbits(32))
    regions = data_regions(c.r)

    def scribble(path):
        for _ in range(8 if how == "few" else 400):
            offset, size = rng.choice(regions)
            overwrite(path, offset + rng.randrange(size - 7), bytes(rng.getrandbits(8) for _ in range(8)))
    c.after_close(scribble)


@kind("bytes.zero_block", "any")
def _(c):
    rng = random.Random(c.rng.getrandbits(32))
    offset, size = max(data_regions(c.r), key=lambda r: r[1])
    c.after_close(lambda path: overwrite(path, offset, b"\0" * min(size, 4096)))


@kind("bytes.file_missing", "unlisted")
def _(c):
    c.after_close(os.remove)


# --- the index

@kind("index.unknown_read_id", "drop")
def _(c):
    c.rows[c.strand - 1]["read_id"] = str(uuid.UUID(int=c.rng.getrandbits(128), version=4))


@kind("index.file_of_another_pair", "drop")
def _(c):
    c.rows[c.strand - 1]["filename"] = "clean_0000.rawh5"


@kind("index.text_after_blank", "same")
def _(c):
    # A cell is read up to its first blank.
    c.rows[c.strand - 1]["read_id"] += " and more"
    c.rows[c.strand - 1]["filename"] += " (copy)"


@kind("index.same_read_twice", "any")
def _(c):
    other = c.rows[2 - c.strand]
    c.rows[c.strand - 1]["read_id"] = other["read_id"]
    c.rows[c.strand - 1]["filename"] = other["filename"]


# ---------------------------------------------------------------------------------------------
# Building the set

MANIFEST_COLUMNS = ["pair", "expect", "kind", "strand", "layout", "read_id1", "read_id2", "file1", "call_id1",
                    "source_id1", "source_id2", "detail"]


def build(args):
    header, rows = read_index(args.index)
    files = {}
    for dirpath, _dirs, names in os.walk(args.reads):
        for name in names:
            if name.endswith(".rawh5"):
                files[name] = os.path.join(dirpath, name)
    rows = [r for r in rows if r["filename"] in files]
    pairs = find_pairs(rows)
    if not pairs:
        sys.exit("no pairs in %s" % args.index)
    if "filename" not in header:
        sys.exit("the index has no 'filename' column")

    out_reads = os.path.join(args.out, "reads")
    if os.path.exists(args.out):
        shutil.rmtree(args.out)
    os.makedirs(out_reads)
    rng = random.Random(args.seed)
    out_rows, manifest = [], []

    def src(row):
        return files[row["filename"]], row["read_id"]

    # The input pairs, each in a file of its own, and the reads of no pair in one file.
    paired = set()
    for n, (a, b) in enumerate(pairs):
        name = "clean_%04d.rawh5" % n
        for row in (a, b):
            copy_read(*src(row), os.path.join(out_reads, name), row["read_id"], legacy=False)
            out_rows.append(dict(row, filename=name))
            paired.add(row["read_id"])
        manifest.append(dict(pair="clean_%04d" % n, expect="clean", kind="clean", strand="", layout="multi",
                             read_id1=a["read_id"], read_id2=b["read_id"], file1=name, call_id1=a["read_id"],
                             source_id1=a["read_id"], source_id2=b["read_id"], detail=""))
    for row in rows:
        if row["read_id"] not in paired:
            copy_read(*src(row), os.path.join(out_reads, "unpaired.rawh5"), row["read_id"], legacy=False)
            out_rows.append(dict(row, filename="unpaired.rawh5"))

    kinds = [k for k in KINDS if re.search(args.kinds, k.name)] if args.kinds else \
        [k for k in KINDS if k.expect != "library"]
    if not kinds:
        sys.exit("no kind matches %r" % args.kinds)
    if args.full:
        plan = [k for k in kinds for _ in range(args.copies)]
    else:
        plan = []
        while len(plan) < args.damaged:
            batch = list(kinds)
            rng.shuffle(batch)
            plan.extend(batch[: args.damaged - len(plan)])

    order = list(range(len(pairs)))
    rng.shuffle(order)
    for n, k in enumerate(plan):
        a, b = pairs[order[n % len(order)]]
        strand = rng.choice((1, 2))
        layout = rng.choice(k.layouts)
        ids = [str(uuid.UUID(int=rng.getrandbits(128), version=4)) for _ in range(2)]
        stem = "dmg_%04d" % n
        names = [stem + "_1.rawh5", stem + "_2.rawh5"] if layout == "legacy" else [stem + ".rawh5"] * 2
        for row, new_id, name in zip((a, b), ids, names):
            copy_read(*src(row), os.path.join(out_reads, name), new_id, legacy=layout == "legacy")
        new_rows = [dict(row, read_id=new_id, filename=name, channel=str(1000 + n))
                    for row, new_id, name in zip((a, b), ids, names)]

        handles = {}
        for name in set(names):
            handles[name] = h5py.File(os.path.join(out_reads, name), "a")
        reads = [Read(handles[name], new_id, layout == "legacy") for name, new_id in zip(names, ids)]
        context = Context(reads[strand - 1], reads[2 - strand], random.Random(rng.getrandbits(64)), new_rows, strand)
        try:
            k.fn(context)
        finally:
            for f in handles.values():
                f.close()
        for fn in context.after:
            fn(os.path.join(out_reads, names[strand - 1]))
        out_rows.extend(new_rows)

        # The id the outputs of strand 1 carry: the index's, or the file's where the two differ.
        call_id1 = new_rows[0]["read_id"].split()[0]
        if k.name == "raw.read_id.other_than_index" and strand == 1:
            call_id1 = context.detail.split()[-1]
        manifest.append(dict(pair=stem, expect=context.expect or k.expect, kind=k.name, strand=str(strand),
                             layout=layout, read_id1=new_rows[0]["read_id"].split()[0],
                             read_id2=new_rows[1]["read_id"].split()[0], file1=new_rows[0]["filename"].split()[0],
                             call_id1=call_id1,
                             source_id1=a["read_id"], source_id2=b["read_id"], detail=context.detail))

    write_index(os.path.join(args.out, "index_1d.tsv"), header, out_rows)
    with open(os.path.join(args.out, "manifest.tsv"), "w", newline="") as f:
        w = csv.DictWriter(f, MANIFEST_COLUMNS, delimiter="\t", lineterminator="\n")
        w.writeheader()
        w.writerows(manifest)
    counts = collections.Counter(m["expect"] for m in manifest)
    print("%d pairs: %s; %d kinds of damage" % (len(manifest), ", ".join("%s %d" % kv for kv in sorted(counts.items())),
                                                  len(set(m["kind"] for m in manifest)) - 1))


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--reads", help="directory of annotated .rawh5 files")
    p.add_argument("--index", help="index of the single-strand step")
    p.add_argument("--out", help="output directory (replaced)")
    p.add_argument("--seed", type=int, default=1)
    p.add_argument("--damaged", type=int, default=30, help="number of damaged pairs of a sample")
    p.add_argument("--full", action="store_true", help="every kind, --copies times")
    p.add_argument("--copies", type=int, default=2)
    p.add_argument("--kinds", help="regular expression: only kinds whose name matches")
    p.add_argument("--list", action="store_true", help="print the kinds and their expectation")
    args = p.parse_args()
    if args.list:
        for k in KINDS:
            print("%-50s %-6s %s" % (k.name, k.expect, ",".join(k.layouts)))
        return
    if not (args.reads and args.index and args.out):
        p.error("--reads, --index and --out are required")
    build(args)


if __name__ == "__main__":
    main()
