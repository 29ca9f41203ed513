#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "async_caller/read_holder_1d.h"
#include "test_util.h"

using AsyncCaller::ChunkData1D;
using AsyncCaller::ReadHolder1D;

namespace {

// A k = 1 chunk: each event's state is a base, called with probability 0.9.
std::unique_ptr<ChunkData1D> chunk1(const std::vector<int>& states, float score = 1.0f) {
    auto c = std::make_unique<ChunkData1D>();
    c->states = states;
    c->moves.assign(states.size(), 1);
    c->weights.assign(states.size(), 1.0f);
    c->kmerLength = 1;
    c->posterior_cols = 4;
    for (const int s : states) {
        for (int b = 0; b < 4; ++b) {
            c->posteriors.push_back(b == s ? 0.9f : 0.1f / 3.0f);
        }
    }
    c->score = score;
    return c;
}

std::string errorOf(ReadHolder1D& holder) {
    return TestSupport::ErrorOf([&] { holder.Aggregate(); });
}

}  // namespace

TEST(ReadHolder1D, MakeChunksSplitsEventsWithOverlap) {
    std::vector<float> signal(1000);
    std::iota(signal.begin(), signal.end(), 0.0f);
    ReadHolder1D holder;
    holder.SetRawData(signal.data(), signal.size(), false);
    holder.read.trimmed_duration = 1000;
    holder.stride = 10;
    holder.overlap = 4;
    // 100 events in 3: 34 per chunk, plus the overlap of 4 within a limit of 38.
    AsyncCaller::ChunkList chunks = holder.MakeChunks(38, 3);
    ASSERT_EQ(chunks.size(), 3u);
    const std::uint64_t begins[] = {0, 30, 64};
    const std::uint64_t ends[] = {34, 68, 100};
    std::size_t k = 0;
    for (const auto& chunk : chunks) {
        const auto& c = static_cast<const ChunkData1D&>(*chunk);
        EXPECT_EQ(c.dimension, 0);
        EXPECT_EQ(c.chunk_count, 3u);
        EXPECT_EQ(c.raw[0], static_cast<float>(begins[k] * 10));
        EXPECT_EQ(c.events, ends[k] - begins[k]);
        EXPECT_EQ(c.raw.size, (ends[k] - begins[k]) * 10);
        ++k;
    }
    EXPECT_TRUE(holder.MakeChunks(37, 3).empty());
    EXPECT_EQ(holder.MakeChunks(100, 1).size(), 1u);
    EXPECT_TRUE(holder.MakeChunks(99, 1).empty());
    EXPECT_TRUE(holder.MakeChunks(100, 0).empty());
}

TEST(ReadHolder1D, AggregateDropsHalfTheOverlapAtEachInnerBoundary) {
    ReadHolder1D holder;
    holder.overlap = 2;
    holder.chunks.push_back(chunk1({0, 1, 2, 3}, 2.0f));  // its last event is dropped
    holder.chunks.push_back(chunk1({3, 2, 1}, 3.0f));     // its first event is dropped
    EXPECT_EQ(holder.GetSequenceLength(), 5u);
    holder.Aggregate();
    EXPECT_EQ(holder.sequence, "ACGGC");
    EXPECT_EQ(holder.qualities, "+++++");  // p = 0.9: q 10
    EXPECT_FLOAT_EQ(holder.strand_score, 1.0f);
    EXPECT_NEAR(holder.mean_qscore, 10.0f, 1e-4);
    EXPECT_TRUE(holder.chunks.empty());
}

TEST(ReadHolder1D, ZeroEventsAreLegalOnlyFromABasecallService) {
    ReadHolder1D served;
    auto chunk = std::make_unique<ChunkData1D>();
    chunk->sequence = "ACGT";
    chunk->qualities = "5555";
    served.chunks.push_back(std::move(chunk));
    served.Aggregate();
    EXPECT_EQ(served.sequence, "ACGT");
    EXPECT_EQ(served.qualities, "5555");

    ReadHolder1D empty;
    empty.chunks.push_back(std::make_unique<ChunkData1D>());
    EXPECT_EQ(errorOf(empty),
              "We have zero events and are not aggregating from a basecall server. Something has gone wrong.");
    empty.chunks.push_back(std::make_unique<ChunkData1D>());
    EXPECT_EQ(errorOf(empty), "We have zero events and more than one chunk. Something has gone wrong.");
}
