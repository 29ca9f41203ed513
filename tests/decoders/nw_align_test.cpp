#include "decoders/nw_align.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "decoder_test_util.h"

namespace {

using PairAlignment::AlignmentPath;
using PairAlignment::NWAlign;
using PairAlignment::Sequence;

Sequence view(const std::vector<int>& v) { return Sequence(v.data(), v.size(), 1); }

// Best score over every alignment: a gap at the matrix edge costs the start or end penalty, elsewhere
// the extension after a gap of its kind and the opening otherwise.
std::int64_t bruteForceBest(const std::vector<int>& first, const std::vector<int>& second,
                            const std::vector<int>& matrix, int size, const std::vector<int>& g) {
    const int n = static_cast<int>(first.size()), m = static_cast<int>(second.size());
    std::int64_t best = std::numeric_limits<std::int64_t>::min();
    std::function<void(int, int, int, std::int64_t)> walk = [&](int i, int j, int last, std::int64_t score) {
        if (i == n && j == m) {
            best = std::max(best, score);
            return;
        }
        if (i < n && j < m) walk(i + 1, j + 1, 0, score + matrix[first[i] * size + second[j]]);
        if (i < n) walk(i + 1, j, 1, score - (j == 0 ? g[4] : j == m ? g[5] : last == 1 ? g[7] : g[6]));
        if (j < m) walk(i, j + 1, 2, score - (i == 0 ? g[0] : i == n ? g[1] : last == 2 ? g[3] : g[2]));
    };
    walk(0, 0, 0, 0);
    return best;
}

TEST(NWAlign, ScoreMatchesBruteForce) {
    std::mt19937 rng(99);
    for (int trial = 0; trial < 2000; ++trial) {
        const int size = 2 + trial % 3;
        const std::vector<int> matrix = RandomInts(rng, size * size, -4, 4), g = RandomInts(rng, 8, 0, 6);
        const std::vector<int> first = RandomInts(rng, 1 + rng() % 6, 0, size - 1);
        const std::vector<int> second = RandomInts(rng, 1 + rng() % 6, 0, size - 1);
        NWAlign aligner(Common::MatView<const int>(matrix.data(), size, size, size, 1), g);
        AlignmentPath path;
        const std::int32_t score = aligner.Align(view(first), view(second), path);
        ASSERT_EQ(score, bruteForceBest(first, second, matrix, size, g)) << "trial " << trial;
        // Whatever the route, every index once and in order, and no entry empty.
        std::vector<int> is, js, want(8);
        std::iota(want.begin(), want.end(), 0);
        for (const auto& [i, j] : path) {
            ASSERT_FALSE(i == -1 && j == -1);
            if (i != -1) is.push_back(i);
            if (j != -1) js.push_back(j);
        }
        ASSERT_EQ(is, std::vector<int>(want.begin(), want.begin() + first.size()));
        ASSERT_EQ(js, std::vector<int>(want.begin(), want.begin() + second.size()));
    }
}

// Paths the brute force does not check: empty sequences, tie rules, and the trace-back quirk.
TEST(NWAlign, PathsAtTiesAndEdges) {
    const std::vector<int> soft = {100, -100, -100, 100}, harsh = {100, -300, -300, 100};
    const std::vector<int> startFifty = {50, 50, 150, 150, 50, 50, 150, 150};
    const struct {
        const std::vector<int>& matrix;
        std::vector<int> gaps, first, second;
        std::int32_t score;
        AlignmentPath path;
    } cases[] = {
        {soft, startFifty, {}, {}, -1000000000, {}},
        {soft, startFifty, {}, {0, 1}, -1000000000, {{-1, 0}, {-1, 1}}},
        // Mismatch -100 against two start gaps of 50: a tie, and the match wins.
        {soft, startFifty, {0}, {1}, -100, {{0, 0}}},
        // The two gap orders tie at -100; at cell (1, 1) M < A == B, so the a-gap matrix is taken first.
        {harsh, startFifty, {0}, {1}, -100, {{-1, 0}, {0, -1}}},
        // a0-b0, a gap over b1 b2, a1-b3 scores -120, but at (1, 2) the b-gap value only ties the match, and
        // a tie goes to the match: the trace-back leaves the gap run and returns a path worth -400.
        {soft, {100, 100, 300, 20, 100, 100, 300, 20}, {0, 0}, {0, 1, 1, 0}, -120,
         {{-1, 0}, {0, 1}, {-1, 2}, {1, 3}}},
    };
    for (const auto& c : cases) {
        NWAlign aligner(Common::MatView<const int>(c.matrix.data(), 2, 2, 2, 1), c.gaps);
        AlignmentPath path;
        EXPECT_EQ(aligner.Align(view(c.first), view(c.second), path), c.score);
        EXPECT_EQ(path, c.path);
    }
    EXPECT_THROW(NWAlign(Common::MatView<const int>(soft.data(), 2, 2, 2, 1), {1, 2, 3}), std::runtime_error);
}

}  // namespace
