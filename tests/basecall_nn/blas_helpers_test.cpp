// The element-wise and matrix helpers: results against plain loops, and the fixed texts of their
// failures with the size check before the stride check.

#include "basecall_nn/blas_helpers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "nn_test_util.h"

using namespace BasecallNN::detail;
using Common::MatView;
using Common::VecView;
using nn_test::ErrorOf;

namespace {

std::vector<float> randomVector(std::mt19937& rng, std::size_t n) {
    std::uniform_real_distribution<float> d(-2.0f, 2.0f);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

}  // namespace

TEST(BlasHelpersTest, ElementWiseResults) {
    std::mt19937 rng(11);
    for (const std::size_t n : {0u, 1u, 7u, 8u, 33u}) {
        const auto a0 = randomVector(rng, n), b = randomVector(rng, n), c = randomVector(rng, n);
        auto a = a0;
        elementAdd(VecView<float>(a.data(), n), VecView<const float>(b.data(), n));
        for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(a[i], a0[i] + b[i]);
        a = a0;
        elementMultiply(VecView<float>(a.data(), n), VecView<const float>(b.data(), n));
        for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(a[i], a0[i] * b[i]);
        a = a0;
        elementAddMultiply(VecView<float>(a.data(), n), VecView<const float>(b.data(), n),
                           VecView<const float>(c.data(), n));
        for (std::size_t i = 0; i < n; ++i) EXPECT_NEAR(a[i], a0[i] + b[i] * c[i], 1e-6);
    }
    std::vector<float> v = {1.0f, -3.0f, 4.0f, 0.0f};
    normalizeVector(VecView<float>(v.data(), v.size()));
    EXPECT_FLOAT_EQ(v[0], 0.125f);
    EXPECT_FLOAT_EQ(v[1], -0.375f);
    EXPECT_FLOAT_EQ(v[2], 0.5f);
    EXPECT_FLOAT_EQ(v[3], 0.0f);
}

TEST(BlasHelpersTest, ProductsOnPaddedStorage) {
    std::mt19937 rng(12);
    const std::size_t rows = 5, in = 7, out = 11, wStride = 32, xStride = 8, yStride = 16;
    const auto wData = randomVector(rng, in * wStride);
    const auto xData = randomVector(rng, rows * xStride);
    const MatView<const float> W(wData.data(), in, out, wStride, 1);
    const MatView<const float> X(xData.data(), rows, in, xStride, 1);

    // Vector forms: y = W^T x, then y += W^T x.
    const VecView<const float> x = X.row(2);
    std::vector<float> y(out, 99.0f);
    matrixMultiply(VecView<float>(y.data(), out), x, W);
    for (std::size_t j = 0; j < out; ++j) {
        double s = 0;
        for (std::size_t i = 0; i < in; ++i) s += double(W(i, j)) * x[i];
        EXPECT_NEAR(y[j], s, 1e-5);
        y[j] = static_cast<float>(s);
    }
    std::vector<float> y2 = y;
    matrixMultiplyAdd(VecView<float>(y2.data(), out), x, W);
    for (std::size_t j = 0; j < out; ++j) EXPECT_NEAR(y2[j], 2 * y[j], 1e-5);

    // Matrix form: Y = X W, padding cells of Y left alone.
    std::vector<float> yData(rows * yStride, -7.0f);
    matrixMultiply(X, W, MatView<float>(yData.data(), rows, out, yStride, 1));
    for (std::size_t r = 0; r < rows; ++r) {
        for (std::size_t j = 0; j < out; ++j) {
            double s = 0;
            for (std::size_t i = 0; i < in; ++i) s += double(X(r, i)) * W(i, j);
            EXPECT_NEAR(yData[r * yStride + j], s, 1e-5);
        }
        for (std::size_t j = out; j < yStride; ++j) EXPECT_EQ(yData[r * yStride + j], -7.0f);
    }
}

TEST(BlasHelpersTest, FailureTextsSizeBeforeStride) {
    std::vector<float> a(8), b(8), c(8);
    const VecView<float> a3(a.data(), 3), a4(a.data(), 4), a3s2(a.data(), 3, 2), a4s2(a.data(), 4, 2);
    const VecView<const float> b3(b.data(), 3), b4s2(b.data(), 4, 2), c3(c.data(), 3);

    // Sizes 3 and 4 report the size failure although a stride is 2 as well.
    EXPECT_EQ(ErrorOf([&] { elementAdd(a3, b4s2); }), "Size mismatch error in elementAdd() function.");
    EXPECT_EQ(ErrorOf([&] { elementAdd(a3s2, b3); }), "Non-unit stride used in elementAdd() function.");
    EXPECT_EQ(ErrorOf([&] { elementMultiply(a4s2, b3); }), "Size mismatch error in elementMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { elementMultiply(a3s2, b3); }), "Non-unit stride used in elementMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { elementAddMultiply(a3, b3, VecView<const float>(c.data(), 4)); }),
              "Size mismatch error in elementAddMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { elementAddMultiply(a3, b3, VecView<const float>(c.data(), 3, 2)); }),
              "Non-unit stride used in elementAddMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { normalizeVector(a3s2); }), "Non-unit stride used in normalizeVector() function.");

    const MatView<const float> W(c.data(), 2, 3, 3, 1);  // 2 inputs, 3 outputs
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(a4, VecView<const float>(b.data(), 2), W); }),
              "Size mismatch error in matrixMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(a3, b3, W); }), "Size mismatch error in matrixMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { matrixMultiplyAdd(a4, VecView<const float>(b.data(), 2), W); }),
              "Size mismatch error in matrixMultiplyAdd() function.");

    std::vector<float> x(16), y(16);
    const MatView<const float> X(x.data(), 2, 2, 8, 1);
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(X, W, MatView<float>(y.data(), 3, 3, 8, 1)); }),
              "Size mismatch error in matrixMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(X, W, MatView<float>(y.data(), 2, 2, 8, 1)); }),
              "Size mismatch error in matrixMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(MatView<const float>(x.data(), 2, 3, 8, 1), W,
                                             MatView<float>(y.data(), 2, 3, 8, 1)); }),
              "Size mismatch error in matrixMultiply() function.");
    EXPECT_EQ(ErrorOf([&] { matrixMultiply(X, W, MatView<float>(y.data(), 2, 3, 8, 1)); }), "(no exception)");
}
