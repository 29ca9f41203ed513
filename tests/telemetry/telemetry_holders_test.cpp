// The pipeline's entry: finished reads arrive as read holders.

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>

#include <rapidjson/document.h>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;

namespace {

void SetMeta(AsyncCaller::ReadMeta& meta, const std::string& run, std::uint64_t start, std::uint64_t duration) {
    meta.run_id = run;
    meta.start_time = start;
    meta.duration = duration;
    meta.sampling_rate = 4000.0f;
}

}  // namespace

TEST(TelemetryHolders, PairsAreCountedByTheirFirstStrand) {
    TempDir dir;
    auto params = MakeParams({"--ping_segment_duration", "1"});
    TelemetryAggregator telemetry("v", *params, dir.Str(), true);
    telemetry.AddRead(4000.0f, Metadata("run", "1"), 4000, 0);          // segment 1
    telemetry.AddRead(4000.0f, Metadata("run", "1"), 4000, 60 * 4000);  // segment 2

    AsyncCaller::ReadHolderMD pair;
    SetMeta(pair.read1, "run", 60 * 4000, 4000);
    // Strand 2 carries nothing the statistics read: its run and times must not matter.
    SetMeta(pair.read2, "other", 0, 0);
    pair.sequence = "ACGTACGTAC";
    pair.mean_qscore = 9.5f;
    pair.passes_filtering = true;
    telemetry.AddCalledRead(pair);

    AsyncCaller::ReadHolderMD failed;
    SetMeta(failed.read1, "run", 0, 4000);
    failed.mean_qscore = std::nanf("");
    telemetry.AddCalledRead(failed);

    AsyncCaller::ReadHolder1D single;
    SetMeta(single.read, "run", 0, 4000);
    single.sequence = "ACG";
    single.mean_qscore = 3.0f;
    telemetry.AddCalledRead(single);

    AsyncCaller::ReadHolderMD stranger;
    SetMeta(stranger.read1, "unknown", 0, 4000);
    EXPECT_THROW(
        {
            try {
                telemetry.AddCalledRead(stranger);
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Basecall telemetry received for non-existent run ID unknown");
                throw;
            }
        },
        std::runtime_error);
    AsyncCaller::ReadHolderMD odd;
    odd.dimension = 2;
    EXPECT_THROW(telemetry.AddCalledRead(odd), std::runtime_error);

    telemetry.Finish();
    rapidjson::Document docs;
    docs.Parse(ReadText(telemetry.TelemetryFile()).c_str());
    ASSERT_TRUE(docs.IsArray());
    ASSERT_EQ(docs.Size(), 3u);
    const auto& first = docs[0]["basecall_1d2"];
    EXPECT_EQ(first["exit_status_dist"]["fail:basecall_failed"].GetInt(), 1);
    EXPECT_EQ(first["exit_status_dist"]["fail:qscore_filter"].GetInt(), 1);
    EXPECT_EQ(first["seq_len_bases_sum"].GetUint64(), 3u);
    const auto& second = docs[1]["basecall_1d2"];
    EXPECT_EQ(second["exit_status_dist"]["pass"].GetInt(), 1);
    EXPECT_EQ(second["seq_len_bases_sum"].GetUint64(), 10u);
    EXPECT_EQ(docs[2]["basecall_1d2"]["candidate_pairs_count"].GetUint64(), 3u);
}
