// The write half: files written here are read back by the reader and by h5py.
#include <gtest/gtest.h>

#include <numeric>

#include "data_api/compressed_data_view.h"
#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_legacy_read_data.h"
#include "data_api/rawh5_read_data.h"
#include "data_api/rawh5_read_source.h"
#include "test_files.h"

using namespace DataAPI;
using H5Wrapper::H5Mode;
using kvx_test::Scratch;
using kvx_test::Thrown;

namespace {

template <typename T>
T attr(const AttributeMap& m, const std::string& name) {
    return boost::any_cast<T>(m.at(name));
}

std::vector<std::int16_t> ramp(int n, int from) {
    std::vector<std::int16_t> v(n);
    std::iota(v.begin(), v.end(), std::int16_t(from));
    return v;
}

DataTable eventsTable() {
    DataTable events;
    events.AddField("start", DataType::Int64);
    events.AddField("mean", DataType::Double);
    events.AddField("model_state", DataType::FixedString, 5);
    events.AddField("move", DataType::Int32);
    events.Resize(3);
    const char* states[] = {"ACGTA", "CGTAC", "GTACG"};
    for (int r = 0; r < 3; ++r) {
        events.Set<std::int64_t>(r, "start", r * 5);
        events.Set<double>(r, "mean", 90.0 + r);
        events.SetString(r, "model_state", states[r]);
        events.Set<std::int32_t>(r, "move", r % 2);
    }
    return events;
}

// Writes a 1-D basecall the way a simulator of reads would.
void writeBasecall(DataAPI::ReadData& read, const std::string& id, bool with_events) {
    auto analysis = read.CreateAnalysis("Basecall_1D", {{"name", std::string("simulated")}});
    const std::vector<std::uint8_t> moves = {1, 1, 0, 1, 2, 0, 1, 1, 1};
    analysis->CreateDataSet("BaseCalled_template/Move", DataView::Of(moves), {{"stride", 10}});
    analysis->CreateDataSet("BaseCalled_template/Fastq", DataView::OfString("@" + id + "\nACGTACGTAC\n+\n++++++++++\n"), {});
    std::vector<double> grid(32);
    for (int i = 0; i < 32; ++i) grid[i] = i + 0.5;
    analysis->CreateDataSet("Grid/values", DataView::Matrix(grid.data(), 4, 8), {});
    std::vector<std::int32_t> packed(64 * 16);
    std::iota(packed.begin(), packed.end(), 0);
    analysis->CreateDataSet("Packed", CompressedDataView(DataView::Matrix(packed.data(), 64, 16), 2048, 4), {});
    if (with_events) {
        DataTable events = eventsTable();
        analysis->CreateDataSet("Events", events.View(), {});
    }
    analysis->SetSummary(ReturnStatus::Successful,
                         {{"basecall_1d_template", {{"block_stride", 10}, {"mean_qscore", 11.5f}}},
                          {"extra", {{"note", std::string("n")}}}});
}

void checkBasecall(DataAPI::ReadData& read, const std::string& id) {
    auto analysis = read.GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"});
    EXPECT_EQ(analysis->GetReturnStatus(), ReturnStatus::Successful);
    EXPECT_EQ(attr<std::string>(analysis->Attributes(), "name"), "simulated");
    EXPECT_EQ(attr<int>(analysis->Summary().at("basecall_1d_template"), "block_stride"), 10);
    EXPECT_EQ(attr<float>(analysis->Summary().at("basecall_1d_template"), "mean_qscore"), 11.5f);
    EXPECT_EQ(attr<std::string>(analysis->Summary().at("extra"), "note"), "n");
    auto move = analysis->GetDataSet({"Move", "BaseCalled_template/Move"});
    EXPECT_EQ(attr<int>(move->Attributes(), "stride"), 10);
    EXPECT_EQ(move->ReadVector<std::uint8_t>(), (std::vector<std::uint8_t>{1, 1, 0, 1, 2, 0, 1, 1, 1}));
    EXPECT_EQ(analysis->GetDataSet({"Fastq", "BaseCalled_template/Fastq"})->ReadString(),
              "@" + id + "\nACGTACGTAC\n+\n++++++++++\n");
    auto grid = analysis->GetDataSet({"values", "Grid/values"});
    EXPECT_EQ(grid->Format().rows, 4u);
    EXPECT_EQ(grid->ReadVector<double>()[31], 31.5);
    const std::vector<std::int32_t> packed = analysis->GetDataSet({"Packed", "Packed"})->ReadVector<std::int32_t>();
    ASSERT_EQ(packed.size(), 64u * 16u);
    EXPECT_EQ(packed[1023], 1023);
    EXPECT_EQ(packed[517], 517);
}

void writeMultiFile(const std::string& path) {
    Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
    EXPECT_TRUE(source.IsMultiRead());
    EXPECT_EQ(source.Mode(), H5Mode::ReadWrite);
    auto r1 = source.AddRead("r1");
    EXPECT_EQ(r1->ReadId(), "r1");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { r1->SetRawData(ramp(4, 0)); }),
              "Cannot set data for a read until after metadata has been set.");
    r1->SetMetadata(kvx_test::MetadataFor("r1", 2500, 1));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { r1->SetMetadata(kvx_test::MetadataFor("r1", 2500, 1)); }),
              "This API does not support modification of data already in a rawh5 file.");
    r1->SetRawData(ramp(2500, -1250));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { r1->SetRawData(ramp(2500, 0)); }),
              "Raw data cannot be set if it is already present.");
    EXPECT_EQ(r1->GetRawData(2498), (std::vector<std::int16_t>{1248, 1249}));
    writeBasecall(*r1, "r1", false);

    // The scaled half: picoamperes back to raw samples with the channel's calibration.
    auto r2 = source.AddRead("r2");
    r2->SetMetadata(kvx_test::MetadataFor("r2", 4, 2));
    const double scale = 1500.0 / 8192.0;
    // Truncation toward zero after the offset: 88.25 + 12 gives 100, -19.25 + 12 gives -7.
    r2->SetScaledData({float(88.25 * scale), float(-19.25 * scale), 0.0f, 1e9f});
    EXPECT_EQ(r2->GetRawData(), (std::vector<std::int16_t>{100, -7, 12, 32767}));

    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.AddRead("r1"); }),
              "Cannot create read 'r1'. Read id already exists in file.");
    EXPECT_EQ(source.GetReadIds(), (std::vector<std::string>{"r1", "r2"}));
}

void writeLegacyFile(const std::string& path) {
    Rawh5::ReadSource source(path, H5Mode::CreateTruncate, true);
    EXPECT_FALSE(source.IsMultiRead());
    EXPECT_TRUE(source.IsOpen());
    auto read = source.AddRead("L1");
    EXPECT_EQ(source.Mode(), H5Mode::ReadWrite);
    EXPECT_EQ(source.GetReadIds(), std::vector<std::string>{"L1"});
    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.AddRead("L2"); }),
              "Cannot create second read in single-read file.");
    read->SetMetadata(kvx_test::MetadataFor("L1", 1024, 9));
    read->SetRawData(ramp(1024, 0));
    writeBasecall(*read, "L1", true);
}

}  // namespace

TEST(Rawh5RoundTrip, MultiReadFileWrittenAndReadBack) {
    const std::string path = Scratch().File("written_multi.rawh5");
    writeMultiFile(path);
    Rawh5::ReadSource source(path, H5Mode::ReadOnly);
    EXPECT_EQ(source.GetReadIds(), (std::vector<std::string>{"r1", "r2"}));
    auto read = source.GetRead("r1");
    EXPECT_EQ(read->Duration(), 2500u);
    EXPECT_EQ(read->StartTime(), 987654u);
    EXPECT_EQ(read->RunId(), "run-xyz");
    EXPECT_EQ(read->SampleId(), "sample-7");
    const ReadMetadata& meta = read->Metadata();
    const ReadMetadata written = kvx_test::MetadataFor("r1", 2500, 1);
    for (const char* group : {"raw_data", "context_tags"}) {
        EXPECT_EQ(kvx_test::AttributeTexts(meta.at(group)), kvx_test::AttributeTexts(written.at(group))) << group;
    }
    EXPECT_EQ(read->GetRawData(), ramp(2500, -1250));
    const std::vector<float> scaled = read->GetScaledData(0, 1);
    EXPECT_EQ(scaled, std::vector<float>{float((-1250 - 12.0) * (1500.0 / 8192.0))});
    checkBasecall(*read, "r1");
    EXPECT_EQ(source.GetRead("r2")->GetRawData(), (std::vector<std::int16_t>{100, -7, 12, 32767}));
}

TEST(Rawh5RoundTrip, LegacyFileWrittenAndReadBack) {
    const std::string path = Scratch().File("written_legacy.rawh5");
    writeLegacyFile(path);
    Rawh5::ReadSource source(path, H5Mode::ReadOnly);
    EXPECT_FALSE(source.IsMultiRead());
    auto read = source.GetRead("L1");
    auto* legacy = dynamic_cast<Rawh5::Legacy::ReadData*>(read.get());
    ASSERT_NE(legacy, nullptr);
    EXPECT_EQ(legacy->FileVersion(), 1.0);
    EXPECT_EQ(read->ReadNumber(), 9u);
    EXPECT_EQ(read->GetRawData(1000, 0), ramp(24, 1000));
    EXPECT_EQ(attr<std::string>(read->Metadata().at("channel_id"), "channel_number"), "77");
    checkBasecall(*read, "L1");
    auto analysis = read->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"});
    DataTable events = analysis->GetDataSet({"Events", "Events"})->ReadTable();
    ASSERT_EQ(events.Rows(), 3u);
    EXPECT_EQ(events.buffer, eventsTable().buffer);
}

TEST(Rawh5RoundTrip, WrittenFilesHaveTheShapesAndTypesH5pyExpects) {
    const std::string multi = Scratch().File("h5py_multi.rawh5");
    const std::string legacy = Scratch().File("h5py_legacy.rawh5");
    writeMultiFile(multi);
    writeLegacyFile(legacy);
    const std::string command = "/usr/bin/python3 " + kvx_test::FixtureScript() + " check " + multi + " " + legacy;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(Rawh5RoundTrip, WriteHalfRefusals) {
    const std::string path = Scratch().File("refusals.rawh5");
    Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
    auto read = source.AddRead("r");
    ReadMetadata no_sample = kvx_test::MetadataFor("r", 10, 1);
    no_sample["tracking_id"].erase("sample_id");
    EXPECT_EQ(Thrown<std::out_of_range>([&] { read->SetMetadata(no_sample); }), "map::at");
    ReadMetadata signed_duration = kvx_test::MetadataFor("r", 10, 1);
    signed_duration["raw_data"]["duration"] = 10;
    EXPECT_THROW(read->SetMetadata(signed_duration), boost::bad_any_cast);
    read->SetMetadata(kvx_test::MetadataFor("r", 10, 1));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { read->SetRawData(ramp(9, 0)); }),
              "Raw data has 9 samples but the read's duration is 10.");
    read->SetRawData(ramp(10, 0));

    auto analysis = read->CreateAnalysis("Basecall_1D", {});
    const std::vector<std::uint8_t> bytes = {1, 2};
    analysis->CreateDataSet("A/B", DataView::Of(bytes), {});
    EXPECT_EQ(Thrown<std::runtime_error>([&] { analysis->CreateDataSet("A/B", DataView::Of(bytes), {}); }),
              "Could not create dataset 'A/B'.");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { analysis->CreateDataSet("A/B/C", DataView::Of(bytes), {}); }),
              "Could not open intermediate group 'B'.");
    analysis->SetSummary(ReturnStatus::NoData, {});
    EXPECT_EQ(Thrown<std::runtime_error>([&] { analysis->SetSummary(ReturnStatus::Successful, {}); }),
              "Cannot set the summary data for an analysis if it is already set.");
    EXPECT_EQ(ReturnStatusText(static_cast<ReturnStatus>(8)), "Could not classfy the barcode");
    EXPECT_EQ(ReturnStatusText(static_cast<ReturnStatus>(9)), "Unknown error");
    EXPECT_EQ(ParseReturnStatus("Unknown error"), ReturnStatus::Unknown);
}

TEST(Rawh5RoundTrip, AnalysisGroupsAreNumberedFromTheLargestIndex) {
    const std::string path = Scratch().File("numbering.rawh5");
    {
        Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
        auto read = source.AddRead("r");
        read->SetMetadata(kvx_test::MetadataFor("r", 3, 1));
        read->SetRawData(ramp(3, 0));
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
    {
        // Reopened for writing: the names found in the file decide the next index.
        Rawh5::ReadSource source(path, H5Mode::ReadWrite);
        auto read = source.GetRead("r");
        EXPECT_EQ(Thrown<std::runtime_error>([&] { read->CreateAnalysis("Odd", {}); }),
                  "Could not produce valid analysis group index.");
        // A name with nothing behind it cannot be numbered.
        EXPECT_EQ(Thrown<std::out_of_range>([&] { read->CreateAnalysis("Lone_000", {}); }).rfind("basic_string::substr", 0),
                  0u);
        EXPECT_EQ(Thrown<std::invalid_argument>([&] { read->CreateAnalysis("Basecall_1", {}); }), "stoi");
        EXPECT_EQ(read->CreateAnalysis("Basecall_1D", {})->Name().name, "Basecall_1D_002");
        auto analyses = read->GetAnalyses();
        EXPECT_EQ(analyses.back().path, "Basecall_1D_002");
    }
}
