// Reading read files written by another writer (rawh5_fixtures.py, with h5py).
#include <gtest/gtest.h>

#include <hdf5.h>

#include <algorithm>

#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_read_data.h"
#include "data_api/rawh5_read_source.h"
#include "test_files.h"

using namespace DataAPI;
using H5Wrapper::H5Mode;
using kvx_test::Fixture;
using kvx_test::Thrown;

namespace {

// The fixture signal: sample i is ((i * 37 + seed * 101) % 4001) - 2000.
std::int16_t fixtureSample(std::size_t i, int seed) {
    return static_cast<std::int16_t>(static_cast<long>((i * 37 + seed * 101) % 4001) - 2000);
}

template <typename T>
T attr(const AttributeMap& m, const std::string& name) {
    return boost::any_cast<T>(m.at(name));
}

std::vector<std::string> names(const std::vector<NamePath>& list) {
    std::vector<std::string> out;
    for (const NamePath& n : list) out.push_back(n.path);
    return out;
}

}  // namespace

TEST(Rawh5Read, MultiReadFileFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("multi.rawh5"), H5Mode::ReadOnly);
    EXPECT_TRUE(source.IsOpen());
    EXPECT_TRUE(source.IsMultiRead());
    // "read" and other groups are not reads.
    EXPECT_EQ(source.GetReadIds(), (std::vector<std::string>{"read-one", "read-two"}));

    auto read = source.GetRead("read-one");
    EXPECT_EQ(read->Duration(), 5000u);
    EXPECT_EQ(read->ReadNumber(), 7u);
    EXPECT_EQ(read->StartTime(), 123456u);
    EXPECT_EQ(read->ReadId(), "read-one");
    EXPECT_EQ(read->SamplingRate(), 4000.0);
    EXPECT_EQ(read->RunId(), "run-abc");
    EXPECT_EQ(read->FlowCellId(), "FC001");
    EXPECT_EQ(read->SampleId(), "sample-1");

    const ReadMetadata& meta = read->Metadata();
    std::vector<std::string> groups;
    for (const auto& entry : meta) groups.push_back(entry.first);
    EXPECT_EQ(groups, (std::vector<std::string>{"channel_id", "context_tags", "raw_data", "tracking_id"}));
    EXPECT_EQ(kvx_test::AttributeTexts(meta.at("raw_data")),
              (std::map<std::string, std::string>{{"duration", "u32:5000"}, {"median_before", "f64:231.5"},
                                                  {"read_id", "text:read-one"}, {"read_number", "u32:7"},
                                                  {"start_mux", "u32:2"}, {"start_time", "u64:123456"}}));
    // Numbers stored as text stay text here; the consumer converts them.
    EXPECT_EQ(attr<std::string>(meta.at("channel_id"), "channel_number"), "12");
    EXPECT_EQ(GenericCastOrParse<std::uint32_t>(meta.at("channel_id").at("channel_number")), 12u);
    const AttributeMap& tags = meta.at("context_tags");
    EXPECT_EQ(attr<std::string>(tags, "odd_int"), "Warning, integer size of 3 not supported.");
    EXPECT_EQ(attr<std::string>(tags, "flag"), "Warning, attribute is of unsupported type.");
    EXPECT_EQ(attr<std::string>(tags, "experiment_kit"), "kit-9");

    // Signal: whole, stretches, clamped stretches, scaled.
    const std::vector<std::int16_t> all = read->GetRawData();
    ASSERT_EQ(all.size(), 5000u);
    bool same = true;
    for (std::size_t i = 0; i < all.size(); ++i) same = same && all[i] == fixtureSample(i, 1);
    EXPECT_TRUE(same);
    EXPECT_EQ(read->GetRawData(0, 0), all);
    EXPECT_EQ(read->GetRawData(100, 50), std::vector<std::int16_t>(all.begin() + 100, all.begin() + 150));
    EXPECT_EQ(read->GetRawData(4990, 100), std::vector<std::int16_t>(all.begin() + 4990, all.end()));
    EXPECT_TRUE(read->GetRawData(5000, 5).empty());
    EXPECT_TRUE(read->GetRawData(6000).empty());
    const std::vector<float> scaled = read->GetScaledData(10, 3);
    ASSERT_EQ(scaled.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(scaled[i], float((all[10 + i] + 6.0) * (1467.61 / 8192.0)));

    // A minimal read: optional groups missing, "duration" in single precision is truncated.
    auto second = source.GetRead("read-two");
    EXPECT_EQ(second->Duration(), 1500u);
    EXPECT_EQ(second->SampleId(), "unknown");
    EXPECT_EQ(attr<double>(second->Metadata().at("raw_data"), "median_before"), 100.25);
    EXPECT_EQ(second->Metadata().count("context_tags"), 0u);
    EXPECT_TRUE(second->GetAnalyses().empty());
    EXPECT_EQ(second->GetRawData(1499, 0), std::vector<std::int16_t>{fixtureSample(1499, 2)});

    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.GetRead("read"); }),
              "Read id 'read' not found in multi-read rawh5 file.");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.AddRead("new"); }), "Cannot create group in read-only mode.");
    source.Close();
    EXPECT_TRUE(source.GetReadIds().empty());
    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.GetRead("read-one"); }), "Cannot get read from closed file.");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.AddRead("x"); }), "Cannot add read to closed file.");
}

TEST(Rawh5Read, AnalysesFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("multi.rawh5"), H5Mode::ReadOnly);
    auto read = source.GetRead("read-one");
    EXPECT_EQ(names(read->GetAnalyses()),
              (std::vector<std::string>{"Alignment_000", "Basecall_1D_000", "Basecall_1D_003", "Segmentation_000"}));

    auto basecall = read->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"});
    EXPECT_EQ(basecall->GetReturnStatus(), ReturnStatus::Successful);
    EXPECT_EQ(attr<std::string>(basecall->Attributes(), "version"), "1.2.3");
    EXPECT_EQ(attr<int>(basecall->Summary().at("basecall_1d_template"), "block_stride"), 5);
    EXPECT_EQ(names(basecall->Datasets()),
              (std::vector<std::string>{"BaseCalled_template/Events", "BaseCalled_template/Fastq",
                                        "BaseCalled_template/Move"}));
    EXPECT_EQ(basecall->Datasets()[2].name, "Move");

    auto move = basecall->GetDataSet({"Move", "BaseCalled_template/Move"});
    EXPECT_EQ(move->Name(), "Move");
    EXPECT_EQ(move->ReadVector<std::uint8_t>(), (std::vector<std::uint8_t>{1, 0, 1, 1, 2, 0, 1, 1}));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { move->ReadVector<std::int16_t>(); }),
              "Data to be read does not match format of dataset.");
    EXPECT_EQ(basecall->GetDataSet({"Fastq", "BaseCalled_template/Fastq"})->ReadString(),
              "@read-one runid=run-abc\nACGTTGCA\n+\n!!##%%''\n");
    DataTable events = basecall->GetDataSet({"Events", "BaseCalled_template/Events"})->ReadTable();
    ASSERT_EQ(events.Rows(), 6u);
    EXPECT_EQ(events.GetString(5, "model_state"), "CGTAC");
    EXPECT_EQ(events.Get<std::uint64_t>(5, "start"), 50u);
    EXPECT_EQ(events.Get<float>(5, "mean"), 82.5f);
    EXPECT_EQ(events.Get<std::int32_t>(4, "move"), 1);
    EXPECT_EQ(Thrown<std::runtime_error>([&] { basecall->GetDataSet({"Move", "Move"}); }),
              "Specified data set not found in analysis data.");

    // A status text outside the table is status 0.
    EXPECT_EQ(read->GetAnalysis({"Basecall_1D_003", "Basecall_1D_003"})->GetReturnStatus(), ReturnStatus::Unknown);

    // Data sets in nested groups and inside "Summary" are listed with their paths.
    auto alignment = read->GetAnalysis({"Alignment_000", "Alignment_000"});
    EXPECT_EQ(alignment->GetReturnStatus(), ReturnStatus::NoData);
    EXPECT_EQ(names(alignment->Datasets()), (std::vector<std::string>{"Summary/stats", "deep/er/values"}));
    auto deep = alignment->GetDataSet({"values", "deep/er/values"});
    EXPECT_EQ(deep->Format().rows, 3u);
    EXPECT_EQ(deep->Format().cols, 4u);
    EXPECT_EQ(deep->ReadVector<float>()[11], 11.0f);
    EXPECT_EQ(alignment->GetDataSet({"stats", "Summary/stats"})->ReadVector<std::int64_t>(),
              (std::vector<std::int64_t>{0, 1, 2}));

    auto segmentation = read->GetAnalysis({"Segmentation_000", "Segmentation_000"});
    EXPECT_EQ(attr<long>(segmentation->Summary().at("segmentation"), "first_sample_template"), 100);
    EXPECT_TRUE(segmentation->Datasets().empty());
    EXPECT_EQ(Thrown<std::runtime_error>([&] { read->GetAnalysis({"Nothing_000", "Nothing_000"}); }),
              "Analysis 'Nothing_000' not found in read.");
}

TEST(Rawh5Read, DamagedMultiReadFilesFailWithTheirMessages) {
    Rawh5::ReadSource source(Fixture("multi_bad.rawh5"), H5Mode::ReadOnly);
    using E = std::runtime_error;
    EXPECT_EQ(Thrown<E>([&] { source.GetRead("no-channel"); }),
              "Rawh5 read file is invalid. 'channel_id' group not found.");
    EXPECT_EQ(Thrown<E>([&] { source.GetRead("no-tracking"); }),
              "Rawh5 read file is invalid. 'tracking_id' group not found.");
    EXPECT_EQ(Thrown<E>([&] { source.GetRead("no-raw"); }), "Rawh5 read file is invalid. 'Raw' group not found.");
    EXPECT_EQ(Thrown<E>([&] { source.GetRead("text-duration"); }), "Unsupported numeric type for generic conversion.");
    EXPECT_EQ(Thrown<std::out_of_range>([&] { source.GetRead("no-start-mux"); }), "map::at");
    EXPECT_THROW(source.GetRead("float-digitisation"), boost::bad_any_cast);

    // A signal shorter than "duration" loads, and fails when read.
    auto short_signal = source.GetRead("short-signal");
    EXPECT_EQ(Thrown<E>([&] { short_signal->GetRawData(); }), "Data to be read does not match format of dataset.");

    auto no_status = source.GetRead("summary-without-status");
    EXPECT_EQ(Thrown<std::out_of_range>([&] { no_status->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"}); }),
              "map::at");
    auto summary_dataset = source.GetRead("summary-dataset");
    EXPECT_EQ(Thrown<E>([&] { summary_dataset->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"}); }),
              "Failed to open 'Summary' group for analysis 'Basecall_1D_000'.");
}

TEST(Rawh5Read, LegacyFileFromAnotherWriter) {
    Rawh5::ReadSource source(Fixture("legacy.rawh5"), H5Mode::ReadOnly);
    EXPECT_FALSE(source.IsMultiRead());
    EXPECT_TRUE(source.IsOpen());
    EXPECT_EQ(source.GetReadIds(), std::vector<std::string>{"legacy-read"});
    auto read = source.GetRead("legacy-read");
    EXPECT_EQ(read, source.GetRead("legacy-read"));  // the one read, shared
    EXPECT_EQ(read->Duration(), 3000u);
    EXPECT_EQ(read->ReadNumber(), 42u);
    EXPECT_EQ(read->RunId(), "run-abc");
    // Every group under UniqueGlobalKey is metadata.
    EXPECT_EQ(attr<signed char>(read->Metadata().at("custom_group"), "anything"), -3);
    EXPECT_EQ(attr<std::string>(read->Metadata().at("context_tags"), "sequencing_kit"), "kit-9");
    const std::vector<std::int16_t> samples = read->GetRawData();
    ASSERT_EQ(samples.size(), 3000u);
    EXPECT_EQ(samples[2999], fixtureSample(2999, 5));
    EXPECT_EQ(names(read->GetAnalyses()), std::vector<std::string>{"Basecall_1D_000"});
    auto analysis = read->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"});
    EXPECT_EQ(analysis->GetReturnStatus(), ReturnStatus::Successful);
    EXPECT_EQ(analysis->GetDataSet({"Move", "BaseCalled_template/Move"})->ReadVector<std::uint8_t>().size(), 8u);
    EXPECT_EQ(Thrown<std::runtime_error>([&] { source.GetRead("read-one"); }),
              "Read id 'read-one' not found in legacy rawh5 file.");
    auto* legacy = dynamic_cast<Rawh5::ReadData*>(read.get());
    ASSERT_NE(legacy, nullptr);
    EXPECT_EQ(legacy->Digitisation(), 8192.0);

    // The read owns its file: it outlives the source.
    source.Close();
    EXPECT_EQ(read->GetRawData(0, 2), (std::vector<std::int16_t>{fixtureSample(0, 5), fixtureSample(1, 5)}));

    // A root "Raw" group makes a legacy file even next to "read_" groups.
    Rawh5::ReadSource mixed(Fixture("legacy_with_read_groups.rawh5"), H5Mode::ReadOnly);
    EXPECT_FALSE(mixed.IsMultiRead());
    EXPECT_EQ(mixed.GetReadIds(), std::vector<std::string>{"legacy-read"});

    // Legacy analyses tolerate a "Summary" that is not a group.
    Rawh5::ReadSource odd(Fixture("legacy_summary_dataset.rawh5"), H5Mode::ReadOnly);
    auto odd_analysis = odd.GetRead("legacy-read")->GetAnalysis({"Basecall_1D_001", "Basecall_1D_001"});
    EXPECT_EQ(odd_analysis->GetReturnStatus(), ReturnStatus::Unknown);
    EXPECT_EQ(names(odd_analysis->Datasets()), std::vector<std::string>{"Summary"});
}

TEST(Rawh5Read, DamagedLegacyFilesFailWithTheirMessages) {
    auto open = [](const std::string& name) {
        return Thrown<std::runtime_error>([&] { Rawh5::ReadSource s(Fixture(name), H5Mode::ReadOnly); });
    };
    EXPECT_EQ(open("legacy_two_reads.rawh5"), "Rawh5 read file is invalid. Read group could not be determined.");
    EXPECT_EQ(open("legacy_missing_attr.rawh5"), "Rawh5 read file is invalid. Read is missing 'median_before' metadata.");
    EXPECT_EQ(open("legacy_no_ugk.rawh5"), "Rawh5 read file is invalid. 'UniqueGlobalKey' group not found.");
    EXPECT_EQ(open("legacy_no_tracking.rawh5"),
              "Rawh5 read file is invalid. 'UniqueGlobalKey/tracking_id' group not found.");
    EXPECT_EQ(open("no_such_file.rawh5"), "Could not open file \"" + Fixture("no_such_file.rawh5") + "\".");
}

TEST(Rawh5Read, HostileFilesFailCheaplyAndLeaveNothingOpen) {
    {
        Rawh5::ReadSource source(Fixture("hostile.rawh5"), H5Mode::ReadOnly);
        using E = std::runtime_error;
        // Refused from the headers alone: nothing of that size is ever allocated.
        auto huge = source.GetRead("huge");
        EXPECT_EQ(Thrown<E>([&] { huge->GetRawData(); }),
                  "Data set 'Signal' is too large to read: 4294967294 elements of 2 bytes.");
        auto moves = huge->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"})->GetDataSet({"Move", "BaseCalled_template/Move"});
        EXPECT_EQ(Thrown<E>([&] { moves->ReadVector<std::uint8_t>(); }),
                  "Data set 'Move' is too large to read: 1000000000000 elements of 1 bytes.");
        EXPECT_EQ(Thrown<E>([&] { source.GetRead("long-duration")->GetRawData(); }),
                  "Data to be read does not match format of dataset.");
        // Every data set once, however many ways lead to it.
        auto looped = source.GetRead("looped")->GetAnalysis({"Basecall_1D_000", "Basecall_1D_000"});
        auto listed = names(looped->Datasets());
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed, (std::vector<std::string>{"BaseCalled_template/Events", "BaseCalled_template/Fastq",
                                                     "BaseCalled_template/Move"}));
    }
    // Whatever failed above, and every read of every fixture, closed all it opened.
    for (const char* file : {"multi.rawh5", "multi_bad.rawh5", "legacy.rawh5", "legacy_summary_dataset.rawh5",
                             "hostile.rawh5"}) {
        Rawh5::ReadSource source(Fixture(file), H5Mode::ReadOnly);
        for (const std::string& id : std::vector<std::string>(source.GetReadIds())) {
            try {
                auto read = source.GetRead(id);
                read->GetRawData();
                for (const NamePath& a : read->GetAnalyses()) {
                    auto analysis = read->GetAnalysis(a);
                    for (const NamePath& d : analysis->Datasets()) analysis->GetDataSet(d)->Attributes();
                }
            } catch (const std::exception&) {
            }
        }
    }
    EXPECT_EQ(H5Fget_obj_count(H5F_OBJ_ALL, H5F_OBJ_ALL), 0);
}
