#include <algorithm>
#include <stdexcept>
#include <string>

#include "basecall_nn/blas_helpers.h"
#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"

namespace BasecallNN {

using detail::elementAdd;
using detail::elementAddMultiply;
using detail::matrixMultiply;
using detail::matrixMultiplyAdd;

namespace {
int padded8(int n) { return ((n + 7) / 8) * 8; }

void checkGate(const GateParams& gate, int inSize, int size, const char* name) {
    const auto in = static_cast<std::uint64_t>(inSize);
    const auto h = static_cast<std::uint64_t>(size);
    if (gate.iW.rows != in || gate.iW.cols != h || gate.sW.rows != h || gate.sW.cols != h || gate.bias.size != h) {
        throw std::runtime_error(std::string("GRU ") + name + " gate parameters do not match a layer of " +
                                 std::to_string(inSize) + " inputs and " + std::to_string(size) + " outputs.");
    }
}
}  // namespace

// Gate vector: reset at 0, update at H, zero padding up to paddedGates, candidate at paddedGates.
Gru::Gru(int inSize_, int outSize_, const GruParams& params, bool resetAfterProduct_, bool reverse, bool residual_)
    : CblasLayer(inSize_, outSize_),
      paddedGates(padded8(2 * outSize_)),
      Wx(static_cast<std::size_t>(inSize_), static_cast<std::size_t>(paddedGates + outSize_)),
      Wh(static_cast<std::size_t>(outSize_), 2 * static_cast<std::size_t>(outSize_)),
      Wn(static_cast<std::size_t>(outSize_), static_cast<std::size_t>(outSize_)),
      bias(static_cast<std::size_t>(paddedGates + outSize_)),
      forward(!reverse),
      resetAfterProduct(resetAfterProduct_),
      residual(residual_) {
    checkGate(params.reset, inSize, outSize, "reset");
    checkGate(params.update, inSize, outSize, "update");
    checkGate(params.candidate, inSize, outSize, "candidate");
    if (residual && inSize != outSize) {
        throw std::runtime_error("Residual GRU layer needs as many inputs as outputs, but has " +
                                 std::to_string(inSize) + " inputs and " + std::to_string(outSize) + " outputs.");
    }
    const auto h = static_cast<std::size_t>(outSize);
    const auto g = static_cast<std::size_t>(paddedGates);
    Wx.copyBlock(params.reset.iW, 0);
    Wx.copyBlock(params.update.iW, h);
    Wx.copyBlock(params.candidate.iW, g);
    Wh.copyBlock(params.reset.sW, 0);
    Wh.copyBlock(params.update.sW, h);
    Wn.copyBlock(params.candidate.sW, 0);
    bias.copyBlock(params.reset.bias, 0);
    bias.copyBlock(params.update.bias, h);
    bias.copyBlock(params.candidate.bias, g);
}

int Gru::ScratchSize(int) const { return ((inSize + 7) / 8 + ((outSize + 7) / 8) * 5) * 8; }

void Gru::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const {
    const kernels::KernelSet& k = kernels::Active();
    const int H = outSize;
    const int P = padded8(H);
    const auto h64 = static_cast<std::uint64_t>(H);
    float* h = scratch;
    float* gates = h + P;
    float* tmp = gates + 3 * P;
    float* x = tmp + P;
    float* reset = gates;
    float* update = gates + H;
    float* candidate = gates + paddedGates;

    std::fill(h, h + P, 0.0f);
    const Common::VecView<float> hV(h, h64);
    const Common::VecView<float> tV(tmp, h64);
    const Common::VecView<float> xV(x, static_cast<std::uint64_t>(inSize));
    const Common::VecView<float> allGatesV(gates, static_cast<std::uint64_t>(paddedGates + H));
    const Common::VecView<float> resetUpdateV(gates, 2 * h64);
    const Common::VecView<float> resetV(reset, h64);
    const Common::VecView<float> candidateV(candidate, h64);

    const auto rows = static_cast<std::int64_t>(in.rows);
    for (std::int64_t t = 0; t < rows; ++t) {
        const auto r = static_cast<std::uint64_t>(forward ? t : rows - 1 - t);
        for (int i = 0; i < inSize; ++i) {
            x[i] = in(r, static_cast<std::uint64_t>(i));
        }

        matrixMultiply(allGatesV, xV, Wx.view);
        elementAdd(allGatesV, bias.view);
        matrixMultiplyAdd(resetUpdateV, hV, Wh.view);
        k.sigmoid(gates, 2 * h64);

        if (resetAfterProduct) {
            matrixMultiply(tV, hV, Wn.view);
            elementAddMultiply(candidateV, tV, resetV);
        } else {
            k.product(tmp, reset, h, h64);
            matrixMultiplyAdd(candidateV, tV, Wn.view);
        }
        k.tanh(candidate, h64);
        k.interpolate(h, update, candidate, h64);

        for (int i = 0; i < H; ++i) {
            out(r, static_cast<std::uint64_t>(i)) = residual ? h[i] + x[i] : h[i];
        }
    }
}

}  // namespace BasecallNN
