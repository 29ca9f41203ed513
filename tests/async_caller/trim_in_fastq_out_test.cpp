#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"
#include "async_caller/summary_values.h"
#include "async_caller/trim_in_fastq_out.h"

namespace fs = boost::filesystem;
using AsyncCaller::GetSummaryValue;
using AsyncCaller::PairSummaryColumns;
using AsyncCaller::ReadHolderMD;
using AsyncCaller::TrimInFastqOut;

namespace {

const std::string kHeader =
    "filename1\tfilename2\tread_id1\tread_id2\trun_id\tchannel\tstart_time1\tstart_time2\ttrimmed_duration1\t"
    "trimmed_duration2\ttrimmed_events1\ttrimmed_events2\tmedian1\tmedian2\tmad1\tmad2\tsequence_length\t"
    "passes_filtering\tmean_qscore\tstrand_score\n";

std::string Slurp(const fs::path& path) {
    std::ifstream in(path.string());
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Cells(const std::string& line) {
    std::vector<std::string> cells;
    boost::split(cells, line, boost::is_any_of("\t"));
    return cells;
}

// A called pair as the data handler hands it back.
ReadHolderMD Pair(const std::string& id, float mean_qscore, const std::string& sequence = "ACGTTGCA") {
    ReadHolderMD pair;
    pair.read1.read_id = id + "_1";
    pair.read2.read_id = id + "_2";
    pair.read1.filename = "/data/reads/batch_0.rawh5";
    pair.read2.filename = "relative/batch_1.rawh5";
    pair.read1.run_id = "run9";
    pair.read2.run_id = "run9";
    pair.read1.sample_id = "smp";
    pair.read1.start_time_text = "2026-02-03T04:05:06Z";
    pair.read1.channel = 412;
    pair.read1.read_number = 17;
    pair.read1.start_time = 4000;
    pair.read2.start_time = 10000;
    pair.read1.sampling_rate = 4000.0f;
    pair.read2.sampling_rate = 4000.0f;
    pair.read1.duration = 9000;
    pair.read2.duration = 7000;
    pair.read1.trimmed_duration = 6000;
    pair.read2.trimmed_duration = 5005;
    pair.read1.median = 90.5f;
    pair.read2.median = 88.25f;
    pair.read1.mad = 7.125f;
    pair.read2.mad = 6.0f;
    pair.stride = 10;
    pair.sequence = sequence;
    pair.qualities = std::string(sequence.size(), '+');
    pair.mean_qscore = mean_qscore;
    pair.strand_score = 0.75f;
    return pair;
}

class TrimInFastqOutTest : public testing::Test {
protected:
    TrimInFastqOutTest() : dir(fs::temp_directory_path() / fs::unique_path("kvx-tifo-%%%%-%%%%")) {
        fs::create_directories(dir);
    }
    ~TrimInFastqOutTest() override { fs::remove_all(dir); }

    std::unique_ptr<TrimInFastqOut> Make(bool qscore_filtering, float min_qscore, std::size_t workers = 1,
                                         TrimInFastqOut::CalledReadReport report = {}) {
        return std::make_unique<TrimInFastqOut>(dir.string(), 4000, workers, 0.0f, 0.0f, summary().string(),
                                                PairSummaryColumns(), "none", true, min_qscore, qscore_filtering,
                                                report);
    }
    fs::path summary() const { return dir / "sequencing_summary.txt"; }

    fs::path dir;
};

}  // namespace

TEST_F(TrimInFastqOutTest, SummaryHeaderAndRowFormats) {
    {
        auto processor = Make(false, 7.0f);
        // The header is on disk before any row.
        EXPECT_EQ(Slurp(summary()), kHeader);
        auto pair = Pair("a", 9.25f);
        pair.strand_score = std::numeric_limits<float>::quiet_NaN();
        processor->PostProcess(pair, 0);
        EXPECT_TRUE(pair.passes_filtering);
    }
    const auto lines = Lines(Slurp(summary()));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1],
              "batch_0.rawh5\tbatch_1.rawh5\ta_1\ta_2\trun9\t412\t1.000000\t2.500000\t1.500000\t1.251250\t600\t500\t"
              "90.500000\t88.250000\t7.125000\t6.000000\t8\tTRUE\t9.250000\t0");
}

TEST_F(TrimInFastqOutTest, FilteringSplitsPassAndFail) {
    {
        auto processor = Make(true, 7.0f);
        auto exact = Pair("exact", 7.0f);  // equal to the threshold passes
        auto low = Pair("low", 6.99f);
        auto high = Pair("high", 12.0f);
        processor->PostProcess(exact, 0);
        processor->PostProcess(low, 0);
        processor->PostProcess(high, 0);
        EXPECT_TRUE(exact.passes_filtering);
        EXPECT_FALSE(low.passes_filtering);
        EXPECT_TRUE(high.passes_filtering);
    }
    const std::string pass = Slurp(dir / "pass" / "fastq_runid_run9_0.fastq");
    const std::string fail = Slurp(dir / "fail" / "fastq_runid_run9_0.fastq");
    EXPECT_EQ(pass,
              "@exact_1 runid=run9 sampleid=smp read=17 ch=412 start_time=2026-02-03T04:05:06Z\nACGTTGCA\n+\n++++++++\n"
              "@high_1 runid=run9 sampleid=smp read=17 ch=412 start_time=2026-02-03T04:05:06Z\nACGTTGCA\n+\n++++++++\n");
    EXPECT_EQ(fail.rfind("@low_1 runid=run9 ", 0), 0u);
    EXPECT_EQ(Lines(fail).size(), 4u);
    const auto lines = Lines(Slurp(summary()));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(Cells(lines[1])[17], "TRUE");
    EXPECT_EQ(Cells(lines[2])[17], "FALSE");
    EXPECT_EQ(Cells(lines[3])[17], "TRUE");
}

TEST_F(TrimInFastqOutTest, FailedPairGetsARowAndNoRecord) {
    std::atomic<int> reports{0};
    {
        auto processor = Make(false, 7.0f, 1, [&reports](const AsyncCaller::ReadHolder&) { ++reports; });
        auto failed = Pair("bad", 0.0f, "");
        failed.strand_score = 0.0f;
        failed.read2.filename.clear();
        processor->PostProcess(failed, 0);
        EXPECT_FALSE(failed.passes_filtering);
        auto nan = Pair("nan", std::numeric_limits<float>::quiet_NaN(), "");
        processor->PostProcess(nan, 0);
        EXPECT_FALSE(nan.passes_filtering);
    }
    EXPECT_EQ(reports, 2);
    const auto lines = Lines(Slurp(summary()));
    ASSERT_EQ(lines.size(), 3u);
    const auto cells = Cells(lines[1]);
    ASSERT_EQ(cells.size(), 20u);
    EXPECT_EQ(cells[1], "");  // no read file path
    EXPECT_EQ(cells[16], "0");
    EXPECT_EQ(cells[17], "FALSE");
    EXPECT_EQ(cells[18], "0.000000");
    EXPECT_EQ(Cells(lines[2])[18], "0");  // NaN mean qscore
    // Nothing but the summary in the save path.
    std::vector<std::string> names;
    for (fs::directory_iterator it(dir), end; it != end; ++it) {
        names.push_back(it->path().filename().string());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"sequencing_summary.txt"}));
}

TEST_F(TrimInFastqOutTest, MisuseAndOpenFailures) {
    TrimInFastqOut idle;
    auto pair = Pair("a", 9.0f);
    try {
        idle.PostProcess(pair, 0);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Attempted to post-process using default constructed TrimInFastqOut object.");
    }
    auto processor = Make(false, 7.0f);
    pair.dimension = 2;
    try {
        processor->PostProcess(pair, 0);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Unrecognized dimensionality of read object.");
    }
    pair.dimension = 1;
    EXPECT_THROW(processor->PostProcess(pair, 1), std::out_of_range);  // only worker 0 exists

    const std::string bad = (dir / "missing" / "sequencing_summary.txt").string();
    try {
        TrimInFastqOut(dir.string(), 4000, 1, 0.0f, 0.0f, bad, PairSummaryColumns(), "none", true, 7.0f, false);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "Could not open summary file '" + bad + "' for writing.");
    }
}

TEST_F(TrimInFastqOutTest, ConcurrentWorkersWriteWholeRows) {
    constexpr int kWorkers = 4;
    constexpr int kPairs = 200;
    {
        auto processor = Make(false, 7.0f, kWorkers);
        std::vector<std::thread> threads;
        for (int w = 0; w < kWorkers; ++w) {
            threads.emplace_back([&processor, w] {
                for (int i = 0; i < kPairs; ++i) {
                    auto pair = Pair("w" + std::to_string(w) + "p" + std::to_string(i), 8.0f);
                    processor->PostProcess(pair, w);
                }
            });
        }
        for (auto& t : threads) {
            t.join();
        }
    }
    const auto lines = Lines(Slurp(summary()));
    ASSERT_EQ(lines.size(), 1u + kWorkers * kPairs);
    for (std::size_t i = 1; i < lines.size(); ++i) {
        ASSERT_EQ(Cells(lines[i]).size(), 20u) << lines[i];
    }
    // One file per worker (all below the roll-over), numbered apart.
    std::size_t records = 0;
    for (int n = 0; n < kWorkers; ++n) {
        records += Lines(Slurp(dir / ("fastq_runid_run9_" + std::to_string(n) + ".fastq"))).size() / 4;
    }
    EXPECT_EQ(records, static_cast<std::size_t>(kWorkers * kPairs));
}

TEST(SummaryValuesTest, OtherColumnsAndSingleReads) {
    const Common::ValueFormatter f;
    auto pair = Pair("a", 9.0f);
    EXPECT_EQ(GetSummaryValue(pair, "duration1", f), "2.250000");
    EXPECT_EQ(GetSummaryValue(pair, "duration2", f), "1.750000");
    EXPECT_EQ(GetSummaryValue(pair, "num_events1", f), "900");
    EXPECT_EQ(GetSummaryValue(pair, "num_events2", f), "700");
    EXPECT_EQ(GetSummaryValue(pair, "calibration_strand_genome", f), "");
    EXPECT_EQ(GetSummaryValue(pair, "read_id3", f), "");
    EXPECT_EQ(GetSummaryValue(pair, "1", f), "");
    pair.read1.run_id.clear();
    EXPECT_EQ(GetSummaryValue(pair, "run_id", f), "");

    AsyncCaller::ReadHolder1D single;
    single.read.filename = "/x/y/file.rawh5";
    single.read.read_id = "r";
    single.read.channel = 3;
    single.read.start_time = 8000;
    single.read.trimmed_start = 2000;
    single.read.duration = 12000;
    single.read.trimmed_duration = 10000;
    single.read.sampling_rate = 4000.0f;
    single.stride = 5;
    single.sequence = "ACG";
    single.passes_filtering = true;
    EXPECT_EQ(GetSummaryValue(single, "filename", f), "file.rawh5");
    EXPECT_EQ(GetSummaryValue(single, "channel", f), "3");
    EXPECT_EQ(GetSummaryValue(single, "template_start", f), "2.500000");
    EXPECT_EQ(GetSummaryValue(single, "num_events", f), "2400");
    EXPECT_EQ(GetSummaryValue(single, "num_events_template", f), "2000");
    EXPECT_EQ(GetSummaryValue(single, "sequence_length_template", f), "3");
    EXPECT_EQ(GetSummaryValue(single, "passes_filtering", f), "TRUE");
    EXPECT_EQ(GetSummaryValue(single, "stay_prob", f), "");
    EXPECT_EQ(GetSummaryValue(single, "filename1", f), "");
}
