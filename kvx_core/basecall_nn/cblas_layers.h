#pragma once
// The layer set of the processor network runtime. Each class copies its parameters into its own
// 32-byte aligned storage at construction, weight rows padded to a multiple of 32 floats, and is
// immutable after that (weight fields are public for inspection and are never written after the
// constructor). Shapes in the comments: H = outSize, P = H rounded up to 8.

#include <memory>

#include "basecall_nn/cblas_layer.h"
#include "basecall_nn/nn_types.h"
#include "common/allocator.h"
#include "common/views.h"

namespace BasecallNN {

// Owned copy of a weight matrix (a row per input feature, row stride a multiple of 32 floats) or of
// a vector. The view stays valid because the storage never reallocates after construction.
struct OwnedMatrix {
    OwnedMatrix(std::size_t rows, std::size_t cols);  // zero-filled
    explicit OwnedMatrix(const Common::MatView<const float>& src);
    // Copies src into the block that starts at (0, colOffset); throws if it does not fit.
    void copyBlock(const Common::MatView<const float>& src, std::size_t colOffset);
    OwnedMatrix(const OwnedMatrix&) = delete;
    OwnedMatrix& operator=(const OwnedMatrix&) = delete;
    Common::AlignedVector32<float> storage;
    Common::MatView<float> view;
};
struct OwnedVector {
    explicit OwnedVector(std::size_t size);  // zero-filled
    explicit OwnedVector(const Common::VecView<const float>& src);
    // Copies src to the entries from offset on; throws if it does not fit.
    void copyBlock(const Common::VecView<const float>& src, std::size_t offset);
    OwnedVector(const OwnedVector&) = delete;
    OwnedVector& operator=(const OwnedVector&) = delete;
    Common::AlignedVector32<float> storage;
    Common::VecView<float> view;
};

// Stacks windowLength input rows side by side, every windowStride rows, with zero rows standing in
// for padLeft rows before the input and padRight after it. Out row r, block w (inSize wide) holds
// in row r * windowStride - padLeft + w. The first half of a convolution.
class WindowLayer : public CblasLayer {
public:
    WindowLayer(int inSize, int windowLength, int windowStride, int padLeft, int padRight);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;
    // (padLeft + padRight - (windowLength - rows)) / windowStride + 1, truncating.
    int OutputRows(int rows) const override;

    const int windowLength;
    const int windowStride;
    const int padLeft;
    const int padRight;
};

// out = in W, then per row + bias and the activation. All rows in one sgemm.
template <Activation A>
class Feedforward : public CblasLayer {
public:
    Feedforward(const Common::MatView<const float>& W, const Common::VecView<const float>& bias);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;

    OwnedMatrix W;
    OwnedVector bias;
};

// Feed-forward with exp(y) + 1e-6 as activation, then each row divided by its sum. No subtraction of
// the row maximum: the temperature-scaled logits of a trained model stay in range, and the 1e-6
// keeps a row of very negative logits from dividing by zero.
class Softmax : public CblasLayer {
public:
    Softmax(const Common::MatView<const float>& W, const Common::VecView<const float>& bias);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;

    OwnedMatrix W;
    OwnedVector bias;
};

// Feed-forward with scale * tanh(y): bounded, unnormalised flip-flop transition scores.
class GlobalNormTwoState : public CblasLayer {
public:
    static constexpr float kDefaultScale = 5.0f;
    GlobalNormTwoState(const Common::MatView<const float>& W, const Common::VecView<const float>& bias,
                       float scale = kDefaultScale);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;

    OwnedMatrix W;
    OwnedVector bias;
    const float scale;
};

// Peephole LSTM. The gate vector has four blocks of H: cell candidate, input, forget, output.
// Each Process starts from zero state; a reversed layer reads rows from the last to the first and
// writes each result on the row it read.
class Lstm : public CblasLayer {
public:
    Lstm(int inSize, int outSize, const LstmParams& params, bool reverse);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;
    // c, h (P each), gates and their padded copy (4 P each), x (inSize).
    int ScratchSize(int rows) const override;

    OwnedMatrix Wx;  // inSize by 4 H
    OwnedMatrix Wh;  // H by 4 H
    OwnedVector bias;  // 4 H
    OwnedVector peepholeInput;
    OwnedVector peepholeForget;
    OwnedVector peepholeOutput;
    const bool forward;
};

// GRU. The gate vector holds the reset gate at 0, the update gate at H and the candidate at
// paddedGates = (2 H rounded up to 8), so that the candidate block starts 32-byte aligned.
class Gru : public CblasLayer {
public:
    // resetAfterProduct: candidate = Wx x + b + reset * (Wn h); otherwise Wx x + b + Wn (reset * h).
    // residual adds the layer's input to its output and needs inSize == outSize.
    Gru(int inSize, int outSize, const GruParams& params, bool resetAfterProduct, bool reverse, bool residual);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;
    // Steps both strands together; each result is what Process gives it.
    void ProcessPair(const Common::MatView<float>& in1, Common::MatView<float>& out1,
                     const Common::MatView<float>& in2, Common::MatView<float>& out2, float* scratch) const override;
    // Per strand, for two: a block of input products (256 rows of the gate vector, padded to 8), h
    // and the recurrent product; the same for any number of rows.
    int ScratchSize(int rows) const override;

    const int paddedGates;
    OwnedMatrix Wx;    // inSize by (paddedGates + H); padding columns are zero
    OwnedMatrix Wh;    // H by (paddedGates + H): reset, update, zero padding, candidate (Wn)
    OwnedVector bias;  // paddedGates + H
    const bool forward;
    const bool resetAfterProduct;
    const bool residual;

private:
    void run(const Common::MatView<float>* in, Common::MatView<float>* out, int strands, float* scratch) const;
};

// Both directions of a recurrent layer over the same input: the forward half writes the first
// columns of out, the backward half the rest. They share the scratch, one after the other.
template <typename T>
class Bidir : public CblasLayer {
public:
    Bidir(std::unique_ptr<T> forwardLayer, std::unique_ptr<T> backwardLayer);
    void Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const override;
    void ProcessPair(const Common::MatView<float>& in1, Common::MatView<float>& out1,
                     const Common::MatView<float>& in2, Common::MatView<float>& out2, float* scratch) const override;
    int ScratchSize(int rows) const override;

    const std::unique_ptr<const T> forwardLayer;
    const std::unique_ptr<const T> backwardLayer;
};

extern template class Feedforward<v_identity>;
extern template class Feedforward<v_tanh>;
extern template class Feedforward<v_sigmoid>;
extern template class Feedforward<v_relu>;
extern template class Feedforward<v_elu>;
extern template class Bidir<Lstm>;
extern template class Bidir<Gru>;

// The Feedforward instantiation for an activation; any other value throws "Unsupported activation
// function for feed-forward layer".
std::unique_ptr<CblasLayer> MakeFeedforward(Activation activation, const Common::MatView<const float>& W,
                                            const Common::VecView<const float>& bias);

}  // namespace BasecallNN
