// The checks of the element-wise and matrix helpers: sizes before strides, every operand. Their
// results are checked through the layers that use them (cblas_layers_test.cpp).

#include "basecall_nn/blas_helpers.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "nn_test_util.h"

using namespace BasecallNN::detail;
using Common::MatView;
using Common::VecView;

TEST(BlasHelpersTest, FailureTextsSizeBeforeStride) {
    std::vector<float> a(16), b(16), c(16);
    const auto v = [&](int n, int stride = 1) { return VecView<float>(a.data(), n, stride); };
    const auto cv = [&](int n, int stride = 1) { return VecView<const float>(b.data(), n, stride); };
    const MatView<const float> W(c.data(), 2, 3, 3, 1);  // 2 inputs, 3 outputs
    const auto X = [&](int rows, int cols) { return MatView<const float>(b.data(), rows, cols, 8, 1); };
    const auto Y = [&](int rows, int cols) { return MatView<float>(a.data(), rows, cols, 8, 1); };
    const std::string size = "Size mismatch error in ", stride = "Non-unit stride used in ";
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { elementAdd(v(3), cv(4, 2)); }, size + "elementAdd"},  // a stride of 2 as well
        {[&] { elementAdd(v(3, 2), cv(3)); }, stride + "elementAdd"},
        {[&] { elementAdd(v(3), cv(3, 2)); }, stride + "elementAdd"},
        {[&] { elementMultiply(v(4, 2), cv(3)); }, size + "elementMultiply"},
        {[&] { elementMultiply(v(3), cv(3, 2)); }, stride + "elementMultiply"},
        {[&] { elementAddMultiply(v(3), cv(3), cv(4)); }, size + "elementAddMultiply"},
        {[&] { elementAddMultiply(v(3), cv(4), cv(3)); }, size + "elementAddMultiply"},
        {[&] { elementAddMultiply(v(3), cv(3), cv(3, 2)); }, stride + "elementAddMultiply"},
        {[&] { normalizeVector(v(3, 2)); }, stride + "normalizeVector"},
        {[&] { matrixMultiply(v(4), cv(2), W); }, size + "matrixMultiply"},
        {[&] { matrixMultiply(v(3), cv(3), W); }, size + "matrixMultiply"},
        {[&] { matrixMultiply(v(3), cv(2, 2), W); }, stride + "matrixMultiply"},
        {[&] { matrixMultiplyAdd(v(4), cv(2), W); }, size + "matrixMultiplyAdd"},
        {[&] { matrixMultiply(X(2, 2), W, Y(3, 3)); }, size + "matrixMultiply"},
        {[&] { matrixMultiply(X(2, 2), W, Y(2, 2)); }, size + "matrixMultiply"},
        {[&] { matrixMultiply(X(2, 3), W, Y(2, 3)); }, size + "matrixMultiply"},
        {[&] { matrixMultiply(X(2, 2), MatView<const float>(c.data(), 2, 3, 6, 2), Y(2, 3)); }, stride + "matrixMultiply"},
        {[&] { matrixMultiply(X(2, 2), W, Y(2, 3)); }, "(no exception)"},
        {[&] { matrixMultiply(v(3), cv(2), W); }, "(no exception)"},
    };
    for (const auto& [f, message] : cases) {
        EXPECT_EQ(nn_test::ErrorOf(f), message == "(no exception)" ? message : message + "() function.");
    }
}
