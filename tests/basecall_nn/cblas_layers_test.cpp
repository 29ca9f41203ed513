// The row layers and the GRU against a plain double-precision implementation of their textbook
// equations, written here from per-gate weight matrices (out x in), on random weights and inputs.
// The window layer and the LSTM are checked against numpy (nn_model_fixtures_test.cpp).

#include "basecall_nn/cblas_layers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::Matrix;

namespace {

using Vec = std::vector<double>;
using Rows = std::vector<Vec>;

double sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

// One gate: W is out x in, U out x out, row-major.
struct Gate {
    int in, out;
    std::vector<float> W, U, b;
    Gate(std::mt19937& rng, int in_, int out_) : in(in_), out(out_) {
        const auto fill = [&rng](std::vector<float>& v, int n, float scale) {
            std::uniform_real_distribution<float> d(-scale, scale);
            for (int i = 0; i < n; ++i) v.push_back(d(rng));
        };
        fill(W, in * out, 1.2f / std::sqrt(float(in)));
        fill(U, out * out, 1.2f / std::sqrt(float(out)));
        fill(b, out, 0.6f);
    }
    // The loader's view: insize by size over the out x in array.
    GateParams params() const {
        return {Common::MatView<const float>(W.data(), in, out, 1, in),
                Common::MatView<const float>(U.data(), out, out, 1, out),
                Common::VecView<const float>(b.data(), out, 1)};
    }
    // W x + U h + b, with the bias and either part left out on request.
    Vec affine(const Vec* x, const Vec* h, bool bias = true) const {
        Vec y(out);
        for (int o = 0; o < out; ++o) {
            double s = bias ? b[o] : 0.0;
            for (int i = 0; x && i < in; ++i) s += double(W[o * in + i]) * (*x)[i];
            for (int j = 0; h && j < out; ++j) s += double(U[o * out + j]) * (*h)[j];
            y[o] = s;
        }
        return y;
    }
};

Rows toRows(const Matrix& m) {
    Rows r(m.rows, std::vector<double>(m.cols));
    for (std::size_t i = 0; i < m.rows; ++i)
        for (std::size_t j = 0; j < m.cols; ++j) r[i][j] = m(i, j);
    return r;
}

// A GRU's gates: reset, update, candidate.
std::vector<Gate> gates(std::mt19937& rng, int in, int out) {
    return {Gate(rng, in, out), Gate(rng, in, out), Gate(rng, in, out)};
}
GruParams gruParams(const std::vector<Gate>& g) { return {g[1].params(), g[0].params(), g[2].params()}; }

Rows referenceGru(const Rows& x, const std::vector<Gate>& g, bool reverse, bool resetAfter, bool residual) {
    const int H = g[0].out, T = static_cast<int>(x.size());
    Vec h(H, 0.0);
    Rows out(T);
    for (int s = 0; s < T; ++s) {
        const int t = reverse ? T - 1 - s : s;
        const auto r = g[0].affine(&x[t], &h), z = g[1].affine(&x[t], &h), wx = g[2].affine(&x[t], nullptr);
        Vec rh(H), n(H);
        for (int i = 0; i < H; ++i) rh[i] = sigmoid(r[i]) * h[i];
        const auto uh = g[2].affine(nullptr, resetAfter ? &h : &rh, false);
        for (int i = 0; i < H; ++i) n[i] = std::tanh(wx[i] + (resetAfter ? sigmoid(r[i]) : 1.0) * uh[i]);
        for (int i = 0; i < H; ++i) h[i] = sigmoid(z[i]) * h[i] + (1.0 - sigmoid(z[i])) * n[i];
        out[t] = h;
        for (int i = 0; residual && i < H; ++i) out[t][i] += x[t][i];
    }
    return out;
}

// Largest |a - b| over all cells; a NaN or a mismatch of shape is infinite.
double maxError(const Matrix& got, const Rows& want) {
    if (got.rows != want.size() || (!want.empty() && got.cols != want[0].size())) return INFINITY;
    double err = 0.0;
    for (std::size_t r = 0; r < got.rows; ++r)
        for (std::size_t c = 0; c < got.cols; ++c) {
            const double d = std::fabs(double(got(r, c)) - want[r][c]);
            err = std::isnan(d) ? INFINITY : std::max(err, d);
        }
    return err;
}

Matrix runLayer(const CblasLayer& layer, const Matrix& in) {
    return nn_test::RunLayers(std::vector<const CblasLayer*>{&layer}, in);
}

}  // namespace

// Every layer that maps each row on its own: the affine map followed by its function, on both sides
// of zero. The softmax takes no maximum out and adds 1e-6 to each exponential, so a row whose every
// logit underflows comes out uniform.
TEST(RowLayerTest, EveryKindMatchesReference) {
    std::mt19937 rng(2);
    const Gate g(rng, 13, 11);
    Gate veryNegative(rng, 13, 5);
    veryNegative.b.assign(5, -200.0f);
    for (float& w : veryNegative.W) w *= 1e-3f;
    const Matrix in = nn_test::RandomMatrix(rng, 7, 13, -2.0f, 2.0f);
    const auto P = g.params(), N = veryNegative.params();
    const auto exp = [](double v) { return std::exp(v) + 1e-6; };
    struct Case {
        const char* name;
        std::unique_ptr<CblasLayer> layer;
        const Gate* gate;
        double (*fn)(double);
        bool softmax;  // divide by the row's sum
        double tolerance;
    };
    Case cases[] = {
        {"identity", MakeFeedforward(v_identity, P.iW, P.bias), &g, [](double v) { return v; }, false, 2e-6},
        {"tanh", MakeFeedforward(v_tanh, P.iW, P.bias), &g, [](double v) { return std::tanh(v); }, false,
         2e-6},
        {"sigmoid", MakeFeedforward(v_sigmoid, P.iW, P.bias), &g, sigmoid, false, 2e-6},
        {"relu", MakeFeedforward(v_relu, P.iW, P.bias), &g, [](double v) { return std::max(v, 0.0); }, false,
         2e-6},
        {"elu", MakeFeedforward(v_elu, P.iW, P.bias), &g,
         [](double v) { return v < 0 ? std::exp(v) - 1.0 : v; }, false, 2e-6},
        {"two-state", std::make_unique<GlobalNormTwoState>(P.iW, P.bias), &g,
         [](double v) { return 5.0 * std::tanh(v); }, false, 5e-6},
        {"softmax", std::make_unique<Softmax>(P.iW, P.bias), &g, exp, true, 1e-7},
        {"underflowing softmax", std::make_unique<Softmax>(N.iW, N.bias), &veryNegative, exp, true, 1e-7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rows want;
        int negatives = 0;
        for (const auto& row : toRows(in)) {
            auto y = c.gate->affine(&row, nullptr);
            double sum = 0.0;
            for (double& v : y) {
                negatives += v < 0;
                sum += (v = c.fn(v));
            }
            for (double& v : y) v /= c.softmax ? sum : 1.0;
            want.push_back(y);
        }
        ASSERT_GT(negatives, 10);  // both sides of relu and elu are exercised
        EXPECT_LT(maxError(runLayer(*c.layer, in), want), c.tolerance);
    }
    EXPECT_EQ(nn_test::ErrorOf([&] { MakeFeedforward(static_cast<Activation>(5), P.iW, P.bias); }),
              "Unsupported activation function for feed-forward layer");
}

// The GRU in each direction, alone and paired, against its textbook equations: widths of 3 and 96
// in both candidate forms over 600 rows (input products are taken in blocks of 256, the last
// partial), the residual form, and single rows, over which a reversed layer acts as a forward one.
// The LSTM is checked against numpy in nn_model_fixtures_test.cpp.
TEST(GruTest, EveryFormMatchesReference) {
    struct Case { int in, out, rows; bool resetAfter, reverse, residual, bidir; };
    const Case cases[] = {
        {7, 3, 600, false, false, false, false}, {7, 3, 600, true, true, false, false},
        {7, 96, 600, true, false, false, false}, {7, 96, 600, false, true, false, false},
        {10, 10, 12, true, false, true, false},  {10, 10, 12, true, true, true, false},
        {4, 9, 1, false, true, false, false},    {6, 5, 17, false, false, false, true},
    };
    std::mt19937 rng(100);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.out) + " over " + std::to_string(c.rows) + " rows, reverse " +
                     std::to_string(c.reverse) + ", reset after " + std::to_string(c.resetAfter));
        const Matrix in = nn_test::RandomMatrix(rng, c.rows, c.in, -2.0f, 2.0f);
        const Rows x = toRows(in);
        const auto f = gates(rng, c.in, c.out), b = gates(rng, c.in, c.out);
        const auto gru = [&](const std::vector<Gate>& g, bool reverse) {
            return std::make_unique<Gru>(c.in, c.out, gruParams(g), c.resetAfter, reverse, c.residual);
        };
        std::unique_ptr<CblasLayer> layer = c.bidir ? nullptr : gru(f, c.reverse);
        Rows want = referenceGru(x, f, c.reverse, c.resetAfter, c.residual);
        if (c.bidir) {
            layer = std::make_unique<Bidir<Gru>>(gru(f, false), gru(b, true));
            const Rows back = referenceGru(x, b, true, c.resetAfter, c.residual);
            for (std::size_t r = 0; r < want.size(); ++r)
                want[r].insert(want[r].end(), back[r].begin(), back[r].end());
        }
        EXPECT_LT(maxError(runLayer(*layer, in), want), 2e-5);
    }
    EXPECT_THROW(Gru(7, 10, gruParams(gates(rng, 7, 10)), false, false, true), std::runtime_error);
}
