#!/usr/bin/python3
"""Read-file fixtures written with h5py the way other tools write them, and checks of files that
this project writes, read back through h5py.

  rawh5_fixtures.py make <dir>                      write every fixture into <dir>
  rawh5_fixtures.py check <multi> <legacy>          check files written by the project

Other writers differ from ours in ways the reader must cope with: variable-length UTF-8 strings
next to fixed-length ones, numbers stored as text, single precision where double is expected,
integer sizes without a C type, compound members packed without alignment, optional groups left
out. Every value the tests compare against is written here, nowhere else.
"""
import sys

import h5py
import numpy as np

SIGNAL_LENGTH = 5000  # deliberately not a multiple of the chunk length


def signal(n, seed):
    """Sample i is ((i * 37 + seed * 101) % 4001) - 2000: easy to recompute in the tests."""
    i = np.arange(n, dtype=np.int64)
    return (((i * 37 + seed * 101) % 4001) - 2000).astype(np.int16)


def odd_int_attribute(obj, name, value, size):
    """An integer attribute of `size` bytes, which has no native C type when size is 3."""
    tid = h5py.h5t.STD_I32LE.copy()
    tid.set_size(size)
    space = h5py.h5s.create(h5py.h5s.SCALAR)
    attr = h5py.h5a.create(obj.id, name.encode(), tid, space)
    attr.write(np.array(value, dtype=np.int32), mtype=h5py.h5t.NATIVE_INT32)


def raw_attributes(group, read_id, duration=SIGNAL_LENGTH, read_number=7, **override):
    attrs = {
        "duration": None if duration is None else np.uint32(duration),
        "read_number": np.int32(read_number),
        "start_time": np.uint64(123456),
        "read_id": read_id,  # variable-length UTF-8 string
        "start_mux": np.uint8(2),
        "median_before": np.float64(231.5),
    }
    attrs.update(override)
    for key, value in attrs.items():
        if value is None:
            continue
        group.attrs[key] = value


def channel_attributes(group, digitisation=np.float64(8192.0)):
    group.attrs["digitisation"] = digitisation
    group.attrs["offset"] = np.float64(6.0)
    group.attrs["range"] = np.float64(1467.61)
    group.attrs["sampling_rate"] = np.float64(4000.0)
    group.attrs["channel_number"] = np.bytes_(b"12")  # a number as fixed-length text


def tracking_attributes(group, sample_id=True):
    group.attrs["run_id"] = "run-abc"
    group.attrs["flow_cell_id"] = np.bytes_(b"FC001")
    group.attrs["exp_start_time"] = "2017-06-01T10:00:00Z"
    if sample_id:
        group.attrs["sample_id"] = "sample-1"


def events_dtype():
    # Packed: members sit at file offsets 0, 8, 12, 16, 21, unlike the aligned in-memory records.
    return np.dtype([("start", "<u8"), ("length", "<u4"), ("mean", "<f4"), ("model_state", "S5"), ("move", "<i4")])


def events_table(rows):
    table = np.zeros(rows, dtype=events_dtype())
    states = [b"ACGTA", b"CGTAC", b"GTACG", b"TACGT"]
    for i in range(rows):
        table[i] = (i * 10, 10, 80.0 + i * 0.5, states[i % 4], i % 3)
    return table


FASTQ_TEXT = "@read-one runid=run-abc\nACGTTGCA\n+\n!!##%%''\n"
MOVES = np.array([1, 0, 1, 1, 2, 0, 1, 1], dtype=np.uint8)


def basecall_analysis(analyses, name, status="Workflow Successful"):
    analysis = analyses.create_group(name)
    analysis.attrs["name"] = "basecall 1d"
    analysis.attrs["version"] = np.bytes_(b"1.2.3")
    summary = analysis.create_group("Summary")
    summary.attrs["return_status"] = status
    template = summary.create_group("basecall_1d_template")
    template.attrs["block_stride"] = np.int32(5)
    template.attrs["mean_qscore"] = np.float32(9.5)
    called = analysis.create_group("BaseCalled_template")
    called.create_dataset("Move", data=MOVES)
    called.create_dataset("Fastq", data=FASTQ_TEXT, dtype=h5py.string_dtype())
    called.create_dataset("Events", data=events_table(6), chunks=True, compression="gzip")
    return analysis


def make_multi(path):
    with h5py.File(path, "w") as f:
        f.attrs["file_version"] = np.bytes_(b"2.0")
        # A complete read.
        read = f.create_group("read_read-one")
        raw = read.create_group("Raw")
        raw_attributes(raw, "read-one")
        raw.create_dataset("Signal", data=signal(SIGNAL_LENGTH, 1), chunks=(1000,), compression="gzip")
        channel_attributes(read.create_group("channel_id"))
        tracking_attributes(read.create_group("tracking_id"))
        tags = read.create_group("context_tags")
        tags.attrs["experiment_kit"] = "kit-9"
        tags.attrs["flag"] = True  # stored as an enum: unsupported attribute class
        tags.attrs["half"] = np.float16(1.5)
        odd_int_attribute(tags, "odd_int", -5, 3)
        # More attributes than fit the compact storage, so they move to dense storage.
        for i in range(10):
            tags.attrs["extra_%02d" % i] = np.int16(i)
        analyses = read.create_group("Analyses")
        seg = analyses.create_group("Segmentation_000")
        seg_summary = seg.create_group("Summary")
        seg_summary.attrs["return_status"] = "Workflow Successful"
        seg_params = seg_summary.create_group("segmentation")
        seg_params.attrs["first_sample_template"] = np.int64(100)
        seg_params.attrs["duration_template"] = np.uint32(4800)
        basecall_analysis(analyses, "Basecall_1D_000")
        basecall_analysis(analyses, "Basecall_1D_003", status="Something nobody wrote down")
        # An analysis with data sets only, one of them inside a nested group and one in Summary.
        plain = analyses.create_group("Alignment_000")
        plain.create_dataset("deep/er/values", data=np.arange(12, dtype=np.float32).reshape(3, 4))
        plain.create_group("Summary").attrs["return_status"] = "No data found"
        plain["Summary"].create_dataset("stats", data=np.arange(3, dtype=np.int64))

        # A minimal read: optional groups and "sample_id" missing, numbers in single precision.
        read = f.create_group("read_read-two")
        raw = read.create_group("Raw")
        raw_attributes(raw, "read-two", duration=None, median_before=np.float32(100.25))
        raw.attrs["duration"] = np.float32(1500.9)  # truncated to 1500 on loading
        raw.create_dataset("Signal", data=signal(1500, 2))
        channel_attributes(read.create_group("channel_id"))
        tracking_attributes(read.create_group("tracking_id"), sample_id=False)

        # Groups that are not reads.
        f.create_group("read")
        f.create_group("something_else")


def make_multi_bad(path):
    with h5py.File(path, "w") as f:
        def read_with(name, channel=True, tracking=True, raw=True, digitisation=np.float64(8192.0), **raw_override):
            read = f.create_group("read_" + name)
            if raw:
                group = read.create_group("Raw")
                raw_override.setdefault("duration", 100)
                raw_attributes(group, name, **raw_override)
                group.create_dataset("Signal", data=signal(100, 3))
            if channel:
                channel_attributes(read.create_group("channel_id"), digitisation)
            if tracking:
                tracking_attributes(read.create_group("tracking_id"))
            return read

        read_with("no-channel", channel=False)
        read_with("no-tracking", tracking=False)
        read_with("no-raw", raw=False)
        read_with("float-digitisation", digitisation=np.float32(8192.0))
        read_with("text-duration", duration=None).get("Raw").attrs["duration"] = "100"
        read_with("no-start-mux", start_mux=None)
        short = read_with("short-signal")
        del short["Raw/Signal"]
        short["Raw"].create_dataset("Signal", data=signal(99, 4))
        nostatus = read_with("summary-without-status")
        nostatus.create_group("Analyses/Basecall_1D_000/Summary").attrs["other"] = "x"
        # A "Summary" that is a data set, not a group.
        odd = read_with("summary-dataset")
        odd.create_dataset("Analyses/Basecall_1D_000/Summary", data=np.arange(2, dtype=np.int8))


def make_hostile(path):
    """Reads whose headers promise more than the file holds, and an analysis that contains itself."""
    with h5py.File(path, "w") as f:
        def read_with(name, duration, signal):
            read = f.create_group("read_" + name)
            raw = read.create_group("Raw")
            raw_attributes(raw, name, duration=duration)
            signal(raw)
            channel_attributes(read.create_group("channel_id"))
            tracking_attributes(read.create_group("tracking_id"))
            return read

        # Extents of 2^32 - 2 samples and 10^12 moves, with no storage written behind them.
        huge = read_with("huge", 2**32 - 2, lambda raw: raw.create_dataset(
            "Signal", shape=(2**32 - 2,), dtype=np.int16, chunks=(2**20,)))
        analysis = basecall_analysis(huge.create_group("Analyses"), "Basecall_1D_000")
        del analysis["BaseCalled_template/Move"]
        analysis.create_dataset("BaseCalled_template/Move", shape=(10**12,), dtype=np.uint8, chunks=(2**20,))
        # A "duration" far beyond a short signal.
        read_with("long-duration", 2**32 - 100, lambda raw: raw.create_dataset("Signal", data=signal(100, 6)))
        # Links that lead back up: a walk that follows them never ends.
        looped = read_with("looped", 100, lambda raw: raw.create_dataset("Signal", data=signal(100, 7)))
        analysis = basecall_analysis(looped.create_group("Analyses"), "Basecall_1D_000")
        analysis["BaseCalled_template/back_to_analysis"] = analysis
        analysis["BaseCalled_template/soft_back"] = h5py.SoftLink(analysis.name)


def legacy_file(path, reads=("Read_42",), ugk=True, tracking=True, drop_attr=None, with_multi=False,
                summary_dataset=False):
    with h5py.File(path, "w") as f:
        f.attrs["file_version"] = np.float64(1.5)
        for name in reads:
            read = f.create_group("Raw/Reads/" + name)
            raw_attributes(read, "legacy-read", duration=3000, read_number=42)
            if drop_attr:
                del read.attrs[drop_attr]
            read.create_dataset("Signal", data=signal(3000, 5), chunks=(512,), compression="gzip")
        if ugk:
            channel_attributes(f.create_group("UniqueGlobalKey/channel_id"))
            if tracking:
                tracking_attributes(f.create_group("UniqueGlobalKey/tracking_id"))
            f.create_group("UniqueGlobalKey/context_tags").attrs["sequencing_kit"] = "kit-9"
            f.create_group("UniqueGlobalKey/custom_group").attrs["anything"] = np.int8(-3)
        analyses = f.create_group("Analyses")
        basecall_analysis(analyses, "Basecall_1D_000")
        if summary_dataset:
            analyses.create_group("Basecall_1D_001").create_dataset("Summary", data=np.arange(2, dtype=np.int8))
        if with_multi:
            read = f.create_group("read_stray")
            read.create_group("Raw")


def make_types(path):
    with h5py.File(path, "w") as f:
        f.create_dataset("scalar_int", data=np.int32(7))
        f.create_dataset("cube", data=np.zeros((2, 3, 4), dtype=np.int16))
        f.create_dataset("matrix", data=np.arange(12, dtype=np.float32).reshape(3, 4))
        f.create_dataset("fixed_strings", data=np.array([b"ab", b"cde"], dtype="S3"))
        f.create_dataset("fixed_scalar", data=np.bytes_(b"hello\0\0"))
        f.create_dataset("text", data="variable text", dtype=h5py.string_dtype())
        f.create_dataset("odd_ints", data=np.zeros(4, dtype=np.int16))
        f.create_dataset("half_floats", data=np.zeros(5, dtype=np.float16))
        nested = np.dtype([("a", "<i4"), ("b", [("c", "<f8")])])
        f.create_dataset("nested_table", data=np.zeros(2, dtype=nested))
        f.create_dataset("events", data=events_table(5))
        g = f.create_group("attrs")
        g.attrs["vlen"] = "variable"
        g.attrs["fixed"] = np.bytes_(b"fixed\0pad")
        g.attrs["i8"] = np.int8(-8)
        g.attrs["u8"] = np.uint8(200)
        g.attrs["i16"] = np.int16(-16)
        g.attrs["u16"] = np.uint16(60000)
        g.attrs["i32"] = np.int32(-32)
        g.attrs["u32"] = np.uint32(4000000000)
        g.attrs["i64"] = np.int64(-64)
        g.attrs["u64"] = np.uint64(2**63 + 5)
        g.attrs["f32"] = np.float32(0.25)
        g.attrs["f64"] = np.float64(1.0 / 3.0)
        g.attrs["big_endian"] = np.array(258, dtype=">i4")[()]
        g.attrs["half"] = np.float16(2.5)
        g.attrs["flag"] = False
        g.attrs["array"] = np.array([11, 12, 13], dtype=np.int32)
        g.attrs["vlen_array"] = ["first", "second"]
        odd_int_attribute(g, "odd_int", 1234, 3)


def make(directory):
    make_multi(directory + "/multi.rawh5")
    make_multi_bad(directory + "/multi_bad.rawh5")
    legacy_file(directory + "/legacy.rawh5")
    legacy_file(directory + "/legacy_two_reads.rawh5", reads=("Read_1", "Read_2"))
    legacy_file(directory + "/legacy_missing_attr.rawh5", drop_attr="median_before")
    legacy_file(directory + "/legacy_no_ugk.rawh5", ugk=False)
    legacy_file(directory + "/legacy_no_tracking.rawh5", tracking=False)
    legacy_file(directory + "/legacy_with_read_groups.rawh5", with_multi=True)
    legacy_file(directory + "/legacy_summary_dataset.rawh5", summary_dataset=True)
    make_types(directory + "/types.h5")
    make_hostile(directory + "/hostile.rawh5")


def expect(condition, message):
    if not condition:
        print("check failed: " + message)
        sys.exit(1)


def check(multi, legacy):
    """Shapes, types and values of files written by the project's round-trip test."""
    with h5py.File(multi, "r") as f:
        reads = sorted(k for k in f.keys() if k.startswith("read_"))
        expect(reads == ["read_r1", "read_r2"], "read groups %s" % reads)
        sig = f["read_r1/Raw/Signal"]
        expect(sig.dtype == np.int16 and sig.shape == (2500,), "signal %s %s" % (sig.dtype, sig.shape))
        expect(sig.chunks == (1024,) and sig.compression == "gzip", "chunks %s %s" % (sig.chunks, sig.compression))
        expect(int(sig[0]) == -1250 and int(sig[2499]) == 1249, "signal values %d %d" % (sig[0], sig[2499]))
        expect(all(int(sig[i]) == i - 1250 for i in range(0, 2500, 97)), "signal samples")
        raw = f["read_r1/Raw"].attrs
        expect(raw["duration"].dtype == np.uint32 and raw["duration"] == 2500, "duration attribute")
        expect(raw["start_time"].dtype == np.uint64, "start_time type")
        expect(raw["read_id"] in ("r1", b"r1"), "read_id %r" % raw["read_id"])
        ch = f["read_r1/channel_id"].attrs
        expect(ch["digitisation"].dtype == np.float64, "digitisation type")
        move = f["read_r1/Analyses/Basecall_1D_000/BaseCalled_template/Move"]
        expect(move.dtype == np.uint8 and move.shape == (9,), "move %s %s" % (move.dtype, move.shape))
        fastq = f["read_r1/Analyses/Basecall_1D_000/BaseCalled_template/Fastq"]
        expect(fastq.shape == () and fastq.dtype.kind == "S", "fastq %s %s" % (fastq.dtype, fastq.shape))
        expect(fastq[()].rstrip(b"\0").startswith(b"@r1"), "fastq text %r" % fastq[()])
        status = f["read_r1/Analyses/Basecall_1D_000/Summary"].attrs["return_status"]
        expect(status in (b"Workflow Successful", "Workflow Successful"), "status %r" % status)
        grid = f["read_r1/Analyses/Basecall_1D_000/Grid/values"]
        expect(grid.dtype == np.float64 and grid.shape == (4, 8), "grid %s %s" % (grid.dtype, grid.shape))
        expect(float(grid[3, 7]) == 31.5, "grid value %r" % grid[3, 7])
        packed = f["read_r1/Analyses/Basecall_1D_000/Packed"]
        expect(packed.shape == (64, 16) and packed.compression == "gzip", "packed %s" % (packed.shape,))
        expect(int(packed[63, 15]) == 63 * 16 + 15, "packed value")
    with h5py.File(legacy, "r") as f:
        expect(float(f.attrs["file_version"]) == 1.0, "file_version")
        names = list(f["Raw/Reads"].keys())
        expect(names == ["Read_9"], "legacy read groups %s" % names)
        sig = f["Raw/Reads/Read_9/Signal"]
        expect(sig.dtype == np.int16 and sig.shape == (1024,), "legacy signal %s" % (sig.shape,))
        expect(sorted(f["UniqueGlobalKey"].keys()) == ["channel_id", "context_tags", "tracking_id"], "ugk groups")
    with h5py.File(legacy, "r") as f:
        events = f["Analyses/Basecall_1D_000/Events"]
        names = events.dtype.names
        expect(names == ("start", "mean", "model_state", "move"), "event fields %s" % (names,))
        expect(events.shape == (3,), "events shape")
        expect(events.dtype["start"] == np.int64 and events.dtype["mean"] == np.float64, "event types")
        expect(events.dtype["model_state"].kind == "S" and events.dtype["model_state"].itemsize == 5, "model_state")
        expect(events[2]["model_state"] == b"GTACG" and events[2]["start"] == 10, "event values %r" % (events[2],))
    print("ok")


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "make":
        make(sys.argv[2])
    elif len(sys.argv) == 4 and sys.argv[1] == "check":
        check(sys.argv[2], sys.argv[3])
    else:
        print(__doc__)
        sys.exit(2)
