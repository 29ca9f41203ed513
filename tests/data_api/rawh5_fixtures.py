#!/usr/bin/python3
"""Read files written with h5py the way other tools write them, and a check through h5py of files
that this project writes.

  rawh5_fixtures.py make <dir>                 write every fixture into <dir>
  rawh5_fixtures.py check <multi> <legacy>     check files written by the project

Other writers differ from ours in ways the reader must cope with: variable-length UTF-8 strings
next to fixed-length ones, numbers stored as text or in single precision, integer sizes without a
C type, compound members packed without alignment, optional groups left out.
"""
import sys

import h5py
import numpy as np


def signal(n, seed):
    """Sample i is ((i * 37 + seed * 101) % 4001) - 2000: easy to recompute in the tests."""
    i = np.arange(n, dtype=np.int64)
    return (((i * 37 + seed * 101) % 4001) - 2000).astype(np.int16)


def odd_int_attribute(obj, name, value):
    """A 3-byte integer attribute, which has no native C type."""
    tid = h5py.h5t.STD_I32LE.copy()
    tid.set_size(3)
    attr = h5py.h5a.create(obj.id, name.encode(), tid, h5py.h5s.create(h5py.h5s.SCALAR))
    attr.write(np.array(value, dtype=np.int32), mtype=h5py.h5t.NATIVE_INT32)


def events_table(rows):
    # Packed: members sit at file offsets 0, 8, 12, 16, 21, unlike the aligned in-memory records.
    dtype = [("start", "<u8"), ("length", "<u4"), ("mean", "<f4"), ("model_state", "S5"), ("move", "<i4")]
    table = np.zeros(rows, dtype=dtype)
    for i in range(rows):
        table[i] = (i * 10, 10, 80.0 + i * 0.5, [b"ACGTA", b"CGTAC", b"GTACG", b"TACGT"][i % 4], i % 3)
    return table


def basecall_analysis(analyses, name, status="Workflow Successful"):
    analysis = analyses.create_group(name)
    analysis.attrs["name"] = "basecall 1d"
    analysis.attrs["version"] = np.bytes_(b"1.2.3")
    summary = analysis.create_group("Summary")
    summary.attrs["return_status"] = status
    summary.create_group("basecall_1d_template").attrs["block_stride"] = np.int32(5)
    called = analysis.create_group("BaseCalled_template")
    called.create_dataset("Move", data=np.array([1, 0, 1, 1, 2, 0, 1, 1], dtype=np.uint8))
    called.create_dataset("Fastq", data="@read-one runid=run-abc\nACGTTGCA\n+\n!!##%%''\n", dtype=h5py.string_dtype())
    called.create_dataset("Events", data=events_table(6), chunks=True, compression="gzip")
    return analysis


def write_read(f, raw_path, meta_path, read_id, n, seed, skip=(), chunks=None, signal_length=None, **override):
    """One read: attributes and signal at raw_path, "channel_id" and "tracking_id" under meta_path.
    A group or attribute named in `skip` is left out; `override` replaces raw attributes."""
    attrs = {"duration": np.uint32(n), "read_number": np.int32(7), "start_time": np.uint64(123456),
             "read_id": read_id, "start_mux": np.uint8(2), "median_before": np.float64(231.5)}
    attrs.update(override)
    if "Raw" not in skip:
        raw = f.create_group(raw_path)
        for key, value in attrs.items():
            if key not in skip:
                raw.attrs[key] = value
        raw.create_dataset("Signal", data=signal(n if signal_length is None else signal_length, seed),
                           chunks=chunks, compression="gzip" if chunks else None)
    if "channel_id" not in skip:
        channel = f.create_group(meta_path + "/channel_id")
        channel.attrs["digitisation"] = np.float32(8192.0) if "float_digitisation" in skip else np.float64(8192.0)
        channel.attrs.update({"offset": 6.0, "range": 1467.61, "sampling_rate": 4000.0})
        channel.attrs["channel_number"] = np.bytes_(b"12")  # a number as fixed-length text
    if "tracking_id" not in skip:
        tracking = f.create_group(meta_path + "/tracking_id")
        tracking.attrs.update({"run_id": "run-abc", "flow_cell_id": np.bytes_(b"FC001"),
                               "exp_start_time": "2017-06-01T10:00:00Z"})
        if "sample_id" not in skip:
            tracking.attrs["sample_id"] = "sample-1"
    return f[raw_path] if "Raw" not in skip else None


def make_multi(path):
    with h5py.File(path, "w") as f:
        f.attrs["file_version"] = np.bytes_(b"2.0")
        write_read(f, "read_read-one/Raw", "read_read-one", "read-one", 5000, 1, chunks=(1000,))
        tags = f.create_group("read_read-one/context_tags")
        tags.attrs["experiment_kit"] = "kit-9"
        tags.attrs["flag"] = True  # stored as an enum: unsupported attribute class
        odd_int_attribute(tags, "odd_int", -5)
        for i in range(11):  # more attributes than compact storage holds
            tags.attrs["extra_%02d" % i] = np.int16(i)
        analyses = f.create_group("read_read-one/Analyses")
        basecall_analysis(analyses, "Basecall_1D_000")
        basecall_analysis(analyses, "Basecall_1D_003", status="Something nobody wrote down")
        # An analysis with data sets only, one inside a nested group and one in Summary.
        plain = analyses.create_group("Alignment_000")
        plain.create_dataset("deep/er/values", data=np.arange(12, dtype=np.float32).reshape(3, 4))
        plain.create_group("Summary").attrs["return_status"] = "No data found"
        plain["Summary"].create_dataset("stats", data=np.arange(3, dtype=np.int64))
        # A minimal read: optional groups and "sample_id" missing, numbers in single precision;
        # "duration" 1500.9 loads as 1500.
        write_read(f, "read_read-two/Raw", "read_read-two", "read-two", 1500, 2, skip=("sample_id",),
                   duration=np.float32(1500.9), median_before=np.float32(100.25))
        f.create_group("read")  # groups that are not reads
        f.create_group("something_else")


def make_damaged(path):
    """One read per damage, and reads whose headers promise more than the file holds."""
    with h5py.File(path, "w") as f:
        def read(name, **options):
            return write_read(f, "read_%s/Raw" % name, "read_" + name, name, 100, 3, **options)

        for group in ("Raw", "channel_id", "tracking_id", "start_mux", "float_digitisation"):
            read("no-" + group, skip=(group,))
        read("text-duration", duration="100")
        # 2^32 - 100 samples promised by "duration", 100 stored: refused before any allocation.
        read("long-duration", duration=np.uint32(2**32 - 100))
        basecall_analysis(f.create_group("read_no-status/Analyses"), "Basecall_1D_000")
        read("no-status")
        del f["read_no-status/Analyses/Basecall_1D_000/Summary"].attrs["return_status"]
        read("summary-dataset")
        f.create_dataset("read_summary-dataset/Analyses/Basecall_1D_000/Summary", data=np.arange(2, dtype=np.int8))
        # Extents of 2^32 - 2 samples and 10^12 moves, with no storage written behind them.
        raw = read("huge", signal_length=0, duration=np.uint32(2**32 - 2))
        del raw["Signal"]
        raw.create_dataset("Signal", shape=(2**32 - 2,), dtype=np.int16, chunks=(2**20,))
        analysis = basecall_analysis(f.create_group("read_huge/Analyses"), "Basecall_1D_000")
        del analysis["BaseCalled_template/Move"]
        analysis.create_dataset("BaseCalled_template/Move", shape=(10**12,), dtype=np.uint8, chunks=(2**20,))
        # Links that lead back up: a walk that follows them never ends.
        read("looped")
        analysis = basecall_analysis(f.create_group("read_looped/Analyses"), "Basecall_1D_000")
        analysis["BaseCalled_template/back_to_analysis"] = analysis
        analysis["BaseCalled_template/soft_back"] = h5py.SoftLink(analysis.name)


def legacy_file(path, reads=("Read_42",), skip=()):
    with h5py.File(path, "w") as f:
        f.attrs["file_version"] = np.float64(1.5)
        for name in reads:
            write_read(f, "Raw/Reads/" + name, "UniqueGlobalKey", "legacy-read", 3000, 5, skip=skip,
                       chunks=(512,), read_number=np.int32(42))
            skip = skip + ("channel_id", "tracking_id")
        if "UniqueGlobalKey" in skip:
            del f["UniqueGlobalKey"]
            return
        f.create_group("UniqueGlobalKey/context_tags").attrs["sequencing_kit"] = "kit-9"
        f.create_group("UniqueGlobalKey/custom_group").attrs["anything"] = np.int8(-3)
        analyses = f.create_group("Analyses")
        basecall_analysis(analyses, "Basecall_1D_000")
        # A "Summary" that is a data set, and a multi-read group a root "Raw" group overrules.
        analyses.create_group("Basecall_1D_001").create_dataset("Summary", data=np.arange(2, dtype=np.int8))
        f.create_group("read_stray/Raw")


def make_types(path):
    with h5py.File(path, "w") as f:
        f.create_dataset("scalar_int", data=np.int32(7))
        f.create_dataset("cube", data=np.zeros((2, 3, 4), dtype=np.int16))
        f.create_dataset("matrix", data=np.arange(12, dtype=np.float32).reshape(3, 4))
        f.create_dataset("fixed_strings", data=np.array([b"ab", b"cde"], dtype="S3"))
        f.create_dataset("fixed_scalar", data=np.bytes_(b"hello\0\0"))
        f.create_dataset("text", data="variable text", dtype=h5py.string_dtype())
        f.create_dataset("half_floats", data=np.zeros(5, dtype=np.float16))
        f.create_dataset("nested_table", data=np.zeros(2, dtype=[("a", "<i4"), ("b", [("c", "<f8")])]))
        f.create_dataset("events", data=events_table(5))
        g = f.create_group("attrs")
        g.attrs.update({"vlen": "variable", "fixed": np.bytes_(b"fixed\0pad"), "i8": np.int8(-8),
                        "u8": np.uint8(200), "i16": np.int16(-16), "u16": np.uint16(60000), "i32": np.int32(-32),
                        "u32": np.uint32(4000000000), "i64": np.int64(-64), "u64": np.uint64(2**63 + 5),
                        "f32": np.float32(0.25), "f64": np.float64(1.0 / 3.0), "half": np.float16(2.5),
                        "big_endian": np.array(258, dtype=">i4")[()], "flag": False,
                        "array": np.array([11, 12, 13], dtype=np.int32), "vlen_array": ["first", "second"]})
        odd_int_attribute(g, "odd_int", 1234)


def make(directory):
    make_multi(directory + "/multi.rawh5")
    make_damaged(directory + "/damaged.rawh5")
    legacy_file(directory + "/legacy.rawh5")
    legacy_file(directory + "/legacy_two_reads.rawh5", reads=("Read_1", "Read_2"))
    for group in ("median_before", "UniqueGlobalKey", "tracking_id"):
        legacy_file(directory + "/legacy_no_%s.rawh5" % group, skip=(group,))
    make_types(directory + "/types.h5")


def check(multi, legacy):
    """Shapes, types and values of files written by the project's round-trip test."""
    with h5py.File(multi, "r") as f, h5py.File(legacy, "r") as g:
        r1 = f["read_r1"]
        called = r1["Analyses/Basecall_1D_000"]
        sig, grid, packed, fastq = r1["Raw/Signal"], called["Grid/values"], called["Packed"], called["BaseCalled_template/Fastq"]
        events = g["Analyses/Basecall_1D_000/Events"]
        checks = {
            "read groups": sorted(k for k in f.keys() if k.startswith("read_")) == ["read_r1", "read_r2"],
            "signal": sig.dtype == np.int16 and sig.shape == (2500,) and sig.chunks == (1024,) and sig.compression == "gzip",
            "signal samples": all(int(sig[i]) == i - 1250 for i in list(range(0, 2500, 97)) + [2499]),
            "raw attributes": r1["Raw"].attrs["duration"].dtype == np.uint32 and r1["Raw"].attrs["duration"] == 2500
            and r1["Raw"].attrs["start_time"].dtype == np.uint64 and r1["Raw"].attrs["read_id"] in ("r1", b"r1"),
            "digitisation": r1["channel_id"].attrs["digitisation"].dtype == np.float64,
            "move": called["BaseCalled_template/Move"].dtype == np.uint8 and called["BaseCalled_template/Move"].shape == (9,),
            "fastq": fastq.shape == () and fastq.dtype.kind == "S" and fastq[()].rstrip(b"\0").startswith(b"@r1"),
            "status": called["Summary"].attrs["return_status"] in (b"Workflow Successful", "Workflow Successful"),
            "grid": grid.dtype == np.float64 and grid.shape == (4, 8) and float(grid[3, 7]) == 31.5,
            "packed": packed.shape == (64, 16) and packed.compression == "gzip" and int(packed[63, 15]) == 63 * 16 + 15,
            "file_version": float(g.attrs["file_version"]) == 1.0,
            "legacy reads": list(g["Raw/Reads"].keys()) == ["Read_9"],
            "legacy signal": g["Raw/Reads/Read_9/Signal"].dtype == np.int16 and g["Raw/Reads/Read_9/Signal"].shape == (1024,),
            "ugk groups": sorted(g["UniqueGlobalKey"].keys()) == ["channel_id", "context_tags", "tracking_id"],
            "event fields": events.dtype.names == ("start", "mean", "model_state", "move") and events.shape == (3,),
            "event types": events.dtype["start"] == np.int64 and events.dtype["mean"] == np.float64
            and events.dtype["model_state"].kind == "S" and events.dtype["model_state"].itemsize == 5,
            "event values": events[2]["model_state"] == b"GTACG" and events[2]["start"] == 10,
        }
    failed = [name for name, ok in checks.items() if not ok]
    print("check failed: " + ", ".join(failed) if failed else "ok")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "make":
        make(sys.argv[2])
    elif len(sys.argv) == 4 and sys.argv[1] == "check":
        check(sys.argv[2], sys.argv[3])
    else:
        print(__doc__)
        sys.exit(2)
