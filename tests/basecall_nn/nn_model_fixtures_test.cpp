// Whole networks read from model files and run through the processor network's own layers, against
// posteriors that numpy computed from the same files (tests/data/basecall_nn/make_fixtures.py): the
// loader's block orders, the softmax rotation, temperatures and both dialects are checked end to end.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::DataPath;
using nn_test::Matrix;
using nn_test::ReadMatrix;
using nn_test::RecordingCaller;

namespace {

double maxRelativeError(const Matrix& got, const Matrix& want) {
    EXPECT_EQ(got.rows, want.rows);
    EXPECT_EQ(got.cols, want.cols);
    double err = 0.0;
    for (std::size_t r = 0; r < std::min(got.rows, want.rows); ++r)
        for (std::size_t c = 0; c < std::min(got.cols, want.cols); ++c) {
            const double d = std::fabs(got(r, c) - want(r, c)) / (std::fabs(want(r, c)) + 1e-3);
            err = std::isnan(d) ? INFINITY : std::max(err, d);
        }
    return err;
}

// Bit-for-bit equal cells (the padding is NaN and is left out).
bool identical(const Matrix& a, const Matrix& b) {
    bool same = a.rows == b.rows && a.cols == b.cols;
    for (std::size_t r = 0; same && r < a.rows; ++r)
        for (std::size_t c = 0; c < a.cols; ++c) same = same && a(r, c) == b(r, c);
    return same;
}

std::vector<std::string> ops(const RecordingCaller& caller) {
    std::vector<std::string> out;
    for (const auto& c : caller.calls) out.push_back(c.op + " " + std::to_string(c.insize) + "x" + std::to_string(c.size));
    return out;
}

// The loaded file run through the processor network's own layers.
Matrix run(const NNLoader& loader, const std::string& input) {
    NNCallerCblas network;
    loader.LoadInto(network);
    return nn_test::RunNetwork(network, ReadMatrix(DataPath(input)));
}

}  // namespace

TEST(ModelFixturesTest, BothDialectsGiveTheNumpyPosteriors) {
    const Matrix expected = ReadMatrix(DataPath("dialect_expected.txt"));
    ASSERT_EQ(expected.rows, 18u);  // (2 + 1 - (5 - 37)) / 2 + 1, rounded down
    Matrix results[2];
    const char* files[2] = {"dialect_tessel.json", "dialect_quorlet.json"};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(files[i]);
        NNLoader loader(DataPath(files[i]));
        EXPECT_EQ(loader.GetDecodeType(), kNontransducer);
        EXPECT_EQ(loader.GetEventStride(), 2u);
        EXPECT_EQ(loader.GetLablLength(), 3u);
        EXPECT_TRUE(loader.IsRawModel());

        RecordingCaller caller;
        loader.LoadInto(caller);
        const std::vector<std::string> want = {"Convolution 1x6", "BGru 6x5",      "Lstm 10x12", "BLstm 12x8",
                                               "Gru 16x7",        "Feedforward 7x9", "Softmax 9x65"};
        EXPECT_EQ(ops(caller), want);
        EXPECT_EQ(caller.num_states, 65);
        EXPECT_EQ(caller.label_state, 64);
        EXPECT_EQ(caller.feature_kind, kFeaturesRaw);
        EXPECT_EQ(caller.decode_type, kNontransducer);
        EXPECT_EQ(caller.window, std::vector<std::int32_t>{0});
        EXPECT_EQ(caller.event_stride, 2);

        results[i] = run(loader, "dialect_input.txt");
        EXPECT_LT(maxRelativeError(results[i], expected), 2e-5);
        // One document loads into many networks alike.
        const Matrix again = run(loader, "dialect_input.txt");
        EXPECT_TRUE(identical(again, results[i]));
    }
    // The same weights in the same places: the dialects agree exactly, not just within rounding.
    EXPECT_TRUE(identical(results[0], results[1]));
}

TEST(ModelFixturesTest, TemperaturesScaleTheSoftmaxInBothDialects) {
    const Matrix expected = ReadMatrix(DataPath("dialect_expected_temp.txt"));
    for (const char* file : {"dialect_tessel.json", "dialect_quorlet.json"}) {
        EXPECT_LT(maxRelativeError(run(NNLoader(DataPath(file), 0.8f, 1.25f), "dialect_input.txt"), expected), 2e-5)
            << file;
    }
}

TEST(ModelFixturesTest, ResidualResetAfterProductAndGlobalNormModels) {
    NNLoader gru(DataPath("tessel_gru_variants.json"));
    EXPECT_EQ(gru.GetDecodeType(), kTransducer);
    EXPECT_EQ(gru.GetLablLength(), 1u);
    RecordingCaller caller;
    gru.LoadInto(caller);
    EXPECT_EQ(caller.calls.size(), 4u);
    EXPECT_EQ(caller.decode_type, kTransducer);
    EXPECT_EQ(caller.label_state, 4);
    EXPECT_LT(maxRelativeError(run(gru, "tessel_gru_variants_input.txt"),
                               ReadMatrix(DataPath("tessel_gru_variants_expected.txt"))),
              2e-5);

    NNLoader flipflop(DataPath("tessel_globalnorm.json"));
    EXPECT_EQ(flipflop.GetDecodeType(), kFlipflop);
    EXPECT_EQ(flipflop.GetLablLength(), 1u);
    EXPECT_EQ(flipflop.GetEventStride(), 3u);
    RecordingCaller two;
    flipflop.LoadInto(two);
    EXPECT_EQ(two.decode_type, kFlipflop);
    EXPECT_EQ(two.num_states, 40);
    EXPECT_EQ(two.label_state, 4);
    EXPECT_LT(maxRelativeError(run(flipflop, "tessel_globalnorm_input.txt"),
                               ReadMatrix(DataPath("tessel_globalnorm_expected.txt"))),
              2e-5);
}
