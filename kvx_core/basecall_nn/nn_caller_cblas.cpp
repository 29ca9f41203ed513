#include "basecall_nn/nn_caller_cblas.h"

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "basecall_nn/cblas_layers.h"

namespace BasecallNN {

namespace {
// The loader builds W and b from insize and size; a mismatch means a caller other than the loader
// got its arguments wrong, and the network would fail only later, inside a run.
void checkShape(const char* layer, int insize, int size, const Common::MatView<const float>& W,
                const Common::VecView<const float>& b) {
    if (W.rows != static_cast<std::uint64_t>(insize) || W.cols != static_cast<std::uint64_t>(size) ||
        b.size != static_cast<std::uint64_t>(size)) {
        throw std::runtime_error(std::string(layer) + " layer of " + std::to_string(insize) + " inputs and " +
                                 std::to_string(size) + " outputs was given a " + std::to_string(W.rows) + " x " +
                                 std::to_string(W.cols) + " weight matrix and " + std::to_string(b.size) +
                                 " biases.");
    }
}
}  // namespace

NNCallerCblas::~NNCallerCblas() = default;

void NNCallerCblas::AddConvolution(Activation activation, int insize, int winlen, int size, int stride,
                                   int padLeft, int padRight, const Common::MatView<const float>& W,
                                   const Common::VecView<const float>& b) {
    const std::int64_t windowWidth = static_cast<std::int64_t>(insize) * winlen;
    if (windowWidth > std::numeric_limits<int>::max()) {
        throw std::runtime_error("Convolution window of " + std::to_string(winlen) + " rows of " +
                                 std::to_string(insize) + " inputs is too wide.");
    }
    checkShape("Convolution", static_cast<int>(windowWidth), size, W, b);
    const std::int64_t newStride = static_cast<std::int64_t>(event_stride) * stride;
    if (newStride > std::numeric_limits<int>::max()) {
        throw std::runtime_error("The convolutions of the network take " + std::to_string(newStride) +
                                 " input rows per output row, more than can be run.");
    }
    auto window = std::make_unique<WindowLayer>(insize, winlen, stride, padLeft, padRight);
    auto dense = MakeFeedforward(activation, W, b);
    layers.push_back(std::move(window));
    layers.push_back(std::move(dense));
    event_stride = static_cast<int>(newStride);
}

void NNCallerCblas::AddFeedforward(Activation activation, int insize, int size, const Common::MatView<const float>& W,
                                   const Common::VecView<const float>& b) {
    checkShape("Feed-forward", insize, size, W, b);
    layers.push_back(MakeFeedforward(activation, W, b));
}

void NNCallerCblas::AddSoftmax(int insize, int size, const Common::MatView<const float>& W,
                               const Common::VecView<const float>& b) {
    checkShape("Softmax", insize, size, W, b);
    layers.push_back(std::make_unique<Softmax>(W, b));
}

void NNCallerCblas::AddGlobalNormTwoState(int insize, int size, const Common::MatView<const float>& W,
                                          const Common::VecView<const float>& b) {
    checkShape("GlobalNormTwoState", insize, size, W, b);
    layers.push_back(std::make_unique<GlobalNormTwoState>(W, b));
}

void NNCallerCblas::AddGru(int insize, int size, const GruParams& params, bool gruMod, bool reverse,
                           bool residual) {
    layers.push_back(std::make_unique<Gru>(insize, size, params, gruMod, reverse, residual));
}

void NNCallerCblas::AddBGru(int insize, int size, const GruParams& forward, const GruParams& backward,
                            bool gruMod, bool residual) {
    layers.push_back(std::make_unique<Bidir<Gru>>(
        std::make_unique<Gru>(insize, size, forward, gruMod, false, residual),
        std::make_unique<Gru>(insize, size, backward, gruMod, true, residual)));
}

void NNCallerCblas::AddLstm(int insize, int size, const LstmParams& params, bool reverse) {
    layers.push_back(std::make_unique<Lstm>(insize, size, params, reverse));
}

void NNCallerCblas::AddBLstm(int insize, int size, const LstmParams& forward, const LstmParams& backward) {
    layers.push_back(std::make_unique<Bidir<Lstm>>(std::make_unique<Lstm>(insize, size, forward, false),
                                                   std::make_unique<Lstm>(insize, size, backward, true)));
}

}  // namespace BasecallNN
