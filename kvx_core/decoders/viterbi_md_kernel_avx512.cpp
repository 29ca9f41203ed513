// AVX-512 build of the two-dimensional Viterbi cell and summary kernels: sixteen states per vector,
// every choice made in mask registers. The trace bits of a block of sixteen states live in the byte
// lanes of one 128-bit register under the same masks as the scores, so the trace is written sixteen
// bytes at a time with no narrowing. The step sources of sixty-four successive states are sixteen
// successive groups, one vector of the summary, spread over the states by one permutation.
//
// It computes exactly what the scalar reference does; see viterbi_md_kernel.cpp.

// GCC 12 reports the deliberately undefined pass-through operand inside many AVX-512 intrinsics as
// uninitialised once they are inlined; the pragmas have to come before the header.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include "decoders/viterbi_md_kernel.h"

namespace BasecallMD {
namespace {

inline __m512i load(const std::int32_t* p) { return _mm512_loadu_si512(p); }

inline std::int32_t wrapAdd(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// Best of src[t + m * width] over m < Blocks for the sixteen t from `t`, the lowest m on a tie, into
// best[t ..] with the trace bits moveBits | m of the winner into code[t ..].
template <int Blocks>
inline void reduceSources(const std::int32_t* src, int t, int width, int moveBits, std::int32_t* best,
                          std::uint8_t* code) {
    __m512i b = load(src + t);
    __m128i c = _mm_set1_epi8(static_cast<char>(moveBits));
#pragma GCC unroll 16
    for (int m = 1; m < Blocks; ++m) {
        const __m512i x = load(src + t + m * width);
        const __mmask16 better = _mm512_cmpgt_epi32_mask(x, b);
        b = _mm512_mask_mov_epi32(b, better, x);
        c = _mm_mask_mov_epi8(c, better, _mm_set1_epi8(static_cast<char>(moveBits | m)));
    }
    _mm512_storeu_si512(best + t, b);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(code + t), c);
}

}  // namespace

namespace detail {

void SummaryAvx512(const std::int32_t* row, int W, const SourceSummary& out) {
    const int quarter = W / 4;
    const int sixteenth = W / 16;
    for (int t = 0; t < quarter; t += 16) {
        reduceSources<4>(row, t, quarter, 1 << kTraceMoveShift, out.stepBest, out.stepCode);
    }
    for (int t = 0; t < sixteenth; t += 16) {
        reduceSources<16>(row, t, sixteenth, 2 << kTraceMoveShift, out.skipBest, out.skipCode);
    }
}

void ViterbiCellAvx512(const CellArgs& a) {
    const int W = a.W;
    // Lane l of the q-th block of sixteen states within sixty-four reads step group 4q + l / 4.
    __m512i spread[4];
    __m128i spreadBytes[4];
    for (int q = 0; q < 4; ++q) {
        spread[q] = _mm512_setr_epi32(4 * q, 4 * q, 4 * q, 4 * q, 4 * q + 1, 4 * q + 1, 4 * q + 1, 4 * q + 1,
                                      4 * q + 2, 4 * q + 2, 4 * q + 2, 4 * q + 2, 4 * q + 3, 4 * q + 3, 4 * q + 3,
                                      4 * q + 3);
        const char g = static_cast<char>(4 * q);
        spreadBytes[q] = _mm_setr_epi8(g, g, g, g, g + 1, g + 1, g + 1, g + 1, g + 2, g + 2, g + 2, g + 2, g + 3,
                                       g + 3, g + 3, g + 3);
    }
    // Everything the loop reads, in locals: the stores below could otherwise alias `a` and force
    // the pointers to be reloaded at every block.
    const std::int32_t* src[3] = {a.source[0], a.source[1], a.source[2]};
    const SourceSummary sources[3] = {a.summary[0], a.summary[1], a.summary[2]};
    const std::int32_t* const emission1 = a.emission1;
    const std::int32_t* const emission2 = a.emission2;
    std::int32_t* const scoreOut = a.score;
    std::uint8_t* const traceOut = a.trace;
    __m512i stay[3], step[3];
    std::int32_t skip[3];
#pragma GCC unroll 3
    for (int d = 0; d < 3; ++d) {
        stay[d] = _mm512_set1_epi32(a.moves[d].stay);
        step[d] = _mm512_set1_epi32(a.moves[d].step);
        skip[d] = a.moves[d].skip;
    }
    const __m128i dirOne = _mm_set1_epi8(1 << kTraceDirectionShift);
    const __m128i dirTwo = _mm_set1_epi8(static_cast<char>(2 << kTraceDirectionShift));

    for (int s0 = 0; s0 < W; s0 += 64) {
        // The sixteen step groups of these sixty-four states.
        __m512i stepScore[3];
        __m128i stepCode[3];
#pragma GCC unroll 3
        for (int d = 0; d < 3; ++d) {
            stepScore[d] = _mm512_add_epi32(load(sources[d].stepBest + s0 / 4), step[d]);
            stepCode[d] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sources[d].stepCode + s0 / 4));
        }
#pragma GCC unroll 4
        for (int q = 0; q < 4; ++q) {
            const int s = s0 + 16 * q;
            __m512i score[3];
            __m128i code[3];
#pragma GCC unroll 3
            for (int d = 0; d < 3; ++d) {
                // Stay, then a step only if strictly better, then a skip only if strictly better.
                __m512i x = _mm512_add_epi32(load(src[d] + s), stay[d]);
                const __m512i stepped = _mm512_permutexvar_epi32(spread[q], stepScore[d]);
                const __mmask16 takeStep = _mm512_cmpgt_epi32_mask(stepped, x);
                x = _mm512_mask_mov_epi32(x, takeStep, stepped);
                const __m128i c = _mm_maskz_shuffle_epi8(takeStep, stepCode[d], spreadBytes[q]);
                // Sixteen neighbouring states share one skip source.
                const __m512i skipped = _mm512_set1_epi32(wrapAdd(sources[d].skipBest[s / 16], skip[d]));
                const __mmask16 takeSkip = _mm512_cmpgt_epi32_mask(skipped, x);
                score[d] = _mm512_mask_mov_epi32(x, takeSkip, skipped);
                code[d] = _mm_mask_mov_epi8(c, takeSkip, _mm_set1_epi8(static_cast<char>(sources[d].skipCode[s / 16])));
            }
            const __m512i e1 = load(emission1 + s);
            const __m512i e2 = load(emission2 + s);
            score[0] = _mm512_add_epi32(score[0], _mm512_add_epi32(e1, e2));
            score[1] = _mm512_add_epi32(score[1], e1);
            score[2] = _mm512_add_epi32(score[2], e2);
            // Both strands unless another direction is strictly better; then strand 1 only if
            // strictly better than strand 2.
            const __mmask16 notBoth = static_cast<__mmask16>(_mm512_cmpgt_epi32_mask(score[1], score[0]) |
                                                             _mm512_cmpgt_epi32_mask(score[2], score[0]));
            const __mmask16 oneOverTwo = _mm512_cmpgt_epi32_mask(score[1], score[2]);
            const __m512i other = _mm512_mask_mov_epi32(score[2], oneOverTwo, score[1]);
            _mm512_storeu_si512(scoreOut + s, _mm512_mask_mov_epi32(score[0], notBoth, other));
            const __m128i otherCode =
                _mm_mask_mov_epi8(_mm_or_si128(code[2], dirTwo), oneOverTwo, _mm_or_si128(code[1], dirOne));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(traceOut + s), _mm_mask_mov_epi8(code[0], notBoth, otherCode));
        }
    }
}

}  // namespace detail
}  // namespace BasecallMD

// ---------------------------------------------------------------------------------------------------
// Event scores. IntLogScore(x) truncates Y = 100 * logf(x), a float product, with x floored at 1e-10.
// For 1e-10 <= x <= 1, |ln x| < 23.1, where the float logarithm is within an ulp (1.9e-6) of ln x
// and the product rounds by at most half an ulp of 2303 (1.2e-4), so Y is within 3.2e-4 of
// 100 ln x. The estimate below is within 1.5e-4 of 100 ln x; wherever it is more than 1e-3 from an
// integer it therefore truncates to the same integer as Y. The other lanes (within 1e-3 of an
// integer, about 0.2% of them, and every x = 1; x above 1; NaN) are recomputed by the scalar loop,
// so the result is exactly IntLogScore's, at a fraction of its cost.

namespace BasecallMD {
namespace {

// 100 ln(x) for 1e-10 <= x <= 1 within 1.5e-4, in float: x = 2^e m with m in [sqrt(1/2), sqrt(2)),
// ln m = 2 atanh(f) with f = (m - 1) / (m + 1), |f| < 0.172, to f^9 (the rest is below 1e-9).
// 100 ln 2 is split so that e times its high part is exact; what remains is the rounding of the
// final sum, half an ulp of 2303, and a few ulps of the smaller part (at most 35).
inline __m512 hundredLog(__m512 x) {
    __m512 e = _mm512_getexp_ps(x);
    __m512 m = _mm512_getmant_ps(x, _MM_MANT_NORM_1_2, _MM_MANT_SIGN_src);
    const __mmask16 high = _mm512_cmp_ps_mask(m, _mm512_set1_ps(1.41421356f), _CMP_GT_OQ);
    m = _mm512_mask_mul_ps(m, high, m, _mm512_set1_ps(0.5f));
    e = _mm512_mask_add_ps(e, high, e, _mm512_set1_ps(1.0f));
    const __m512 one = _mm512_set1_ps(1.0f);
    // 1 / (m + 1) to 14 bits and one Newton step instead of a division.
    const __m512 d = _mm512_add_ps(m, one);
    __m512 r = _mm512_rcp14_ps(d);
    r = _mm512_mul_ps(r, _mm512_sub_ps(_mm512_set1_ps(2.0f), _mm512_mul_ps(d, r)));
    const __m512 f = _mm512_mul_ps(_mm512_sub_ps(m, one), r);
    const __m512 f2 = _mm512_mul_ps(f, f);
    __m512 p = _mm512_set1_ps(1.0f / 9);
    p = _mm512_add_ps(_mm512_mul_ps(p, f2), _mm512_set1_ps(1.0f / 7));
    p = _mm512_add_ps(_mm512_mul_ps(p, f2), _mm512_set1_ps(1.0f / 5));
    p = _mm512_add_ps(_mm512_mul_ps(p, f2), _mm512_set1_ps(1.0f / 3));
    p = _mm512_add_ps(_mm512_mul_ps(p, f2), one);
    const __m512 hundredLnM = _mm512_mul_ps(_mm512_mul_ps(f, p), _mm512_set1_ps(200.0f));
    // 100 ln 2 = 69.3125 + 0.00221805599...; 69.3125 has 11 significant bits.
    const __m512 exact = _mm512_mul_ps(e, _mm512_set1_ps(69.3125f));
    const __m512 rest = _mm512_add_ps(_mm512_mul_ps(e, _mm512_set1_ps(0.0022180559945f)), hundredLnM);
    return _mm512_add_ps(exact, rest);
}

}  // namespace

namespace detail {

void EventScoresAvx512(const float* in, int n, std::int32_t* out) {
    // The same floor as IntLogScore; the floor first, so that a NaN input stays NaN.
    const __m512 floor = _mm512_set1_ps(1e-10f);
    int s = 0;
    for (; s + 16 <= n; s += 16) {
        const __m512 x = _mm512_max_ps(floor, _mm512_loadu_ps(in + s));
        const __m512 y = hundredLog(x);
        const __m512 nearest = _mm512_roundscale_ps(y, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
        const __m512 distance = _mm512_abs_ps(_mm512_sub_ps(y, nearest));
        // Both comparisons are false for NaN.
        const __mmask16 certain = _mm512_cmp_ps_mask(x, _mm512_set1_ps(1.0f), _CMP_LE_OQ) &
                                  _mm512_cmp_ps_mask(distance, _mm512_set1_ps(1e-3f), _CMP_GT_OQ);
        _mm512_storeu_si512(out + s, _mm512_cvttps_epi32(y));
        unsigned uncertain = ~static_cast<unsigned>(certain) & 0xFFFFu;
        while (uncertain != 0) {
            const int l = __builtin_ctz(uncertain);
            EventScoresScalar(in + s + l, 1, out + s + l);
            uncertain &= uncertain - 1;
        }
    }
    // The scalar function lives in a translation unit built for the baseline: an inline copy
    // compiled here could be the one the linker keeps for every caller.
    EventScoresScalar(in + s, n - s, out + s);
}

}  // namespace detail
}  // namespace BasecallMD
