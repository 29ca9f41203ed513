// The layer factory of the processor network: what each Add appends, and a loaded model file run
// through the caller's own layer list.

#include "basecall_nn/nn_caller_cblas.h"

#include <gtest/gtest.h>

#include <cmath>

#include "basecall_nn/nn_loader.h"
#include "nn_test_util.h"

using namespace BasecallNN;
using nn_test::DataPath;
using nn_test::Matrix;

namespace {
std::vector<const CblasLayer*> layersOf(const NNCallerCblas& caller) {
    std::vector<const CblasLayer*> raw;
    for (const auto& l : caller.Layers()) raw.push_back(l.get());
    return raw;
}
}  // namespace

TEST(NNCallerCblasTest, AddConvolutionAppendsWindowThenFeedforward) {
    std::vector<float> W(2 * 3 * 4, 0.5f), b(4, 0.0f);
    NNCallerCblas caller;
    caller.AddConvolution(v_relu, 2, 3, 4, 5, 1, 1, Common::MatView<const float>(W.data(), 6, 4, 1, 6),
                          Common::VecView<const float>(b.data(), 4, 1));
    caller.AddConvolution(v_identity, 4, 1, 4, 2, 0, 0, Common::MatView<const float>(W.data(), 4, 4, 1, 4),
                          Common::VecView<const float>(b.data(), 4, 1));
    ASSERT_EQ(caller.Layers().size(), 4u);
    const auto* window = dynamic_cast<const WindowLayer*>(caller.Layers()[0].get());
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->inSize, 2);
    EXPECT_EQ(window->outSize, 6);
    EXPECT_EQ(window->windowStride, 5);
    EXPECT_NE(dynamic_cast<const Feedforward<v_relu>*>(caller.Layers()[1].get()), nullptr);
    EXPECT_EQ(caller.Layers()[1]->inSize, 6);
    EXPECT_EQ(caller.Layers()[1]->outSize, 4);
    EXPECT_NE(dynamic_cast<const Feedforward<v_identity>*>(caller.Layers()[3].get()), nullptr);
    EXPECT_EQ(caller.event_stride, 10);
    // W must have insize * winlen rows.
    EXPECT_THROW(caller.AddConvolution(v_relu, 2, 2, 4, 1, 0, 0, Common::MatView<const float>(W.data(), 6, 4, 1, 6),
                                       Common::VecView<const float>(b.data(), 4, 1)),
                 std::runtime_error);
    EXPECT_EQ(caller.Layers().size(), 4u);
}

TEST(NNCallerCblasTest, LoadedModelRunsThroughItsLayers) {
    NNLoader loader(DataPath("dialect_quorlet.json"));
    auto caller = std::make_shared<NNCallerCblas>();
    loader.LoadInto(*caller);
    const auto layers = layersOf(*caller);
    ASSERT_EQ(layers.size(), 8u);
    EXPECT_NE(dynamic_cast<const Bidir<Gru>*>(layers[2]), nullptr);
    EXPECT_NE(dynamic_cast<const Lstm*>(layers[3]), nullptr);
    EXPECT_NE(dynamic_cast<const Bidir<Lstm>*>(layers[4]), nullptr);
    EXPECT_NE(dynamic_cast<const Gru*>(layers[5]), nullptr);
    EXPECT_NE(dynamic_cast<const Feedforward<v_elu>*>(layers[6]), nullptr);
    EXPECT_NE(dynamic_cast<const Softmax*>(layers[7]), nullptr);
    EXPECT_EQ(layers.front()->inSize, 1);
    EXPECT_EQ(layers.back()->outSize, caller->num_states);
    EXPECT_EQ(caller->event_stride, 2);

    const Matrix out = nn_test::RunLayers(layers, nn_test::ReadMatrix(DataPath("dialect_input.txt")));
    const Matrix want = nn_test::ReadMatrix(DataPath("dialect_expected.txt"));
    ASSERT_EQ(out.rows, want.rows);
    ASSERT_EQ(out.cols, want.cols);
    for (std::size_t r = 0; r < out.rows; ++r)
        for (std::size_t c = 0; c < out.cols; ++c) EXPECT_NEAR(out(r, c), want(r, c), 2e-5 * (want(r, c) + 1e-3));
}
