#include "decoders/viterbi_md_kernel.h"

#include "decoders/int_score.h"

namespace BasecallMD {

namespace detail {

// The readable reference, step by step as the recursion is defined; the vector builds must match it
// bit for bit.
void ViterbiCellScalar(const CellArgs& a) {
    using BasecallCommon::WrapAdd;
    const int W = a.W;
    const int quarter = W / 4;
    const int sixteenth = W / 16;
    for (int d = 0; d < 3; ++d) {
        const std::int32_t* src = a.source[d];
        std::int32_t* stepBest = a.scratch.stepBest[d];
        std::int32_t* stepFrom = a.scratch.stepFrom[d];
        std::int32_t* skipBest = a.scratch.skipBest[d];
        std::int32_t* skipFrom = a.scratch.skipFrom[d];
        std::int32_t* score = a.scratch.score[d];
        std::int32_t* from = a.scratch.from[d];
        std::int32_t* move = a.scratch.move[d];
        // Step sources: best of the four states that step into 4t .. 4t+3; lowest state on a tie.
        for (int t = 0; t < quarter; ++t) {
            stepBest[t] = src[t];
            stepFrom[t] = t;
            for (int m = 1; m < 4; ++m) {
                if (src[t + m * quarter] > stepBest[t]) {
                    stepBest[t] = src[t + m * quarter];
                    stepFrom[t] = t + m * quarter;
                }
            }
        }
        // Skip sources: best of the sixteen states that skip into 16t .. 16t+15.
        for (int t = 0; t < sixteenth; ++t) {
            skipBest[t] = src[t];
            skipFrom[t] = t;
            for (int m = 1; m < 16; ++m) {
                if (src[t + m * sixteenth] > skipBest[t]) {
                    skipBest[t] = src[t + m * sixteenth];
                    skipFrom[t] = t + m * sixteenth;
                }
            }
        }
        for (int s = 0; s < W; ++s) {
            score[s] = WrapAdd(src[s], a.moves[d].stay);
            from[s] = s;
            move[s] = 0;
        }
        // Stay beats step on equal scores, and step beats skip.
        for (int t = 0; t < quarter; ++t) {
            const std::int32_t v = WrapAdd(stepBest[t], a.moves[d].step);
            for (int s = 4 * t; s < 4 * t + 4; ++s) {
                if (score[s] < v) {
                    score[s] = v;
                    from[s] = stepFrom[t];
                    move[s] = 1;
                }
            }
        }
        for (int t = 0; t < sixteenth; ++t) {
            const std::int32_t v = WrapAdd(skipBest[t], a.moves[d].skip);
            for (int s = 16 * t; s < 16 * t + 16; ++s) {
                if (score[s] < v) {
                    score[s] = v;
                    from[s] = skipFrom[t];
                    move[s] = 2;
                }
            }
        }
        // A strand that does not advance emits nothing.
        for (int s = 0; s < W; ++s) {
            if (d != 2) {
                score[s] = WrapAdd(score[s], a.emission1[s]);
            }
            if (d != 1) {
                score[s] = WrapAdd(score[s], a.emission2[s]);
            }
        }
    }
    const CellScratch& c = a.scratch;
    for (int s = 0; s < W; ++s) {
        // Ties prefer advancing both strands, then strand 2.
        int d;
        if (c.score[0][s] >= c.score[1][s] && c.score[0][s] >= c.score[2][s]) {
            d = 0;
        } else if (c.score[1][s] > c.score[2][s]) {
            d = 1;
        } else {
            d = 2;
        }
        a.score[s] = c.score[d][s];
        a.previousState[s] = c.from[d][s];
        a.direction[s] = d;
        a.moveCode[s] = c.move[d][s];
    }
}

}  // namespace detail

CellKernel GetCellKernel(BasecallCommon::KernelIsa isa) {
    using BasecallCommon::KernelIsa;
    if (!BasecallCommon::IsaSupported(isa)) {
        return nullptr;
    }
    switch (isa) {
        case KernelIsa::Scalar:
            return &detail::ViterbiCellScalar;
        case KernelIsa::Sse2:
            return &detail::ViterbiCellSse2;
        case KernelIsa::Avx2:
            return &detail::ViterbiCellAvx2;
    }
    return nullptr;
}

}  // namespace BasecallMD
