#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "basecall_nn/blas_helpers.h"
#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"

namespace BasecallNN {

using detail::matrixMultiply;

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

// Gate vector: reset at 0, update at H, zero padding up to paddedGates, candidate at paddedGates. The
// recurrent weights Wh use the same columns, so one product of h gives all three blocks.
Gru::Gru(int inSize_, int outSize_, const GruParams& params, bool resetAfterProduct_, bool reverse, bool residual_)
    : CblasLayer(inSize_, outSize_),
      paddedGates(padded8(2 * outSize_)),
      Wx(static_cast<std::size_t>(inSize_), static_cast<std::size_t>(paddedGates + outSize_)),
      Wh(static_cast<std::size_t>(outSize_), static_cast<std::size_t>(paddedGates + outSize_)),
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
    Wh.copyBlock(params.candidate.sW, g);
    bias.copyBlock(params.reset.bias, 0);
    bias.copyBlock(params.update.bias, h);
    bias.copyBlock(params.candidate.bias, g);
}

namespace {
// Input rows whose products with Wx are taken at once: enough for an efficient matrix product, few
// enough that the block stays in cache and that the scratch does not grow with the strand.
constexpr std::int64_t kBlockRows = 256;

// Scratch of one strand: a block of input products (a gate vector, padded to 8, per row), h and the
// recurrent product (a gate vector), each starting on a multiple of 8 floats.
std::int64_t strandScratch(int gates, int outSize) {
    return kBlockRows * padded8(gates) + padded8(outSize) + padded8(gates);
}
}  // namespace

int Gru::ScratchSize(int) const { return static_cast<int>(2 * strandScratch(paddedGates + outSize, outSize)); }

void Gru::Process(const Common::MatView<float>& in, Common::MatView<float>& out, float* scratch) const {
    run(&in, &out, 1, scratch);
}

void Gru::ProcessPair(const Common::MatView<float>& in1, Common::MatView<float>& out1,
                      const Common::MatView<float>& in2, Common::MatView<float>& out2, float* scratch) const {
    const Common::MatView<float> in[2] = {in1, in2};
    Common::MatView<float> out[2] = {out1, out2};
    run(in, out, 2, scratch);
}

// The input's share of the gates does not depend on the state, so it is a matrix product over a
// block of rows ahead of the recurrence (blocks follow the strand's own steps, so they are the same
// whatever runs beside it); each step is then one product of h with Wh (two for the
// reset-before-product form). Strands step side by side: their products go through one matVec call,
// which gives each strand what it would give alone, and everything else is done strand by strand.
void Gru::run(const Common::MatView<float>* in, Common::MatView<float>* out, int strands, float* scratch) const {
    const kernels::KernelSet& k = kernels::Active();
    const int H = outSize;
    const auto h64 = static_cast<std::uint64_t>(H);
    const int gates = paddedGates + H;
    const auto gates64 = static_cast<std::uint64_t>(gates);
    const int gateStride = padded8(gates);

    struct Strand {
        std::int64_t rows;
        float* block;            // input products of up to kBlockRows rows, row stride gateStride
        std::int64_t blockFirst;  // the input row of the block's first row
        float* h;
        float* product;  // Wh^T h; in the reset-before-product form, then reset * h for Wn
    };
    Strand s[kernels::kMaxVectors];
    std::int64_t steps = 0;
    for (int v = 0; v < strands; ++v) {
        Strand& st = s[v];
        st.rows = static_cast<std::int64_t>(in[v].rows);
        st.block = scratch;
        st.blockFirst = 0;
        st.h = st.block + kBlockRows * gateStride;
        st.product = st.h + padded8(H);
        scratch += strandScratch(gates, H);
        steps = std::max(steps, st.rows);
        std::fill(st.h, st.h + H, 0.0f);
    }
    // Wx x + bias for the rows of steps [t, t + kBlockRows) of strand v.
    const auto fillBlock = [&](int v, std::int64_t t) {
        Strand& st = s[v];
        const std::int64_t n = std::min(kBlockRows, st.rows - t);
        st.blockFirst = forward ? t : st.rows - t - n;
        const Common::MatView<float> block(st.block, static_cast<std::uint64_t>(n), gates64, gateStride, 1);
        matrixMultiply(Common::MatView<const float>(in[v].submatrix(static_cast<std::uint64_t>(st.blockFirst), 0,
                                                                     static_cast<std::uint64_t>(n), in[v].cols)),
                       Wx.view, block);
        for (std::int64_t r = 0; r < n; ++r) {
            k.add(st.block + r * gateStride, bias.view.data, gates64);
        }
    };
    // The input row of step t and its gate vector.
    const auto rowOf = [&](const Strand& st, std::int64_t t) { return forward ? t : st.rows - 1 - t; };
    const auto gatesOf = [&](const Strand& st, std::int64_t r) { return st.block + (r - st.blockFirst) * gateStride; };

    // The strands still stepping at step t: a shorter strand drops out, and its pointers with it.
    const float* x[kernels::kMaxVectors];
    float* y[kernels::kMaxVectors];
    const float* WhData = Wh.view.data;
    const auto ldw = static_cast<std::size_t>(Wh.view.rowStride);
    const float* WnData = WhData + paddedGates;
    for (std::int64_t t = 0; t < steps; ++t) {
        std::size_t active = 0;
        for (int v = 0; v < strands; ++v) {
            if (t < s[v].rows) {
                if (t % kBlockRows == 0) {
                    fillBlock(v, t);
                }
                x[active] = s[v].h;
                y[active] = s[v].product;
                ++active;
            }
        }
        // Reset-after-product needs Wn^T h as well, so one product covers all three blocks.
        k.matVec(WhData, ldw, h64, resetAfterProduct ? gates64 : 2 * h64, x, y, active, false);
        for (int v = 0; v < strands; ++v) {
            if (t >= s[v].rows) {
                continue;
            }
            const Strand& st = s[v];
            float* g = gatesOf(st, rowOf(st, t));
            k.add(g, st.product, 2 * h64);
            k.sigmoid(g, 2 * h64);
            if (resetAfterProduct) {
                k.addMultiply(g + paddedGates, st.product + paddedGates, g, h64);
            } else {
                k.product(st.product, g, st.h, h64);  // reset * h
            }
        }
        if (!resetAfterProduct) {
            active = 0;
            for (int v = 0; v < strands; ++v) {
                if (t < s[v].rows) {
                    x[active] = s[v].product;
                    y[active] = gatesOf(s[v], rowOf(s[v], t)) + paddedGates;
                    ++active;
                }
            }
            k.matVec(WnData, ldw, h64, h64, x, y, active, true);
        }
        for (int v = 0; v < strands; ++v) {
            if (t >= s[v].rows) {
                continue;
            }
            const Strand& st = s[v];
            const std::int64_t row = rowOf(st, t);
            const auto r = static_cast<std::uint64_t>(row);
            float* g = gatesOf(st, row);
            float* candidate = g + paddedGates;
            k.tanh(candidate, h64);
            k.interpolate(st.h, g + H, candidate, h64);
            for (int i = 0; i < H; ++i) {
                const auto c = static_cast<std::uint64_t>(i);
                out[v](r, c) = residual ? st.h[i] + in[v](r, c) : st.h[i];
            }
        }
    }
}

}  // namespace BasecallNN
