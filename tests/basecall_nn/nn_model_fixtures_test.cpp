// Whole networks read from model files and run through the processor network's own layers, against
// posteriors that numpy computed from the same files (tests/data/basecall_nn/make_fixtures.py): block
// orders, the softmax rotation, temperatures and both dialects, end to end.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::Matrix;
using nn_test::ReadMatrix;

namespace {

// Largest relative difference; a NaN or a shape mismatch is infinite.
double maxRelativeError(const Matrix& got, const Matrix& want) {
    if (got.rows != want.rows || got.cols != want.cols) return INFINITY;
    double err = 0.0;
    for (std::size_t r = 0; r < got.rows; ++r)
        for (std::size_t c = 0; c < got.cols; ++c) {
            const double d = std::fabs(got(r, c) - want(r, c)) / (std::fabs(want(r, c)) + 1e-3);
            err = std::isnan(d) ? INFINITY : std::max(err, d);
        }
    return err;
}

Matrix run(const NNLoader& loader, const std::string& input) {
    NNCallerCblas network;
    loader.LoadInto(network);
    return nn_test::RunLayers(network.Layers(), ReadMatrix(input));
}

}  // namespace

TEST(ModelFixturesTest, EveryFixtureGivesTheNumpyPosteriors) {
    // Files <model>.json, <data>_input.txt and <data>_<expected>.txt.
    struct Case {
        const char *model, *data, *expected;
        float tempWeight, tempBias;
        DecodeType decode;
        int labl, stride, states;
    };
    const Case cases[] = {
        {"dialect_tessel", "dialect", "expected", 1, 1, kNontransducer, 3, 2, 65},
        {"dialect_quorlet", "dialect", "expected", 1, 1, kNontransducer, 3, 2, 65},
        {"dialect_tessel", "dialect", "expected_temp", 0.8f, 1.25f, kNontransducer, 3, 2, 65},
        {"dialect_quorlet", "dialect", "expected_temp", 0.8f, 1.25f, kNontransducer, 3, 2, 65},
        {"tessel_gru_variants", "tessel_gru_variants", "expected", 1, 1, kTransducer, 1, 1, 5},
        {"tessel_globalnorm", "tessel_globalnorm", "expected", 1, 1, kFlipflop, 1, 3, 40},
    };
    Matrix first;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.model + std::string(" ") + c.expected);
        const std::string input = c.data + std::string("_input.txt");
        NNLoader loader(nn_test::DataPath(c.model + std::string(".json")), c.tempWeight, c.tempBias);
        EXPECT_EQ(std::make_tuple(loader.GetDecodeType(), loader.GetLablLength(), loader.GetEventStride(),
                                  loader.IsRawModel()),
                  std::make_tuple(c.decode, std::uint64_t(c.labl), std::uint64_t(c.stride), true));
        NNCallerCblas network;
        loader.LoadInto(network);
        // The label state of a flip-flop output is its base count.
        EXPECT_EQ(std::make_tuple(network.num_states, network.label_state, network.decode_type,
                                  network.event_stride, network.window, network.feature_kind),
                  std::make_tuple(c.states, c.states == 40 ? 4 : c.states - 1, int(c.decode), c.stride,
                                  std::vector<std::int32_t>{0}, int(kFeaturesRaw)));
        const Matrix got = run(loader, input);
        EXPECT_LT(maxRelativeError(got, ReadMatrix(c.data + ("_" + std::string(c.expected)) + ".txt")), 2e-5);
        // The same weights in the same places: both dialects agree exactly, and so does a second load.
        if (&c == &cases[0]) first = got;
        if (&c <= &cases[1]) {
            EXPECT_EQ(maxRelativeError(run(loader, input), first), 0.0);
        }
    }
}
