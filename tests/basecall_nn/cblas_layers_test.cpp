// Every layer kind against a plain double-precision implementation of its textbook equations,
// written here from per-gate weight matrices (out x in), on random weights and inputs.

#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
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

TEST(WindowLayerTest, StrideTwoWithOddPaddingMatchesReference) {
    std::mt19937 rng(1);
    // padLeft + padRight + rows - windowLength = 1 + 2 + 10 - 4 = 9 is odd: the row count rounds down.
    WindowLayer layer(3, 4, 2, 1, 2);
    EXPECT_EQ(layer.outSize, 12);
    EXPECT_EQ(layer.OutputRows(10), 5);
    EXPECT_EQ(layer.ScratchSize(10), 0);
    const Matrix in = nn_test::RandomMatrix(rng, 10, 3);
    const Matrix out = nn_test::RunLayer(layer, in);
    Rows want(5, std::vector<double>(12, 0.0));
    for (int r = 0; r < 5; ++r)
        for (int w = 0; w < 4; ++w) {
            const int q = r * 2 - 1 + w;
            for (int i = 0; i < 3; ++i) want[r][w * 3 + i] = (q >= 0 && q < 10) ? in(q, i) : 0.0;
        }
    EXPECT_EQ(maxError(out, want), 0.0);

    // Stride 3 over 11 rows with padding 2 and 0: (2 + 0 + 11 - 5) / 3 + 1 = 3 rows.
    EXPECT_EQ(WindowLayer(1, 5, 3, 2, 0).OutputRows(11), 3);
}

TEST(WindowLayerTest, SingleRowGivesOneRowWithZeroEnds) {
    WindowLayer layer(2, 3, 1, 1, 1);
    Matrix in(1, 2);
    in(0, 0) = 0.5f;
    in(0, 1) = -2.0f;
    ASSERT_EQ(layer.OutputRows(1), 1);
    const Matrix out = nn_test::RunLayer(layer, in);
    const Rows want = {{0, 0, 0.5, -2.0, 0, 0}};
    EXPECT_EQ(maxError(out, want), 0.0);
}

TEST(FeedforwardTest, EveryActivationMatchesReference) {
    std::mt19937 rng(2);
    const Gate g(rng, 13, 11);
    const Matrix in = nn_test::RandomMatrix(rng, 7, 13, -2.0f, 2.0f);
    const Rows x = toRows(in);
    const std::vector<std::pair<Activation, double (*)(double)>> cases = {
        {v_identity, [](double v) { return v; }},
        {v_tanh, [](double v) { return std::tanh(v); }},
        {v_sigmoid, [](double v) { return 1.0 / (1.0 + std::exp(-v)); }},
        {v_relu, [](double v) { return v < 0 ? 0.0 : v; }},
        {v_elu, [](double v) { return v < 0 ? std::exp(v) - 1.0 : v; }},
    };
    for (const auto& [activation, fn] : cases) {
        const auto layer = MakeFeedforward(activation, g.params().iW, g.params().bias);
        EXPECT_EQ(layer->inSize, 13);
        EXPECT_EQ(layer->outSize, 11);
        Rows want;
        int negatives = 0;
        for (const auto& row : x) {
            auto y = g.inputAffine(row);
            for (double& v : y) {
                negatives += v < 0;
                v = fn(v);
            }
            want.push_back(y);
        }
        ASSERT_GT(negatives, 10);  // both sides of relu and elu are exercised
        EXPECT_LT(maxError(nn_test::RunLayer(*layer, in), want), 2e-6) << "activation " << activation;
    }
    EXPECT_THROW(
        {
            try {
                MakeFeedforward(static_cast<Activation>(5), g.params().iW, g.params().bias);
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Unsupported activation function for feed-forward layer");
                throw;
            }
        },
        std::runtime_error);
}

TEST(SoftmaxTest, MatchesReferenceWithoutMaxSubtraction) {
    std::mt19937 rng(3);
    const Gate g(rng, 9, 65);
    const Matrix in = nn_test::RandomMatrix(rng, 6, 9, -3.0f, 3.0f);
    Softmax layer(g.params().iW, g.params().bias);
    Rows want;
    for (const auto& row : toRows(in)) {
        auto y = g.inputAffine(row);
        double sum = 0.0;
        for (double& v : y) sum += (v = std::exp(v) + 1e-6);
        for (double& v : y) v /= sum;
        want.push_back(y);
    }
    EXPECT_LT(maxError(nn_test::RunLayer(layer, in), want), 1e-7);
}

TEST(SoftmaxTest, VeryNegativeLogitsGiveUniformRow) {
    // Every exp underflows to zero, so each entry is 1e-6 before normalising: a uniform row.
    std::vector<float> W(2 * 5, 0.0f), b(5, -200.0f);
    Softmax layer(Common::MatView<const float>(W.data(), 2, 5, 5, 1), Common::VecView<const float>(b.data(), 5, 1));
    Matrix in(3, 2, 1.0f);
    const Matrix out = nn_test::RunLayer(layer, in);
    for (std::size_t r = 0; r < 3; ++r)
        for (std::size_t c = 0; c < 5; ++c) EXPECT_FLOAT_EQ(out(r, c), 0.2f);
}

TEST(GlobalNormTwoStateTest, ScaledTanhMatchesReference) {
    std::mt19937 rng(4);
    const Gate g(rng, 6, 40);
    const Matrix in = nn_test::RandomMatrix(rng, 5, 6, -2.0f, 2.0f);
    GlobalNormTwoState layer(g.params().iW, g.params().bias);
    Rows want;
    for (const auto& row : toRows(in)) {
        auto y = g.inputAffine(row);
        for (double& v : y) v = 5.0 * std::tanh(v);
        want.push_back(y);
    }
    EXPECT_LT(maxError(nn_test::RunLayer(layer, in), want), 5e-6);
}

TEST(LstmTest, PaddedAndInPlacePathsMatchReferenceBothDirections) {
    // 12 is not a multiple of 8 (the gates go through the padded copy); 16 is (they stay in place).
    for (const int outSize : {12, 16}) {
        for (const bool reverse : {false, true}) {
            std::mt19937 rng(100 + outSize + reverse);
            const LstmGates g(rng, 5, outSize);
            const Matrix in = nn_test::RandomMatrix(rng, 23, 5, -2.0f, 2.0f);
            Lstm layer(5, outSize, g.params(), reverse);
            EXPECT_EQ(layer.ScratchSize(23), ((outSize + 7) / 8) * 80 + 5);
            const double err = maxError(nn_test::RunLayer(layer, in), referenceLstm(toRows(in), g, reverse));
            EXPECT_LT(err, 1e-5) << "outSize " << outSize << " reverse " << reverse;
        }
    }
}

TEST(GruTest, BothCandidateFormsMatchReferenceAtSizesThreeAndNinetySix) {
    for (const int outSize : {3, 96}) {
        for (const bool resetAfter : {false, true}) {
            for (const bool reverse : {false, true}) {
                std::mt19937 rng(200 + outSize + 2 * resetAfter + reverse);
                const GruGates g(rng, 7, outSize);
                // 600 rows: the input products are taken in blocks of 256, the last one partial.
                const Matrix in = nn_test::RandomMatrix(rng, 600, 7, -2.0f, 2.0f);
                Gru layer(7, outSize, g.params(), resetAfter, reverse, false);
                // The candidate block starts at 2 H rounded up to 8: 8 for H = 3, not 6.
                EXPECT_EQ(layer.paddedGates, outSize == 3 ? 8 : 192);
                // Two strands' blocks of input products (256 rows of the padded gate vector), h and
                // recurrent product, whatever the rows.
                const int gates = (layer.paddedGates + outSize + 7) / 8 * 8;
                EXPECT_EQ(layer.ScratchSize(31), 2 * (256 * gates + (outSize + 7) / 8 * 8 + gates));
                EXPECT_EQ(layer.ScratchSize(100000), layer.ScratchSize(31));
                const double err =
                    maxError(nn_test::RunLayer(layer, in), referenceGru(toRows(in), g, reverse, resetAfter, false));
                EXPECT_LT(err, 2e-5) << "outSize " << outSize << " resetAfter " << resetAfter << " reverse "
                                     << reverse;
            }
        }
    }
}

TEST(GruTest, ResidualAddsTheInput) {
    std::mt19937 rng(5);
    const GruGates g(rng, 10, 10);
    const Matrix in = nn_test::RandomMatrix(rng, 12, 10, -2.0f, 2.0f);
    for (const bool reverse : {false, true}) {
        Gru layer(10, 10, g.params(), true, reverse, true);
        EXPECT_LT(maxError(nn_test::RunLayer(layer, in), referenceGru(toRows(in), g, reverse, true, true)), 2e-5);
    }
    EXPECT_THROW(Gru(7, 10, GruGates(rng, 7, 10).params(), false, false, true), std::runtime_error);
}

TEST(BidirTest, HalvesWriteSideBySide) {
    std::mt19937 rng(6);
    const Matrix in = nn_test::RandomMatrix(rng, 17, 6, -2.0f, 2.0f);
    const Rows x = toRows(in);
    {
        const LstmGates f(rng, 6, 12), b(rng, 6, 12);
        Bidir<Lstm> layer(std::make_unique<Lstm>(6, 12, f.params(), false),
                          std::make_unique<Lstm>(6, 12, b.params(), true));
        EXPECT_EQ(layer.inSize, 6);
        EXPECT_EQ(layer.outSize, 24);
        EXPECT_EQ(layer.ScratchSize(17), ((12 + 7) / 8) * 80 + 6);
        const Rows want = concatColumns(referenceLstm(x, f, false), referenceLstm(x, b, true));
        EXPECT_LT(maxError(nn_test::RunLayer(layer, in), want), 1e-5);
    }
    {
        const GruGates f(rng, 6, 5), b(rng, 6, 5);
        Bidir<Gru> layer(std::make_unique<Gru>(6, 5, f.params(), false, false, false),
                         std::make_unique<Gru>(6, 5, b.params(), false, true, false));
        EXPECT_EQ(layer.outSize, 10);
        const Rows want = concatColumns(referenceGru(x, f, false, false, false), referenceGru(x, b, true, false, false));
        EXPECT_LT(maxError(nn_test::RunLayer(layer, in), want), 1e-5);
    }
}

TEST(RecurrentTest, ReversedLayerOverOneRowActsAsForward) {
    std::mt19937 rng(7);
    const Matrix in = nn_test::RandomMatrix(rng, 1, 4);
    const GruGates g(rng, 4, 9);
    const LstmGates l(rng, 4, 9);
    const Matrix gf = nn_test::RunLayer(Gru(4, 9, g.params(), false, false, false), in);
    const Matrix gr = nn_test::RunLayer(Gru(4, 9, g.params(), false, true, false), in);
    const Matrix lf = nn_test::RunLayer(Lstm(4, 9, l.params(), false), in);
    const Matrix lr = nn_test::RunLayer(Lstm(4, 9, l.params(), true), in);
    for (std::size_t c = 0; c < 9; ++c) {
        EXPECT_EQ(gf(0, c), gr(0, c));
        EXPECT_EQ(lf(0, c), lr(0, c));
    }
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
