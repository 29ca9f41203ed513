// The baseline x86-64 build of the scaling loops: eight samples per step as two vectors of four.

#include <emmintrin.h>

#include "async_caller/signal_scaling.h"

namespace AsyncCaller {
namespace detail {

void ToPicoampsSse2(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out) {
    const __m128i off = _mm_set1_epi32(offset);
    const __m128 s = _mm_set1_ps(scale);
    std::uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + i));
        // Sign extension: each 16-bit sample lands in the top half of a 32-bit lane and shifts down.
        const __m128i lo = _mm_srai_epi32(_mm_unpacklo_epi16(v, v), 16);
        const __m128i hi = _mm_srai_epi32(_mm_unpackhi_epi16(v, v), 16);
        _mm_storeu_ps(out + i, _mm_mul_ps(_mm_cvtepi32_ps(_mm_add_epi32(lo, off)), s));
        _mm_storeu_ps(out + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(_mm_add_epi32(hi, off)), s));
    }
    ToPicoampsScalar(raw + i, n - i, offset, scale, out + i);
}

void ShiftAndScaleSse2(float* x, std::uint64_t n, float shift, float factor) {
    const __m128 m = _mm_set1_ps(shift);
    const __m128 f = _mm_set1_ps(factor);
    std::uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        _mm_storeu_ps(x + i, _mm_mul_ps(_mm_sub_ps(_mm_loadu_ps(x + i), m), f));
    }
    ShiftAndScaleScalar(x + i, n - i, shift, factor);
}

}  // namespace detail
}  // namespace AsyncCaller
