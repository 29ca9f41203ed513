#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "async_caller/read_holder_md.h"
#include "test_util.h"

using AsyncCaller::ChunkData;
using AsyncCaller::ChunkDataMD;
using AsyncCaller::ChunkList;
using AsyncCaller::ReadHolderMD;

namespace {

// A pair holder over its own signal arrays, strand 2's samples numbered from 10000 so that a window
// tells where it came from.
struct PairFixture {
    std::vector<float> s1, s2;
    ReadHolderMD holder;

    PairFixture(std::size_t n1, std::size_t n2, std::vector<std::uint64_t> map, std::uint64_t stride,
                std::uint64_t overlap) {
        s1.resize(n1);
        s2.resize(n2);
        std::iota(s1.begin(), s1.end(), 0.0f);
        std::iota(s2.begin(), s2.end(), 10000.0f);
        holder.SetRawData(s1.data(), n1, s2.data(), n2, false);
        holder.priorSamples = std::move(map);
        holder.priorStep = 10;
        holder.stride = stride;
        holder.overlap = overlap;
        holder.SetReadIndex(7);
    }
};

// A map with slope 1 everywhere except `slope` for entries [from, to).
std::vector<std::uint64_t> mapWithBulge(std::size_t entries, std::size_t from, std::size_t to, std::uint64_t slope) {
    std::vector<std::uint64_t> map(entries);
    for (std::size_t e = 1; e < entries; ++e) {
        map[e] = map[e - 1] + ((e - 1 >= from && e - 1 < to) ? 10 * slope : 10);
    }
    return map;
}

const ChunkDataMD& md(const std::unique_ptr<ChunkData>& c) { return static_cast<const ChunkDataMD&>(*c); }

}  // namespace

TEST(ReadHolderMDMakeChunks, CountOneTakesBothStrandsAndTheWholeMap) {
    PairFixture f(1000, 1000, mapWithBulge(100, 0, 0, 1), 2, 0);
    ChunkList chunks = f.holder.MakeChunks(600, 1);
    ASSERT_EQ(chunks.size(), 1u);
    const ChunkDataMD& c = md(chunks.front());
    EXPECT_EQ(c.dimension, 1);
    EXPECT_EQ(c.read_index, 7u);
    EXPECT_EQ(c.chunk_index, 0u);
    EXPECT_EQ(c.chunk_count, 1u);
    EXPECT_EQ(c.assigned_to, -1);
    EXPECT_EQ(c.raw1.data, f.s1.data());
    EXPECT_EQ(c.raw1.size, 1000u);
    EXPECT_EQ(c.raw2.data, f.s2.data());
    EXPECT_EQ(c.raw2.size, 1000u);
    EXPECT_EQ(c.events1, 500u);
    EXPECT_EQ(c.events2, 500u);
    EXPECT_EQ(c.priorStep, 10u);
    EXPECT_EQ(c.priorSamples, f.holder.priorSamples);
    EXPECT_EQ(c.list_node->get(), chunks.front().get());
}

TEST(ReadHolderMDMakeChunks, CutsRoundUpToTheMapStepAndOverlap) {
    // S1 = 1005, three chunks, overlap 5 events of stride 2: step 335, o = 10.
    PairFixture f(1005, 1005, mapWithBulge(100, 0, 0, 1), 2, 5);
    ChunkList chunks = f.holder.MakeChunks(1000, 3);
    ASSERT_EQ(chunks.size(), 3u);
    const std::uint64_t expectStart[] = {0, 340, 670};
    const std::uint64_t expectEnd[] = {350, 680, 1005};
    std::size_t k = 0;
    for (const auto& chunk : chunks) {
        const ChunkDataMD& c = md(chunk);
        SCOPED_TRACE(k);
        EXPECT_EQ(c.chunk_index, k);
        EXPECT_EQ(c.chunk_count, 3u);
        EXPECT_EQ(c.raw1[0], static_cast<float>(expectStart[k]));
        EXPECT_EQ(c.raw1.size, expectEnd[k] - expectStart[k]);
        EXPECT_EQ(c.events1, c.raw1.size / 2);
        // The identity map mirrors the window: strand 2 is counted from its end.
        const std::uint64_t b0 = expectStart[k] / 10;
        const std::uint64_t b1 = std::min<std::uint64_t>(expectEnd[k] / 10, 100);
        const std::uint64_t y1 = b1 == 100 ? 1005 : 10 * b1;
        EXPECT_EQ(c.raw2.size, y1 - 10 * b0);
        EXPECT_EQ(c.raw2[0], 10000.0f + static_cast<float>(1005 - y1));
        ASSERT_EQ(c.priorSamples.size(), b1 - b0);
        for (std::size_t t = 0; t < c.priorSamples.size(); ++t) {
            EXPECT_EQ(c.priorSamples[t], 10 * t);
        }
        ++k;
    }
}

TEST(ReadHolderMDMakeChunks, AddsOneChunkWhenTooLongOnEitherStrand) {
    // Strand 1 alone: step 500 + priorStep 10 exceeds the limit of 250 events * 2 samples.
    PairFixture f(1000, 1000, mapWithBulge(100, 0, 0, 1), 2, 0);
    ChunkList chunks = f.holder.MakeChunks(250, 2);
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(md(chunks.front()).chunk_count, 3u);
    EXPECT_EQ(md(chunks.front()).raw1.size, 340u);  // step 333 rounded up to 340

    // Strand 2 three times longer on average: 510 * 3 > 1200.
    PairFixture g(1000, 3000, mapWithBulge(100, 0, 100, 3), 2, 0);
    EXPECT_EQ(g.holder.MakeChunks(600, 2).size(), 3u);
    // Within the limit the count stays as asked.
    PairFixture h(1000, 1000, mapWithBulge(100, 0, 0, 1), 2, 0);
    EXPECT_EQ(h.holder.MakeChunks(600, 2).size(), 2u);
}

TEST(ReadHolderMDMakeChunks, SplitsTheOneChunkThatIsTooLongOnStrand2) {
    // Four chunks of 250 strand-1 samples; the map triples its slope over the second chunk, whose
    // strand-2 window (750) exceeds the limit (500). Its halves (390 and 360) fit.
    const auto map = mapWithBulge(100, 25, 50, 3);
    PairFixture f(1000, map.back() + 10, map, 1, 0);
    ChunkList chunks = f.holder.MakeChunks(500, 4);
    ASSERT_EQ(chunks.size(), 5u);
    const std::uint64_t starts[] = {0, 250, 380, 500, 750};
    std::size_t k = 0;
    for (const auto& chunk : chunks) {
        const ChunkDataMD& c = md(chunk);
        SCOPED_TRACE(k);
        EXPECT_EQ(c.chunk_index, k);
        EXPECT_EQ(c.chunk_count, 5u);
        EXPECT_EQ(c.raw1[0], static_cast<float>(starts[k]));
        EXPECT_LE(c.raw2.size, 500u);
        ++k;
    }
    EXPECT_EQ(md(*std::next(chunks.begin())).raw2.size, 390u);
    EXPECT_EQ(md(*std::next(chunks.begin(), 2)).raw2.size, 360u);
}

TEST(ReadHolderMDMakeChunks, GivesUpWhenAHalfIsStillTooLong) {
    // A fivefold slope: the window of 1250 splits into halves of 650 and 600. The first is still above
    // the limit of 600, and a half is never split again: the read passes uncalled.
    const auto map = mapWithBulge(100, 25, 50, 5);
    PairFixture f(1000, map.back() + 10, map, 1, 0);
    EXPECT_TRUE(f.holder.MakeChunks(600, 4).empty());
}

TEST(ReadHolderMDMakeChunks, EndPastTheMapUsesTheEndOfStrand2) {
    // The map stops at entry 95 although strand 1 runs to 1000: the last chunk ends at S2.
    PairFixture f(1000, 1200, mapWithBulge(95, 0, 0, 1), 1, 0);
    ChunkList chunks = f.holder.MakeChunks(2000, 2);
    ASSERT_EQ(chunks.size(), 2u);
    const ChunkDataMD& last = md(chunks.back());
    EXPECT_EQ(last.raw2.data, f.s2.data());  // window [S2 - S2, S2 - map[50])
    EXPECT_EQ(last.raw2.size, 1200u - 500u);
    EXPECT_EQ(last.priorSamples.size(), 45u);
}

TEST(ReadHolderMD, RawDataOwnershipAndCopies) {
    ReadHolderMD holder;
    EXPECT_EQ(TestSupport::ErrorOf([&] { holder.SetRawData(nullptr, 3, nullptr, 0, false); }),
              "Cannot view nullptr with size > 0");
    holder.SetRawData(new float[4](), 4, new float[2](), 2, true);
    holder.read1.read_id = "a";
    holder.read2.trimmed_duration = 9;
    holder.sequence = "ACGT";
    EXPECT_TRUE(holder.owns_raw);
    EXPECT_EQ(holder.GetDuration(), 9u);

    ReadHolderMD clone(holder);  // results and metadata, never the signal
    EXPECT_FALSE(clone.owns_raw);
    EXPECT_EQ(clone.raw1.size, 0u);
    EXPECT_EQ(clone.sequence, "ACGT");
    EXPECT_EQ(clone.read1.read_id, "a");

    float* data = holder.raw1.data;
    ReadHolderMD moved(std::move(holder));  // the signal goes along, its memory stays put
    EXPECT_TRUE(moved.owns_raw);
    EXPECT_EQ(moved.raw1.data, data);
    EXPECT_FALSE(holder.owns_raw);
    EXPECT_EQ(holder.raw1.data, nullptr);

    EXPECT_EQ(TestSupport::ErrorOf([&] { moved.GetSequenceLength(); }),
              "GetSequenceLength() method not available for multi-dimensional implementation.");
    moved.ClearRawData();
    EXPECT_FALSE(moved.owns_raw);
    EXPECT_EQ(moved.raw2.size, 0u);
}
