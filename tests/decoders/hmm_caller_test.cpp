#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "../common/test_support.h"
#include "decoder_test_util.h"
#include "decoders/hmm_caller.h"
#include "decoders/hmm_kernels.h"
#include "decoders/state_moves.h"

using BasecallHMM::Caller;
using BasecallHMM::CallerBase;
namespace kernels = BasecallHMM::kernels;
using TestSupport::ErrorOf;

namespace {

constexpr int kN = 64;

// The model's edges out of p, ranked as the back pointer codes: stay 0, the steps 1 + m and the skips
// 5 + m from the m-th predecessor group, the leak 21 into every state when it is on.
brute_force::Edges modelEdges(const std::vector<std::vector<double>>& em, const Caller<64>& caller) {
    return [&em, stay = caller.StayProb(), step = caller.StepProb(), skip = caller.SkipProb(),
            leak = caller.LeakProb()](std::size_t r, int p, const brute_force::Offer& offer) {
        offer(p, 0, stay * em[r][p]);
        for (int b = 0; b < 4; ++b) offer((p % 16) * 4 + b, 1 + p / 16, step * em[r][(p % 16) * 4 + b]);
        for (int b = 0; b < 16; ++b) offer((p % 4) * 16 + b, 5 + p / 4, skip * em[r][(p % 4) * 16 + b]);
        for (int s = 0; s < kN && leak > 0; ++s) offer(s, 21, leak * em[r][s]);
    };
}

}  // namespace

TEST(Caller, FactoryAndTransitionSettings) {
    for (int n : {64, 256, 1024, 4096, 16384, 65536, 262144, 1048576, 0, 1, 16, 128}) {
        const std::string error = ErrorOf([&] { EXPECT_EQ(BasecallHMM::CreateCaller(n)->NumStates(), n); });
        EXPECT_EQ(error, n >= 64 && (n & (n - 1)) == 0 && n != 128 ? "<no error>"
                         : "Unsupported number of states: " + std::to_string(n) +
                               ". State count should be a positive power of 4.");
    }
    // Weights normalised over the three kinds, then shared by 4 steps and 16 skips; the leak per state.
    Caller<1024> caller;
    caller.SetTrans(1, 1, 2, 2048);
    const std::vector<float> probs{caller.StayProb(), caller.StepProb(), caller.SkipProb(),
                                   caller.LeakProb()};
    EXPECT_EQ(probs, (std::vector<float>{0.25f, 0.0625f, 0.03125f, 2.0f}));

    // A zero row fails the decode; a width other than the state count is refused.
    std::vector<float> em(4 * 64, 1.0f);
    std::fill(em.begin() + 2 * 64, em.begin() + 3 * 64, 0.0f);
    Common::EmissionBase<float> emissions(em.data(), 4, 64, 64);
    std::vector<int> path;
    Caller<64> small;
    small.SetTrans(1, 1, 2, 0);
    EXPECT_FALSE(small.Decode(emissions, path));
    EXPECT_EQ(ErrorOf([&] { small.Decode(Common::EmissionBase<float>(em.data(), 4, 63, 63), path); }),
              "Unexpected size of posterior matrix.");
}

// Against every path: powers of two make every product exact, in float as in double, so ties are
// real and the tie rules decide. Continuous values, with and without a leak, compare by score.
TEST(Caller64Decode, MatchesBruteForce) {
    std::mt19937 rng(7);
    const double values[] = {1.0, 0.5, 0.25, 0.125, 0.0625};
    const float sets[][4] = {{1, 1, 2, 0}, {8, 4, 4, 0}, {1, 2, 1, 0}, {2, 4, 8, 0}, {.6f, .3f, .1f, .5f}};
    int ties = 0;
    for (int trial = 0; trial < 52; ++trial) {
        const bool exact = trial < 40;
        const std::size_t n = 1 + trial % (exact ? 4 : 3);
        std::vector<std::vector<double>> em(n, std::vector<double>(kN));
        for (auto& row : em) {
            for (auto& x : row)
                x = exact ? values[rng() % 5] : std::uniform_real_distribution<double>(0.01, 1.0)(rng);
        }
        const float* t = sets[exact ? trial % 4 : 4];
        Caller<64> caller;
        caller.SetTrans(t[0], t[1], t[2], exact || trial % 2 ? t[3] : 0.0f);
        auto flat = Flatten(em);
        Common::EmissionBase<float> emissions(flat.data(), n, kN, kN);
        std::vector<int> path;
        std::vector<signed char> moves;
        ASSERT_TRUE(caller.Decode(emissions, path, moves));
        const auto edges = modelEdges(em, caller);
        const brute_force::Best brute = brute_force::Decode(n, em[0], edges);
        if (!exact) {
            EXPECT_NEAR(brute_force::PathScore(path, em[0], edges) / brute.score, 1.0, 1e-5) << trial;
            continue;
        }
        EXPECT_EQ(path, brute.states) << "trial " << trial;
        std::vector<int> simple;
        ASSERT_TRUE(caller.SimpleDecode(emissions, simple));
        EXPECT_EQ(simple, path);
        // A column-major view of the same emissions decodes alike.
        std::vector<float> colMajor(n * kN);
        for (std::size_t e = 0; e < n * kN; ++e) colMajor[(e % kN) * n + e / kN] = flat[e];
        ASSERT_TRUE(caller.Decode(
            Common::EmissionBase<float>(colMajor.data(), n, kN, 1, static_cast<std::int64_t>(n)), simple));
        EXPECT_EQ(simple, path);
        ASSERT_EQ(moves.size(), n);
        EXPECT_EQ(moves[0], 1);
        for (std::size_t r = 1; r < n; ++r) {
            const int want = brute.ranks[r] == 0 ? 0 : brute.ranks[r] < 5 ? 1 : 2;
            EXPECT_EQ(moves[r], want) << "trial " << trial << " row " << r;
        }
        // Trials with several optimal paths are the ones where the tie rules decide.
        ties += brute.optimalPaths > 1;
    }
    EXPECT_GT(ties, 10);
}

TEST(Caller, TransitionExpectationsOfOneHotPath) {
    // 6 -> 6 stay, 6 -> 25 step ((6 mod 16) * 4 + 1), 25 -> 21 skip ((25 mod 4) * 16 + 5); none of these
    // pairs is related in a second way, so each row is one-hot.
    const int states[] = {6, 6, 25, 21};
    std::vector<float> post(4 * kN, 0.0f);
    for (int r = 0; r < 4; ++r) post[r * kN + states[r]] = 1.0f;
    Caller<64> caller;
    std::vector<float> out(4 * 3, -1.0f);
    Common::MatView<float> outView(out.data(), 4, 3, 3);
    caller.TransitionExpectations(Common::MatView<float>(post.data(), 4, kN, kN), outView);
    EXPECT_EQ(out, (std::vector<float>{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}));
}

TEST(StateMoves, SmallestNumberOfNewBases) {
    // k = 3: 0b00'01'10 (ACG) -> CGT is one base, GTA two, TAC three (no overlap).
    const int acg = 0 * 16 + 1 * 4 + 2, cgt = 1 * 16 + 2 * 4 + 3, gta = 2 * 16 + 3 * 4, tac = 3 * 16 + 1;
    const int to[] = {acg, cgt, gta, tac};
    for (int k = 0; k < 4; ++k) EXPECT_EQ(BasecallHMM::MoveBetweenStates(acg, to[k], 3), k);
    std::vector<signed char> moves;
    BasecallHMM::MovesFromStates({acg, cgt, cgt, tac}, 3, moves);
    EXPECT_EQ(moves, (std::vector<signed char>{1, 1, 0, 2}));
}

// Every kernel build this processor can run gives the bits of the scalar reference.
TEST(HmmKernels, EveryBuildMatchesTheReference) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(0.0f, 1.0f);
    for (int n : {64, 256, 1024, 4096}) {
        const auto sets = kernels::AvailableKernels(n);
        ASSERT_GE(sets.size(), 2u) << n;
        ASSERT_STREQ(sets[0]->name, "reference");
        for (int trial = 0; trial < 6; ++trial) {
            std::vector<float> prev(n), em(n), post(n + 1);
            for (int s = 0; s < n; ++s) {
                // Half of the trials draw from few values so that maxima tie.
                prev[s] = trial % 2 ? uni(rng) : static_cast<float>(rng() % 4) / 4.0f;
                em[s] = uni(rng);
                post[s] = trial % 2 ? uni(rng) : static_cast<float>(rng() % 3) / 2.0f;
            }
            post[n] = uni(rng);
            const bool skips = trial % 4 >= 2;  // then ties among a skip's sixteen sources decide too
            const kernels::TransParams tp{skips ? 0.01f : 0.5f, 0.1f, skips ? 0.5f : 0.01f,
                                          trial % 3 == 0 ? 0.0f : 0.001f};
            // Every output of every row kernel, as bytes for an exact comparison.
            auto run = [&](const kernels::KernelSet* k) {
                std::vector<float> d(n), t(n), work(kernels::WorkspaceFloats(n));
                std::vector<std::uint8_t> codes(n);
                std::vector<std::int32_t> trace(n);
                int leak = 0;
                const float sums[3] = {
                    k->decodeRow(n, prev.data(), em.data(), d.data(), codes.data(), tp, work.data(), &leak),
                    k->transducerRow(n, prev.data(), post.data(), post[n], t.data(), trace.data(),
                                     work.data()),
                    k->sumRow(n, em.data())};
                k->scaleRow(n, d.data(), 1.0f / sums[0]);
                std::string out(reinterpret_cast<const char*>(sums), sizeof sums);
                out.append(reinterpret_cast<const char*>(d.data()), n * 4)
                    .append(reinterpret_cast<const char*>(t.data()), n * 4);
                out.append(reinterpret_cast<const char*>(codes.data()), n)
                    .append(reinterpret_cast<const char*>(trace.data()), n * 4);
                return out + std::to_string(leak);
            };
            const std::string ref = run(sets[0]);
            for (std::size_t i = 1; i < sets.size(); ++i) {
                EXPECT_TRUE(run(sets[i]) == ref) << sets[i]->name << " n=" << n << " trial " << trial;
            }
        }
    }
}
