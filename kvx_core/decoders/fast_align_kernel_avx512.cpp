// AVX-512 build of the anti-diagonal kernel: sixteen cells per step, the choices in mask registers and
// the move codes in the byte lanes of a 128-bit register under the same masks, so they are stored
// sixteen at a time without narrowing. The last, partial step runs under a lane mask instead of a
// scalar tail; masked-off lanes are neither loaded nor stored.
#include <immintrin.h>

#include "decoders/fast_align_kernel.h"

namespace PairAlignment {
namespace detail {

void AntiDiagonalAvx512(const AntiDiagonalInterior& a) {
    const std::int32_t* diagSrc = a.previous2 + a.delta2 - 1;
    const std::int32_t* bSrc = a.previous + a.delta1 - 1;
    const std::int32_t* aSrc = a.previous + a.delta1;
    const __m512i gapA = _mm512_set1_epi32(a.gapA);
    const __m512i gapB = _mm512_set1_epi32(a.gapB);
    const __m128i codeB = _mm_set1_epi8(1);
    const __m128i codeA = _mm_set1_epi8(2);
    for (int k = a.begin; k < a.end; k += 16) {
        const int left = a.end - k;
        const __mmask16 lanes = left >= 16 ? static_cast<__mmask16>(0xFFFF) : static_cast<__mmask16>((1u << left) - 1);
        const __m512i diag = _mm512_add_epi32(_mm512_maskz_loadu_epi32(lanes, diagSrc + k),
                                              _mm512_maskz_loadu_epi32(lanes, a.substitution + k));
        const __m512i fromB = _mm512_add_epi32(_mm512_maskz_loadu_epi32(lanes, bSrc + k), gapB);
        const __m512i fromA = _mm512_add_epi32(_mm512_maskz_loadu_epi32(lanes, aSrc + k), gapA);
        // The diagonal wins unless a gap is strictly better; between the gaps, b only if strictly
        // better than a.
        const __mmask16 gapWins =
            static_cast<__mmask16>(_mm512_cmpgt_epi32_mask(fromB, diag) | _mm512_cmpgt_epi32_mask(fromA, diag));
        const __mmask16 bWins = _mm512_cmpgt_epi32_mask(fromB, fromA);
        const __m512i gap = _mm512_mask_mov_epi32(fromA, bWins, fromB);
        _mm512_mask_storeu_epi32(a.current + k, lanes, _mm512_mask_mov_epi32(diag, gapWins, gap));
        const __m128i codes = _mm_maskz_mov_epi8(gapWins, _mm_mask_mov_epi8(codeA, bWins, codeB));
        _mm_mask_storeu_epi8(a.trace + k, lanes, codes);
    }
}

}  // namespace detail
}  // namespace PairAlignment
