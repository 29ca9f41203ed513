#include "async_caller/read_holder_md.h"
#include "test_util.h"

using namespace AsyncCaller;

namespace {

// A map with slope 1 everywhere except `slope` for entries [from, to).
std::vector<std::uint64_t> mapWithBulge(std::size_t entries, std::size_t from, std::size_t to, std::uint64_t slope) {
    std::vector<std::uint64_t> map(entries);
    for (std::size_t e = 1; e < entries; ++e) map[e] = map[e - 1] + ((e - 1 >= from && e - 1 < to) ? 10 * slope : 10);
    return map;
}

// A pair holder over its own signal arrays, strand 2's samples numbered from 10000 so that a window
// tells where it came from; strand 2 defaults to the end of the map plus one step.
struct Signals {
    std::vector<float> s1, s2;
    ReadHolderMD pair;

    Signals(std::size_t n1, std::vector<std::uint64_t> map, std::uint64_t stride, std::uint64_t overlap,
            std::size_t n2 = 0)
        : s1(n1), s2(n2 ? n2 : map.back() + 10) {
        std::iota(s1.begin(), s1.end(), 0.0f);
        std::iota(s2.begin(), s2.end(), 10000.0f);
        pair.SetRawData(s1.data(), n1, s2.data(), s2.size(), false);
        pair.priorSamples = std::move(map);
        pair.priorStep = 10;
        pair.stride = stride;
        pair.overlap = overlap;
        pair.SetReadIndex(7);
    }
};

const ChunkDataMD& md(const std::unique_ptr<ChunkData>& c) { return static_cast<const ChunkDataMD&>(*c); }

}  // namespace

TEST(ReadHolderMakeChunks, ChunkCounts) {
    const auto identity = mapWithBulge(100, 0, 0, 1);
    const struct {
        std::vector<std::uint64_t> map;
        std::uint64_t stride, overlap, n2, limit, count, expect;
    } cases[] = {
        {identity, 2, 0, 1000, 600, 1, 1}, {identity, 2, 0, 1000, 600, 2, 2},
        // One more chunk when too long on strand 1 (step 500 + 10 > 250 * 2), or on strand 2 (510 * 3 > 1200).
        {identity, 2, 0, 1000, 250, 2, 3}, {mapWithBulge(100, 0, 100, 3), 2, 0, 3000, 600, 2, 3},
        // The one chunk too long on strand 2 is split in two...
        {mapWithBulge(100, 25, 50, 3), 1, 0, 0, 500, 4, 5},
        // ...and a half still too long (650 of a 1250 window, limit 600) is never split again.
        {mapWithBulge(100, 25, 50, 5), 1, 0, 0, 600, 4, 0},
    };
    for (const auto& c : cases) {
        Signals s(1000, c.map, c.stride, c.overlap, c.n2);
        ChunkList chunks = s.pair.MakeChunks(c.limit, c.count);
        ASSERT_EQ(chunks.size(), c.expect) << c.limit << " " << c.count;
        std::uint64_t k = 0, end = 0;
        for (const auto& chunk : chunks) {
            EXPECT_EQ(chunk->dimension, 1);
            EXPECT_EQ(chunk->chunk_index, k++);
            EXPECT_EQ(chunk->chunk_count, c.expect);
            EXPECT_EQ(chunk->list_node->get(), chunk.get());
            EXPECT_LE(md(chunk).raw2.size, c.limit * c.stride);
            EXPECT_EQ(md(chunk).events1, md(chunk).raw1.size / c.stride);
            end = static_cast<std::uint64_t>(md(chunk).raw1[0]) + md(chunk).raw1.size;
        }
        EXPECT_EQ(end, c.expect ? 1000u : 0u);  // the last chunk ends at the end of strand 1
    }
    // One chunk takes both strands and the whole map.
    Signals s(1000, identity, 2, 0, 1000);
    const ChunkList list = s.pair.MakeChunks(600, 1);
    const ChunkDataMD& one = md(list.front());
    EXPECT_TRUE(one.raw1.data == s.s1.data() && one.raw2.data == s.s2.data());
    EXPECT_EQ(TestSupport::Fields(one.read_index, one.raw2.size, one.events2, one.priorStep), "7 1000 500 10");
    EXPECT_EQ(one.priorSamples, s.pair.priorSamples);
}

TEST(ReadHolderMakeChunks, Windows) {
    std::size_t k = 0;
    // S1 = 1005, three chunks, overlap 5 events of stride 2: step 335, cuts round up to the map
    // step, o = 10. The identity map mirrors the window: strand 2 is counted from its end.
    Signals p(1005, mapWithBulge(100, 0, 0, 1), 2, 5, 1005);
    for (const auto& chunk : p.pair.MakeChunks(1000, 3)) {
        const ChunkDataMD& c = md(chunk);
        const std::uint64_t start[] = {0, 340, 670}, end[] = {350, 680, 1005};
        EXPECT_EQ(c.raw1[0], static_cast<float>(start[k]));
        EXPECT_EQ(c.raw1.size, end[k] - start[k]);
        const std::uint64_t b0 = start[k] / 10, b1 = std::min<std::uint64_t>(end[k] / 10, 100);
        const std::uint64_t y1 = b1 == 100 ? 1005 : 10 * b1;
        EXPECT_EQ(c.raw2.size, y1 - 10 * b0);
        EXPECT_EQ(c.raw2[0], 10000.0f + static_cast<float>(1005 - y1));
        ASSERT_EQ(c.priorSamples.size(), b1 - b0);
        for (std::size_t t = 0; t < c.priorSamples.size(); ++t) EXPECT_EQ(c.priorSamples[t], 10 * t);
        ++k;
    }
    // Four chunks of 250; the map triples its slope over the second, whose strand-2 window (750)
    // exceeds the limit (500): its halves hold 390 and 360 samples.
    Signals split(1000, mapWithBulge(100, 25, 50, 3), 1, 0);
    std::vector<std::uint64_t> starts, sizes;
    for (const auto& chunk : split.pair.MakeChunks(500, 4)) {
        starts.push_back(static_cast<std::uint64_t>(md(chunk).raw1[0]));
        sizes.push_back(md(chunk).raw2.size);
    }
    EXPECT_EQ(starts, (std::vector<std::uint64_t>{0, 250, 380, 500, 750}));
    EXPECT_EQ(sizes[1], 390u);
    EXPECT_EQ(sizes[2], 360u);
    // The map stops at entry 95 although strand 1 runs to 1000: the last chunk ends at S2.
    Signals past(1000, mapWithBulge(95, 0, 0, 1), 1, 0, 1200);
    ChunkList chunks = past.pair.MakeChunks(2000, 2);
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(md(chunks.back()).raw2.data, past.s2.data());  // window [S2 - S2, S2 - map[50])
    EXPECT_EQ(md(chunks.back()).raw2.size, 1200u - 500u);
    EXPECT_EQ(md(chunks.back()).priorSamples.size(), 45u);
}
