// Read files written by another writer (rawh5_fixtures.py, with h5py), and files written here read
// back both by the reader and by h5py.
#include <gtest/gtest.h>

#include <hdf5.h>

#include <algorithm>
#include <atomic>
#include <numeric>
#include <thread>

#include "data_api/compressed_data_view.h"
#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_legacy_read_data.h"
#include "data_api/rawh5_read_data.h"
#include "data_api/rawh5_read_source.h"
#include "test_files.h"

using namespace DataAPI;
using H5Wrapper::H5Mode;
using kvx_test::Fixture;
using kvx_test::Scratch;
using TestSupport::ErrorOf;
using Ints = std::vector<std::int16_t>;
using Names = std::vector<std::string>;

namespace {

// The fixture signal: sample i is ((i * 37 + seed * 101) % 4001) - 2000.
Ints fixtureSignal(std::size_t n, int seed) {
    Ints out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = std::int16_t(long((i * 37 + seed * 101) % 4001) - 2000);
    return out;
}

template <typename T>
T attr(const AttributeMap& m, const std::string& name) {
    return boost::any_cast<T>(m.at(name));
}

Names names(const std::vector<NamePath>& list) {
    Names out;
    for (const NamePath& n : list) out.push_back(n.path);
    return out;
}

std::shared_ptr<AnalysisData> analysis(ReadData& read, const std::string& name) {
    return read.GetAnalysis({name, name});
}

// Takes everything of every read of a file, folded into one number; a failure ends only what failed.
long walkAll(const std::string& path) {
    Rawh5::ReadSource source(path, H5Mode::ReadOnly);
    long sum = 0;
    for (const std::string& id : Names(source.GetReadIds())) {
        ErrorOf([&] {
            auto read = source.GetRead(id);
            ErrorOf([&] { for (std::int16_t x : read->GetRawData()) sum += x; });
            for (const NamePath& a : read->GetAnalyses()) {
                auto found = read->GetAnalysis(a);
                for (const NamePath& d : found->Datasets()) {
                    auto set = found->GetDataSet(d);
                    sum += long(set->Attributes().size() + set->Format().count);
                    if (d.name == "Fastq") sum += long(set->ReadString().size());
                }
            }
        });
    }
    return sum;
}

template <typename T = std::int16_t>
std::vector<T> ramp(std::size_t n, T from) {
    std::vector<T> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}

DataTable eventsTable() {
    DataTable events;
    events.AddField("start", DataType::Int64);
    events.AddField("mean", DataType::Double);
    events.AddField("model_state", DataType::FixedString, 5);
    events.AddField("move", DataType::Int32);
    events.Resize(3);
    for (int r = 0; r < 3; ++r) {
        events.Set<std::int64_t>(r, "start", r * 5);
        events.Set<double>(r, "mean", 90.0 + r);
        events.SetString(r, "model_state", std::string("ACGTACG").substr(r, 5));
        events.Set<std::int32_t>(r, "move", r % 2);
    }
    return events;
}

const std::vector<std::uint8_t> kMoves = {1, 1, 0, 1, 2, 0, 1, 1, 1};

// Writes a 1-D basecall the way a simulator of reads would; h5py checks the data sets, the reader
// the attributes.
void writeBasecall(ReadData& read, const std::string& id) {
    auto analysis = read.CreateAnalysis("Basecall_1D", {{"name", std::string("simulated")}});
    analysis->CreateDataSet("BaseCalled_template/Move", DataView::Of(kMoves), {{"stride", 10}});
    analysis->CreateDataSet("BaseCalled_template/Fastq", DataView::OfString("@" + id + "\nACGTACGTAC\n+\n++++++++++\n"), {});
    const auto grid = ramp(32, 0.5);
    analysis->CreateDataSet("Grid/values", DataView::Matrix(grid.data(), 4, 8), {});
    const auto packed = ramp(64 * 16, 0);
    analysis->CreateDataSet("Packed", CompressedDataView(DataView::Matrix(packed.data(), 64, 16), 2048, 4), {});
    DataTable events = eventsTable();
    analysis->CreateDataSet("Events", events.View(), {});
    analysis->SetSummary(ReturnStatus::Successful, {{"basecall_1d_template", {{"block_stride", 10}, {"mean_qscore", 11.5f}}},
                                                    {"extra", {{"note", std::string("n")}}}});
}

void checkBasecall(ReadData& read, const std::string& id) {
    auto a = analysis(read, "Basecall_1D_000");
    EXPECT_EQ(a->GetReturnStatus(), ReturnStatus::Successful);
    EXPECT_EQ(attr<std::string>(a->Attributes(), "name"), "simulated");
    EXPECT_EQ(attr<float>(a->Summary().at("basecall_1d_template"), "mean_qscore"), 11.5f);
    EXPECT_EQ(attr<std::string>(a->Summary().at("extra"), "note"), "n");
    auto move = a->GetDataSet({"Move", "BaseCalled_template/Move"});
    EXPECT_EQ(attr<int>(move->Attributes(), "stride"), 10);
    EXPECT_EQ(move->ReadVector<std::uint8_t>(), kMoves);
    EXPECT_EQ(a->GetDataSet({"Fastq", "BaseCalled_template/Fastq"})->ReadString(), "@" + id + "\nACGTACGTAC\n+\n++++++++++\n");
    EXPECT_EQ(a->GetDataSet({"Events", "Events"})->ReadTable().buffer, eventsTable().buffer);
}

}  // namespace

TEST(Rawh5Read, MultiReadFileFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("multi.rawh5"), H5Mode::ReadOnly);
    EXPECT_TRUE(source.IsMultiRead());
    EXPECT_EQ(source.GetReadIds(), (Names{"read-one", "read-two"}));  // "read" and others are not reads

    auto read = source.GetRead("read-one");
    EXPECT_EQ(read->RunId(), "run-abc");
    EXPECT_EQ(read->SampleId(), "sample-1");
    const ReadMetadata& meta = read->Metadata();
    EXPECT_EQ(meta.size(), 4u);
    EXPECT_EQ(kvx_test::AttributeTexts(meta.at("raw_data")),
              (std::map<std::string, std::string>{{"duration", "u32:5000"}, {"median_before", "f64:231.5"},
                                                  {"read_id", "text:read-one"}, {"read_number", "u32:7"},
                                                  {"start_mux", "u32:2"}, {"start_time", "u64:123456"}}));
    // Numbers stored as text stay text here; the consumer converts them.
    EXPECT_EQ(attr<std::string>(meta.at("channel_id"), "channel_number"), "12");
    const AttributeMap& tags = meta.at("context_tags");
    EXPECT_EQ(tags.size(), 14u);  // past compact storage, all are found
    EXPECT_EQ(attr<std::string>(tags, "odd_int"), "Warning, integer size of 3 not supported.");
    EXPECT_EQ(attr<std::string>(tags, "flag"), "Warning, attribute is of unsupported type.");
    EXPECT_EQ(attr<std::string>(tags, "experiment_kit"), "kit-9");

    // Signal: whole, clamped stretches.
    const Ints all = read->GetRawData();
    EXPECT_EQ(all, fixtureSignal(5000, 1));
    EXPECT_EQ(read->GetRawData(4990, 100), Ints(all.begin() + 4990, all.end()));
    EXPECT_TRUE(read->GetRawData(5000, 5).empty());

    // A minimal read: optional groups missing, "duration" in single precision is truncated.
    auto second = source.GetRead("read-two");
    EXPECT_EQ(second->Duration(), 1500u);
    EXPECT_EQ(second->SampleId(), "unknown");
    EXPECT_EQ(attr<double>(second->Metadata().at("raw_data"), "median_before"), 100.25);
    EXPECT_EQ(second->Metadata().count("context_tags"), 0u);
    EXPECT_TRUE(second->GetAnalyses().empty());
    EXPECT_EQ(second->GetRawData(1499, 0), Ints{fixtureSignal(1500, 2).back()});

    EXPECT_EQ(ErrorOf([&] { source.GetRead("read"); }), "Read id 'read' not found in multi-read rawh5 file.");
    source.Close();
    EXPECT_TRUE(source.GetReadIds().empty());
    EXPECT_EQ(ErrorOf([&] { source.GetRead("read-one"); }), "Cannot get read from closed file.");
    EXPECT_EQ(ErrorOf([&] { source.AddRead("x"); }), "Cannot add read to closed file.");
}

TEST(Rawh5Read, AnalysesFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("multi.rawh5"), H5Mode::ReadOnly);
    auto read = source.GetRead("read-one");
    EXPECT_EQ(names(read->GetAnalyses()), (Names{"Alignment_000", "Basecall_1D_000", "Basecall_1D_003"}));

    auto basecall = analysis(*read, "Basecall_1D_000");
    EXPECT_EQ(basecall->GetReturnStatus(), ReturnStatus::Successful);
    EXPECT_EQ(attr<std::string>(basecall->Attributes(), "version"), "1.2.3");
    EXPECT_EQ(attr<int>(basecall->Summary().at("basecall_1d_template"), "block_stride"), 5);
    EXPECT_EQ(names(basecall->Datasets()),
              (Names{"BaseCalled_template/Events", "BaseCalled_template/Fastq", "BaseCalled_template/Move"}));
    EXPECT_EQ(basecall->Datasets()[2].name, "Move");
    auto move = basecall->GetDataSet({"Move", "BaseCalled_template/Move"});
    EXPECT_EQ(move->ReadVector<std::uint8_t>(), (std::vector<std::uint8_t>{1, 0, 1, 1, 2, 0, 1, 1}));
    EXPECT_EQ(ErrorOf([&] { move->ReadVector<std::int16_t>(); }), "Data to be read does not match format of dataset.");
    EXPECT_EQ(basecall->GetDataSet({"Fastq", "BaseCalled_template/Fastq"})->ReadString(),
              "@read-one runid=run-abc\nACGTTGCA\n+\n!!##%%''\n");
    DataTable events = basecall->GetDataSet({"Events", "BaseCalled_template/Events"})->ReadTable();
    ASSERT_EQ(events.Rows(), 6u);
    EXPECT_EQ(events.GetString(5, "model_state"), "CGTAC");
    EXPECT_EQ(events.Get<float>(5, "mean"), 82.5f);
    EXPECT_EQ(ErrorOf([&] { basecall->GetDataSet({"Move", "Move"}); }), "Specified data set not found in analysis data.");
    // A status text outside the table is status 0.
    EXPECT_EQ(analysis(*read, "Basecall_1D_003")->GetReturnStatus(), ReturnStatus::Unknown);

    // Data sets in nested groups and inside "Summary" are listed with their paths.
    auto alignment = analysis(*read, "Alignment_000");
    EXPECT_EQ(alignment->GetReturnStatus(), ReturnStatus::NoData);
    EXPECT_EQ(names(alignment->Datasets()), (Names{"Summary/stats", "deep/er/values"}));
    auto deep = alignment->GetDataSet({"values", "deep/er/values"});
    EXPECT_EQ(deep->ReadVector<float>()[11], 11.0f);
    EXPECT_EQ(alignment->GetDataSet({"stats", "Summary/stats"})->ReadVector<std::int64_t>(), (std::vector<std::int64_t>{0, 1, 2}));
    EXPECT_EQ(ErrorOf([&] { analysis(*read, "Nothing_000"); }), "Analysis 'Nothing_000' not found in read.");
}

TEST(Rawh5Read, LegacyFileFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("legacy.rawh5"), H5Mode::ReadOnly);
    EXPECT_FALSE(source.IsMultiRead());  // the root "Raw" group wins over a "read_" group
    EXPECT_EQ(source.GetReadIds(), Names{"legacy-read"});
    auto read = source.GetRead("legacy-read");
    EXPECT_EQ(read, source.GetRead("legacy-read"));  // the one read, shared
    EXPECT_EQ(read->Duration(), 3000u);
    EXPECT_EQ(read->ReadNumber(), 42u);
    EXPECT_EQ(read->RunId(), "run-abc");
    // Every group under UniqueGlobalKey is metadata.
    EXPECT_EQ(attr<signed char>(read->Metadata().at("custom_group"), "anything"), -3);
    EXPECT_EQ(attr<std::string>(read->Metadata().at("context_tags"), "sequencing_kit"), "kit-9");
    const Ints all = fixtureSignal(3000, 5);
    EXPECT_EQ(read->GetRawData(), all);
    EXPECT_EQ(names(read->GetAnalyses()), (Names{"Basecall_1D_000", "Basecall_1D_001"}));
    EXPECT_EQ(analysis(*read, "Basecall_1D_000")->GetReturnStatus(), ReturnStatus::Successful);
    // Legacy analyses tolerate a "Summary" that is not a group.
    EXPECT_EQ(analysis(*read, "Basecall_1D_001")->GetReturnStatus(), ReturnStatus::Unknown);
    EXPECT_EQ(names(analysis(*read, "Basecall_1D_001")->Datasets()), Names{"Summary"});
    EXPECT_EQ(ErrorOf([&] { source.GetRead("read-one"); }), "Read id 'read-one' not found in legacy rawh5 file.");
    // The read owns its file: it outlives the source.
    source.Close();
    EXPECT_EQ(read->GetRawData(2998, 2), Ints(all.begin() + 2998, all.end()));
}

// One row per damage: the fixture, the read, how far it gets, and the exact message.
TEST(Rawh5Read, DamagedFilesFailWithTheirMessages) {
    enum Step { Open, Load, Raw, Analysis, Moves };
    const struct {
        const char* file;
        const char* read;
        Step step;
        std::string message;
    } cases[] = {
        {"damaged.rawh5", "no-channel_id", Load, "Rawh5 read file is invalid. 'channel_id' group not found."},
        {"damaged.rawh5", "no-tracking_id", Load, "Rawh5 read file is invalid. 'tracking_id' group not found."},
        {"damaged.rawh5", "no-Raw", Load, "Rawh5 read file is invalid. 'Raw' group not found."},
        {"damaged.rawh5", "text-duration", Load, "Unsupported numeric type for generic conversion."},
        {"damaged.rawh5", "no-start_mux", Load, "map::at"},
        {"damaged.rawh5", "no-float_digitisation", Load, "boost::bad_any_cast: failed conversion using boost::any_cast"},
        {"damaged.rawh5", "no-status", Analysis, "map::at"},
        {"damaged.rawh5", "summary-dataset", Analysis, "Failed to open 'Summary' group for analysis 'Basecall_1D_000'."},
        // Refused from the headers alone: nothing of that size is ever allocated.
        {"damaged.rawh5", "long-duration", Raw, "Data to be read does not match format of dataset."},
        {"damaged.rawh5", "huge", Raw, "Data set 'Signal' is too large to read: 4294967294 elements of 2 bytes."},
        {"damaged.rawh5", "huge", Moves, "Data set 'Move' is too large to read: 1000000000000 elements of 1 bytes."},
        {"legacy_two_reads.rawh5", "", Open, "Rawh5 read file is invalid. Read group could not be determined."},
        {"legacy_no_median_before.rawh5", "", Open, "Rawh5 read file is invalid. Read is missing 'median_before' metadata."},
        {"legacy_no_UniqueGlobalKey.rawh5", "", Open, "Rawh5 read file is invalid. 'UniqueGlobalKey' group not found."},
        {"legacy_no_tracking_id.rawh5", "", Open, "Rawh5 read file is invalid. 'UniqueGlobalKey/tracking_id' group not found."},
        {"no_such_file.rawh5", "", Open, "Could not open file \"" + Fixture("no_such_file.rawh5") + "\"."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ErrorOf([&] {
                      Rawh5::ReadSource source(Fixture(c.file), H5Mode::ReadOnly);
                      if (c.step == Open) return;
                      auto read = source.GetRead(c.read);
                      if (c.step == Raw) read->GetRawData();
                      if (c.step < Analysis) return;
                      auto a = analysis(*read, "Basecall_1D_000");
                      if (c.step == Moves) a->GetDataSet({"Move", "BaseCalled_template/Move"})->ReadVector<std::uint8_t>();
                  }),
                  c.message)
            << c.file << " " << c.read << " " << c.step;
    }
}

TEST(Rawh5Read, LoopedLinksAndFailuresLeaveNothingOpen) {
    {
        // Every data set once, however many ways lead to it.
        Rawh5::ReadSource source(Fixture("damaged.rawh5"), H5Mode::ReadOnly);
        Names listed = names(analysis(*source.GetRead("looped"), "Basecall_1D_000")->Datasets());
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed, (Names{"BaseCalled_template/Events", "BaseCalled_template/Fastq", "BaseCalled_template/Move"}));
    }
    // Whatever fails, every read of every fixture closes all it opened.
    for (const char* file : {"multi.rawh5", "legacy.rawh5", "damaged.rawh5"}) walkAll(Fixture(file));
    EXPECT_EQ(H5Fget_obj_count(H5F_OBJ_ALL, H5F_OBJ_ALL), 0);
}

// Both layouts written here, read back here, then checked by h5py for the shapes and types other
// readers expect.
TEST(Rawh5RoundTrip, WrittenFilesReadBackHereAndInH5py) {
    const std::string multi = Scratch("written_multi.rawh5"), legacy = Scratch("written_legacy.rawh5");
    {
        Rawh5::ReadSource source(multi, H5Mode::CreateTruncate);
        auto r1 = source.AddRead("r1");
        EXPECT_EQ(ErrorOf([&] { r1->SetRawData(ramp<std::int16_t>(4, 0)); }), "Cannot set data for a read until after metadata has been set.");
        r1->SetMetadata(kvx_test::MetadataFor("r1", 2500, 1));
        EXPECT_EQ(ErrorOf([&] { r1->SetMetadata(kvx_test::MetadataFor("r1", 2500, 1)); }),
                  "This API does not support modification of data already in a rawh5 file.");
        r1->SetRawData(ramp<std::int16_t>(2500, -1250));
        EXPECT_EQ(ErrorOf([&] { r1->SetRawData(ramp<std::int16_t>(2500, 0)); }), "Raw data cannot be set if it is already present.");
        writeBasecall(*r1, "r1");
        auto r2 = source.AddRead("r2");
        r2->SetMetadata(kvx_test::MetadataFor("r2", 4, 2));
        // Picoamperes back to samples with the channel's calibration, truncated toward zero after
        // the offset: 88.25 + 12 gives 100, -19.25 + 12 gives -7; too large a value saturates.
        const double scale = 1500.0 / 8192.0;
        r2->SetScaledData({float(88.25 * scale), float(-19.25 * scale), 0.0f, 1e9f});
        EXPECT_EQ(ErrorOf([&] { source.AddRead("r1"); }), "Cannot create read 'r1'. Read id already exists in file.");
    }
    {
        Rawh5::ReadSource source(legacy, H5Mode::CreateTruncate, true);
        auto read = source.AddRead("L1");
        EXPECT_EQ(source.GetReadIds(), Names{"L1"});
        EXPECT_EQ(ErrorOf([&] { source.AddRead("L2"); }), "Cannot create second read in single-read file.");
        read->SetMetadata(kvx_test::MetadataFor("L1", 1024, 9));
        read->SetRawData(ramp<std::int16_t>(1024, 0));
        writeBasecall(*read, "L1");
    }
    Rawh5::ReadSource source(multi, H5Mode::ReadOnly);
    EXPECT_EQ(source.GetReadIds(), (Names{"r1", "r2"}));
    auto read = source.GetRead("r1");
    EXPECT_EQ(read->StartTime(), 987654u);
    EXPECT_EQ(read->RunId(), "run-xyz");
    EXPECT_EQ(read->SampleId(), "sample-7");
    const ReadMetadata written = kvx_test::MetadataFor("r1", 2500, 1);
    for (const char* group : {"raw_data", "context_tags"}) {
        EXPECT_EQ(kvx_test::AttributeTexts(read->Metadata().at(group)), kvx_test::AttributeTexts(written.at(group))) << group;
    }
    EXPECT_EQ(read->GetRawData(), ramp<std::int16_t>(2500, -1250));
    EXPECT_EQ(read->GetScaledData(1, 2), (std::vector<float>{float((-1249 - 12.0) * (1500.0 / 8192.0)),
                                                             float((-1248 - 12.0) * (1500.0 / 8192.0))}));
    EXPECT_EQ(source.GetRead("r2")->GetRawData(), (Ints{100, -7, 12, 32767}));
    checkBasecall(*read, "r1");

    Rawh5::ReadSource legacy_source(legacy, H5Mode::ReadOnly);
    auto legacy_read = legacy_source.GetRead("L1");
    ASSERT_NE(dynamic_cast<Rawh5::Legacy::ReadData*>(legacy_read.get()), nullptr);
    EXPECT_EQ(legacy_read->ReadNumber(), 9u);
    EXPECT_EQ(legacy_read->GetRawData(1000, 0), ramp<std::int16_t>(24, 1000));
    EXPECT_EQ(attr<std::string>(legacy_read->Metadata().at("channel_id"), "channel_number"), "77");
    checkBasecall(*legacy_read, "L1");

    const std::string command = "/usr/bin/python3 " + kvx_test::FixtureScript() + " check " + multi + " " + legacy;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(Rawh5RoundTrip, WriteHalfRefusals) {
    Rawh5::ReadSource source(Scratch("refusals.rawh5"), H5Mode::CreateTruncate);
    auto read = source.AddRead("r");
    ReadMetadata no_sample = kvx_test::MetadataFor("r", 10, 1);
    no_sample["tracking_id"].erase("sample_id");
    EXPECT_EQ(ErrorOf([&] { read->SetMetadata(no_sample); }), "map::at");
    ReadMetadata signed_duration = kvx_test::MetadataFor("r", 10, 1);
    signed_duration["raw_data"]["duration"] = 10;
    EXPECT_THROW(read->SetMetadata(signed_duration), boost::bad_any_cast);
    read->SetMetadata(kvx_test::MetadataFor("r", 10, 1));
    EXPECT_EQ(ErrorOf([&] { read->SetRawData(ramp<std::int16_t>(9, 0)); }), "Raw data has 9 samples but the read's duration is 10.");
    read->SetRawData(ramp<std::int16_t>(10, 0));

    auto analysis = read->CreateAnalysis("Basecall_1D", {});
    const std::vector<std::uint8_t> bytes = {1, 2};
    analysis->CreateDataSet("A/B", DataView::Of(bytes), {});
    EXPECT_EQ(ErrorOf([&] { analysis->CreateDataSet("A/B", DataView::Of(bytes), {}); }), "Could not create dataset 'A/B'.");
    EXPECT_EQ(ErrorOf([&] { analysis->CreateDataSet("A/B/C", DataView::Of(bytes), {}); }), "Could not open intermediate group 'B'.");
    analysis->SetSummary(ReturnStatus::NoData, {});
    EXPECT_EQ(ErrorOf([&] { analysis->SetSummary(ReturnStatus::Successful, {}); }),
              "Cannot set the summary data for an analysis if it is already set.");
    EXPECT_EQ(ReturnStatusText(static_cast<ReturnStatus>(8)), "Could not classfy the barcode");
    EXPECT_EQ(ReturnStatusText(static_cast<ReturnStatus>(9)), "Unknown error");
    EXPECT_EQ(ParseReturnStatus("Unknown error"), ReturnStatus::Unknown);
}

TEST(Rawh5RoundTrip, AnalysisGroupsAreNumberedFromTheLargestIndex) {
    const std::string path = Scratch("numbering.rawh5");
    {
        Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
        auto read = source.AddRead("r");
        read->SetMetadata(kvx_test::MetadataFor("r", 3, 1));
        read->SetRawData(ramp<std::int16_t>(3, 0));
        EXPECT_EQ(read->CreateAnalysis("Basecall_1D", {})->Name().name, "Basecall_1D_000");
        EXPECT_EQ(read->CreateAnalysis("Basecall_1D", {})->Name().name, "Basecall_1D_001");
        EXPECT_EQ(read->CreateAnalysis("Segmentation", {})->Name().name, "Segmentation_000");
        read->CreateAnalysis("Lone", {});
    }
    {
        // Another writer left an analysis with the last index.
        H5Wrapper::H5File file(path, H5Mode::ReadWrite);
        ASSERT_NE(file.CreateGroup("read_r/Analyses/Odd_999"), nullptr);
    }
    // Reopened for writing: the names found in the file decide the next index.
    Rawh5::ReadSource source(path, H5Mode::ReadWrite);
    auto read = source.GetRead("r");
    EXPECT_EQ(ErrorOf([&] { read->CreateAnalysis("Odd", {}); }), "Could not produce valid analysis group index.");
    // A name with nothing behind it cannot be numbered.
    EXPECT_EQ(ErrorOf([&] { read->CreateAnalysis("Lone_000", {}); }).rfind("basic_string::substr", 0), 0u);
    EXPECT_EQ(ErrorOf([&] { read->CreateAnalysis("Basecall_1", {}); }), "stoi");
    EXPECT_EQ(read->CreateAnalysis("Basecall_1D", {})->Name().name, "Basecall_1D_002");
    EXPECT_EQ(read->GetAnalyses().back().path, "Basecall_1D_002");
}

// Readers of different files and a writer at once: every HDF5 call goes through the one process
// mutex, so this must be clean under ThreadSanitizer and give the single-thread results.
TEST(Rawh5Threads, ReadersAndAWriterOfDifferentFilesRunTogether) {
    const auto job = [](int j) {
        if (j < 2) return walkAll(Fixture(j == 0 ? "multi.rawh5" : "legacy.rawh5"));
        ErrorOf([] {  // a failure shows as a different walk
            Rawh5::ReadSource source(Scratch("threads.rawh5"), H5Mode::CreateTruncate);
            auto read = source.AddRead("w");
            read->SetMetadata(kvx_test::MetadataFor("w", 3000, 1));
            read->SetRawData(ramp<std::int16_t>(3000, 7));
        });
        return walkAll(Scratch("threads.rawh5"));
    };
    const std::vector<long> expected = {job(0), job(1), job(2)};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int j = 0; j < 3; ++j) {
        threads.emplace_back([&, j] {
            for (int round = 0; round < 6; ++round) mismatches += job(j) != expected[j];
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_NE(expected[2], 0);
}
