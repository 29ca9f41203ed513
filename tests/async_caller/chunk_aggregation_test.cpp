#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "async_caller/read_holder_md.h"
#include "log_capture.h"

using AsyncCaller::ChunkDataMD;
using AsyncCaller::ReadHolderMD;

namespace {

const char* const kPrefix = "Chunk aggregation failed for read pair ('r1', 'r2').";

void addChunk(ReadHolderMD& holder, const std::string& sequence, char quality, std::uint64_t events,
              float score = 0.0f) {
    auto chunk = std::make_unique<ChunkDataMD>();
    chunk->sequence = sequence;
    chunk->qualities = std::string(sequence.size(), quality);
    chunk->events1 = events / 2;
    chunk->events2 = events - events / 2;
    chunk->score = score;
    chunk->chunk_index = holder.chunks.size();
    holder.chunks.push_back(std::move(chunk));
}

ReadHolderMD makeHolder(std::uint64_t overlap) {
    ReadHolderMD holder;
    holder.read1.read_id = "r1";
    holder.read2.read_id = "r2";
    holder.overlap = overlap;
    return holder;
}

// Aggregates and returns the failure tail that was logged, or "" if none.
std::string aggregate(ReadHolderMD& holder) {
    TestSupport::LogCapture log;
    holder.Aggregate();
    for (const std::string& m : log.Info()) {
        if (m.rfind(kPrefix, 0) == 0) {
            return m.substr(std::string(kPrefix).size());
        }
    }
    return "";
}

}  // namespace

TEST(ReadHolderMDAggregate, OneChunkPassesAsItIs) {
    ReadHolderMD holder = makeHolder(10);
    addChunk(holder, "ACGTACGT", '+', 40, 4.0f);
    EXPECT_EQ(aggregate(holder), "");
    EXPECT_EQ(holder.sequence, "ACGTACGT");
    EXPECT_EQ(holder.qualities, "++++++++");
    EXPECT_FLOAT_EQ(holder.strand_score, 0.5f);
    EXPECT_NEAR(holder.mean_qscore, 10.0f, 1e-4);
    EXPECT_TRUE(holder.chunks.empty());
}

TEST(ReadHolderMDAggregate, PerfectCopyOverlapJoinsAtItsFirstBase) {
    // 2 * 80 bases / 160 events * 10 events of overlap: B = 10 bases.
    const std::string overlap = "GATTACAGCA";
    const std::string a = std::string("CCCCCTTTTTGGGGGAAAAACCCCCTTTTT") + overlap;
    const std::string b = overlap + "TTGGAACCTTGGAACCTTGGAACCTTGGAA";
    ReadHolderMD holder = makeHolder(10);
    addChunk(holder, a, '+', 80, 1.0f);
    addChunk(holder, b, '5', 80, 3.0f);
    EXPECT_EQ(aggregate(holder), "");
    EXPECT_EQ(holder.sequence, a.substr(0, 30) + b);
    // The overlap's bases and qualities come from the second chunk, each once.
    EXPECT_EQ(holder.qualities, std::string(30, '+') + std::string(40, '5'));
    // Scores over the full chunk lengths, overlaps included.
    EXPECT_FLOAT_EQ(holder.strand_score, 4.0f / 80.0f);
    EXPECT_TRUE(holder.chunks.empty());
}

TEST(ReadHolderMDAggregate, OneMismatchLeavesTheLongerHalfAndTiesGoEarly) {
    const std::string head(30, 'C');
    const std::string tail(30, 'G');
    {
        // Mismatch at 3: runs of 3 and 6; the join falls at overlap base 4.
        const std::string o1 = "ATTACATTAT";
        std::string o2 = o1;
        o2[3] = 'G';
        ReadHolderMD holder = makeHolder(10);
        addChunk(holder, head + o1, '+', 80);
        addChunk(holder, o2 + tail, '5', 80);
        EXPECT_EQ(aggregate(holder), "");
        EXPECT_EQ(holder.sequence, head + o1.substr(0, 4) + o2.substr(4) + tail);
        EXPECT_EQ(holder.qualities, std::string(34, '+') + std::string(36, '5'));
    }
    {
        // Mismatch at 5 of 11: two runs of 5; the first stands. B = 2 * 82 / 164 * 11 = 11.
        const std::string o1 = "ATTACATTATA";
        std::string o2 = o1;
        o2[5] = 'G';
        ReadHolderMD holder = makeHolder(11);
        addChunk(holder, head + o1, '+', 82);
        addChunk(holder, o2 + tail, '5', 82);
        EXPECT_EQ(aggregate(holder), "");
        EXPECT_EQ(holder.qualities, std::string(30, '+') + std::string(41, '5'));
    }
}

TEST(ReadHolderMDAggregate, EachFailureIsLoggedAndLeavesAnEmptyResult) {
    {
        ReadHolderMD holder = makeHolder(10);
        TestSupport::LogCapture log;
        holder.Aggregate();
        EXPECT_EQ(log.Info(), std::vector<std::string>{"No chunks received for read pair ('r1', 'r2')."});
    }
    // A middle chunk of exactly B bases whose first join starts at base 5 and whose second ends at
    // base 4: the chunk would have to end before it starts.
    const std::string middle = "ATTACAGTAT";
    std::string left = middle, right = middle;
    left[4] = 'G';
    right[3] = 'C';
    const struct {
        std::uint64_t overlap;
        std::vector<std::pair<std::string, std::uint64_t>> chunks;  // sequence, events
        std::string text;
    } cases[] = {
        {10, {{"ACGT", 8}, {"", 8}}, " One or more chunks could not be basecalled."},
        // B = 0: the overlap aligns to an empty path.
        {0, {{"ACGTACGT", 8}, {"ACGTACGT", 8}}, " Not enough consecutive perfect matches found (needed 1, found 0)."},
        // B = 2 * 16 / 16 * 10 = 20 bases, longer than either chunk.
        {10, {{"ACGTACGT", 8}, {"ACGTACGT", 8}}, " Chunk sequence was shorter than the overlap."},
        // Overlaps with nothing in common align base against base with no match at all.
        {10, {{std::string(30, 'C') + std::string(10, 'A'), 80}, {std::string(10, 'C') + std::string(30, 'G'), 80}},
         " Not enough consecutive perfect matches found (needed 1, found 0)."},
        // The overlaps agree only after a shift of six: four aligned pairs span less than half of B.
        {10, {{std::string(30, 'C') + "GGGGGGAAAA", 80}, {"AAAATTTTTT" + std::string(30, 'C'), 80}},
         " Bad alignment of overlap sections."},
        {10, {{std::string(20, 'G') + left, 60}, {middle, 20}, {right + std::string(20, 'G'), 60}},
         " Inconsistent alignment of overlap sections."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ReadHolderMD holder = makeHolder(c.overlap);
        for (const auto& chunk : c.chunks) {
            addChunk(holder, chunk.first, '+', chunk.second, 1.0f);
        }
        EXPECT_EQ(aggregate(holder), c.text);
        EXPECT_TRUE(holder.sequence.empty());
        EXPECT_TRUE(holder.qualities.empty());
        EXPECT_EQ(holder.strand_score, 0.0f);
        EXPECT_EQ(holder.chunks.size(), c.chunks.size());  // left with the holder
    }
}

TEST(ReadHolderMDAggregate, MeanQscoreIsTakenOverErrorProbabilities) {
    ReadHolderMD holder = makeHolder(10);
    auto chunk = std::make_unique<ChunkDataMD>();
    chunk->sequence = "AC";
    chunk->qualities = "+5";  // q 10 and q 20: error 0.1 and 0.01
    holder.chunks.push_back(std::move(chunk));
    holder.Aggregate();
    EXPECT_NEAR(holder.mean_qscore, -10.0 * std::log10(0.055), 1e-4);
    EXPECT_GT(std::fabs(holder.mean_qscore - 15.0f), 2.0f);
}
