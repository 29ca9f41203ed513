// Every build of the kernels this processor can run against double precision or the plain loop it
// must equal, over lengths that leave every kind of vector, block and column tail: so every set gives
// the same results.

#include "basecall_nn/nn_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>
#include <vector>

using BasecallNN::kernels::KernelSet;

namespace {

std::vector<float> randomValues(std::mt19937& rng, std::size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

}  // namespace

TEST(NNKernelsTest, BestIsTheWidestSetTheProcessorRuns) {
    const auto sets = BasecallNN::kernels::Available();
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512vl");
    ASSERT_EQ(sets.size(), 1u + avx2 + avx512);
    EXPECT_EQ(&BasecallNN::kernels::Baseline(), sets.front());
    EXPECT_STREQ(sets.front()->name, "default");
    EXPECT_STREQ(BasecallNN::kernels::Best().name, avx512 ? "avx512" : avx2 ? "avx2" : "default");
}

TEST(NNKernelsTest, EverySetMatchesTheReference) {
    std::mt19937 rng(21);
    for (const KernelSet* k : BasecallNN::kernels::Available()) {
        SCOPED_TRACE(k->name);
        for (std::size_t n = 0; n <= 70; ++n) {
            const auto x = randomValues(rng, n, -12.0f, 12.0f), y = randomValues(rng, n, -2.0f, 2.0f),
                       z = randomValues(rng, n, 0.0f, 1.0f);
            // Activations: a few units in the last place, plus one of 1.0 where exp(x) - 1 cancels.
            std::vector<std::vector<float>> act(6, x);
            k->tanh(act[0].data(), n);
            k->sigmoid(act[1].data(), n);
            k->relu(act[2].data(), n);
            k->elu(act[3].data(), n);
            k->expPlus(act[4].data(), n, 1e-6f);
            k->scaledTanh(act[5].data(), n, 5.0f);
            for (std::size_t i = 0; i < n; ++i) {
                const double v = x[i], e = std::exp(v);
                const double want[6] = {std::tanh(v),        1.0 / (1.0 + 1.0 / e), v < 0 ? 0.0 : v,
                                        v < 0 ? e - 1.0 : v, e + 1e-6,              5.0 * std::tanh(v)};
                for (int a = 0; a < 6; ++a)
                    ASSERT_NEAR(act[a][i], want[a], 4e-7 * std::fabs(want[a]) + 1.2e-7)
                        << a << " n=" << n << " x=" << v;
            }
            // Arithmetic is never contracted into fused multiply-adds, so it is exact.
            std::vector<std::vector<float>> got = {x, x, x, std::vector<float>(n), y}, want = got;
            k->add(got[0].data(), y.data(), n);
            k->multiply(got[1].data(), z.data(), n);
            k->addMultiply(got[2].data(), y.data(), z.data(), n);
            k->product(got[3].data(), x.data(), y.data(), n);
            k->interpolate(got[4].data(), z.data(), x.data(), n);
            for (std::size_t i = 0; i < n; ++i) {
                const float yz = y[i] * z[i], zd = z[i] * (y[i] - x[i]);
                std::tie(want[0][i], want[1][i], want[2][i], want[3][i], want[4][i]) =
                    std::make_tuple(x[i] + y[i], x[i] * z[i], x[i] + yz, x[i] * y[i], zd + x[i]);
            }
            ASSERT_EQ(got, want) << "n=" << n;
        }
    }
}

// The recurrent product against the plain loop it must equal bit for bit (each output summed over
// the rows in order, from zero): one vector or two, assigned or added, with a row stride wider than
// the row. The second vector of a pair gets the same result as alone.
TEST(NNKernelsTest, MatVecIsTheOrderedSumInEverySet) {
    std::mt19937 rng(23);
    for (std::size_t k : {0u, 1u, 7u, 96u}) {
        for (std::size_t n : {1u, 3u, 4u, 8u, 13u, 16u, 17u, 40u, 96u, 97u, 192u, 288u, 300u, 400u}) {
            const std::size_t ldw = n + 5;
            const auto W = randomValues(rng, std::max<std::size_t>(k * ldw, 1), -1.0f, 1.0f);
            const auto x1 = randomValues(rng, k, -2.0f, 2.0f), x2 = randomValues(rng, k, -2.0f, 2.0f);
            const auto start = randomValues(rng, n, -3.0f, 3.0f);
            for (const bool add : {false, true}) {
                std::vector<float> want1 = start, want2 = start;
                for (std::size_t c = 0; c < n; ++c) {
                    float a1 = 0.0f, a2 = 0.0f;
                    for (std::size_t i = 0; i < k; ++i) {
                        a1 += x1[i] * W[i * ldw + c];
                        a2 += x2[i] * W[i * ldw + c];
                    }
                    want1[c] = add ? want1[c] + a1 : a1;
                    want2[c] = add ? want2[c] + a2 : a2;
                }
                for (const KernelSet* set : BasecallNN::kernels::Available()) {
                    std::vector<float> one = start, pair1 = start, pair2 = start;
                    const float* x[2] = {x1.data(), x2.data()};
                    float* single[1] = {one.data()};
                    float* both[2] = {pair1.data(), pair2.data()};
                    set->matVec(W.data(), ldw, k, n, x, single, 1, add);
                    set->matVec(W.data(), ldw, k, n, x, both, 2, add);
                    EXPECT_EQ(std::tie(one, pair1, pair2), std::tie(want1, want1, want2))
                        << set->name << " k=" << k << " n=" << n << " add=" << add;
                }
            }
        }
    }
}
