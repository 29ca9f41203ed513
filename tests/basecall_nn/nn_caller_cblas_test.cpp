// The layer factory of the processor network: what a convolution appends. Loaded model files run
// through its layers in nn_model_fixtures_test.cpp.

#include "basecall_nn/nn_caller_cblas.h"

#include <gtest/gtest.h>

#include <vector>

#include "basecall_nn/cblas_layers.h"

using namespace BasecallNN;

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
