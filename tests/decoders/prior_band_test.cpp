#include "decoders/prior_band.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "../common/test_support.h"

namespace {

using BasecallMD::BandPath;
using BasecallMD::StrandEventIndex;

TEST(StrandEventIndex, RawAndEventBasedIndices) {
    StrandEventIndex raw(10, 105, 60), events({3, 5, 9}, 20, {0, 4}, 8);
    // Sample 1000 of strand 2 is clamped to its last, 59; event sample 1 comes before the first start.
    const struct { const StrandEventIndex& index; int strand; std::uint64_t sample; int event; } cases[] = {
        {raw, 0, 0, 0}, {raw, 0, 19, 1}, {raw, 1, 1000, 5}, {events, 0, 1, 0}, {events, 0, 5, 1},
        {events, 0, 8, 1}, {events, 0, 500, 2}, {events, 1, 4, 1}};
    for (const auto& c : cases)
        EXPECT_EQ(c.index.Index(c.strand, c.sample), c.event) << c.strand << " " << c.sample;
    EXPECT_EQ(raw.EventCount(0) * 10 + raw.EventCount(1), 106);
    EXPECT_EQ(events.EventCount(0), 3);
    EXPECT_EQ(TestSupport::ErrorOf([&] { raw.Index(2, 0); }), "Invalid value of strand for Index() method.");
}

TEST(BandPath, AnchorsAreJoinedOneEventAtATime) {
    StrandEventIndex index(10, 50, 30), tall(10, 20, 40);
    // Without a prior map the last pair is the only anchor.
    EXPECT_EQ(BasecallMD::buildBandPath({}, 10, index), (BandPath{{4, 2}}));
    // Anchors (0, 0), (2, 1) then the end (4, 2): strand 1 is the longer side of both legs.
    EXPECT_EQ(BasecallMD::buildBandPath({0, 12}, 20, index),
              (BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}));
    // Strand 2 longer: x steps by 1/3 and rounds to nearest. An anchor at the position in hand is skipped.
    EXPECT_EQ(BasecallMD::buildBandPath({0}, 10, tall), (BandPath{{0, 0}, {0, 1}, {1, 2}, {1, 3}}));
    EXPECT_EQ(BasecallMD::buildBandPath({0, 0, 0}, 1, tall), (BandPath{{0, 0}, {0, 1}, {1, 2}, {1, 3}}));
}

TEST(Band, WidensThePathAndClampsToTheMatrix) {
    std::vector<int> start, end;
    // Each pair (i, j) widens rows j-1 .. j+1 to i-1 .. i+1, clamped to 0 .. 4.
    BasecallMD::buildBand(BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}, 1, start, end);
    EXPECT_EQ(start, (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(end, (std::vector<int>{3, 4, 4}));
    BasecallMD::buildBand(BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}, 0, start, end);
    EXPECT_EQ(start, (std::vector<int>{0, 1, 3}));
    EXPECT_EQ(end, (std::vector<int>{0, 2, 4}));
    BasecallMD::buildBand(BandPath{}, 3, start, end);
    EXPECT_TRUE(start.empty() && end.empty());
}

TEST(Band, PriorMapStartingAtTheOriginTouchesEveryRow) {
    std::mt19937 rng(17);
    for (int trial = 0; trial < 300; ++trial) {
        const std::uint64_t stride = 1 + rng() % 12;
        const int n1 = 2 + static_cast<int>(rng() % 300), n2 = 2 + static_cast<int>(rng() % 300);
        StrandEventIndex index(stride, n1 * stride, n2 * stride);
        // A monotone map from (0, 0), with flat stretches and jumps.
        std::vector<std::uint64_t> prior{0};
        const std::uint64_t step = 10;
        for (std::uint64_t s = step; s < n1 * stride; s += step) {
            const std::uint64_t jump[] = {0, rng() % (3 * step), rng() % (40 * step), 0};
            prior.push_back(prior.back() + jump[rng() % 4]);
        }
        const BandPath path = BasecallMD::buildBandPath(prior, step, index);
        ASSERT_EQ(path.front(), std::make_pair(0, 0));
        ASSERT_EQ(path.back(), std::make_pair(n1 - 1, n2 - 1));
        for (int w : {0, 1, 5}) {
            std::vector<int> start, end;
            BasecallMD::buildBand(path, w, start, end);
            ASSERT_EQ(static_cast<int>(start.size()), n2);
            for (int r = 0; r < n2; ++r) {
                ASSERT_LE(start[r], end[r]) << "row " << r << " trial " << trial;
                ASSERT_GE(start[r], 0);
                ASSERT_LE(end[r], n1 - 1);
            }
            // The path itself lies inside the band.
            for (const auto& [a, b] : path) {
                ASSERT_GE(a, start[b]);
                ASSERT_LE(a, end[b]);
            }
        }
    }
}

}  // namespace
