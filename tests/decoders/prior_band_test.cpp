#include "decoders/prior_band.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using BasecallMD::BandPath;
using BasecallMD::StrandEventIndex;

TEST(StrandEventIndex, RawAndEventBasedIndices) {
    StrandEventIndex raw(10, 105, 60);
    EXPECT_EQ(raw.EventCount(0), 10);
    EXPECT_EQ(raw.EventCount(1), 6);
    EXPECT_EQ(raw.Index(0, 0), 0);
    EXPECT_EQ(raw.Index(0, 19), 1);
    EXPECT_EQ(raw.Index(1, 1000), 5);  // clamped to sample 59
    try {
        raw.Index(2, 0);
        FAIL() << "strand 2 accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid value of strand for Index() method.");
    }

    StrandEventIndex events({3, 5, 9}, 20, {0, 4}, 8);
    EXPECT_EQ(events.EventCount(0), 3);
    EXPECT_EQ(events.Index(0, 1), 0);  // before the first start
    EXPECT_EQ(events.Index(0, 5), 1);
    EXPECT_EQ(events.Index(0, 8), 1);
    EXPECT_EQ(events.Index(0, 500), 2);
    EXPECT_EQ(events.Index(1, 4), 1);
}

TEST(BandPath, AnchorsAreJoinedOneEventAtATime) {
    // Without a prior map the last pair is the only anchor.
    StrandEventIndex index(10, 50, 30);
    EXPECT_EQ(BasecallMD::buildBandPath({}, 10, index), (BandPath{{4, 2}}));

    // Anchors (0, 0), (2, 1) then the end (4, 2): strand 1 is the longer side of both legs.
    EXPECT_EQ(BasecallMD::buildBandPath({0, 12}, 20, index), (BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}));

    // Strand 2 longer: anchors (0, 0) and the end (1, 3); x steps by 1/3 and rounds to nearest.
    StrandEventIndex tall(10, 20, 40);
    EXPECT_EQ(BasecallMD::buildBandPath({0}, 10, tall), (BandPath{{0, 0}, {0, 1}, {1, 2}, {1, 3}}));

    // An anchor equal to the position in hand is skipped.
    EXPECT_EQ(BasecallMD::buildBandPath({0, 0, 0}, 1, tall), (BandPath{{0, 0}, {0, 1}, {1, 2}, {1, 3}}));
}

TEST(Band, WidensThePathAndClampsToTheMatrix) {
    std::vector<int> start;
    std::vector<int> end;
    // Each pair (i, j) widens rows j-1 .. j+1 to i-1 .. i+1, clamped to 0 .. 4.
    BasecallMD::buildBand(BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}, 1, start, end);
    EXPECT_EQ(start, (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(end, (std::vector<int>{3, 4, 4}));
    BasecallMD::buildBand(BandPath{{0, 0}, {1, 1}, {2, 1}, {3, 2}, {4, 2}}, 0, start, end);
    EXPECT_EQ(start, (std::vector<int>{0, 1, 3}));
    EXPECT_EQ(end, (std::vector<int>{0, 2, 4}));
    BasecallMD::buildBand(BandPath{}, 3, start, end);
    EXPECT_TRUE(start.empty());
    EXPECT_TRUE(end.empty());
}

TEST(Band, PriorMapStartingAtTheOriginTouchesEveryRow) {
    std::mt19937 rng(17);
    for (int trial = 0; trial < 300; ++trial) {
        const std::uint64_t stride = 1 + rng() % 12;
        const int n1 = 2 + static_cast<int>(rng() % 300);
        const int n2 = 2 + static_cast<int>(rng() % 300);
        StrandEventIndex index(stride, n1 * stride, n2 * stride);
        // A monotone map from (0, 0), with flat stretches and jumps.
        std::vector<std::uint64_t> prior{0};
        const std::uint64_t step = 10;
        for (std::uint64_t s = step; s < n1 * stride; s += step) {
            std::uint64_t next = prior.back();
            const int kind = static_cast<int>(rng() % 4);
            if (kind == 1) {
                next += rng() % (3 * step);
            } else if (kind == 2) {
                next += rng() % (40 * step);
            }
            prior.push_back(next);
        }
        const BandPath path = BasecallMD::buildBandPath(prior, step, index);
        ASSERT_EQ(path.front(), std::make_pair(0, 0));
        ASSERT_EQ(path.back(), std::make_pair(n1 - 1, n2 - 1));
        for (int w : {0, 1, 5}) {
            std::vector<int> start;
            std::vector<int> end;
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
