// The AVX-512 build of the scaling loops, compiled with -mavx512f -mavx512bw -mavx512vl and chosen
// only on processors that have them. The last partial vector goes through a masked load and store,
// element for element the same arithmetic as the full ones. The arithmetic is written on GCC's
// generic vectors (they compile to vpmovsxwd, vpaddd, vcvtdq2ps, vsubps and vmulps): GCC 12's
// intrinsic wrappers for the conversions warn of an uninitialised operand.

#include <immintrin.h>

#include <cstring>

#include "async_caller/signal_scaling.h"

namespace AsyncCaller {
namespace detail {

namespace {
typedef std::int16_t Samples __attribute__((vector_size(32)));
typedef std::int32_t Ints __attribute__((vector_size(64)));
typedef float Floats __attribute__((vector_size(64)));

template <typename To, typename From>
To bitsOf(const From& from) {
    static_assert(sizeof(To) == sizeof(From), "same width");
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

__mmask16 tailMask(std::uint64_t left) { return static_cast<__mmask16>((1u << left) - 1u); }

Floats picoamps(Samples raw, std::int32_t offset, float scale) {
    return __builtin_convertvector(__builtin_convertvector(raw, Ints) + offset, Floats) * scale;
}
}  // namespace

void ToPicoampsAvx512(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out) {
    std::uint64_t i = 0;
    for (; i + 16 <= n; i += 16) {
        Samples v;
        std::memcpy(&v, raw + i, sizeof v);
        const Floats f = picoamps(v, offset, scale);
        std::memcpy(out + i, &f, sizeof f);
    }
    if (i < n) {
        const __mmask16 m = tailMask(n - i);
        const Floats f = picoamps(bitsOf<Samples>(_mm256_maskz_loadu_epi16(m, raw + i)), offset, scale);
        _mm512_mask_storeu_ps(out + i, m, bitsOf<__m512>(f));
    }
}

void ShiftAndScaleAvx512(float* x, std::uint64_t n, float shift, float factor) {
    std::uint64_t i = 0;
    for (; i + 16 <= n; i += 16) {
        Floats v;
        std::memcpy(&v, x + i, sizeof v);
        v = (v - shift) * factor;
        std::memcpy(x + i, &v, sizeof v);
    }
    if (i < n) {
        const __mmask16 m = tailMask(n - i);
        const Floats v = (bitsOf<Floats>(_mm512_maskz_loadu_ps(m, x + i)) - shift) * factor;
        _mm512_mask_storeu_ps(x + i, m, bitsOf<__m512>(v));
    }
}

}  // namespace detail
}  // namespace AsyncCaller
