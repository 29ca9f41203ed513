#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "decoders/flipflop_decoder.h"

using BasecallHMM::FlipflopDecoder;

TEST(FlipflopDecoder, TransitionLayout) {
    // Every state may enter any flip state; a flop state is reached only from its own flip or itself:
    // 8 * 4 + 2 * 4 = 40 columns, each used once.
    std::vector<int> used, all(40);
    for (int c = 0; c < 64; ++c) {
        if (FlipflopDecoder::Column(c / 8, c % 8) >= 0) used.push_back(FlipflopDecoder::Column(c / 8, c % 8));
    }
    std::sort(used.begin(), used.end());
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(used, all);
    EXPECT_EQ(std::vector<int>({FlipflopDecoder::Column(2, 6), FlipflopDecoder::Column(6, 6),
                                FlipflopDecoder::Column(1, 6), FlipflopDecoder::Column(5, 3)}),
              std::vector<int>({34, 38, -1, 29}));
}

// Against every path over n + 1 positions: the log partition, the best path and its probability,
// the per-row chance of a new base and the base posteriors.
TEST(FlipflopDecoder, MatchesEnumerationOfAllPaths) {
    std::mt19937 rng(31);
    std::normal_distribution<float> normal(0.0f, 2.0f);
    for (std::size_t n : {1u, 2u, 4u}) {
        std::vector<float> scores(n * 40);
        for (auto& x : scores) x = normal(rng);
        Common::MatView<float> view(scores.data(), n, 40, 40);

        std::size_t paths = 1;
        for (std::size_t i = 0; i <= n; ++i) paths *= 8;
        double z = 0, bestScore = -1e300;
        std::vector<int> bestPath;
        std::vector<double> moveMass(n, 0.0), baseMass(n * 4, 0.0);
        for (std::size_t code = 0; code < paths; ++code) {
            std::vector<int> p(n + 1);
            for (std::size_t i = 0, c = code; i <= n; ++i, c /= 8) p[i] = static_cast<int>(c % 8);
            double total = 0;
            bool valid = true;
            for (std::size_t r = 0; r < n && valid; ++r) {
                const int col = FlipflopDecoder::Column(p[r], p[r + 1]);
                valid = col >= 0;
                if (valid) total += scores[r * 40 + col];
            }
            if (!valid) continue;
            const double w = std::exp(total);
            z += w;
            for (std::size_t r = 0; r < n; ++r) {
                if (p[r] != p[r + 1]) moveMass[r] += w;
                baseMass[r * 4 + p[r + 1] % 4] += w;
            }
            if (total > bestScore) {
                bestScore = total;
                bestPath = p;
            }
        }

        FlipflopDecoder decoder;
        std::vector<int> states;
        std::vector<signed char> moves;
        std::vector<float> weights, q(n * 4);
        Common::MatView<float> quality(q.data(), n, 4, 4);
        float score = 0;
        ASSERT_TRUE(decoder.Decode(view, states, moves, weights, &quality, score));
        EXPECT_NEAR(score, bestScore - std::log(z), 1e-4) << n;
        for (std::size_t r = 0; r < n; ++r) {
            EXPECT_EQ(states[r], bestPath[r + 1] % 4) << n << " row " << r;
            EXPECT_EQ(moves[r], r == 0 || bestPath[r] != bestPath[r + 1] ? 1 : 0) << n << " row " << r;
            EXPECT_NEAR(weights[r], moveMass[r] / z, 1e-5) << n << " row " << r;
            for (int b = 0; b < 4; ++b) EXPECT_NEAR(q[r * 4 + b], baseMass[r * 4 + b] / z, 1e-5);
        }
    }
}

// A NaN score fails the decode. (The width check is met through the network runner's tests.)
TEST(FlipflopDecoder, NaNFails) {
    std::vector<float> s(40, 0.0f), weights;
    s[3] = std::nanf("");
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    EXPECT_FALSE(FlipflopDecoder().Decode(Common::MatView<float>(s.data(), 1, 40, 40), states, moves, weights,
                                          nullptr, score));
}
