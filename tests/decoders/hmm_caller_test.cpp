#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "decoders/hmm_caller.h"
#include "decoders/hmm_kernels.h"
#include "decoders/state_moves.h"

using BasecallHMM::Caller;
using BasecallHMM::CallerBase;
namespace kernels = BasecallHMM::kernels;

namespace {

template <typename F>
std::string ErrorOf(F f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

constexpr int kN = 64;

// Transition weight of p -> s in the Viterbi sense and the back pointer code that names it: the best
// of the kinds that lead from p to s, the earlier kind winning a tie. Code -1: no such transition.
struct Edge {
    double weight = 0.0;
    int code = -1;
};

Edge viterbiEdge(int p, int s, double stay, double step, double skip) {
    Edge e;
    auto offer = [&](double w, int code) {
        if (e.code < 0 || w > e.weight) {
            e.weight = w;
            e.code = code;
        }
    };
    if (p == s) {
        offer(stay, 0);
    }
    for (int m = 0; m < 4; ++m) {
        if (p == m * (kN / 4) + s / 4) {
            offer(step, 1 + m);
        }
    }
    for (int m = 0; m < 16; ++m) {
        if (p == m * (kN / 16) + s / 16) {
            offer(skip, 5 + m);
        }
    }
    return e;
}

// The best path over all state sequences, scored exactly in double. Among equal scores the Viterbi
// recursion keeps, row by row from the end, the smallest final state and then the smallest back
// pointer code, so that is the order used here.
struct Brute {
    double score = -1.0;
    int optimalPaths = 0;  // how many paths reach the best score
    std::vector<int> path;
    std::vector<int> codes;  // code of the transition into each row (row 0 unused)
};

Brute bruteForceDecode(const std::vector<std::vector<double>>& em, double stay, double step, double skip,
                       double leak) {
    const std::size_t n = em.size();
    Brute best;
    std::vector<int> path(n), codes(n, -1);
    auto better = [&](double score) {
        if (score == best.score) {
            ++best.optimalPaths;
        } else if (score > best.score) {
            best.optimalPaths = 1;
        }
        if (score != best.score) {
            return score > best.score;
        }
        if (path[n - 1] != best.path[n - 1]) {
            return path[n - 1] < best.path[n - 1];
        }
        for (std::size_t r = n - 1; r >= 1; --r) {
            if (codes[r] != best.codes[r]) {
                return codes[r] < best.codes[r];
            }
        }
        return false;
    };
    std::function<void(std::size_t, double)> walk = [&](std::size_t r, double score) {
        if (r == n) {
            if (better(score)) {
                best.score = score;
                best.path = path;
                best.codes = codes;
            }
            return;
        }
        for (int s = 0; s < kN; ++s) {
            Edge e = viterbiEdge(path[r - 1], s, stay, step, skip);
            if (leak > 0.0 && (e.code < 0 || leak > e.weight)) {
                e.weight = leak;
                e.code = 21;
            }
            if (e.code < 0) {
                continue;
            }
            path[r] = s;
            codes[r] = e.code;
            walk(r + 1, score * e.weight * em[r][s]);
        }
    };
    for (int s = 0; s < kN; ++s) {
        path[0] = s;
        if (n == 1) {
            if (better(em[0][s])) {
                best.score = em[0][s];
                best.path = path;
                best.codes = codes;
            }
        } else {
            walk(1, em[0][s]);
        }
    }
    return best;
}

double pathScore(const std::vector<std::vector<double>>& em, const std::vector<int>& path, double stay, double step,
                 double skip, double leak) {
    double score = em[0][path[0]];
    for (std::size_t r = 1; r < path.size(); ++r) {
        Edge e = viterbiEdge(path[r - 1], path[r], stay, step, skip);
        double w = e.code < 0 ? 0.0 : e.weight;
        w = std::max(w, leak);
        score *= w * em[r][path[r]];
    }
    return score;
}

std::vector<float> flatten(const std::vector<std::vector<double>>& em) {
    std::vector<float> out;
    for (const auto& row : em) {
        out.insert(out.end(), row.begin(), row.end());
    }
    return out;
}

}  // namespace

TEST(Caller, FactoryAndTransitionSettings) {
    for (int n : {64, 256, 1024, 4096, 16384, 65536, 262144, 1048576}) {
        EXPECT_EQ(BasecallHMM::CreateCaller(n)->NumStates(), n);
    }
    for (int n : {0, 1, 4, 16, 100, 128, 1000}) {
        EXPECT_EQ(ErrorOf([&] { BasecallHMM::CreateCaller(n); }),
                  "Unsupported number of states: " + std::to_string(n) +
                      ". State count should be a positive power of 4.");
    }
    Caller<1024> caller;
    EXPECT_EQ(caller.NumStates(), 1024);
    caller.SetTrans(1, 1, 2, 0);
    EXPECT_FLOAT_EQ(caller.StayProb(), 0.25f);
    EXPECT_FLOAT_EQ(caller.StepProb(), 0.0625f);
    EXPECT_FLOAT_EQ(caller.SkipProb(), 0.03125f);
    EXPECT_FLOAT_EQ(caller.LeakProb(), 0.0f);
    caller.SetTrans(2, 2, 4, 2048);
    EXPECT_FLOAT_EQ(caller.StayProb(), 0.25f);
    EXPECT_FLOAT_EQ(caller.LeakProb(), 2.0f);
}

TEST(Caller, ZeroRowFailsAndWrongWidthIsRefused) {
    Caller<64> caller;
    caller.SetTrans(1, 1, 2, 0);
    std::vector<float> em(4 * 64, 1.0f);
    std::fill(em.begin() + 2 * 64, em.begin() + 3 * 64, 0.0f);
    Common::EmissionBase<float> emissions(em.data(), 4, 64, 64);
    std::vector<int> path;
    EXPECT_FALSE(caller.Decode(emissions, path));
    std::vector<float> narrow(4 * 63, 1.0f);
    Common::EmissionBase<float> wrong(narrow.data(), 4, 63, 63);
    EXPECT_EQ(ErrorOf([&] { caller.Decode(wrong, path); }), "Unexpected size of posterior matrix.");
}

// Against every path scored in double. Powers of two make every product exact, in float after row
// scaling as in double, so ties are real ties and the tie rules decide; they come up often with only
// five emission values. Continuous values, with and without a leak, are then compared by score.
TEST(Caller64Decode, MatchesBruteForce) {
    std::mt19937 rng(7);
    const double values[] = {1.0, 0.5, 0.25, 0.125, 0.0625};
    const float settings[][4] = {{1, 1, 2, 0}, {8, 4, 4, 0}, {1, 2, 1, 0}, {2, 4, 8, 0}, {0.6f, 0.3f, 0.1f, 0.5f}};
    int ties = 0;
    for (int trial = 0; trial < 52; ++trial) {
        const bool exact = trial < 40;
        const std::size_t n = 1 + trial % (exact ? 4 : 3);
        std::vector<std::vector<double>> em(n, std::vector<double>(kN));
        for (auto& row : em) {
            for (auto& x : row) {
                x = exact ? values[rng() % 5] : std::uniform_real_distribution<double>(0.01, 1.0)(rng);
            }
        }
        const float* t = settings[exact ? trial % 4 : 4];
        Caller<64> caller;
        caller.SetTrans(t[0], t[1], t[2], exact || trial % 2 ? t[3] : 0.0f);
        auto flat = flatten(em);
        Common::EmissionBase<float> emissions(flat.data(), n, kN, kN);
        std::vector<int> path;
        std::vector<signed char> moves;
        ASSERT_TRUE(caller.Decode(emissions, path, moves));
        const double stay = caller.StayProb(), step = caller.StepProb(), skip = caller.SkipProb();
        const Brute brute = bruteForceDecode(em, stay, step, skip, caller.LeakProb());
        if (!exact) {
            EXPECT_NEAR(pathScore(em, path, stay, step, skip, caller.LeakProb()) / brute.score, 1.0, 1e-5) << trial;
            continue;
        }
        EXPECT_EQ(path, brute.path) << "trial " << trial;
        std::vector<int> simple;
        ASSERT_TRUE(caller.SimpleDecode(emissions, simple));
        EXPECT_EQ(simple, path);
        // A column-major view of the same emissions decodes alike.
        std::vector<float> colMajor(n * kN);
        for (std::size_t e = 0; e < n; ++e)
            for (int s = 0; s < kN; ++s) colMajor[s * n + e] = flat[e * kN + s];
        Common::EmissionBase<float> strided(colMajor.data(), n, kN, 1, static_cast<std::int64_t>(n));
        ASSERT_TRUE(caller.Decode(strided, simple));
        EXPECT_EQ(simple, path);
        ASSERT_EQ(moves.size(), n);
        EXPECT_EQ(moves[0], 1);
        for (std::size_t r = 1; r < n; ++r) {
            const int code = brute.codes[r];
            EXPECT_EQ(moves[r], code == 0 ? 0 : code < 5 ? 1 : 2) << "trial " << trial << " row " << r;
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
    const int acg = 0 * 16 + 1 * 4 + 2, cgt = 1 * 16 + 2 * 4 + 3, gta = 2 * 16 + 3 * 4 + 0, tac = 3 * 16 + 0 + 1;
    EXPECT_EQ(BasecallHMM::MoveBetweenStates(acg, acg, 3), 0);
    EXPECT_EQ(BasecallHMM::MoveBetweenStates(acg, cgt, 3), 1);
    EXPECT_EQ(BasecallHMM::MoveBetweenStates(acg, gta, 3), 2);
    EXPECT_EQ(BasecallHMM::MoveBetweenStates(acg, tac, 3), 3);
    // AAA -> AAA is a stay even though a step of A would also give it.
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
            const kernels::TransParams tp{0.5f, 0.1f, 0.01f, trial % 3 == 0 ? 0.0f : 0.001f};
            struct Out {
                std::vector<float> d, t;
                std::vector<std::uint8_t> codes;
                std::vector<std::int32_t> trace;
                float sums[2];
                int leak;
            };
            auto run = [&](const kernels::KernelSet* k) {
                Out o{std::vector<float>(n), std::vector<float>(n), std::vector<std::uint8_t>(n),
                      std::vector<std::int32_t>(n), {}, 0};
                std::vector<float> work(kernels::WorkspaceFloats(n));
                o.sums[0] = k->decodeRow(n, prev.data(), em.data(), o.d.data(), o.codes.data(), tp, work.data(),
                                         &o.leak);
                o.sums[1] =
                    k->transducerRow(n, prev.data(), post.data(), post[n], o.t.data(), o.trace.data(), work.data());
                k->scaleRow(n, o.d.data(), 1.0f / o.sums[0]);
                return o;
            };
            const Out ref = run(sets[0]);
            for (std::size_t i = 1; i < sets.size(); ++i) {
                const Out got = run(sets[i]);
                SCOPED_TRACE(std::string(sets[i]->name) + " n=" + std::to_string(n));
                EXPECT_EQ(std::memcmp(ref.d.data(), got.d.data(), n * sizeof(float)), 0);
                EXPECT_EQ(std::memcmp(ref.t.data(), got.t.data(), n * sizeof(float)), 0);
                EXPECT_EQ(ref.codes, got.codes);
                EXPECT_EQ(ref.trace, got.trace);
                EXPECT_EQ(std::memcmp(ref.sums, got.sums, sizeof ref.sums), 0);
                EXPECT_EQ(ref.leak, got.leak);
                EXPECT_EQ(sets[0]->sumRow(n, em.data()), sets[i]->sumRow(n, em.data()));
            }
        }
    }
}
