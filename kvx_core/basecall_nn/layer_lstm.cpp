#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "basecall_nn/blas_helpers.h"
#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"

namespace BasecallNN {

using detail::elementAdd;
using detail::elementAddMultiply;
using detail::elementMultiply;
using detail::matrixMultiply;
using detail::matrixMultiplyAdd;

namespace {
int padded8(int n) { return ((n + 7) / 8) * 8; }

void checkGate(const GateParams& gate, int inSize, int size, const char* name) {
    const auto in = static_cast<std::uint64_t>(inSize);
    const auto h = static_cast<std::uint64_t>(size);
    if (gate.iW.rows != in || gate.iW.cols != h || gate.sW.rows != h || gate.sW.cols != h || gate.bias.size != h) {
        throw std::runtime_error(std::string("LSTM ") + name + " gate parameters do not match a layer of " +
                                 std::to_string(inSize) + " inputs and " + std::to_string(size) + " outputs.");
    }
}
}  // namespace

// Gate blocks: 0 cell candidate, 1 input, 2 forget, 3 output.
Lstm::Lstm(int inSize_, int outSize_, const LstmParams& params, bool reverse)
    : CblasLayer(inSize_, outSize_),
      Wx(static_cast<std::size_t>(inSize_), 4 * static_cast<std::size_t>(outSize_)),
      Wh(static_cast<std::size_t>(outSize_), 4 * static_cast<std::size_t>(outSize_)),
      bias(4 * static_cast<std::size_t>(outSize_)),
      peepholeInput(params.input.peep),
      peepholeForget(params.forget.peep),
      peepholeOutput(params.output.peep),
      forward(!reverse) {
    checkGate(params.forget, inSize, outSize, "forget");
    checkGate(params.input, inSize, outSize, "input");
    checkGate(params.output, inSize, outSize, "output");
    checkGate(params.cell, inSize, outSize, "cell");
    const auto h = static_cast<std::uint64_t>(outSize);
    if (params.forget.peep.size != h || params.input.peep.size != h || params.output.peep.size != h) {
        throw std::runtime_error("LSTM peepholes do not match a layer of " + std::to_string(outSize) + " outputs.");
    }
    const GateParams* blocks[4] = {&params.cell, &params.input, &params.forget, &params.output};
    for (std::size_t k = 0; k < 4; ++k) {
        Wx.copyBlock(blocks[k]->iW, k * h);
        Wh.copyBlock(blocks[k]->sW, k * h);
        bias.copyBlock(blocks[k]->bias, k * h);
    }
}

int Lstm::ScratchSize(int) const { return ((outSize + 7) / 8) * 80 + inSize; }

void Lstm::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const {
    const kernels::KernelSet& k = kernels::Active();
    const int H = outSize;
    const int P = padded8(H);
    const auto h64 = static_cast<std::uint64_t>(H);
    float* c = scratch;
    float* h = c + P;
    float* gates = h + P;
    float* padded = gates + 4 * P;
    float* x = padded + 4 * P;

    std::fill(c, c + 2 * P, 0.0f);
    const Common::VecView<float> cV(c, h64);
    const Common::VecView<float> hV(h, h64);
    const Common::VecView<float> gatesV(gates, 4 * h64);
    const Common::VecView<float> xV(x, static_cast<std::uint64_t>(inSize));
    // With H a multiple of 8 every block of the gate vector is already 32-byte aligned; otherwise
    // each step works on a copy whose blocks sit P apart.
    const bool inPlace = H % 8 == 0;
    float* block[4];
    for (int b = 0; b < 4; ++b) {
        block[b] = inPlace ? gates + b * H : padded + b * P;
    }
    const auto blockV = [&](int b) { return Common::VecView<float>(block[b], h64); };

    const auto rows = static_cast<std::int64_t>(in.rows);
    for (std::int64_t t = 0; t < rows; ++t) {
        const auto r = static_cast<std::uint64_t>(forward ? t : rows - 1 - t);
        for (int i = 0; i < inSize; ++i) {
            x[i] = in(r, static_cast<std::uint64_t>(i));
        }

        matrixMultiply(gatesV, hV, Wh.view);
        matrixMultiplyAdd(gatesV, xV, Wx.view);
        elementAdd(gatesV, bias.view);
        if (!inPlace) {
            for (int b = 0; b < 4; ++b) {
                std::memcpy(block[b], gates + b * H, sizeof(float) * H);
            }
        }

        elementAddMultiply(blockV(2), cV, peepholeForget.view);
        k.sigmoid(block[2], h64);
        elementAddMultiply(blockV(1), cV, peepholeInput.view);
        k.sigmoid(block[1], h64);
        k.tanh(block[0], h64);

        elementMultiply(cV, blockV(2));
        elementAddMultiply(cV, blockV(0), blockV(1));

        std::memcpy(block[0], c, sizeof(float) * H);
        k.tanh(block[0], h64);
        elementAddMultiply(blockV(3), cV, peepholeOutput.view);
        k.sigmoid(block[3], h64);
        k.product(h, block[0], block[3], h64);

        for (int i = 0; i < H; ++i) {
            out(r, static_cast<std::uint64_t>(i)) = h[i];
        }
    }
}

}  // namespace BasecallNN
