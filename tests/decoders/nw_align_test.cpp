#include "decoders/nw_align.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <random>
#include <vector>

namespace {

using PairAlignment::AlignmentPath;
using PairAlignment::NWAlign;
using PairAlignment::Sequence;

Sequence view(const std::vector<int>& v) { return Sequence(v.data(), v.size(), 1); }

struct Gaps {
    int startB, endB, openB, extendB, startA, endA, openA, extendA;
    std::vector<int> Vector() const { return {startB, endB, openB, extendB, startA, endA, openA, extendA}; }
};

// Best score over every alignment, each scored as the three-matrix model defines it: an `a` gap
// (consuming the first sequence) in column 0 costs the start penalty, in column m the end penalty,
// elsewhere the extension after another `a` gap and the opening otherwise; `b` gaps likewise along
// rows 0 and n.
std::int64_t bruteForceBest(const std::vector<int>& first, const std::vector<int>& second,
                            const std::vector<int>& matrix, int size, const Gaps& g) {
    const int n = static_cast<int>(first.size());
    const int m = static_cast<int>(second.size());
    std::int64_t best = std::numeric_limits<std::int64_t>::min();
    std::function<void(int, int, int, std::int64_t)> walk = [&](int i, int j, int previous, std::int64_t score) {
        if (i == n && j == m) {
            best = std::max(best, score);
            return;
        }
        if (i < n && j < m) {
            walk(i + 1, j + 1, 0, score + matrix[first[i] * size + second[j]]);
        }
        if (i < n) {
            const int cost = j == 0 ? g.startA : (j == m ? g.endA : (previous == 1 ? g.extendA : g.openA));
            walk(i + 1, j, 1, score - cost);
        }
        if (j < m) {
            const int cost = i == 0 ? g.startB : (i == n ? g.endB : (previous == 2 ? g.extendB : g.openB));
            walk(i, j + 1, 2, score - cost);
        }
    };
    walk(0, 0, 0, 0);
    return best;
}

TEST(NWAlign, ScoreMatchesBruteForce) {
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> length(1, 6);
    std::uniform_int_distribution<int> penalty(0, 6);
    for (int trial = 0; trial < 2000; ++trial) {
        const int size = 2 + trial % 3;
        std::vector<int> matrix(size * size);
        for (auto& s : matrix) {
            s = std::uniform_int_distribution<int>(-4, 4)(rng);
        }
        const Gaps g{penalty(rng), penalty(rng), penalty(rng), penalty(rng),
                     penalty(rng), penalty(rng), penalty(rng), penalty(rng)};
        std::vector<int> first(length(rng));
        std::vector<int> second(length(rng));
        for (auto& x : first) {
            x = std::uniform_int_distribution<int>(0, size - 1)(rng);
        }
        for (auto& x : second) {
            x = std::uniform_int_distribution<int>(0, size - 1)(rng);
        }
        NWAlign aligner(Common::MatView<const int>(matrix.data(), size, size, size, 1), g.Vector());
        AlignmentPath path;
        const std::int32_t score = aligner.Align(view(first), view(second), path);
        ASSERT_EQ(score, bruteForceBest(first, second, matrix, size, g)) << "trial " << trial;
        // Whatever the route, every index once and in order.
        int nextI = 0;
        int nextJ = 0;
        for (const auto& [i, j] : path) {
            ASSERT_FALSE(i == -1 && j == -1);
            if (i != -1) {
                ASSERT_EQ(i, nextI++);
            }
            if (j != -1) {
                ASSERT_EQ(j, nextJ++);
            }
        }
        ASSERT_EQ(nextI, static_cast<int>(first.size()));
        ASSERT_EQ(nextJ, static_cast<int>(second.size()));
    }
}

TEST(NWAlign, StatelessTraceBackMayLeaveAGapRun) {
    std::vector<int> matrix = {100, -100, -100, 100};
    const Gaps g{100, 100, 300, 20, 100, 100, 300, 20};
    NWAlign aligner(Common::MatView<const int>(matrix.data(), 2, 2, 2, 1), g.Vector());
    std::vector<int> first = {0, 0};
    std::vector<int> second = {0, 1, 1, 0};
    AlignmentPath path;
    // The best alignment is a0-b0 (+100), a gap over b1 b2 (-300 - 20), a1-b3 (+100): -120.
    EXPECT_EQ(aligner.Align(view(first), view(second), path), -120);
    // Walking back, cell (1, 3) is in the b-gap matrix (-220 against -300 for a match), but at cell
    // (1, 2) the b-gap value (-200) only ties the match value (-200: a start gap over b0, then a0
    // against b1), and a tie goes to the match. The trace-back leaves the gap run there, so the path
    // it returns is worth -400 and not the -120 it reports.
    EXPECT_EQ(path, (AlignmentPath{{-1, 0}, {0, 1}, {-1, 2}, {1, 3}}));
}

TEST(NWAlign, TiesAndEdgeCases) {
    std::vector<int> matrix = {100, -100, -100, 100};
    const std::vector<int> overlapGaps = {100, 100, 150, 150, 100, 100, 150, 150};
    NWAlign aligner(Common::MatView<const int>(matrix.data(), 2, 2, 2, 1), overlapGaps);
    AlignmentPath path;
    std::vector<int> none;
    std::vector<int> two = {0, 1};
    EXPECT_EQ(aligner.Align(view(none), view(none), path), -1000000000);
    EXPECT_TRUE(path.empty());
    EXPECT_EQ(aligner.Align(view(none), view(two), path), -1000000000);
    EXPECT_EQ(path, (AlignmentPath{{-1, 0}, {-1, 1}}));

    // One element each, mismatched: match -100, or two end-free gaps 100 + 100 = -200 worse. With the
    // start gaps at 50 the two routes tie at -100 and the match wins.
    std::vector<int> a = {0};
    std::vector<int> b = {1};
    NWAlign tie(Common::MatView<const int>(matrix.data(), 2, 2, 2, 1), {50, 50, 150, 150, 50, 50, 150, 150});
    EXPECT_EQ(tie.Align(view(a), view(b), path), -100);
    EXPECT_EQ(path, (AlignmentPath{{0, 0}}));

    // With a mismatch of -300 the two gap orders tie at -100; at cell (1, 1) M < A == B, so the
    // a-gap matrix is taken first, then the b gap along row 0.
    std::vector<int> harsh = {100, -300, -300, 100};
    NWAlign gapTie(Common::MatView<const int>(harsh.data(), 2, 2, 2, 1), {50, 50, 150, 150, 50, 50, 150, 150});
    EXPECT_EQ(gapTie.Align(view(a), view(b), path), -100);
    EXPECT_EQ(path, (AlignmentPath{{-1, 0}, {0, -1}}));

    EXPECT_THROW(NWAlign(Common::MatView<const int>(matrix.data(), 2, 2, 2, 1), {1, 2, 3}), std::runtime_error);
}

}  // namespace
