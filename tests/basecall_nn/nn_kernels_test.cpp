// Every build of the kernels that this processor can run, against double precision or a plain loop
// and against each other, over lengths that leave every kind of loop tail.

#include "basecall_nn/nn_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using BasecallNN::kernels::KernelSet;

namespace {

std::vector<float> randomValues(std::mt19937& rng, std::size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

// Activations applied by one kernel set to the same inputs.
std::vector<std::vector<float>> applyAll(const KernelSet& k, const std::vector<float>& x) {
    std::vector<std::vector<float>> out(6, x);
    k.tanh(out[0].data(), x.size());
    k.sigmoid(out[1].data(), x.size());
    k.relu(out[2].data(), x.size());
    k.elu(out[3].data(), x.size());
    k.expPlus(out[4].data(), x.size(), 1e-6f);
    k.scaledTanh(out[5].data(), x.size(), 5.0f);
    return out;
}

double reference(int which, double v) {
    switch (which) {
        case 0: return std::tanh(v);
        case 1: return 1.0 / (1.0 + std::exp(-v));
        case 2: return v < 0 ? 0.0 : v;
        case 3: return v < 0 ? std::exp(v) - 1.0 : v;
        case 4: return std::exp(v) + 1e-6;
        default: return 5.0 * std::tanh(v);
    }
}

}  // namespace

TEST(NNKernelsTest, BestIsOneOfTheAvailableSets) {
    const auto sets = BasecallNN::kernels::Available();
    ASSERT_FALSE(sets.empty());
    EXPECT_STREQ(sets.front()->name, "default");
    EXPECT_EQ(&BasecallNN::kernels::Baseline(), sets.front());
    EXPECT_EQ(&BasecallNN::kernels::Best(), sets.back());
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512vl");
    EXPECT_EQ(sets.size(), 1u + avx2 + avx512);
    EXPECT_STREQ(BasecallNN::kernels::Best().name, avx512 ? "avx512" : avx2 ? "avx2" : "default");
}

TEST(NNKernelsTest, ActivationsMatchDoublePrecisionInEverySet) {
    std::mt19937 rng(21);
    const char* names[] = {"tanh", "sigmoid", "relu", "elu", "expPlus", "scaledTanh"};
    for (const KernelSet* k : BasecallNN::kernels::Available()) {
        for (std::size_t n = 0; n <= 70; ++n) {
            const auto x = randomValues(rng, n, -12.0f, 12.0f);
            const auto out = applyAll(*k, x);
            for (int which = 0; which < 6; ++which) {
                for (std::size_t i = 0; i < n; ++i) {
                    const double want = reference(which, x[i]);
                    // A few units in the last place of the result, plus one of 1.0 where exp(x) - 1
                    // cancels.
                    const double tol = 4e-7 * std::fabs(want) + 1.2e-7;
                    ASSERT_NEAR(out[which][i], want, tol)
                        << k->name << " " << names[which] << " n=" << n << " i=" << i << " x=" << x[i];
                }
            }
        }
    }
}

TEST(NNKernelsTest, ArithmeticIsIdenticalInEverySet) {
    const auto sets = BasecallNN::kernels::Available();
    std::mt19937 rng(22);
    for (std::size_t n : {1u, 3u, 4u, 8u, 13u, 64u, 97u}) {
        const auto x = randomValues(rng, n, -9.0f, 9.0f);
        const auto y = randomValues(rng, n, -2.0f, 2.0f);
        const auto z = randomValues(rng, n, 0.0f, 1.0f);
        for (const KernelSet* k : sets) {
            // No contraction into fused multiply-adds, so results are identical.
            std::vector<float> a = x, b = x, p(n), q(n), h1 = y, h2 = y;
            k->add(a.data(), y.data(), n);
            sets.front()->add(b.data(), y.data(), n);
            EXPECT_EQ(a, b);
            k->addMultiply(a.data(), y.data(), z.data(), n);
            sets.front()->addMultiply(b.data(), y.data(), z.data(), n);
            EXPECT_EQ(a, b);
            k->multiply(a.data(), z.data(), n);
            sets.front()->multiply(b.data(), z.data(), n);
            EXPECT_EQ(a, b);
            k->product(p.data(), x.data(), y.data(), n);
            sets.front()->product(q.data(), x.data(), y.data(), n);
            EXPECT_EQ(p, q);
            k->interpolate(h1.data(), z.data(), x.data(), n);
            sets.front()->interpolate(h2.data(), z.data(), x.data(), n);
            EXPECT_EQ(h1, h2);
            for (std::size_t i = 0; i < n; ++i) {
                EXPECT_EQ(p[i], x[i] * y[i]);
                EXPECT_EQ(h1[i], z[i] * (y[i] - x[i]) + x[i]);
            }
        }
    }
}

// The recurrent product of every set against the plain loop it must equal bit for bit (each output
// summed over the rows in order, from zero): one vector or two, assigned or added, over widths that
// leave every kind of block and column tail, with a row stride wider than the row. The second vector
// of a pair gets the same result as alone.
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
                    const std::string where = std::string(set->name) + " k=" + std::to_string(k) +
                                              " n=" + std::to_string(n) + " add=" + std::to_string(add);
                    EXPECT_EQ(one, want1) << where;
                    EXPECT_EQ(pair1, want1) << where;
                    EXPECT_EQ(pair2, want2) << where;
                }
            }
        }
    }
}
