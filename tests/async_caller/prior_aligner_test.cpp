#include "test_util.h"
#include "async_caller/prior_aligner.h"
#include "read_files.h"

using AsyncCaller::PriorAligner;

TEST(PriorAligner, ExtraLabelsAtEitherEndOfStrand2) {
    TestSupport::LabelAligner a;
    PriorAligner& aligner = a.aligner;
    std::mt19937 random(4);
    std::vector<std::int32_t> labels1(100);
    for (auto& l : labels1) l = static_cast<std::int32_t>(random() % 64);
    // Strand 2's labels, in strand-1 orientation, begin with 5 that strand 1 lacks: in its own time
    // order those are its last 50 samples, and the map (relative to the first aligned block of each
    // strand) is still the identity. At the other end they start its stretch 50 samples later.
    std::vector<std::int32_t> first = {1, 2, 3, 4, 5}, last = labels1;
    first.insert(first.end(), labels1.begin(), labels1.end());
    last.insert(last.end(), {1, 2, 3, 4, 5});
    for (const auto& labels2 : {first, last}) {
        ASSERT_TRUE(aligner.Compute(labels1, labels2, 10));
        EXPECT_EQ(TestSupport::Fields(aligner.start1, aligner.length1, aligner.start2, aligner.length2),
                  labels2 == first ? "0 1000 0 1000" : "0 1000 50 1000");
        ASSERT_EQ(aligner.priorSamples.size(), 100u);
        EXPECT_EQ(aligner.priorSamples[37], 370u);
    }
    // One matched entry is no usable alignment.
    EXPECT_FALSE(aligner.Compute({5}, {5}, 10));
    EXPECT_FALSE(aligner.Compute({5}, {1, 5, 9}, 10));
    EXPECT_FALSE(aligner.Compute({}, {1, 2}, 10));
    EXPECT_TRUE(aligner.Compute({5, 6}, {5, 6}, 10));
}

namespace {

// A pair of label sequences whose alignment is known by construction: strand 2 is strand 1 with
// runs of labels left out and runs of fresh labels put in, never next to each other and never at an
// end, all labels distinct. `path` gets the alignment, -1 marking a gap.
void indelPair(std::mt19937& random, double rate, std::vector<std::int32_t>& labels1,
               std::vector<std::int32_t>& labels2, std::vector<std::pair<int, int>>& path) {
    std::vector<std::int32_t> pool(64);
    std::iota(pool.begin(), pool.end(), 0);
    std::shuffle(pool.begin(), pool.end(), random);
    const int n1 = 20 + static_cast<int>(random() % 20);
    labels1.assign(pool.begin(), pool.begin() + n1);
    std::size_t fresh = static_cast<std::size_t>(n1);
    std::bernoulli_distribution indel(rate);
    labels2.clear();
    path.clear();
    bool inserted = false;
    for (int i = 0; i < n1; ++i) {
        const bool inside = i > 0 && i < n1 - 1;
        if (inside && !inserted && indel(random)) {
            path.emplace_back(i, -1);
            continue;
        }
        path.emplace_back(i, static_cast<int>(labels2.size()));
        labels2.push_back(labels1[static_cast<std::size_t>(i)]);
        inserted = inside && indel(random);
        for (int run = 1 + static_cast<int>(random() % 3); inserted && run > 0 && fresh < pool.size(); --run) {
            path.emplace_back(-1, static_cast<int>(labels2.size()));
            labels2.push_back(pool[fresh++]);
        }
    }
}

// Sample positions of one strand's path entries: the `stride` samples of a block are cut into as
// many equal whole parts as there are entries on it (a gap entry sits on the block before it), and
// each entry stands at the middle of its part.
std::vector<std::uint64_t> entryPositions(const std::vector<int>& blocks, std::uint64_t stride) {
    std::map<int, std::uint64_t> onBlock, seen;
    for (const int b : blocks) ++onBlock[b];
    std::vector<std::uint64_t> positions;
    for (const int b : blocks) {
        const std::uint64_t part = stride / onBlock[b];
        positions.push_back(static_cast<std::uint64_t>(b) * stride + part / 2 + part * seen[b]++);
    }
    return positions;
}

}  // namespace

TEST(PriorAligner, TheMapRunsThroughTheSharedOutBlocks) {
    // Mismatches far dearer than two gaps, so that the alignment is the one the labels were built with.
    TestSupport::LabelAligner a(-2000);
    PriorAligner& aligner = a.aligner;
    std::mt19937 random(8);
    for (int trial = 0; trial < 40; ++trial) {
        SCOPED_TRACE(trial);
        std::vector<std::int32_t> labels1, labels2;
        std::vector<std::pair<int, int>> path;
        indelPair(random, trial == 0 ? 0.0 : 0.2, labels1, labels2, path);
        const std::uint64_t stride = trial % 2 ? 30 : 60;
        ASSERT_TRUE(aligner.Compute(labels1, labels2, stride));
        const std::uint64_t n1 = labels1.size() * stride, n2 = labels2.size() * stride;
        EXPECT_EQ(aligner.start1, 0u);
        EXPECT_EQ(aligner.length1, n1);
        EXPECT_EQ(aligner.start2, 0u);
        EXPECT_EQ(aligner.length2, n2);

        // Each entry's block on each strand, then the polyline from (0, 0) through the entries to the
        // ends of both strands, read every priorStep samples of strand 1.
        std::vector<int> blocks1, blocks2;
        for (const auto& entry : path) {
            blocks1.push_back(entry.first >= 0 ? entry.first : blocks1.back());
            blocks2.push_back(entry.second >= 0 ? entry.second : blocks2.back());
        }
        std::vector<std::uint64_t> xs = entryPositions(blocks1, stride), ys = entryPositions(blocks2, stride);
        xs.insert(xs.begin(), 0);
        ys.insert(ys.begin(), 0);
        xs.push_back(n1);
        ys.push_back(n2);
        ASSERT_EQ(aligner.priorSamples.size(), n1 / aligner.priorStep);
        for (std::size_t e = 0; e < aligner.priorSamples.size(); ++e) {
            const std::uint64_t p = e * aligner.priorStep;
            std::size_t k = 0;
            while (k + 2 < xs.size() && xs[k + 1] <= p) ++k;
            const std::uint64_t expected = ys[k] + (ys[k + 1] - ys[k]) * (p - xs[k]) / (xs[k + 1] - xs[k]);
            ASSERT_EQ(aligner.priorSamples[e], expected) << "sample " << p;
        }
    }
}
