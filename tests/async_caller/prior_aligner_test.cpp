#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "async_caller/prior_aligner.h"

using AsyncCaller::PriorAligner;

namespace {

// Matching labels score 100, any mismatch `mismatch`.
std::vector<int> labelScores(int mismatch = -100) {
    std::vector<int> m(64 * 64, mismatch);
    for (int i = 0; i < 64; ++i) {
        m[i * 64 + i] = 100;
    }
    return m;
}

PriorAligner makeAligner(const std::vector<int>& scores) {
    return PriorAligner(Common::MatView<const int>(scores.data(), 64, 64, 64, 1), 500, 300, 1000);
}

}  // namespace

TEST(PriorAligner, IdenticalLabelsGiveFullStretchesAndTheIdentityMap) {
    const auto scores = labelScores();
    PriorAligner aligner = makeAligner(scores);
    std::mt19937 random(3);
    std::vector<std::int32_t> labels(200);
    for (auto& l : labels) {
        l = static_cast<std::int32_t>(random() % 64);
    }
    ASSERT_TRUE(aligner.Compute(labels, labels, 10));
    EXPECT_EQ(aligner.start1, 0u);
    EXPECT_EQ(aligner.start2, 0u);
    EXPECT_EQ(aligner.length1, 2000u);
    EXPECT_EQ(aligner.length2, 2000u);
    ASSERT_EQ(aligner.priorSamples.size(), 200u);
    for (std::size_t e = 0; e < aligner.priorSamples.size(); ++e) {
        EXPECT_EQ(aligner.priorSamples[e], 10 * e) << e;
    }
}

TEST(PriorAligner, ExtraLabelsOnStrand2ShortenItsStretchFromTheEnd) {
    const auto scores = labelScores();
    PriorAligner aligner = makeAligner(scores);
    std::mt19937 random(4);
    std::vector<std::int32_t> labels1(100);
    for (auto& l : labels1) {
        l = static_cast<std::int32_t>(random() % 64);
    }
    // Strand 2's labels, in strand-1 orientation, begin with 5 that strand 1 lacks; in its own time
    // order those are its last 50 samples.
    std::vector<std::int32_t> labels2 = {1, 2, 3, 4, 5};
    labels2.insert(labels2.end(), labels1.begin(), labels1.end());
    ASSERT_TRUE(aligner.Compute(labels1, labels2, 10));
    EXPECT_EQ(aligner.start1, 0u);
    EXPECT_EQ(aligner.length1, 1000u);
    EXPECT_EQ(aligner.start2, 0u);
    EXPECT_EQ(aligner.length2, 1000u);
    // Positions are relative to the first aligned block of each strand: still the identity.
    ASSERT_EQ(aligner.priorSamples.size(), 100u);
    EXPECT_EQ(aligner.priorSamples[37], 370u);

    // The same extra labels at the other end of strand 2 start its stretch 50 samples later.
    std::vector<std::int32_t> labels3 = labels1;
    labels3.insert(labels3.end(), {1, 2, 3, 4, 5});
    ASSERT_TRUE(aligner.Compute(labels1, labels3, 10));
    EXPECT_EQ(aligner.start2, 50u);
    EXPECT_EQ(aligner.length2, 1000u);
}

TEST(PriorAligner, StaysShareOutTheStrideOfABlock) {
    // Mismatches dearer than gaps, so that the repeats are taken as gaps and not slid past.
    const auto scores = labelScores(-400);
    PriorAligner aligner = makeAligner(scores);
    // Strand 2 holds label 7 three times where strand 1 has it once: one strand-1 block maps onto
    // three strand-2 blocks, so the map runs three times as fast there.
    const std::vector<std::int32_t> labels1 = {10, 20, 7, 30, 40, 50};
    const std::vector<std::int32_t> labels2 = {10, 20, 7, 7, 7, 30, 40, 50};
    ASSERT_TRUE(aligner.Compute(labels1, labels2, 30));
    ASSERT_EQ(aligner.priorSamples.size(), 18u);
    // Monotone, starting at 0, and reaching strand 2's end region at strand 1's end.
    EXPECT_EQ(aligner.priorSamples[0], 0u);
    for (std::size_t e = 1; e < aligner.priorSamples.size(); ++e) {
        EXPECT_GE(aligner.priorSamples[e], aligner.priorSamples[e - 1]);
    }
    EXPECT_GT(aligner.priorSamples[17], 200u);
    EXPECT_EQ(aligner.length1, 180u);
    EXPECT_EQ(aligner.length2, 240u);
}

TEST(PriorAligner, OneMatchedEntryIsNoUsableAlignment) {
    const auto scores = labelScores();
    PriorAligner aligner = makeAligner(scores);
    EXPECT_FALSE(aligner.Compute({5}, {5}, 10));
    EXPECT_FALSE(aligner.Compute({5}, {1, 5, 9}, 10));
    EXPECT_FALSE(aligner.Compute({}, {1, 2}, 10));
    EXPECT_TRUE(aligner.Compute({5, 6}, {5, 6}, 10));
}
