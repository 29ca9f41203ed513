#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "decoders/transducer_decoder.h"

using BasecallHMM::TransducerDecoder;

namespace {

constexpr int kN = 64;
constexpr int kQ = kN / 4;
constexpr int kR = kN / 16;

// Back pointer rank of arriving at s from p, lower preferred: a step predecessor p = s/4 + m N/4 ranks
// (1, m); a skip predecessor in step group t = s/16 + m' N/16 ranks (2, m', p / (N/4)). -1: p cannot
// reach s. A keep (stay) ranks 0. This is the order in which the search breaks ties.
int arriveRank(int p, int s) {
    if (p % kQ == s / 4) {
        return 10 + p / kQ;
    }
    const int group = p % kQ;
    if (group % kR == s / 16) {
        return 100 + (group / kR) * 10 + p / kQ;
    }
    return -1;
}

struct Brute {
    double score = -1.0;
    int optimalPaths = 0;
    std::vector<int> states;
    std::vector<int> ranks;
    std::vector<double> bestEnding = std::vector<double>(kN, 0.0);  // best score ending in each state
};

// Every path: row 0 picks a state, each later row keeps it (times the stay column) or arrives at a
// state reachable by a step or a skip (times that state's column). Exact in double for the powers of
// two used below. Among equal scores: smallest final state, then smallest rank from the end back.
Brute bruteForce(const std::vector<std::vector<double>>& post, double stayPenalty) {
    const std::size_t n = post.size();
    Brute best;
    std::vector<int> states(n), ranks(n, 0);
    auto offer = [&](double score) {
        best.bestEnding[states[n - 1]] = std::max(best.bestEnding[states[n - 1]], score);
        if (score == best.score) {
            ++best.optimalPaths;
        } else if (score > best.score) {
            best.optimalPaths = 1;
        }
        bool better = score > best.score;
        if (score == best.score) {
            if (states[n - 1] != best.states[n - 1]) {
                better = states[n - 1] < best.states[n - 1];
            } else {
                for (std::size_t r = n - 1; r >= 1; --r) {
                    if (ranks[r] != best.ranks[r]) {
                        better = ranks[r] < best.ranks[r];
                        break;
                    }
                }
            }
        }
        if (better) {
            best.score = score;
            best.states = states;
            best.ranks = ranks;
        }
    };
    std::function<void(std::size_t, double)> walk = [&](std::size_t r, double score) {
        if (r == n) {
            offer(score);
            return;
        }
        const int p = states[r - 1];
        states[r] = p;
        ranks[r] = 0;
        walk(r + 1, score * post[r][kN] * stayPenalty);
        for (int s = 0; s < kN; ++s) {
            const int rank = arriveRank(p, s);
            if (rank < 0) {
                continue;
            }
            states[r] = s;
            ranks[r] = rank;
            walk(r + 1, score * post[r][s]);
        }
    };
    for (int s = 0; s < kN; ++s) {
        states[0] = s;
        walk(1, post[0][s]);
    }
    return best;
}

std::vector<float> flatten(const std::vector<std::vector<double>>& rows) {
    std::vector<float> out;
    for (const auto& row : rows) {
        out.insert(out.end(), row.begin(), row.end());
    }
    return out;
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
            for (auto& x : row) {
                x = values[rng() % 4];
            }
        }
        const double penalty = trial % 3 == 0 ? 0.5 : 1.0;
        auto flat = flatten(post);
        Common::MatView<float> view(flat.data(), n, kN + 1, kN + 1);
        std::vector<int> states;
        std::vector<signed char> moves;
        float score = 0;
        TransducerDecoder decoder;
        ASSERT_TRUE(decoder.Decode(view, states, moves, score, static_cast<float>(penalty), false));

        const Brute brute = bruteForce(post, penalty);
        EXPECT_EQ(states, brute.states) << "trial " << trial;
        ASSERT_EQ(moves.size(), n);
        EXPECT_EQ(moves[0], 1);
        for (std::size_t r = 1; r < n; ++r) {
            const int b = (brute.states[r - 1] % kQ) * 4;
            const int expected =
                brute.ranks[r] == 0 ? 0 : (brute.states[r] >= b && brute.states[r] <= b + 3 ? 1 : 2);
            EXPECT_EQ(moves[r], expected) << "trial " << trial << " row " << r;
        }
        double total = 0;
        for (double v : brute.bestEnding) total += v;
        EXPECT_NEAR(score, std::log(brute.score / total), 1e-5) << "trial " << trial;

        tieTrials += brute.optimalPaths > 1;
    }
    EXPECT_GT(tieTrials, 10);
}

TEST(TransducerDecode, RefusesOtherWidthsAndZeroRows) {
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    for (std::uint64_t width : {64u, 66u, 1024u, 16385u}) {
        std::vector<float> post(2 * width, 1.0f);
        Common::MatView<float> view(post.data(), 2, width, static_cast<std::int64_t>(width));
        EXPECT_FALSE(BasecallHMM::TransducerDecode(view, states, moves, score, 1.0f, false)) << width;
    }
    std::vector<float> post(3 * 257, 1.0f);
    std::fill(post.begin() + 257, post.begin() + 2 * 257, 0.0f);
    Common::MatView<float> view(post.data(), 3, 257, 257);
    EXPECT_FALSE(BasecallHMM::TransducerDecode(view, states, moves, score, 1.0f, false));
}

TEST(TransducerDecode, HomopolymerRecountUsesArrivalChances) {
    // A path that keeps state 0 (AAA) over rows 0..3. In rows 1..3 arriving at 0 again has the chances
    // 0.3, 0.45, 0.4 against the stay column: 1 + 1.15 + 0.5 truncates to 2 bases, so one extra base
    // goes to row 2, the likeliest.
    const double arrive[] = {0.0, 0.3, 0.45, 0.4};
    std::vector<float> post(4 * (kN + 1), 0.001f);
    post[0] = 1.0f;
    for (int r = 1; r < 4; ++r) {
        post[r * (kN + 1)] = static_cast<float>(arrive[r]);
        post[r * (kN + 1) + kN] = static_cast<float>(1.0 - arrive[r]);
    }
    Common::MatView<float> view(post.data(), 4, kN + 1, kN + 1);
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    TransducerDecoder decoder;
    ASSERT_TRUE(decoder.Decode(view, states, moves, score, 1.0f, false));
    EXPECT_EQ(states, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(moves, (std::vector<signed char>{1, 0, 0, 0}));
    ASSERT_TRUE(decoder.Decode(view, states, moves, score, 1.0f, true));
    EXPECT_EQ(states, (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(moves, (std::vector<signed char>{1, 0, 1, 0}));
}
