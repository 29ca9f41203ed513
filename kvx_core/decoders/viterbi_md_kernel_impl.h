#pragma once
// Vector body of the two-dimensional Viterbi cell kernel, written once against a lane interface of
// 32-bit integers and compiled per instruction set (viterbi_md_kernel_sse2.cpp,
// viterbi_md_kernel_avx2.cpp). Only include it from those translation units; everything here has
// internal linkage so code built with different instruction-set flags is never merged.
//
// The lane type V has kLanes (4 or 8) lanes and provides: Load, Store (unaligned), Set1, Add
// (wrapping), Greater (signed, all-ones mask), Select(mask, a, b), Or, And, Expand4(p) for 32-bit and
// for byte p, whose lane l holds p[l / 4], and StoreBytes(p, x), which stores the low byte of each
// lane (lanes hold 0 .. 255).
//
// It computes exactly what the scalar reference does, in one pass over the states: the
// stay/step/skip choice of each direction stays in registers instead of going through the
// per-direction scratch rows.

#include <cstdint>

#include "decoders/viterbi_md_kernel.h"

namespace BasecallMD {
namespace {

template <typename V>
void reduceSources(const std::int32_t* src, int blocks, int width, std::int32_t moveBits, std::int32_t* best,
                   std::uint8_t* code) {
    // For each t: the largest of src[t + m * width] over m < blocks, the lowest m on a tie, and its
    // trace bits moveBits | m.
    for (int t = 0; t < width; t += V::kLanes) {
        V b = V::Load(src + t);
        V c = V::Set1(moveBits);
        for (int m = 1; m < blocks; ++m) {
            const V x = V::Load(src + t + m * width);
            const V better = V::Greater(x, b);
            b = V::Select(better, x, b);
            c = V::Select(better, V::Set1(moveBits | m), c);
        }
        V::Store(best + t, b);
        V::StoreBytes(code + t, c);
    }
}

template <typename V>
void summaryVector(const std::int32_t* row, int W, const SourceSummary& out) {
    reduceSources<V>(row, 4, W / 4, 1 << kTraceMoveShift, out.stepBest, out.stepCode);
    reduceSources<V>(row, 16, W / 16, 2 << kTraceMoveShift, out.skipBest, out.skipCode);
}

template <typename V>
void viterbiCellVector(const CellArgs& a) {
    const int W = a.W;
    const V dirOne = V::Set1(1 << kTraceDirectionShift);
    const V dirTwo = V::Set1(2 << kTraceDirectionShift);
    V stay[3], step[3], skip[3];
    for (int d = 0; d < 3; ++d) {
        stay[d] = V::Set1(a.moves[d].stay);
        step[d] = V::Set1(a.moves[d].step);
        skip[d] = V::Set1(a.moves[d].skip);
    }
    for (int s = 0; s < W; s += V::kLanes) {
        V score[3], code[3];
        for (int d = 0; d < 3; ++d) {
            const SourceSummary& sources = a.summary[d];
            // Stay, then a step only if strictly better, then a skip only if strictly better.
            V x = V::Add(V::Load(a.source[d] + s), stay[d]);
            const V stepScore = V::Add(V::Expand4(sources.stepBest + s / 4), step[d]);
            const V takeStep = V::Greater(stepScore, x);
            x = V::Select(takeStep, stepScore, x);
            const V c = V::And(takeStep, V::Expand4(sources.stepCode + s / 4));
            // Sixteen neighbouring states share one skip source, and a block of lanes never spans two.
            const V skipScore = V::Add(V::Set1(sources.skipBest[s / 16]), skip[d]);
            const V takeSkip = V::Greater(skipScore, x);
            score[d] = V::Select(takeSkip, skipScore, x);
            code[d] = V::Select(takeSkip, V::Set1(sources.skipCode[s / 16]), c);
        }
        const V e1 = V::Load(a.emission1 + s);
        const V e2 = V::Load(a.emission2 + s);
        score[0] = V::Add(V::Add(score[0], e1), e2);
        score[1] = V::Add(score[1], e1);
        score[2] = V::Add(score[2], e2);
        // Both strands unless another direction is strictly better; then strand 1 only if strictly
        // better than strand 2.
        const V notBoth = V::Or(V::Greater(score[1], score[0]), V::Greater(score[2], score[0]));
        const V oneOverTwo = V::Greater(score[1], score[2]);
        V::Store(a.score + s, V::Select(notBoth, V::Select(oneOverTwo, score[1], score[2]), score[0]));
        const V other = V::Select(oneOverTwo, V::Or(code[1], dirOne), V::Or(code[2], dirTwo));
        V::StoreBytes(a.trace + s, V::Select(notBoth, other, code[0]));
    }
}

}  // namespace
}  // namespace BasecallMD
