// Every layer kind against a plain double-precision implementation of its textbook equations,
// written here from per-gate weight matrices (out x in), on random weights and inputs.

#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::Matrix;

namespace {

using Rows = std::vector<std::vector<double>>;

double sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

// Weights of one gate in their natural form: W is out x in, U is out x out, row-major.
struct Gate {
    int in = 0, out = 0;
    std::vector<float> W, U, b, p;

    Gate(std::mt19937& rng, int in_, int out_) : in(in_), out(out_) {
        std::uniform_real_distribution<float> w(-1.2f / std::sqrt(float(in_)), 1.2f / std::sqrt(float(in_)));
        std::uniform_real_distribution<float> u(-1.2f / std::sqrt(float(out_)), 1.2f / std::sqrt(float(out_)));
        std::uniform_real_distribution<float> s(-0.6f, 0.6f);
        for (int i = 0; i < in * out; ++i) W.push_back(w(rng));
        for (int i = 0; i < out * out; ++i) U.push_back(u(rng));
        for (int i = 0; i < out; ++i) b.push_back(s(rng));
        for (int i = 0; i < out; ++i) p.push_back(s(rng));
    }
    // The loader's view: insize by size over an out x in array.
    GateParams params() const {
        GateParams g;
        g.iW = Common::MatView<const float>(W.data(), in, out, 1, in);
        g.sW = Common::MatView<const float>(U.data(), out, out, 1, out);
        g.bias = Common::VecView<const float>(b.data(), out, 1);
        return g;
    }
    PeepholeGateParams peepParams() const {
        PeepholeGateParams g;
        static_cast<GateParams&>(g) = params();
        g.peep = Common::VecView<const float>(p.data(), out, 1);
        return g;
    }
    // W x + U h + b
    std::vector<double> affine(const std::vector<double>& x, const std::vector<double>& h) const {
        std::vector<double> y(out);
        for (int o = 0; o < out; ++o) {
            double s = b[o];
            for (int i = 0; i < in; ++i) s += double(W[o * in + i]) * x[i];
            for (int j = 0; j < out; ++j) s += double(U[o * out + j]) * h[j];
            y[o] = s;
        }
        return y;
    }
    std::vector<double> stateProduct(const std::vector<double>& h) const {
        std::vector<double> y(out, 0.0);
        for (int o = 0; o < out; ++o)
            for (int j = 0; j < out; ++j) y[o] += double(U[o * out + j]) * h[j];
        return y;
    }
    std::vector<double> inputAffine(const std::vector<double>& x) const {
        return affine(x, std::vector<double>(out, 0.0));
    }
};

Rows toRows(const Matrix& m) {
    Rows r(m.rows, std::vector<double>(m.cols));
    for (std::size_t i = 0; i < m.rows; ++i)
        for (std::size_t j = 0; j < m.cols; ++j) r[i][j] = m(i, j);
    return r;
}

struct GruGates {
    Gate reset, update, candidate;
    GruGates(std::mt19937& rng, int in, int out) : reset(rng, in, out), update(rng, in, out), candidate(rng, in, out) {}
    GruParams params() const {
        GruParams p;
        p.reset = reset.params();
        p.update = update.params();
        p.candidate = candidate.params();
        return p;
    }
};

Rows referenceGru(const Rows& x, const GruGates& g, bool reverse, bool resetAfter, bool residual) {
    const int H = g.reset.out;
    const int T = static_cast<int>(x.size());
    std::vector<double> h(H, 0.0);
    Rows out(T);
    for (int s = 0; s < T; ++s) {
        const int t = reverse ? T - 1 - s : s;
        const auto r = g.reset.affine(x[t], h);
        const auto z = g.update.affine(x[t], h);
        std::vector<double> rs(H), zs(H), n(H);
        for (int i = 0; i < H; ++i) {
            rs[i] = sigmoid(r[i]);
            zs[i] = sigmoid(z[i]);
        }
        const auto wx = g.candidate.inputAffine(x[t]);
        if (resetAfter) {
            const auto uh = g.candidate.stateProduct(h);
            for (int i = 0; i < H; ++i) n[i] = std::tanh(wx[i] + rs[i] * uh[i]);
        } else {
            std::vector<double> rh(H);
            for (int i = 0; i < H; ++i) rh[i] = rs[i] * h[i];
            const auto urh = g.candidate.stateProduct(rh);
            for (int i = 0; i < H; ++i) n[i] = std::tanh(wx[i] + urh[i]);
        }
        for (int i = 0; i < H; ++i) h[i] = zs[i] * h[i] + (1.0 - zs[i]) * n[i];
        out[t] = h;
        if (residual)
            for (int i = 0; i < H; ++i) out[t][i] += x[t][i];
    }
    return out;
}

struct LstmGates {
    Gate forget, input, output, cell;
    LstmGates(std::mt19937& rng, int in, int out)
        : forget(rng, in, out), input(rng, in, out), output(rng, in, out), cell(rng, in, out) {}
    LstmParams params() const {
        LstmParams p;
        p.forget = forget.peepParams();
        p.input = input.peepParams();
        p.output = output.peepParams();
        p.cell = cell.params();
        return p;
    }
};

Rows referenceLstm(const Rows& x, const LstmGates& g, bool reverse) {
    const int H = g.cell.out;
    const int T = static_cast<int>(x.size());
    std::vector<double> h(H, 0.0), c(H, 0.0);
    Rows out(T);
    for (int s = 0; s < T; ++s) {
        const int t = reverse ? T - 1 - s : s;
        const auto f = g.forget.affine(x[t], h);
        const auto i = g.input.affine(x[t], h);
        const auto cc = g.cell.affine(x[t], h);
        const auto o = g.output.affine(x[t], h);
        for (int k = 0; k < H; ++k) {
            const double fs = sigmoid(f[k] + g.forget.p[k] * c[k]);
            const double is = sigmoid(i[k] + g.input.p[k] * c[k]);
            c[k] = fs * c[k] + is * std::tanh(cc[k]);
        }
        for (int k = 0; k < H; ++k) {
            const double os = sigmoid(o[k] + g.output.p[k] * c[k]);
            h[k] = os * std::tanh(c[k]);
        }
        out[t] = h;
    }
    return out;
}

// Largest |a - b| over all cells; a mismatch of shape is a failure of its own.
double maxError(const Matrix& got, const Rows& want) {
    EXPECT_EQ(got.rows, want.size());
    double err = 0.0;
    for (std::size_t r = 0; r < std::min(got.rows, want.size()); ++r) {
        EXPECT_EQ(got.cols, want[r].size());
        for (std::size_t c = 0; c < std::min(got.cols, want[r].size()); ++c) {
            const double d = std::fabs(double(got(r, c)) - want[r][c]);
            err = std::isnan(d) ? INFINITY : std::max(err, d);
        }
    }
    return err;
}

Rows concatColumns(const Rows& a, const Rows& b) {
    Rows out = a;
    for (std::size_t r = 0; r < out.size(); ++r) out[r].insert(out[r].end(), b[r].begin(), b[r].end());
    return out;
}

}  // namespace

TEST(WindowLayerTest, MatchesReference) {
    // {inputs, window, stride, pad left, pad right, rows}: an odd padded length that rounds the row
    // count down, a single row, and a stride of 3 with padding on one side only.
    const std::vector<std::array<int, 6>> cases = {{3, 4, 2, 1, 2, 10}, {2, 3, 1, 1, 1, 1}, {1, 5, 3, 2, 0, 11}};
    std::mt19937 rng(1);
    for (const auto& [in, win, stride, padLeft, padRight, rows] : cases) {
        SCOPED_TRACE("window " + std::to_string(win) + " stride " + std::to_string(stride));
        WindowLayer layer(in, win, stride, padLeft, padRight);
        const int outRows = (padLeft + padRight + rows - win) / stride + 1;
        EXPECT_EQ(layer.outSize, in * win);
        EXPECT_EQ(layer.OutputRows(rows), outRows);
        const Matrix x = nn_test::RandomMatrix(rng, rows, in);
        Rows want(outRows, std::vector<double>(in * win, 0.0));
        for (int r = 0; r < outRows; ++r)
            for (int w = 0; w < win; ++w) {
                const int q = r * stride - padLeft + w;
                for (int i = 0; i < in; ++i) want[r][w * in + i] = (q >= 0 && q < rows) ? x(q, i) : 0.0;
            }
        EXPECT_EQ(maxError(nn_test::RunLayer(layer, x), want), 0.0);
    }
}

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
    struct Case {
        const char* name;
        std::unique_ptr<CblasLayer> layer;
        const Gate* gate;
        double (*fn)(double);
        bool softmax;
        double tolerance;
    };
    const auto feedforward = [&](Activation a) { return MakeFeedforward(a, g.params().iW, g.params().bias); };
    Case cases[] = {
        {"identity", feedforward(v_identity), &g, [](double v) { return v; }, false, 2e-6},
        {"tanh", feedforward(v_tanh), &g, [](double v) { return std::tanh(v); }, false, 2e-6},
        {"sigmoid", feedforward(v_sigmoid), &g, [](double v) { return 1.0 / (1.0 + std::exp(-v)); }, false, 2e-6},
        {"relu", feedforward(v_relu), &g, [](double v) { return v < 0 ? 0.0 : v; }, false, 2e-6},
        {"elu", feedforward(v_elu), &g, [](double v) { return v < 0 ? std::exp(v) - 1.0 : v; }, false, 2e-6},
        {"two-state", std::make_unique<GlobalNormTwoState>(g.params().iW, g.params().bias), &g,
         [](double v) { return 5.0 * std::tanh(v); }, false, 5e-6},
        {"softmax", std::make_unique<Softmax>(g.params().iW, g.params().bias), &g,
         [](double v) { return std::exp(v) + 1e-6; }, true, 1e-7},
        {"underflowing softmax", std::make_unique<Softmax>(veryNegative.params().iW, veryNegative.params().bias),
         &veryNegative, [](double v) { return std::exp(v) + 1e-6; }, true, 1e-7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.layer->inSize, 13);
        EXPECT_EQ(c.layer->outSize, c.gate->out);
        Rows want;
        int negatives = 0;
        for (const auto& row : toRows(in)) {
            auto y = c.gate->inputAffine(row);
            double sum = 0.0;
            for (double& v : y) {
                negatives += v < 0;
                sum += (v = c.fn(v));
            }
            for (double& v : y) v /= c.softmax ? sum : 1.0;
            want.push_back(y);
        }
        ASSERT_GT(negatives, 10);  // both sides of relu and elu are exercised
        EXPECT_LT(maxError(nn_test::RunLayer(*c.layer, in), want), c.tolerance);
    }
    try {
        MakeFeedforward(static_cast<Activation>(5), g.params().iW, g.params().bias);
        FAIL() << "activation 5 accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Unsupported activation function for feed-forward layer");
    }
}

// The recurrent layers in each direction, alone and paired, against their textbook equations: LSTM
// widths that do (16) and do not (12) fill whole vectors, GRU widths of 3 and 96 in both candidate
// forms over 600 rows (input products are taken in blocks of 256, the last partial), the residual
// form, and single rows, over which a reversed layer acts as a forward one.
TEST(RecurrentTest, EveryFormMatchesReference) {
    struct Case {
        bool gru;
        int in, out, rows;
        bool resetAfter, reverse, residual, bidir;
    };
    const Case cases[] = {
        {false, 5, 12, 23, false, false, false, false}, {false, 5, 12, 23, false, true, false, false},
        {false, 5, 16, 23, false, false, false, false}, {false, 5, 16, 23, false, true, false, false},
        {false, 4, 9, 1, false, true, false, false},    {false, 6, 12, 17, false, false, false, true},
        {true, 7, 3, 600, false, false, false, false},  {true, 7, 3, 600, true, true, false, false},
        {true, 7, 96, 600, true, false, false, false},  {true, 7, 96, 600, false, true, false, false},
        {true, 10, 10, 12, true, false, true, false},   {true, 10, 10, 12, true, true, true, false},
        {true, 4, 9, 1, false, true, false, false},     {true, 6, 5, 17, false, false, false, true},
    };
    std::mt19937 rng(100);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.gru ? "GRU" : "LSTM") + " " + std::to_string(c.in) + " to " +
                     std::to_string(c.out) + " over " + std::to_string(c.rows) + " rows, reverse " +
                     std::to_string(c.reverse) + ", reset after " + std::to_string(c.resetAfter) + ", bidir " +
                     std::to_string(c.bidir));
        const Matrix in = nn_test::RandomMatrix(rng, c.rows, c.in, -2.0f, 2.0f);
        const Rows x = toRows(in);
        std::unique_ptr<CblasLayer> layer;
        Rows want;
        if (c.gru) {
            const GruGates f(rng, c.in, c.out), b(rng, c.in, c.out);
            const auto make = [&](const GruGates& g, bool reverse) {
                return std::make_unique<Gru>(c.in, c.out, g.params(), c.resetAfter, reverse, c.residual);
            };
            want = referenceGru(x, f, c.reverse, c.resetAfter, c.residual);
            if (c.bidir) {
                layer = std::make_unique<Bidir<Gru>>(make(f, false), make(b, true));
                want = concatColumns(want, referenceGru(x, b, true, c.resetAfter, c.residual));
            } else {
                layer = make(f, c.reverse);
            }
        } else {
            const LstmGates f(rng, c.in, c.out), b(rng, c.in, c.out);
            want = referenceLstm(x, f, c.reverse);
            if (c.bidir) {
                layer = std::make_unique<Bidir<Lstm>>(std::make_unique<Lstm>(c.in, c.out, f.params(), false),
                                                      std::make_unique<Lstm>(c.in, c.out, b.params(), true));
                want = concatColumns(want, referenceLstm(x, b, true));
            } else {
                layer = std::make_unique<Lstm>(c.in, c.out, f.params(), c.reverse);
            }
        }
        EXPECT_EQ(layer->inSize, c.in);
        EXPECT_EQ(layer->outSize, c.out * (c.bidir ? 2 : 1));
        EXPECT_LT(maxError(nn_test::RunLayer(*layer, in), want), c.gru ? 2e-5 : 1e-5);
    }
    EXPECT_THROW(Gru(7, 10, GruGates(rng, 7, 10).params(), false, false, true), std::runtime_error);
}

TEST(RecurrentTest, EachProcessStartsFromZeroState) {
    // The runner reuses scratch between calls without clearing it; results must not depend on that.
    std::mt19937 rng(8);
    const GruGates g(rng, 3, 16);
    const LstmGates l(rng, 3, 12);
    Gru gru(3, 16, g.params(), false, false, false);
    Lstm lstm(3, 12, l.params(), false);
    const Matrix in = nn_test::RandomMatrix(rng, 9, 3);
    for (const CblasLayer* layer : std::vector<const CblasLayer*>{&gru, &lstm}) {
        Matrix out1(9, static_cast<std::size_t>(layer->outSize)), out2 = out1;
        Common::AlignedVector32<float> scratch(static_cast<std::size_t>(layer->ScratchSize(9)), 123.0f);
        Matrix inCopy = in;
        auto v1 = out1.view();
        auto v2 = out2.view();
        layer->Process(inCopy.view(), v1, scratch.data());
        layer->Process(inCopy.view(), v2, scratch.data());
        EXPECT_EQ(out1.data, out2.data);
    }
}

TEST(KernelVariantsTest, EveryLayerAgreesAcrossInstructionSets) {
    // The same layers run on each kernel build this processor has; the baseline is the reference.
    std::mt19937 rng(9);
    const Gate conv(rng, 5, 16), dense(rng, 32, 9), out(rng, 9, 65);
    const GruGates g(rng, 16, 16), gb(rng, 16, 16);
    const LstmGates l(rng, 32, 12);
    std::vector<std::unique_ptr<CblasLayer>> layers;
    layers.push_back(std::make_unique<WindowLayer>(1, 5, 2, 2, 1));
    layers.push_back(MakeFeedforward(v_elu, conv.params().iW, conv.params().bias));
    layers.push_back(std::make_unique<Bidir<Gru>>(std::make_unique<Gru>(16, 16, g.params(), true, false, true),
                                                  std::make_unique<Gru>(16, 16, gb.params(), false, true, false)));
    layers.push_back(std::make_unique<Lstm>(32, 12, l.params(), true));
    layers.push_back(MakeFeedforward(v_sigmoid, Common::MatView<const float>(dense.W.data(), 12, 9, 1, 12),
                                     Common::VecView<const float>(dense.b.data(), 9, 1)));
    layers.push_back(std::make_unique<Softmax>(out.params().iW, out.params().bias));
    std::vector<const CblasLayer*> raw;
    for (const auto& p : layers) raw.push_back(p.get());
    const Matrix in = nn_test::RandomMatrix(rng, 41, 1, -3.0f, 3.0f);

    const auto sets = kernels::Available();
    std::vector<Matrix> results;
    for (const kernels::KernelSet* set : sets) {
        kernels::Use(*set);
        results.push_back(nn_test::RunLayers(raw, in));
    }
    kernels::Use(kernels::Best());
    for (std::size_t s = 1; s < results.size(); ++s) {
        SCOPED_TRACE(sets[s]->name);
        EXPECT_LT(maxError(results[s], toRows(results[0])), 1e-6);
    }
    EXPECT_EQ(&kernels::Active(), &kernels::Best());
}
