#include "test_util.h"
#include "async_caller/read_holder_md.h"
#include "log_capture.h"

using AsyncCaller::ReadHolderMD;

namespace {

const std::string kPrefix = "Chunk aggregation failed for read pair ('r1', 'r2').";

// Chunks given as (sequence, events), each of one quality; `quality` holds one per chunk or one for all.
ReadHolderMD makeHolder(std::uint64_t overlap, const std::vector<std::pair<std::string, std::uint64_t>>& chunks,
                        const std::string& quality = "+") {
    ReadHolderMD holder;
    holder.read1.read_id = "r1";
    holder.read2.read_id = "r2";
    holder.overlap = overlap;
    for (const auto& c : chunks) {
        auto chunk = std::make_unique<AsyncCaller::ChunkDataMD>();
        chunk->sequence = c.first;
        chunk->qualities = std::string(c.first.size(), quality[std::min(holder.chunks.size(), quality.size() - 1)]);
        chunk->events1 = c.second / 2;
        chunk->events2 = c.second - c.second / 2;
        chunk->score = static_cast<float>(holder.chunks.size() * 2 + 1);  // 1, 3, 5...
        chunk->chunk_index = holder.chunks.size();
        holder.chunks.push_back(std::move(chunk));
    }
    return holder;
}

// Aggregates and returns the line that was logged, without the failure prefix, or "" if none.
std::string aggregate(ReadHolderMD& holder) {
    TestSupport::LogCapture log;
    holder.Aggregate();
    const std::vector<std::string> lines = log.Info();
    if (lines.empty()) return "";
    return lines[0].rfind(kPrefix, 0) == 0 ? lines[0].substr(kPrefix.size()) : lines[0];
}

}  // namespace

TEST(ReadHolderMDAggregate, ChunksJoinWhereTheLongestRunOfMatchesBegins) {
    const std::string head(30, 'C'), tail(30, 'G');
    const std::string o = "ATTACATTATA";
    std::string at3 = o.substr(0, 10), at5 = o;
    at3[3] = 'G';  // runs of 3 and 6: the join falls at overlap base 4
    at5[5] = 'G';  // two runs of 5 in 11: the first stands
    const struct {
        std::uint64_t overlap, events;
        std::string a, b;
        std::size_t fromA;  // bases (and qualities) taken from the first chunk
    } cases[] = {
        // 2 * 80 bases / 160 events * 10 events of overlap: B = 10 bases; a perfect copy joins at its first base.
        {10, 80, head + o.substr(0, 10), o.substr(0, 10) + tail, 30},
        {10, 80, head + o.substr(0, 10), at3 + tail, 34},
        {11, 82, head + o, at5 + tail, 30},  // B = 2 * 82 / 164 * 11 = 11
    };
    for (const auto& c : cases) {
        ReadHolderMD holder = makeHolder(c.overlap, {{c.a, c.events}, {c.b, c.events}}, "+5");
        EXPECT_EQ(aggregate(holder), "");
        EXPECT_EQ(holder.sequence, c.a.substr(0, c.fromA) + c.b.substr(c.fromA - 30));
        EXPECT_EQ(holder.qualities, std::string(c.fromA, '+') + std::string(c.b.size() + 30 - c.fromA, '5'));
        // Scores over the full chunk lengths, overlaps included.
        EXPECT_FLOAT_EQ(holder.strand_score, 4.0f / static_cast<float>(c.a.size() + c.b.size()));
        EXPECT_TRUE(holder.chunks.empty());
    }
    // One chunk passes as it is. The mean qscore is taken over error probabilities: q 10 and q 20 are
    // errors 0.1 and 0.01.
    ReadHolderMD one = makeHolder(10, {{"AC", 40}});
    one.chunks.front()->qualities = "+5";
    EXPECT_EQ(aggregate(one), "");
    EXPECT_EQ(one.sequence + one.qualities, "AC+5");
    EXPECT_FLOAT_EQ(one.strand_score, 0.5f);
    EXPECT_NEAR(one.mean_qscore, -10.0 * std::log10(0.055), 1e-4);
}

TEST(ReadHolderMDAggregate, EachFailureIsLoggedAndLeavesAnEmptyResult) {
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
        {10, {}, "No chunks received for read pair ('r1', 'r2')."},
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
        ReadHolderMD holder = makeHolder(c.overlap, c.chunks);
        EXPECT_EQ(aggregate(holder), c.text);
        EXPECT_TRUE(holder.sequence.empty());
        EXPECT_TRUE(holder.qualities.empty());
        EXPECT_EQ(holder.strand_score, 0.0f);
        EXPECT_EQ(holder.chunks.size(), c.chunks.size());  // left with the holder
    }
}
