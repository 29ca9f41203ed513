#pragma once
// Vector body of the two-dimensional Viterbi cell kernel, written once against a lane interface of
// 32-bit integers and compiled per instruction set (viterbi_md_kernel_sse2.cpp,
// viterbi_md_kernel_avx2.cpp). Only include it from those translation units; everything here has
// internal linkage so code built with different instruction-set flags is never merged.
//
// The lane type V has kLanes (4 or 8) lanes and provides: Load, Store (unaligned), Set1, Iota
// (0, 1, ...), Add (wrapping), Greater (signed, all-ones mask), Select(mask, a, b), Or, And, and
// Expand4(p), whose lane l holds p[l / 4].
//
// It computes exactly what the scalar reference does, in one pass over the states after the source
// reductions: the stay/step/skip choice of each direction stays in registers instead of going through
// the per-direction scratch rows.

#include <cstdint>

#include "decoders/viterbi_md_kernel.h"

namespace BasecallMD {
namespace {

template <typename V>
void reduceSources(const std::int32_t* src, int blocks, int width, std::int32_t* best, std::int32_t* from) {
    // For each t: the largest of src[t + m * width] over m < blocks, the lowest state on a tie.
    const V iota = V::Iota();
    for (int t = 0; t < width; t += V::kLanes) {
        V b = V::Load(src + t);
        V f = V::Add(iota, V::Set1(t));
        for (int m = 1; m < blocks; ++m) {
            const int offset = t + m * width;
            const V c = V::Load(src + offset);
            const V better = V::Greater(c, b);
            b = V::Select(better, c, b);
            f = V::Select(better, V::Add(iota, V::Set1(offset)), f);
        }
        V::Store(best + t, b);
        V::Store(from + t, f);
    }
}

template <typename V>
void viterbiCellVector(const CellArgs& a) {
    const int W = a.W;
    const int quarter = W / 4;
    const int sixteenth = W / 16;
    for (int d = 0; d < 3; ++d) {
        reduceSources<V>(a.source[d], 4, quarter, a.scratch.stepBest[d], a.scratch.stepFrom[d]);
        reduceSources<V>(a.source[d], 16, sixteenth, a.scratch.skipBest[d], a.scratch.skipFrom[d]);
    }
    const V iota = V::Iota();
    const V one = V::Set1(1);
    const V two = V::Set1(2);
    V stay[3], step[3], skip[3];
    for (int d = 0; d < 3; ++d) {
        stay[d] = V::Set1(a.moves[d].stay);
        step[d] = V::Set1(a.moves[d].step);
        skip[d] = V::Set1(a.moves[d].skip);
    }
    for (int s = 0; s < W; s += V::kLanes) {
        const V state = V::Add(iota, V::Set1(s));
        V score[3], from[3], move[3];
        for (int d = 0; d < 3; ++d) {
            // Stay, then a step only if strictly better, then a skip only if strictly better.
            V x = V::Add(V::Load(a.source[d] + s), stay[d]);
            V f = state;
            const V stepScore = V::Add(V::Expand4(a.scratch.stepBest[d] + s / 4), step[d]);
            const V takeStep = V::Greater(stepScore, x);
            x = V::Select(takeStep, stepScore, x);
            f = V::Select(takeStep, V::Expand4(a.scratch.stepFrom[d] + s / 4), f);
            V mv = V::And(takeStep, one);
            // Sixteen neighbouring states share one skip source, and a block of lanes never spans two.
            const V skipScore = V::Add(V::Set1(a.scratch.skipBest[d][s / 16]), skip[d]);
            const V takeSkip = V::Greater(skipScore, x);
            score[d] = V::Select(takeSkip, skipScore, x);
            from[d] = V::Select(takeSkip, V::Set1(a.scratch.skipFrom[d][s / 16]), f);
            move[d] = V::Select(takeSkip, two, mv);
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
        V::Store(a.previousState + s, V::Select(notBoth, V::Select(oneOverTwo, from[1], from[2]), from[0]));
        V::Store(a.moveCode + s, V::Select(notBoth, V::Select(oneOverTwo, move[1], move[2]), move[0]));
        V::Store(a.direction + s, V::And(notBoth, V::Select(oneOverTwo, one, two)));
    }
}

}  // namespace
}  // namespace BasecallMD
