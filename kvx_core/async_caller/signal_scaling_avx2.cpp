// The AVX2 build of the scaling loops, compiled with -mavx2 and chosen only on processors that have it.

#include <immintrin.h>

#include "async_caller/signal_scaling.h"

namespace AsyncCaller {
namespace detail {

void ToPicoampsAvx2(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out) {
    const __m256i off = _mm256_set1_epi32(offset);
    const __m256 s = _mm256_set1_ps(scale);
    std::uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256i v = _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + i)));
        _mm256_storeu_ps(out + i, _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_add_epi32(v, off)), s));
    }
    ToPicoampsScalar(raw + i, n - i, offset, scale, out + i);
}

void ShiftAndScaleAvx2(float* x, std::uint64_t n, float shift, float factor) {
    const __m256 m = _mm256_set1_ps(shift);
    const __m256 f = _mm256_set1_ps(factor);
    std::uint64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        _mm256_storeu_ps(x + i, _mm256_mul_ps(_mm256_sub_ps(_mm256_loadu_ps(x + i), m), f));
    }
    ShiftAndScaleScalar(x + i, n - i, shift, factor);
}

}  // namespace detail
}  // namespace AsyncCaller
