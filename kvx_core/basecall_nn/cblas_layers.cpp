#include "basecall_nn/cblas_layers.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "basecall_nn/blas_helpers.h"
#include "basecall_nn/nn_kernels.h"

namespace BasecallNN {

using detail::elementAdd;
using detail::matrixMultiply;
using detail::normalizeVector;

namespace {
// Weight rows lie a multiple of 32 floats (128 bytes) apart, so every row starts as aligned as the
// storage itself and whole rows go to the vector units.
std::size_t weightStride(std::size_t cols) { return std::max<std::size_t>(32, ((cols + 31) / 32) * 32); }

// Calls fn with each row of out.
template <typename Fn>
void eachRow(const Common::MatView<float>& out, Fn fn) {
    for (std::uint64_t r = 0; r < out.rows; ++r) {
        fn(out.row(r));
    }
}

// out = in W: the products of all rows in one sgemm; the caller adds the bias row by row.
void dense(const Common::MatView<float>& in, const OwnedMatrix& W, const Common::MatView<float>& out) {
    matrixMultiply(in, W.view, out);
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// Owned parameter storage

OwnedMatrix::OwnedMatrix(std::size_t rows, std::size_t cols)
    : storage(rows * weightStride(cols), 0.0f),
      view(storage.data(), rows, cols, static_cast<std::int64_t>(weightStride(cols)), 1) {}

OwnedMatrix::OwnedMatrix(const Common::MatView<const float>& src) : OwnedMatrix(src.rows, src.cols) {
    copyBlock(src, 0);
}

void OwnedMatrix::copyBlock(const Common::MatView<const float>& src, std::size_t colOffset) {
    if (src.rows != view.rows || colOffset + src.cols > view.cols) {
        throw std::runtime_error("Layer parameter block of " + std::to_string(src.rows) + " x " +
                                 std::to_string(src.cols) + " does not fit a " + std::to_string(view.rows) +
                                 " x " + std::to_string(view.cols) + " weight matrix at column " +
                                 std::to_string(colOffset) + ".");
    }
    for (std::uint64_t r = 0; r < src.rows; ++r) {
        for (std::uint64_t c = 0; c < src.cols; ++c) {
            view(r, colOffset + c) = src(r, c);
        }
    }
}

OwnedVector::OwnedVector(std::size_t size)
    : storage(std::max<std::size_t>(size, 1), 0.0f), view(storage.data(), size, 1) {}

OwnedVector::OwnedVector(const Common::VecView<const float>& src) : OwnedVector(src.size) { copyBlock(src, 0); }

void OwnedVector::copyBlock(const Common::VecView<const float>& src, std::size_t offset) {
    if (offset + src.size > view.size) {
        throw std::runtime_error("Layer parameter vector of " + std::to_string(src.size) + " does not fit a " +
                                 std::to_string(view.size) + " vector at entry " + std::to_string(offset) + ".");
    }
    for (std::uint64_t i = 0; i < src.size; ++i) {
        view[offset + i] = src[i];
    }
}

// ---------------------------------------------------------------------------------------------
// WindowLayer

WindowLayer::WindowLayer(int inSize_, int windowLength_, int windowStride_, int padLeft_, int padRight_)
    : CblasLayer(inSize_, inSize_ * windowLength_),
      windowLength(windowLength_),
      windowStride(windowStride_),
      padLeft(padLeft_),
      padRight(padRight_) {
    if (windowLength < 1 || windowStride < 1 || padLeft < 0 || padRight < 0) {
        throw std::runtime_error("Convolution needs a window length and stride of at least 1 and no negative "
                                 "padding, but has window length " + std::to_string(windowLength) + ", stride " +
                                 std::to_string(windowStride) + " and padding " + std::to_string(padLeft) + ", " +
                                 std::to_string(padRight) + ".");
    }
    // Rows of padding beyond the window's length give output rows that see no input at all; a model
    // file that asks for more is damaged, and would make the runner size its buffers by the padding.
    if (padLeft > windowLength || padRight > windowLength) {
        throw std::runtime_error("Convolution padding of " + std::to_string(padLeft) + " and " +
                                 std::to_string(padRight) + " rows is longer than its window of " +
                                 std::to_string(windowLength) + " rows.");
    }
}

int WindowLayer::OutputRows(int rows) const {
    // In 64 bits: the sum of paddings and rows may not fit an int.
    const std::int64_t out =
        (static_cast<std::int64_t>(padLeft) + padRight - (static_cast<std::int64_t>(windowLength) - rows)) /
            windowStride + 1;
    return static_cast<int>(std::min<std::int64_t>(out, std::numeric_limits<int>::max()));
}

void WindowLayer::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float*) const {
    const auto inRows = static_cast<std::int64_t>(in.rows);
    const bool dense = in.colStride == 1 && out.colStride == 1;
    for (std::uint64_t r = 0; r < out.rows; ++r) {
        for (int w = 0; w < windowLength; ++w) {
            const std::int64_t q = static_cast<std::int64_t>(r) * windowStride - padLeft + w;
            float* dst = &out(r, static_cast<std::uint64_t>(w) * inSize);
            if (q < 0 || q >= inRows) {
                for (int i = 0; i < inSize; ++i) {
                    dst[i * out.colStride] = 0.0f;
                }
            } else if (dense) {
                std::memcpy(dst, &in(static_cast<std::uint64_t>(q), 0), sizeof(float) * inSize);
            } else {
                const float* src = &in(static_cast<std::uint64_t>(q), 0);
                for (int i = 0; i < inSize; ++i) {
                    dst[i * out.colStride] = src[i * in.colStride];
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Feed-forward family

template <Activation A>
Feedforward<A>::Feedforward(const Common::MatView<const float>& W_, const Common::VecView<const float>& bias_)
    : CblasLayer(static_cast<int>(W_.rows), static_cast<int>(W_.cols)), W(W_), bias(bias_) {
    if (bias.view.size != W.view.cols) {
        throw std::runtime_error("Feed-forward layer has " + std::to_string(W.view.cols) + " outputs but " +
                                 std::to_string(bias.view.size) + " biases.");
    }
}

template <Activation A>
void Feedforward<A>::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float*) const {
    dense(in, W, out);
    const kernels::KernelSet& k = kernels::Active();
    eachRow(out, [&](const Common::VecView<float>& row) {
        elementAdd(row, bias.view);
        switch (A) {
            case v_identity:
                break;
            case v_tanh:
                k.tanh(row.data, row.size);
                break;
            case v_sigmoid:
                k.sigmoid(row.data, row.size);
                break;
            case v_relu:
                k.relu(row.data, row.size);
                break;
            case v_elu:
                k.elu(row.data, row.size);
                break;
        }
    });
}

template class Feedforward<v_identity>;
template class Feedforward<v_tanh>;
template class Feedforward<v_sigmoid>;
template class Feedforward<v_relu>;
template class Feedforward<v_elu>;

std::unique_ptr<CblasLayer> MakeFeedforward(Activation activation, const Common::MatView<const float>& W,
                                            const Common::VecView<const float>& bias) {
    switch (activation) {
        case v_identity:
            return std::make_unique<Feedforward<v_identity>>(W, bias);
        case v_tanh:
            return std::make_unique<Feedforward<v_tanh>>(W, bias);
        case v_sigmoid:
            return std::make_unique<Feedforward<v_sigmoid>>(W, bias);
        case v_relu:
            return std::make_unique<Feedforward<v_relu>>(W, bias);
        case v_elu:
            return std::make_unique<Feedforward<v_elu>>(W, bias);
    }
    throw std::runtime_error("Unsupported activation function for feed-forward layer");
}

Softmax::Softmax(const Common::MatView<const float>& W_, const Common::VecView<const float>& bias_)
    : CblasLayer(static_cast<int>(W_.rows), static_cast<int>(W_.cols)), W(W_), bias(bias_) {
    if (bias.view.size != W.view.cols) {
        throw std::runtime_error("Softmax layer has " + std::to_string(W.view.cols) + " outputs but " +
                                 std::to_string(bias.view.size) + " biases.");
    }
}

void Softmax::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float*) const {
    dense(in, W, out);
    const kernels::KernelSet& k = kernels::Active();
    // Each row goes through all three steps while it is in cache: a chunk's posteriors are larger
    // than the cache, and a second sweep would read them all from memory again.
    eachRow(out, [&](const Common::VecView<float>& row) {
        elementAdd(row, bias.view);
        k.expPlus(row.data, row.size, 1e-6f);
        normalizeVector(row);
    });
}

GlobalNormTwoState::GlobalNormTwoState(const Common::MatView<const float>& W_,
                                       const Common::VecView<const float>& bias_, float scale_)
    : CblasLayer(static_cast<int>(W_.rows), static_cast<int>(W_.cols)), W(W_), bias(bias_), scale(scale_) {
    if (bias.view.size != W.view.cols) {
        throw std::runtime_error("GlobalNormTwoState layer has " + std::to_string(W.view.cols) + " outputs but " +
                                 std::to_string(bias.view.size) + " biases.");
    }
}

void GlobalNormTwoState::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float*) const {
    dense(in, W, out);
    const kernels::KernelSet& k = kernels::Active();
    eachRow(out, [&](const Common::VecView<float>& row) {
        elementAdd(row, bias.view);
        k.scaledTanh(row.data, row.size, scale);
    });
}

// ---------------------------------------------------------------------------------------------
// Bidir

template <typename T>
Bidir<T>::Bidir(std::unique_ptr<T> forwardLayer_, std::unique_ptr<T> backwardLayer_)
    : CblasLayer(forwardLayer_->inSize, forwardLayer_->outSize + backwardLayer_->outSize),
      forwardLayer(std::move(forwardLayer_)),
      backwardLayer(std::move(backwardLayer_)) {
    if (forwardLayer->inSize != backwardLayer->inSize) {
        throw std::runtime_error("Bidirectional layer halves read " + std::to_string(forwardLayer->inSize) +
                                 " and " + std::to_string(backwardLayer->inSize) + " inputs.");
    }
}

template <typename T>
void Bidir<T>::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const {
    const auto split = static_cast<std::uint64_t>(forwardLayer->outSize);
    Common::MatView<float> forwardOut = out.submatrix(0, 0, out.rows, split);
    Common::MatView<float> backwardOut =
        out.submatrix(0, split, out.rows, static_cast<std::uint64_t>(backwardLayer->outSize));
    forwardLayer->Process(in, forwardOut, scratch);
    backwardLayer->Process(in, backwardOut, scratch);
}

template <typename T>
void Bidir<T>::ProcessPair(const Common::MatView<float>& in1, Common::MatView<float>& out1,
                           const Common::MatView<float>& in2, Common::MatView<float>& out2, float* scratch) const {
    const auto split = static_cast<std::uint64_t>(forwardLayer->outSize);
    const auto backward = static_cast<std::uint64_t>(backwardLayer->outSize);
    Common::MatView<float> forward1 = out1.submatrix(0, 0, out1.rows, split);
    Common::MatView<float> forward2 = out2.submatrix(0, 0, out2.rows, split);
    Common::MatView<float> backward1 = out1.submatrix(0, split, out1.rows, backward);
    Common::MatView<float> backward2 = out2.submatrix(0, split, out2.rows, backward);
    forwardLayer->ProcessPair(in1, forward1, in2, forward2, scratch);
    backwardLayer->ProcessPair(in1, backward1, in2, backward2, scratch);
}

template <typename T>
int Bidir<T>::ScratchSize(int rows) const {
    return std::max(forwardLayer->ScratchSize(rows), backwardLayer->ScratchSize(rows));
}

template class Bidir<Lstm>;
template class Bidir<Gru>;

}  // namespace BasecallNN
