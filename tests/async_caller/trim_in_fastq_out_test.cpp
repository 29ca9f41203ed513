#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include "async_caller/read_holder_md.h"
#include "async_caller/summary_values.h"
#include "async_caller/trim_in_fastq_out.h"
#include "test_util.h"

namespace fs = boost::filesystem;
using namespace AsyncCaller;
using namespace TestSupport;

namespace {

// The pieces of `text` between separators, without the empty one after a closing newline.
std::vector<std::string> Split(const std::string& text, const char* separator = "\n") {
    std::vector<std::string> out;
    boost::split(out, text, boost::is_any_of(separator));
    if (out.back().empty()) out.pop_back();
    return out;
}

// A called pair as the data handler hands it back.
ReadHolderMD Pair(const std::string& id, float mean_qscore, const std::string& sequence = "ACGTTGCA") {
    ReadHolderMD pair;
    const auto strand = [&](ReadMeta& r, const char* file, std::uint64_t start,
                            std::uint64_t duration, std::uint64_t trimmed, float median, float mad) {
        r.read_id = id + (&r == &pair.read1 ? "_1" : "_2");
        r.filename = file;
        r.run_id = "run9";
        r.sampling_rate = 4000.0f;
        std::tie(r.start_time, r.duration, r.trimmed_duration, r.median, r.mad) =
            std::make_tuple(start, duration, trimmed, median, mad);
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
    std::unique_ptr<TrimInFastqOut> Make(bool qscore_filtering, float min_qscore, std::size_t workers = 1,
                                         TrimInFastqOut::CalledReadReport report = {}) {
        return std::make_unique<TrimInFastqOut>(dir.string(), 4000, workers, 0.0f, 0.0f, summary().string(),
                                                PairSummaryColumns(), "none", true, min_qscore, qscore_filtering,
                                                report);
    }
    fs::path summary() const { return dir / "sequencing_summary.txt"; }

    const TempDir scratch;
    const fs::path dir = scratch.path;
};

}  // namespace

// Every pair gets a summary row; only the called ones get a FASTQ record, in the folder of their
// mean qscore.
TEST_F(TrimInFastqOutTest, SummaryRowsAndFastqRecordsWithFiltering) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::atomic<int> reports{0};
    {
        auto processor = Make(true, 7.0f, 2, [&reports](const ReadHolder&) { ++reports; });
        auto exact = Pair("exact", 7.0f);  // equal to the threshold passes
        exact.strand_score = nan;
        auto low = Pair("low", 6.99f), high = Pair("high", 12.0f), failed = Pair("bad", 0.0f, "");
        failed.read2.filename.clear();
        failed.read1.run_id.clear();
        auto unscored = Pair("nan", nan, "");
        for (auto* pair : {&exact, &low, &high, &failed, &unscored}) processor->PostProcess(*pair, 1);
        EXPECT_TRUE(exact.passes_filtering && high.passes_filtering);
        EXPECT_FALSE(low.passes_filtering || failed.passes_filtering || unscored.passes_filtering);
    }
    EXPECT_EQ(reports, 5);
    const auto lines = Split(Slurp(summary()));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[1],
              "batch_0.rawh5\tbatch_1.rawh5\texact_1\texact_2\trun9\t412\t1.000000\t2.500000\t1.500000\t1.251250\t"
              "600\t500\t90.500000\t88.250000\t7.125000\t6.000000\t8\tTRUE\t7.000000\t0");
    EXPECT_EQ(Split(lines[2], "\t")[17], "FALSE");
    EXPECT_EQ(Split(lines[3], "\t")[17], "TRUE");
    const auto cells = Split(lines[4], "\t");
    ASSERT_EQ(cells.size(), 20u);
    EXPECT_EQ(cells[1] + cells[4], "");  // no read file path, no run id
    EXPECT_EQ(cells[16] + cells[17] + cells[18], "0FALSE0.000000");
    EXPECT_EQ(Split(lines[5], "\t")[18], "0");  // NaN mean qscore
    const std::string tail = " runid=run9 sampleid=smp read=17 ch=412 start_time=2026-02-03T04:05:06Z\nACGTTGCA\n+\n";
    EXPECT_EQ(Slurp(dir / "pass" / "fastq_runid_run9_0.fastq"),
              "@exact_1" + tail + "++++++++\n@high_1" + tail + "++++++++\n");
    const std::string fail = Slurp(dir / "fail" / "fastq_runid_run9_0.fastq");
    EXPECT_EQ(fail.rfind("@low_1 runid=run9 ", 0), 0u);
    EXPECT_EQ(Split(fail).size(), 4u);
}

TEST_F(TrimInFastqOutTest, AnUnwritableSummaryIsRefused) {
    const std::string bad = (dir / "missing" / "sequencing_summary.txt").string();
    EXPECT_EQ(ErrorOf([&] {
                  TrimInFastqOut(dir.string(), 4000, 1, 0.0f, 0.0f, bad, PairSummaryColumns(), "none", true, 7.0f,
                                 false);
              }),
              "Could not open summary file '" + bad + "' for writing.");
}
