#include "decoders/viterbi_md_kernel.h"

#include "decoders/int_score.h"

namespace BasecallMD {

namespace detail {

void EventScoresScalar(const float* in, int n, std::int32_t* out) {
    for (int s = 0; s < n; ++s) {
        out[s] = BasecallCommon::IntLogScore(in[s]);
    }
}

// The readable references, step by step as the recursion is defined; the vector builds must match
// them bit for bit.
void SummaryScalar(const std::int32_t* row, int W, const SourceSummary& out) {
    const int quarter = W / 4;
    const int sixteenth = W / 16;
    // Step sources: best of the four states that step into 4t .. 4t+3; lowest state on a tie.
    for (int t = 0; t < quarter; ++t) {
        int best = 0;
        for (int m = 1; m < 4; ++m) {
            if (row[t + m * quarter] > row[t + best * quarter]) {
                best = m;
            }
        }
        out.stepBest[t] = row[t + best * quarter];
        out.stepCode[t] = static_cast<std::uint8_t>((1 << kTraceMoveShift) | best);
    }
    // Skip sources: best of the sixteen states that skip into 16t .. 16t+15.
    for (int t = 0; t < sixteenth; ++t) {
        int best = 0;
        for (int m = 1; m < 16; ++m) {
            if (row[t + m * sixteenth] > row[t + best * sixteenth]) {
                best = m;
            }
        }
        out.skipBest[t] = row[t + best * sixteenth];
        out.skipCode[t] = static_cast<std::uint8_t>((2 << kTraceMoveShift) | best);
    }
}

void ViterbiCellScalar(const CellArgs& a) {
    using BasecallCommon::WrapAdd;
    const int W = a.W;
    const int quarter = W / 4;
    const int sixteenth = W / 16;
    for (int d = 0; d < 3; ++d) {
        const std::int32_t* src = a.source[d];
        const SourceSummary& sources = a.summary[d];
        std::int32_t* score = a.scratch.score[d];
        std::int32_t* code = a.scratch.code[d];
        for (int s = 0; s < W; ++s) {
            score[s] = WrapAdd(src[s], a.moves[d].stay);
            code[s] = 0;
        }
        // Stay beats step on equal scores, and step beats skip.
        for (int t = 0; t < quarter; ++t) {
            const std::int32_t v = WrapAdd(sources.stepBest[t], a.moves[d].step);
            for (int s = 4 * t; s < 4 * t + 4; ++s) {
                if (score[s] < v) {
                    score[s] = v;
                    code[s] = sources.stepCode[t];
                }
            }
        }
        for (int t = 0; t < sixteenth; ++t) {
            const std::int32_t v = WrapAdd(sources.skipBest[t], a.moves[d].skip);
            for (int s = 16 * t; s < 16 * t + 16; ++s) {
                if (score[s] < v) {
                    score[s] = v;
                    code[s] = sources.skipCode[t];
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
        a.trace[s] = static_cast<std::uint8_t>((d << kTraceDirectionShift) | c.code[d][s]);
    }
}

}  // namespace detail

SummaryKernel GetSummaryKernel(BasecallCommon::KernelIsa isa) {
    using BasecallCommon::KernelIsa;
    if (!BasecallCommon::IsaSupported(isa)) {
        return nullptr;
    }
    switch (isa) {
        case KernelIsa::Scalar:
            return &detail::SummaryScalar;
        case KernelIsa::Sse2:
            return &detail::SummarySse2;
        case KernelIsa::Avx2:
            return &detail::SummaryAvx2;
        case KernelIsa::Avx512:
            return &detail::SummaryAvx512;
    }
    return nullptr;
}

EventScoreKernel GetEventScoreKernel(BasecallCommon::KernelIsa isa) {
    if (!BasecallCommon::IsaSupported(isa)) {
        return nullptr;
    }
    return isa == BasecallCommon::KernelIsa::Avx512 ? &detail::EventScoresAvx512 : &detail::EventScoresScalar;
}

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
        case KernelIsa::Avx512:
            return &detail::ViterbiCellAvx512;
    }
    return nullptr;
}

}  // namespace BasecallMD
