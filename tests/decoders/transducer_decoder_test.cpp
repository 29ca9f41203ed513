#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "decoder_test_util.h"
#include "decoders/transducer_decoder.h"

using BasecallHMM::TransducerDecoder;

namespace {

constexpr int kN = 64;

// Keeping p (the stay column, rank 0), or a step (rank 10 + m) or skip (rank 100 + 10 m' + m) from p.
brute_force::Edges modelEdges(const std::vector<std::vector<double>>& post, double stayPenalty) {
    return [&post, stayPenalty](std::size_t r, int p, const brute_force::Offer& offer) {
        offer(p, 0, post[r][kN] * stayPenalty);
        for (int b = 0; b < 4; ++b) offer((p % 16) * 4 + b, 10 + p / 16, post[r][(p % 16) * 4 + b]);
        for (int b = 0; b < 16; ++b)
            offer((p % 4) * 16 + b, 100 + (p % 16 / 4) * 10 + p / 16, post[r][(p % 4) * 16 + b]);
    };
}

}  // namespace

TEST(TransducerDecode, MatchesBruteForceIncludingTies) {
    std::mt19937 rng(17);
    const double values[] = {1.0, 0.5, 0.25, 0.125};
    int tieTrials = 0;
    for (int trial = 0; trial < 40; ++trial) {
        const std::size_t n = 1 + trial % 4;
        std::vector<std::vector<double>> post(n, std::vector<double>(kN + 1));
        for (auto& row : post) {
            for (auto& x : row) x = values[rng() % 4];
        }
        const double penalty = trial % 3 == 0 ? 0.5 : 1.0;
        auto flat = Flatten(post);
        Common::MatView<float> view(flat.data(), n, kN + 1, kN + 1);
        std::vector<int> states;
        std::vector<signed char> moves;
        float score = 0;
        TransducerDecoder decoder;
        ASSERT_TRUE(decoder.Decode(view, states, moves, score, static_cast<float>(penalty), false));

        std::vector<double> first(post[0].begin(), post[0].begin() + kN);
        const brute_force::Best brute = brute_force::Decode(n, first, modelEdges(post, penalty));
        EXPECT_EQ(states, brute.states) << "trial " << trial;
        ASSERT_EQ(moves.size(), n);
        EXPECT_EQ(moves[0], 1);
        for (std::size_t r = 1; r < n; ++r) {
            const int want = brute.ranks[r] == 0 ? 0 : brute.ranks[r] < 100 ? 1 : 2;
            EXPECT_EQ(moves[r], want) << "trial " << trial << " row " << r;
        }
        double total = 0;
        for (double v : brute.bestEnding) total += v;
        EXPECT_NEAR(score, std::log(brute.score / total), 1e-5) << "trial " << trial;

        tieTrials += brute.optimalPaths > 1;
    }
    EXPECT_GT(tieTrials, 10);
}

TEST(TransducerDecode, RefusalsAndHomopolymerRecount) {
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    for (std::uint64_t width : {64u, 66u, 1024u, 16385u, 257u}) {
        std::vector<float> post(3 * width, 1.0f);
        if (width == 257) std::fill(post.begin() + 257, post.begin() + 2 * 257, 0.0f);  // a zero row
        Common::MatView<float> view(post.data(), 3, width, static_cast<std::int64_t>(width));
        EXPECT_FALSE(BasecallHMM::TransducerDecode(view, states, moves, score, 1.0f, false)) << width;
    }

    // State 0 kept over rows 0..3; arriving at 0 again has the chances 0.3, 0.45, 0.4: 1 + 1.15 + 0.5
    // truncates to 2 bases, so the extra base goes to row 2, the likeliest.
    const double arrive[] = {0.0, 0.3, 0.45, 0.4};
    std::vector<float> post(4 * (kN + 1), 0.001f);
    post[0] = 1.0f;
    for (int r = 1; r < 4; ++r) {
        post[r * (kN + 1)] = static_cast<float>(arrive[r]);
        post[r * (kN + 1) + kN] = static_cast<float>(1.0 - arrive[r]);
    }
    Common::MatView<float> view(post.data(), 4, kN + 1, kN + 1);
    TransducerDecoder decoder;
    ASSERT_TRUE(decoder.Decode(view, states, moves, score, 1.0f, false));
    EXPECT_EQ(states, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(moves, (std::vector<signed char>{1, 0, 0, 0}));
    ASSERT_TRUE(decoder.Decode(view, states, moves, score, 1.0f, true));
    EXPECT_EQ(states, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(moves, (std::vector<signed char>{1, 0, 1, 0}));
}
