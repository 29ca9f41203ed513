// Whole networks read from model files and run, against posteriors that numpy computed from the same
// files (tests/data/basecall_nn/make_fixtures.py): the loader's block orders, the softmax rotation,
// temperatures and both dialects are checked end to end.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

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

std::vector<std::string> ops(const RecordingCaller& caller) {
    std::vector<std::string> out;
    for (const auto& c : caller.calls) out.push_back(c.op + " " + std::to_string(c.insize) + "x" + std::to_string(c.size));
    return out;
}

}  // namespace

TEST(ModelFixturesTest, BothDialectsGiveTheNumpyPosteriors) {
    const Matrix input = ReadMatrix(DataPath("dialect_input.txt"));
    const Matrix expected = ReadMatrix(DataPath("dialect_expected.txt"));
    ASSERT_EQ(input.rows, 37u);
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
        EXPECT_EQ(caller.calls[0].winlen, 5);
        EXPECT_EQ(caller.calls[0].stride, 2);
        EXPECT_EQ(caller.calls[0].padLeft, 2);
        EXPECT_EQ(caller.calls[0].padRight, 1);
        EXPECT_EQ(caller.calls[0].activation, v_tanh);
        EXPECT_TRUE(caller.calls[2].reverse);
        EXPECT_FALSE(caller.calls[4].reverse);
        EXPECT_EQ(caller.calls[5].activation, v_elu);
        EXPECT_EQ(caller.num_states, 65);
        EXPECT_EQ(caller.label_state, 64);
        EXPECT_EQ(caller.feature_kind, kFeaturesRaw);
        EXPECT_EQ(caller.decode_type, kNontransducer);
        EXPECT_EQ(caller.window, std::vector<std::int32_t>{0});
        EXPECT_EQ(caller.window_left, 0);
        EXPECT_EQ(caller.window_right, 0);
        EXPECT_EQ(caller.event_stride, 2);

        results[i] = caller.Run(input);
        EXPECT_LT(maxRelativeError(results[i], expected), 2e-5);
    }
    // The same weights in the same places: the dialects agree exactly, not just within rounding.
    for (std::size_t r = 0; r < results[0].rows; ++r)
        for (std::size_t c = 0; c < results[0].cols; ++c) ASSERT_EQ(results[0](r, c), results[1](r, c));
}

TEST(ModelFixturesTest, TemperaturesScaleTheSoftmaxInBothDialects) {
    const Matrix input = ReadMatrix(DataPath("dialect_input.txt"));
    const Matrix expected = ReadMatrix(DataPath("dialect_expected_temp.txt"));
    for (const char* file : {"dialect_tessel.json", "dialect_quorlet.json"}) {
        NNLoader loader(DataPath(file), 0.8f, 1.25f);
        RecordingCaller caller;
        loader.LoadInto(caller);
        EXPECT_LT(maxRelativeError(caller.Run(input), expected), 2e-5) << file;
    }
}

TEST(ModelFixturesTest, ResidualAndResetAfterProductGruLayers) {
    NNLoader loader(DataPath("tessel_gru_variants.json"));
    EXPECT_EQ(loader.GetDecodeType(), kTransducer);
    EXPECT_EQ(loader.GetLablLength(), 1u);
    RecordingCaller caller;
    loader.LoadInto(caller);
    ASSERT_EQ(caller.calls.size(), 4u);
    EXPECT_TRUE(caller.calls[1].residual);
    EXPECT_FALSE(caller.calls[1].gruMod);
    EXPECT_FALSE(caller.calls[1].reverse);
    EXPECT_TRUE(caller.calls[2].gruMod);
    EXPECT_TRUE(caller.calls[2].reverse);
    EXPECT_FALSE(caller.calls[2].residual);
    EXPECT_EQ(caller.decode_type, kTransducer);
    EXPECT_EQ(caller.label_state, 4);
    const Matrix out = caller.Run(ReadMatrix(DataPath("tessel_gru_variants_input.txt")));
    EXPECT_LT(maxRelativeError(out, ReadMatrix(DataPath("tessel_gru_variants_expected.txt"))), 2e-5);
}

TEST(ModelFixturesTest, GlobalNormTwoStateOutput) {
    NNLoader loader(DataPath("tessel_globalnorm.json"));
    EXPECT_EQ(loader.GetDecodeType(), kFlipflop);
    EXPECT_EQ(loader.GetLablLength(), 1u);
    EXPECT_EQ(loader.GetEventStride(), 3u);
    RecordingCaller caller;
    loader.LoadInto(caller);
    EXPECT_EQ(caller.decode_type, kFlipflop);
    EXPECT_EQ(caller.num_states, 40);
    EXPECT_EQ(caller.label_state, 4);
    EXPECT_EQ(caller.calls[0].activation, v_sigmoid);  // "logistic"
    EXPECT_EQ(caller.calls[1].activation, v_relu);
    const Matrix out = caller.Run(ReadMatrix(DataPath("tessel_globalnorm_input.txt")));
    EXPECT_LT(maxRelativeError(out, ReadMatrix(DataPath("tessel_globalnorm_expected.txt"))), 2e-5);
}

TEST(ModelFixturesTest, OneDocumentLoadsIntoManyCallers) {
    NNLoader loader(DataPath("dialect_tessel.json"));
    const Matrix input = ReadMatrix(DataPath("dialect_input.txt"));
    RecordingCaller first, second;
    loader.LoadInto(first);
    loader.LoadInto(second);
    const Matrix a = first.Run(input), b = second.Run(input);
    ASSERT_EQ(a.rows, b.rows);
    for (std::size_t r = 0; r < a.rows; ++r)
        for (std::size_t c = 0; c < a.cols; ++c) ASSERT_EQ(a(r, c), b(r, c));
}
