#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "telemetry/json_text.h"
#include "telemetry/segment_stats.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;
using Telemetry::Histogram;

namespace {

constexpr float kRate = 4000.0f;
constexpr std::uint64_t kMinute = 60 * 4000;  // samples

TelemetryAggregator::CalledRead Called(const std::string& run, std::uint64_t start, std::uint64_t duration,
                                       std::uint64_t length, float qscore, bool passes) {
    TelemetryAggregator::CalledRead read;
    read.run_id = run;
    read.start_time = start;
    read.duration = duration;
    read.sampling_rate = kRate;
    read.sequence_length = length;
    read.mean_qscore = qscore;
    read.passes_filtering = passes;
    return read;
}

rapidjson::Document ParseFile(const std::string& path) {
    rapidjson::Document doc;
    doc.Parse(ReadText(path).c_str());
    if (doc.HasParseError() || !doc.IsArray()) {
        throw std::runtime_error("telemetry file is not a JSON array: " + path);
    }
    return doc;
}

// (bin start, count) pairs of a serialised histogram.
std::vector<std::pair<double, int>> Bins(const rapidjson::Value& array, const char* name) {
    std::vector<std::pair<double, int>> bins;
    for (const auto& entry : array.GetArray()) {
        EXPECT_EQ(MemberNames(entry), (std::vector<std::string>{name, "count"}));
        bins.emplace_back(entry[name].GetDouble(), entry["count"].GetInt());
    }
    return bins;
}

using BinList = std::vector<std::pair<double, int>>;

// Text of the given shape: 'd' a decimal digit, 'h' a lower-case hexadecimal digit, else itself.
bool Shaped(const std::string& text, const std::string& shape) {
    if (text.size() != shape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool digit = c >= '0' && c <= '9';
        if (shape[i] == 'd' ? !digit : shape[i] == 'h' ? !(digit || (c >= 'a' && c <= 'f')) : c != shape[i]) {
            return false;
        }
    }
    return true;
}

const std::string kUuid = "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh";
const std::string kTimeStamp = "dddd-dd-ddTdd:dd:ddZ";

}  // namespace

TEST(TelemetrySegments, BoundariesOpenTheNextSegment) {
    const struct {
        double seconds;
        std::uint64_t minutes;
        int segment;
    } cases[] = {{0.0, 60, 1},     {59.999, 1, 1},  {60.0, 1, 2},     {119.999, 2, 1},
                 {120.0, 2, 2},    {3599.99, 60, 1}, {3600.0, 60, 2}, {7 * 3600.0 + 1, 60, 8},
                 // Absurd times still land somewhere defined.
                 {std::numeric_limits<double>::quiet_NaN(), 1, 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(TelemetryAggregator::SegmentNumber(c.seconds, c.minutes), c.segment) << c.seconds << " s";
    }
    EXPECT_GT(TelemetryAggregator::SegmentNumber(std::numeric_limits<double>::infinity(), 1), 1);
}

TEST(TelemetryHistogram, BinsAtTheirBoundaries) {
    constexpr float kInf = std::numeric_limits<float>::infinity();
    Histogram qscore(0.0f, 100.0f, 0.5f, "mean_qscore");
    Histogram speed(1.0f, 1999.0f, 2.0f, "speed");
    Histogram ratio(0.0f, 5.0f, 0.1f, "ratio");
    Histogram gap(0.0f, 5.0f, 0.05f, "length");
    const struct {
        const Histogram& histogram;
        float value, bin;
    } cases[] = {
        {qscore, 7.5f, 7.5f}, {qscore, 7.4999f, 7.0f}, {qscore, 0.0f, 0.0f}, {qscore, -3.0f, 0.0f},
        {qscore, 99.99f, 99.5f},
        {qscore, 100.0f, 100.0f},  // the range divides evenly: max is a bin of its own
        {qscore, 250.0f, 100.0f}, {qscore, kInf, 100.0f}, {qscore, -kInf, 0.0f},
        {qscore, std::numeric_limits<float>::quiet_NaN(), 0.0f},
        {speed, 0.0f, 1.0f}, {speed, 2.9f, 1.0f}, {speed, 3.0f, 3.0f}, {speed, 5000.0f, 1999.0f},
        {ratio, 0.25f, 0.2f}, {ratio, 5.0f, 5.0f}, {ratio, 9.0f, 5.0f},
        {gap, 0.07f, 0.05f}, {gap, -0.3f, 0.0f} /* overlapping reads */, {gap, 12.0f, 5.0f},
    };
    for (const auto& c : cases) {
        EXPECT_FLOAT_EQ(c.histogram.BinStart(c.value), c.bin) << c.value;
    }

    // Filled bins only, ascending, the histogram's name as the key of the bin start.
    for (float q : {12.25f, 7.5f, 7.9f, 250.0f, 100.0f}) {
        qscore.Add(q);
    }
    rapidjson::Document doc;
    const rapidjson::Value json = qscore.ToJson(doc.GetAllocator());
    EXPECT_EQ(Bins(json, "mean_qscore"), (BinList{{7.5, 2}, {12.0, 1}, {100.0, 2}}));
    EXPECT_EQ(Telemetry::ToJsonText(json, false),
              R"([{"mean_qscore":7.5,"count":2},{"mean_qscore":12.0,"count":1},{"mean_qscore":100.0,"count":2}])");
    ratio.Add(0.3f);
    EXPECT_EQ(Telemetry::ToJsonText(ratio.ToJson(doc.GetAllocator()), false), R"([{"ratio":0.3,"count":1}])");
}

TEST(TelemetryJson, NonFiniteNumbersAreWrittenAsNull) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& a = doc.GetAllocator();
    doc.AddMember("nan", rapidjson::Value(std::nan("")), a);
    doc.AddMember("inf", rapidjson::Value(std::numeric_limits<double>::infinity()), a);
    doc.AddMember("tenth", rapidjson::Value(Telemetry::JsonFloat(0.1f)), a);
    EXPECT_EQ(Telemetry::ToJsonText(doc, false), R"({"nan":null,"inf":null,"tenth":0.1})");
    EXPECT_EQ(Telemetry::ToJsonText(doc, true), "{\n    \"nan\": null,\n    \"inf\": null,\n    \"tenth\": 0.1\n}");
    Telemetry::RunningMean empty;
    EXPECT_EQ(Telemetry::ToJsonText(empty.ToJson(a), false), R"({"count":0,"mean":null,"sum":0.0})");
}

// A whole run through the aggregator and back out of its file: two runs, three segments, reads that
// pass, fail the filter and fail the call.
TEST(TelemetryAggregatorTest, DocumentsOfTheFile) {
    TempDir dir;
    auto params = MakeParams({"--ping_segment_duration", "1", "-m", "/models/dna/model_r9.json", "-f",
                              "/data/run/index.txt", "-s", dir.Str(), "-i", "/data/run/reads", "--compatible_kits",
                              "K1 K2", "--min_qscore", "8.5", "--score_matrix", "tables/mismatch.txt"});
    TelemetryAggregator telemetry("1.2.3", *params, dir.Str(), true);

    // run_b sorts after run_a; its candidate comes before any read, as in a real run.
    telemetry.AddPairCandidate(30.0, 1.05f, 0.12, "run_b");
    telemetry.AddPairCandidate(10.0, 0.95f, -0.5, "run_a");
    telemetry.AddPairCandidate(150.0, 7.0f, 3.0, "run_a");

    telemetry.AddRead(kRate, Metadata("run_a", "12"), kMinute / 2, 0);           // ends 30 s: segment 1
    telemetry.AddRead(kRate, Metadata("run_a", "12"), kMinute / 4, kMinute / 2);  // 45 s
    telemetry.AddRead(kRate, Metadata("run_a", "3"), kMinute, kMinute * 2);       // ends 180 s: segment 4
    telemetry.AddRead(kRate, Metadata("run_b", "7"), 4000, 0);

    telemetry.AddCalledRead(Called("run_a", 0, kMinute / 2, 1000, 12.3f, true));
    telemetry.AddCalledRead(Called("run_a", kMinute / 2, kMinute / 4, 500, 5.0f, false));
    telemetry.AddCalledRead(Called("run_a", kMinute * 2, kMinute, 0, std::nanf(""), false));
    telemetry.AddCalledRead(Called("run_b", 0, 4000, 42, 9.0f, true));
    telemetry.Finish();

    const rapidjson::Document docs = ParseFile(dir.Str() + "/sequencing_telemetry.js");
    ASSERT_EQ(docs.Size(), 6u);  // run_a: segments 1, 3, 4 and cumulative; run_b: 1 and cumulative
    const std::vector<std::string> keys{"segment_type",   "analysis_id",     "software",     "opts",
                                        "tracking_id",    "context_tags",    "run_id",       "segment_number",
                                        "segment_duration", "aggregation",   "latest_run_time", "read_count",
                                        "basecall_1d2"};
    const std::vector<std::string> call_keys{"component_index",
                                             "exit_status_dist",
                                             "seq_len_bases_sum",
                                             "qscore_dist",
                                             "qscore_sum",
                                             "candidate_pairs_count",
                                             "seq_len_ratio_bases_dist",
                                             "open_pore_length_seconds_dist",
                                             "potential_candidate_pairs_count"};
    std::set<std::string> msg_ids;
    const std::string analysis_id = docs[0]["analysis_id"].GetString();
    EXPECT_TRUE(Shaped(analysis_id, kUuid));
    for (const auto& doc : docs.GetArray()) {
        EXPECT_EQ(MemberNames(doc), keys);
        EXPECT_EQ(MemberNames(doc["basecall_1d2"]), call_keys);
        EXPECT_STREQ(doc["segment_type"].GetString(), "marlo-acquisition");
        EXPECT_EQ(doc["analysis_id"].GetString(), analysis_id);
        EXPECT_EQ(doc["basecall_1d2"]["component_index"].GetInt(), 2);
        const auto& tracking = doc["tracking_id"];
        EXPECT_FALSE(tracking.HasMember("exp_script_name"));
        EXPECT_STREQ(tracking["run_id"].GetString(), doc["run_id"].GetString());
        EXPECT_STREQ(tracking["flow_cell_id"].GetString(), "FAB12345");
        EXPECT_EQ(tracking["protocol_version"].GetUint64(), 7u);
        EXPECT_EQ(tracking["asic_temp"].GetDouble(), 31.5);
        EXPECT_TRUE(Shaped(tracking["msg_id"].GetString(), kUuid));
        EXPECT_TRUE(Shaped(tracking["time_stamp"].GetString(), kTimeStamp));
        msg_ids.insert(tracking["msg_id"].GetString());
        EXPECT_EQ(MemberNames(doc["context_tags"]), (std::vector<std::string>{"experiment_kit", "sample_frequency"}));
    }
    EXPECT_EQ(msg_ids.size(), docs.Size());

    // The common parts.
    const auto& software = docs[0]["software"];
    EXPECT_EQ(MemberNames(software), (std::vector<std::string>{"name", "analysis", "version"}));
    EXPECT_STREQ(software["name"].GetString(), "marlo-basecalling");
    EXPECT_STREQ(software["analysis"].GetString(), "1dsq_basecalling");
    EXPECT_STREQ(software["version"].GetString(), "1.2.3");
    const auto& opts = docs[0]["opts"];
    EXPECT_EQ(MemberNames(opts), (std::vector<std::string>{"chunk_size", "disable_pings", "index_file", "min_qscore",
                                                           "model_file", "ping_segment_duration", "ping_url",
                                                           "score_matrix"}));
    EXPECT_STREQ(opts["model_file"].GetString(), "model_r9.json");
    EXPECT_STREQ(opts["index_file"].GetString(), "index.txt");
    EXPECT_STREQ(opts["score_matrix"].GetString(), "mismatch.txt");
    EXPECT_STREQ(opts["min_qscore"].GetString(), "8.500000");
    EXPECT_STREQ(opts["disable_pings"].GetString(), "0");

    // run_a, segment 1: two reads on channel 12, one passing and one failing the filter, and the
    // candidate at 10 s.
    const auto& a1 = docs[0];
    EXPECT_STREQ(a1["run_id"].GetString(), "run_a");
    EXPECT_EQ(a1["segment_number"].GetInt(), 1);
    EXPECT_EQ(a1["segment_duration"].GetInt(), 1);
    EXPECT_STREQ(a1["aggregation"].GetString(), "segment");
    EXPECT_EQ(a1["latest_run_time"].GetDouble(), 45.0);
    EXPECT_EQ(a1["read_count"].GetUint64(), 2u);
    const auto& c1 = a1["basecall_1d2"];
    EXPECT_EQ(MemberNames(c1["exit_status_dist"]), (std::vector<std::string>{"fail:qscore_filter", "pass"}));
    EXPECT_EQ(c1["exit_status_dist"]["pass"].GetInt(), 1);
    EXPECT_EQ(c1["seq_len_bases_sum"].GetUint64(), 1500u);
    EXPECT_EQ(Bins(c1["qscore_dist"], "mean_qscore"), (BinList{{5.0, 1}, {12.0, 1}}));
    EXPECT_EQ(c1["qscore_sum"]["count"].GetInt(), 2);
    EXPECT_FLOAT_EQ(static_cast<float>(c1["qscore_sum"]["sum"].GetDouble()), 17.3f);
    EXPECT_FLOAT_EQ(static_cast<float>(c1["qscore_sum"]["mean"].GetDouble()), 8.65f);
    EXPECT_EQ(c1["candidate_pairs_count"].GetUint64(), 2u);
    EXPECT_EQ(c1["potential_candidate_pairs_count"].GetUint64(), 1u);
    EXPECT_EQ(Bins(c1["seq_len_ratio_bases_dist"], "ratio"), (BinList{{0.9, 1}}));
    EXPECT_EQ(Bins(c1["open_pore_length_seconds_dist"], "length"), (BinList{{0.0, 1}}));

    // Segment 3 holds only the candidate at 150 s: no reads, no calls, ratio and gap out of range.
    const auto& a3 = docs[1];
    EXPECT_EQ(a3["segment_number"].GetInt(), 3);
    EXPECT_EQ(a3["read_count"].GetUint64(), 0u);
    EXPECT_EQ(a3["latest_run_time"].GetDouble(), 0.0);
    EXPECT_EQ(a3["basecall_1d2"]["candidate_pairs_count"].GetUint64(), 0u);
    EXPECT_TRUE(a3["basecall_1d2"]["qscore_sum"]["mean"].IsNull());
    EXPECT_EQ(Bins(a3["basecall_1d2"]["seq_len_ratio_bases_dist"], "ratio"), (BinList{{5.0, 1}}));
    EXPECT_EQ(Bins(a3["basecall_1d2"]["open_pore_length_seconds_dist"], "length"), (BinList{{3.0, 1}}));

    // Segment 4: the read ending exactly at 180 s, called with a NaN qscore.
    const auto& a4 = docs[2];
    EXPECT_EQ(a4["segment_number"].GetInt(), 4);
    EXPECT_EQ(a4["latest_run_time"].GetDouble(), 180.0);
    const auto& c4 = a4["basecall_1d2"];
    EXPECT_EQ(MemberNames(c4["exit_status_dist"]), (std::vector<std::string>{"fail:basecall_failed"}));
    EXPECT_EQ(c4["candidate_pairs_count"].GetUint64(), 1u);
    EXPECT_EQ(Bins(c4["qscore_dist"], "mean_qscore"), (BinList{{0.0, 1}}));
    EXPECT_EQ(c4["qscore_sum"]["count"].GetInt(), 1);
    EXPECT_TRUE(c4["qscore_sum"]["sum"].IsNull());
    EXPECT_TRUE(c4["qscore_sum"]["mean"].IsNull());

    // The cumulative document of run_a.
    const auto& acum = docs[3];
    EXPECT_STREQ(acum["aggregation"].GetString(), "cumulative");
    EXPECT_EQ(acum["segment_number"].GetInt(), 1);
    EXPECT_EQ(acum["segment_duration"].GetInt(), 4);  // highest segment times one minute
    EXPECT_EQ(acum["latest_run_time"].GetDouble(), 180.0);
    EXPECT_EQ(acum["read_count"].GetUint64(), 3u);
    const auto& ccum = acum["basecall_1d2"];
    EXPECT_EQ(ccum["exit_status_dist"]["fail:basecall_failed"].GetInt(), 1);
    EXPECT_EQ(ccum["exit_status_dist"]["fail:qscore_filter"].GetInt(), 1);
    EXPECT_EQ(ccum["exit_status_dist"]["pass"].GetInt(), 1);
    EXPECT_EQ(ccum["seq_len_bases_sum"].GetUint64(), 1500u);
    EXPECT_EQ(ccum["candidate_pairs_count"].GetUint64(), 3u);
    EXPECT_EQ(ccum["potential_candidate_pairs_count"].GetUint64(), 2u);
    EXPECT_TRUE(ccum["qscore_sum"]["sum"].IsNull());
    EXPECT_EQ(Bins(ccum["qscore_dist"], "mean_qscore"), (BinList{{0.0, 1}, {5.0, 1}, {12.0, 1}}));

    // run_b: opened by its candidate before its read; the read brought the tracking data.
    EXPECT_STREQ(docs[4]["run_id"].GetString(), "run_b");
    EXPECT_EQ(docs[4]["segment_number"].GetInt(), 1);
    EXPECT_EQ(docs[4]["latest_run_time"].GetDouble(), 1.0);
    EXPECT_EQ(docs[4]["basecall_1d2"]["potential_candidate_pairs_count"].GetUint64(), 1u);
    EXPECT_STREQ(docs[5]["aggregation"].GetString(), "cumulative");
    EXPECT_EQ(docs[5]["segment_duration"].GetInt(), 1);
    EXPECT_EQ(docs[5]["basecall_1d2"]["exit_status_dist"]["pass"].GetInt(), 1);

    // Pretty-printed, with null standing for the non-finite numbers.
    const std::string text = ReadText(telemetry.TelemetryFile());
    EXPECT_EQ(text.rfind("[\n    {\n        \"segment_type\": \"marlo-acquisition\",\n", 0), 0u);
    EXPECT_NE(text.find("\"sum\": null"), std::string::npos);
}

TEST(TelemetryAggregatorTest, NanQscoreIsAFailedCallThatStillCounts) {
    TempDir dir;
    auto params = MakeParams({});
    TelemetryAggregator telemetry("v", *params, dir.Str(), true);
    telemetry.AddRead(kRate, Metadata("r", "1"), 4000, 0);
    telemetry.AddCalledRead(Called("r", 0, 4000, 321, std::nanf(""), true));  // passing is not enough
    telemetry.AddCalledRead(Called("r", 0, 4000, 9, std::numeric_limits<float>::infinity(), true));
    telemetry.Finish();
    const rapidjson::Document docs = ParseFile(telemetry.TelemetryFile());
    ASSERT_EQ(docs.Size(), 2u);
    const auto& call = docs[0]["basecall_1d2"];
    EXPECT_EQ(MemberNames(call["exit_status_dist"]), (std::vector<std::string>{"fail:basecall_failed"}));
    EXPECT_EQ(call["exit_status_dist"]["fail:basecall_failed"].GetInt(), 2);
    EXPECT_EQ(call["seq_len_bases_sum"].GetUint64(), 330u);
    EXPECT_EQ(call["candidate_pairs_count"].GetUint64(), 2u);
    EXPECT_EQ(call["qscore_sum"]["count"].GetInt(), 2);
    EXPECT_EQ(Bins(call["qscore_dist"], "mean_qscore"), (BinList{{0.0, 1}, {100.0, 1}}));
    EXPECT_EQ(docs[0]["segment_duration"].GetInt(), 60);  // the default segment length
}

TEST(TelemetryAggregatorTest, CalledReadsOfUnknownRunsAndSegmentsThrow) {
    TempDir dir;
    auto params = MakeParams({"--ping_segment_duration", "2"});
    TelemetryAggregator telemetry("v", *params, dir.Str(), true);
    telemetry.AddRead(kRate, Metadata("known", "1"), kMinute, 0);
    telemetry.AddPairCandidate(10.0, 1.0f, 0.1, "candidates_only");

    auto message = [&](const TelemetryAggregator::CalledRead& read) {
        try {
            telemetry.AddCalledRead(read);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("no exception");
    };
    EXPECT_EQ(message(Called("elsewhere", 0, kMinute, 10, 9.0f, true)),
              "Basecall telemetry received for non-existent run ID elsewhere");
    // A run known only from the pair list has had no read loaded.
    EXPECT_EQ(message(Called("candidates_only", 0, kMinute, 10, 9.0f, true)),
              "Basecall telemetry received for non-existent run ID candidates_only");
    // Ends at 120 s, the first second of segment 2, which no read has opened.
    EXPECT_EQ(message(Called("known", kMinute, kMinute, 10, 9.0f, true)),
              "Basecall telemetry received for non-existent run segment of run ID known");
    EXPECT_EQ(message(Called("known", kMinute / 2, kMinute / 2, 10, 9.0f, true)), "no exception");
}

TEST(TelemetryAggregatorTest, OptionChecksAndEmptyRuns) {
    TempDir dir;
    auto zero = MakeParams({"--ping_segment_duration", "0"});
    EXPECT_THROW(TelemetryAggregator("v", *zero, dir.Str(), true), std::runtime_error);

    // Nothing reported: an empty list. One-strand mode names its analysis differently.
    auto params = MakeParams({});
    TelemetryAggregator empty("v", *params, dir.Str(), false);
    empty.Finish();
    EXPECT_EQ(ReadText(empty.TelemetryFile()), "[]\n");

    TelemetryAggregator one_strand("v", *params, dir.Str(), false);
    one_strand.AddRead(kRate, Metadata("r", "5"), 100, 0);
    one_strand.AddRead(kRate, Metadata("r", "5"), 100, 0);
    one_strand.AddRead(kRate, Metadata("r", "9"), 100, 0);
    one_strand.Finish();
    const rapidjson::Document docs = ParseFile(one_strand.TelemetryFile());
    EXPECT_STREQ(docs[0]["software"]["analysis"].GetString(), "1d_basecalling");
    EXPECT_FALSE(docs[0].HasMember("basecall_1d2"));
    EXPECT_EQ(docs[0]["channel_count"].GetUint64(), 2u);
    EXPECT_EQ(docs[0]["read_count"].GetUint64(), 3u);
    EXPECT_EQ(docs[0]["reads_per_channel_dist"][0]["count"].GetUint64(), 2u);
}

TEST(TelemetryAggregatorTest, UnwritableSavePathGivesOneLine) {
    TempDir dir;
    const std::string missing = dir.Str() + "/no/such/folder";
    auto params = MakeParams({});
    TelemetryAggregator telemetry("v", *params, missing, true);
    telemetry.AddRead(kRate, Metadata("r", "1"), 4000, 0);
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(telemetry.Finish());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Could not open telemetry file '" + missing + "/sequencing_telemetry.js' for writing.\n");
}
