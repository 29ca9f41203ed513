#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <rapidjson/document.h>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"
#include "basecall_1d2_params.h"
#include "pair_list.h"
#include "telemetry/json_text.h"
#include "telemetry/segment_stats.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;
using TestSupport::ErrorOf;

namespace {

constexpr float kRate = 4000.0f;
constexpr std::uint64_t kMinute = 60 * 4000;  // samples
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();

// What one document should say, counted the obvious way.
struct Expected {
    std::uint64_t reads = 0, bases = 0, called = 0, candidates = 0;
    float latest = 0.0f;
    std::map<std::string, int> exits;
    std::map<double, int> qscores, ratios, gaps;
    double qsum = 0.0;  // NaN once a non-finite qscore is in
};

void expectBins(const rapidjson::Value& array, const char* name, const std::map<double, int>& want) {
    ASSERT_EQ(array.Size(), want.size()) << name;
    auto w = want.begin();
    for (const auto& bin : array.GetArray()) {
        EXPECT_NEAR(bin[name].GetDouble(), w->first, 1e-6) << name;
        EXPECT_EQ(bin["count"].GetInt(), w->second) << name << " " << w->first;
        ++w;
    }
}

void expectDocument(const rapidjson::Value& doc, const Expected& e) {
    EXPECT_NEAR(doc["latest_run_time"].GetDouble(), e.latest, 1e-6 * e.latest);
    EXPECT_EQ(doc["read_count"].GetUint64(), e.reads);
    const auto& call = doc["basecall_1d2"];
    EXPECT_EQ(MemberNames(call),
              (std::vector<std::string>{"component_index", "exit_status_dist", "seq_len_bases_sum",
                                        "qscore_dist", "qscore_sum", "candidate_pairs_count",
                                        "seq_len_ratio_bases_dist", "open_pore_length_seconds_dist",
                                        "potential_candidate_pairs_count"}));
    EXPECT_EQ(call["component_index"].GetInt(), 2);
    std::map<std::string, int> exits;
    for (const auto& m : call["exit_status_dist"].GetObject()) exits[m.name.GetString()] = m.value.GetInt();
    EXPECT_EQ(exits, e.exits);
    EXPECT_EQ(call["seq_len_bases_sum"].GetUint64(), e.bases);
    expectBins(call["qscore_dist"], "mean_qscore", e.qscores);
    EXPECT_EQ(call["qscore_sum"]["count"].GetUint64(), e.called);
    if (std::isnan(e.qsum) || e.called == 0) {
        EXPECT_TRUE(call["qscore_sum"]["mean"].IsNull());
        EXPECT_EQ(call["qscore_sum"]["sum"].IsNull(), e.called > 0);
    } else {
        EXPECT_NEAR(call["qscore_sum"]["sum"].GetDouble(), e.qsum, 1e-4 * std::abs(e.qsum));
        EXPECT_NEAR(call["qscore_sum"]["mean"].GetDouble(), e.qsum / e.called,
                    1e-4 * std::abs(e.qsum) / e.called);
    }
    EXPECT_EQ(call["candidate_pairs_count"].GetUint64(), e.called);
    expectBins(call["seq_len_ratio_bases_dist"], "ratio", e.ratios);
    expectBins(call["open_pore_length_seconds_dist"], "length", e.gaps);
    EXPECT_EQ(call["potential_candidate_pairs_count"].GetUint64(), e.candidates);
}

const std::regex kUuid("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
const std::regex kTimeStamp("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");

}  // namespace

// A sampling rate of zero gives infinite times; they still land in a defined segment.
TEST(TelemetrySegments, AbsurdTimes) {
    EXPECT_EQ(TelemetryAggregator::SegmentNumber(std::numeric_limits<double>::quiet_NaN(), 1), 1);
    EXPECT_GT(TelemetryAggregator::SegmentNumber(std::numeric_limits<double>::infinity(), 1), 1);
}

// Seeded random runs against the obvious count of each document: a run known only from the pair list,
// reads ending on segment boundaries, every exit status, values outside every histogram's range.
TEST(TelemetryAggregatorTest, DocumentsMatchADirectCount) {
    std::mt19937 rng(77);
    for (const std::uint64_t minutes : {1, 2, 60}) {
        TempDir dir;
        using Args = std::vector<std::string>;
        auto params =
            MakeParams(minutes == 60 ? Args{} : Args{"--ping_segment_duration", std::to_string(minutes)});
        TelemetryAggregator telemetry("1.2.3", *params, dir.Str(), true);
        std::map<std::string, std::map<int, Expected>> segments;
        std::map<std::string, Expected> totals;
        const char* runs[] = {"run_a", "run_b", "run_c"};
        for (int k = 0; k < 20; ++k) {  // candidates come before any read, as in a real run
            const std::string run = runs[rng() % 3];
            const double end = rng() % 720 + 0.5;
            const int ratio = static_cast<int>(rng() % 60), gap = static_cast<int>(rng() % 110) - 5;
            telemetry.AddPairCandidate(end, (ratio + 0.5f) * 0.1f, (gap + 0.5) * 0.05, run);
            for (Expected* e : {&segments[run][static_cast<int>(end / 60) / minutes + 1], &totals[run]}) {
                ++e->candidates;
                ++e->ratios[std::min(ratio, 50) * 0.1];
                ++e->gaps[std::min(std::max(gap, 0), 100) * 0.05];
            }
        }
        for (int k = 0; k < 40; ++k) {
            const std::string run = runs[k % 2];
            const std::uint64_t duration = 1 + rng() % (2 * kMinute);
            // Every fifth read ends exactly on a minute.
            const std::uint64_t end = k % 5 ? duration + rng() % (10 * kMinute) : (1 + rng() % 10) * kMinute;
            const std::uint64_t start = end - std::min(end, duration);
            telemetry.AddRead(kRate, Metadata(run, std::to_string(rng() % 4)), end - start, start);
            Expected& segment = segments[run][end / kMinute / minutes + 1];
            for (Expected* e : {&segment, &totals[run]}) ++e->reads;
            segment.latest = std::max(segment.latest, static_cast<float>(end) / kRate);
            if (k % 3 == 0) continue;  // not called
            const float qscores[] = {kNaN, kInf, -1.0f, 100.0f, 150.0f, static_cast<float>(rng() % 80) / 4};
            TelemetryAggregator::CalledRead read{
                run, start, end - start, kRate, rng() % 5000, qscores[rng() % 6], rng() % 2 == 0};
            // Some come as the pipeline hands them over: a pair counted by its first strand, a single read.
            const auto holder = [&](AsyncCaller::ReadHolder& h, AsyncCaller::ReadMeta& m) {
                std::tie(m.run_id, m.start_time, m.duration, m.sampling_rate) =
                    std::tie(read.run_id, read.start_time, read.duration, read.sampling_rate);
                h.sequence.assign(read.sequence_length, 'A');
                std::tie(h.mean_qscore, h.passes_filtering) =
                    std::tie(read.mean_qscore, read.passes_filtering);
                telemetry.AddCalledRead(h);
            };
            AsyncCaller::ReadHolderMD pair;
            AsyncCaller::ReadHolder1D single;
            pair.read2.run_id = "elsewhere";  // strand 2 carries nothing the statistics read
            if (k % 6 == 1) {
                holder(pair, pair.read1);
            } else if (k % 6 == 4) {
                holder(single, single.read);
            } else {
                telemetry.AddCalledRead(read);
            }
            const float q = read.mean_qscore;
            for (Expected* e : {&segment, &totals[run]}) {
                const char* exit = read.passes_filtering ? "pass" : "fail:qscore_filter";
                ++e->exits[std::isfinite(q) ? exit : "fail:basecall_failed"];
                e->bases += read.sequence_length;
                ++e->qscores[std::isnan(q) || q < 0 ? 0.0 : q > 100 ? 100.0 : std::floor(q * 2) / 2];
                ++e->called;
                e->qsum += std::isfinite(q) ? q : kNaN;
            }
        }
        telemetry.Finish();

        const rapidjson::Document docs = ParseFile(dir.Str() + "/sequencing_telemetry.js");
        const std::string analysis_id = docs[0]["analysis_id"].GetString();
        EXPECT_TRUE(std::regex_match(analysis_id, kUuid));
        std::set<std::string> msg_ids;
        rapidjson::SizeType next = 0;
        for (const auto& [run, runSegments] : segments) {
            Expected cumulative = totals[run];
            for (const auto& segment : runSegments)
                cumulative.latest = std::max(cumulative.latest, segment.second.latest);
            std::vector<std::pair<int, const Expected*>> wanted;
            for (const auto& segment : runSegments) wanted.emplace_back(segment.first, &segment.second);
            wanted.emplace_back(0, &cumulative);
            for (const auto& [number, expected] : wanted) {
                SCOPED_TRACE(run + " segment " + std::to_string(number) + " of " + std::to_string(minutes) +
                             " min");
                ASSERT_LT(next, docs.Size());
                const auto& doc = docs[next++];
                EXPECT_EQ(MemberNames(doc),
                          (std::vector<std::string>{"segment_type", "analysis_id", "software", "opts",
                                                    "tracking_id", "context_tags", "run_id", "segment_number",
                                                    "segment_duration", "aggregation", "latest_run_time",
                                                    "read_count", "basecall_1d2"}));
                EXPECT_STREQ(doc["segment_type"].GetString(), "marlo-acquisition");
                EXPECT_EQ(doc["analysis_id"].GetString(), analysis_id);
                EXPECT_EQ(doc["run_id"].GetString(), run);
                EXPECT_STREQ(doc["aggregation"].GetString(), number ? "segment" : "cumulative");
                EXPECT_EQ(doc["segment_number"].GetInt(), number ? number : 1);
                EXPECT_EQ(doc["segment_duration"].GetUint64(),
                          number ? minutes : runSegments.rbegin()->first * minutes);
                expectDocument(doc, *expected);
                // Tracking data from the first read, without the local script path; none for run_c.
                const auto& tracking = doc["tracking_id"];
                const std::vector<std::string> keys = {"asic_temp", "protocol_version", "run_id", "msg_id",
                                                       "time_stamp"};
                EXPECT_EQ(MemberNames(tracking),
                          run == "run_c" ? std::vector<std::string>(keys.begin() + 3, keys.end()) : keys);
                if (run != "run_c") {
                    EXPECT_EQ(tracking["run_id"].GetString(), run);
                    EXPECT_EQ(tracking["protocol_version"].GetUint64(), 7u);
                    EXPECT_EQ(tracking["asic_temp"].GetDouble(), 31.5);
                    EXPECT_STREQ(doc["context_tags"]["experiment_kit"].GetString(), "ligation");
                }
                EXPECT_TRUE(std::regex_match(tracking["msg_id"].GetString(), kUuid));
                EXPECT_TRUE(std::regex_match(tracking["time_stamp"].GetString(), kTimeStamp));
                msg_ids.insert(tracking["msg_id"].GetString());
            }
        }
        EXPECT_EQ(next, docs.Size());
        EXPECT_EQ(msg_ids.size(), docs.Size());
        const auto& software = docs[0]["software"];
        EXPECT_EQ(Telemetry::ToJsonText(software, false),
                  R"({"name":"marlo-basecalling","analysis":"1dsq_basecalling","version":"1.2.3"})");
        // The options by name, sorted (the program's own set is checked with the pair list).
        EXPECT_EQ(Telemetry::ToJsonText(docs[0]["opts"], false),
                  R"({"disable_pings":"0","ping_segment_duration":")" + std::to_string(minutes) +
                      R"(","ping_url":""})");
        const std::string text = ReadText(telemetry.TelemetryFile());
        EXPECT_EQ(text.rfind("[\n    {\n        \"segment_type\": \"marlo-acquisition\",\n", 0), 0u);
    }
}

TEST(TelemetryAggregatorTest, ErrorsAndEmptyRuns) {
    TempDir dir;
    auto params = MakeParams({"--ping_segment_duration", "2"});
    TelemetryAggregator telemetry("v", *params, dir.Str() + "/no/such/folder", true);
    telemetry.AddRead(kRate, Metadata("known", "1"), kMinute, 0);
    telemetry.AddPairCandidate(10.0, 1.0f, 0.1, "candidates_only");
    const auto called = [&](const std::string& run, std::uint64_t start) {
        const TelemetryAggregator::CalledRead read{run, start, kMinute, kRate, 10, 9.0f, true};
        return ErrorOf([&] { telemetry.AddCalledRead(read); }, "accepted");
    };
    EXPECT_EQ(called("elsewhere", 0), "Basecall telemetry received for non-existent run ID elsewhere");
    // A run known only from the pair list has had no read loaded.
    EXPECT_EQ(called("candidates_only", 0),
              "Basecall telemetry received for non-existent run ID candidates_only");
    // Ends at 120 s, the first second of segment 2, which no read has opened.
    EXPECT_EQ(called("known", kMinute),
              "Basecall telemetry received for non-existent run segment of run ID known");
    EXPECT_EQ(called("known", 0), "accepted");
    AsyncCaller::ReadHolderMD odd;
    odd.dimension = 2;
    EXPECT_EQ(ErrorOf([&] { telemetry.AddCalledRead(odd); }), "Unrecognized dimensionality of read object.");
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(telemetry.Finish());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Could not open telemetry file '" + dir.Str() +
                  "/no/such/folder/sequencing_telemetry.js' for writing.\n");

    const auto zero = MakeParams({"--ping_segment_duration", "0"});
    EXPECT_EQ(ErrorOf([&] { TelemetryAggregator("v", *zero, dir.Str(), true); }),
              "Invalid ping_segment_duration: 0. The duration of a ping segment must be at least one "
              "minute.");
    // Nothing reported: an empty list. (Single-strand runs are not made by any program of the tree.)
    TelemetryAggregator nothing("v", *MakeParams({}), dir.Str(), true);
    nothing.Finish();
    EXPECT_EQ(ReadText(nothing.TelemetryFile()), "[]\n");
}

// The pair list and the program's own parameter set feeding the aggregator.
TEST(TelemetryAggregatorTest, CandidatesOfThePairListAndTheProgramOptions) {
    TempDir dir;
    const fs::path reads = dir.path / "reads";
    fs::create_directories(reads);
    for (const char* name : {"a.rawh5", "b.rawh5", "c.rawh5", "d.rawh5"}) {
        std::ofstream((reads / name).string());  // listed by name only; never opened
    }
    const std::string index =
        dir.File("index.txt",
                 "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n"
                 "a.rawh5\tra\trun7\t5\t10.0\t20.0\t1000\n"
                 "b.rawh5\trb\trun7\t5\t30.2\t20.0\t1100\n"  // pairs with ra: gap 0.2
                 "c.rawh5\trc\trun7\t5\t125.0\t10.0\t500\n"  // candidate rb-rc only
                 "d.rawh5\trd\trun7\t9\t1.0\t1.0\t100\n");   // alone on its channel
    auto params =
        MakeParams<Marlo::Basecall1D2Params>({"-f", index, "-s", dir.Str(), "-i", reads.string(), "-m",
                                              "/opt/models/m.json", "--ping_segment_duration", "1"});
    TelemetryAggregator telemetry("9.9", *params, params->save_path, true);
    ASSERT_EQ(Marlo::GetFileList(index, reads.string(), false, &telemetry).size(), 1u);
    telemetry.Finish();
    // Candidates ra-rb (ends 30 s) and rb-rc (ends 50.2 s), both of run7 and its segment 1; ratios
    // 1000 / 1100 and 1100 / 500.
    const rapidjson::Document docs = ParseFile(telemetry.TelemetryFile());
    ASSERT_EQ(docs.Size(), 2u);
    EXPECT_EQ(Telemetry::ToJsonText(docs[0]["basecall_1d2"]["seq_len_ratio_bases_dist"], false),
              R"([{"ratio":0.9,"count":1},{"ratio":2.2,"count":1}])");
    EXPECT_EQ(Telemetry::ToJsonText(docs[0]["basecall_1d2"]["open_pore_length_seconds_dist"], false),
              R"([{"length":0.2,"count":1},{"length":5.0,"count":1}])");  // gaps 0.2 s and 74.8 s
    // The real option set: paths and workflow lists stay out, file options keep their names only.
    const auto& opts = docs[0]["opts"];
    EXPECT_STREQ(opts["model_file"].GetString(), "m.json");
    EXPECT_STREQ(opts["index_file"].GetString(), "index.txt");
    EXPECT_STREQ(opts["band_size"].GetString(), "5");
    EXPECT_EQ(MemberNames(opts).size(), params->OptionNames().size() - 5);
}
