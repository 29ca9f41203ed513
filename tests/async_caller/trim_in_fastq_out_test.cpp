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
#include "test_util.h"

namespace fs = boost::filesystem;
using AsyncCaller::GetSummaryValue;
using AsyncCaller::PairSummaryColumns;
using AsyncCaller::ReadHolderMD;
using AsyncCaller::TrimInFastqOut;
using TestSupport::Slurp;

namespace {

const std::string kHeader =
    "filename1\tfilename2\tread_id1\tread_id2\trun_id\tchannel\tstart_time1\tstart_time2\ttrimmed_duration1\t"
    "trimmed_duration2\ttrimmed_events1\ttrimmed_events2\tmedian1\tmedian2\tmad1\tmad2\tsequence_length\t"
    "passes_filtering\tmean_qscore\tstrand_score\n";

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
    const auto strand = [&](AsyncCaller::ReadMeta& r, const char* file, std::uint64_t start,
                            std::uint64_t duration, std::uint64_t trimmed, float median, float mad) {
        r.read_id = id + (&r == &pair.read1 ? "_1" : "_2");
        r.filename = file;
        r.run_id = "run9";
        r.start_time = start;
        r.sampling_rate = 4000.0f;
        r.duration = duration;
        r.trimmed_duration = trimmed;
        r.median = median;
        r.mad = mad;
    };
    strand(pair.read1, "/data/reads/batch_0.rawh5", 4000, 9000, 6000, 90.5f, 7.125f);
    strand(pair.read2, "relative/batch_1.rawh5", 10000, 7000, 5005, 88.25f, 6.0f);
    pair.read1.sample_id = "smp";
    pair.read1.start_time_text = "2026-02-03T04:05:06Z";
    pair.read1.channel = 412;
    pair.read1.read_number = 17;
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
    using TestSupport::ErrorOf;
    TrimInFastqOut idle;
    auto pair = Pair("a", 9.0f);
    EXPECT_EQ(ErrorOf([&] { idle.PostProcess(pair, 0); }),
              "Attempted to post-process using default constructed TrimInFastqOut object.");
    auto processor = Make(false, 7.0f);
    pair.dimension = 2;
    EXPECT_EQ(ErrorOf([&] { processor->PostProcess(pair, 0); }), "Unrecognized dimensionality of read object.");
    pair.dimension = 1;
    EXPECT_THROW(processor->PostProcess(pair, 1), std::out_of_range);  // only worker 0 exists

    const std::string bad = (dir / "missing" / "sequencing_summary.txt").string();
    const auto open = [&] {
        TrimInFastqOut(dir.string(), 4000, 1, 0.0f, 0.0f, bad, PairSummaryColumns(), "none", true, 7.0f, false);
    };
    EXPECT_EQ(ErrorOf(open), "Could not open summary file '" + bad + "' for writing.");
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
    pair.read1.run_id.clear();
    AsyncCaller::ReadHolder1D single;
    single.read.filename = "/x/y/file.rawh5";
    single.read.channel = 3;
    single.read.start_time = 8000;
    single.read.trimmed_start = 2000;
    single.read.duration = 12000;
    single.read.trimmed_duration = 10000;
    single.read.sampling_rate = 4000.0f;
    single.stride = 5;
    single.sequence = "ACG";
    single.passes_filtering = true;
    const struct {
        const AsyncCaller::ReadHolder& holder;
        const char* column;
        const char* text;  // "" also for the columns a holder of that kind does not have
    } cases[] = {
        {pair, "duration1", "2.250000"}, {pair, "duration2", "1.750000"}, {pair, "num_events1", "900"},
        {pair, "num_events2", "700"}, {pair, "calibration_strand_genome", ""}, {pair, "read_id3", ""},
        {pair, "1", ""}, {pair, "run_id", ""},
        {single, "filename", "file.rawh5"}, {single, "channel", "3"}, {single, "template_start", "2.500000"},
        {single, "num_events", "2400"}, {single, "num_events_template", "2000"},
        {single, "sequence_length_template", "3"}, {single, "passes_filtering", "TRUE"}, {single, "stay_prob", ""},
        {single, "filename1", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GetSummaryValue(c.holder, c.column, f), c.text) << c.column;
    }
}
