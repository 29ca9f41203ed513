// Baseline build of the anti-diagonal kernel: eight cells per step as two vectors of four lanes.
#include <emmintrin.h>

#include "decoders/fast_align_kernel_impl.h"

namespace PairAlignment {
namespace {

struct Sse2Lanes {
    static constexpr std::uintptr_t kAlign = 16;
    __m128i lo;
    __m128i hi;

    static Sse2Lanes Load(const std::int32_t* p) {
        return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 4))};
    }
    static void Store(std::int32_t* p, const Sse2Lanes& v) {
        _mm_store_si128(reinterpret_cast<__m128i*>(p), v.lo);
        _mm_store_si128(reinterpret_cast<__m128i*>(p + 4), v.hi);
    }
    static Sse2Lanes Set1(std::int32_t x) { return {_mm_set1_epi32(x), _mm_set1_epi32(x)}; }
    static Sse2Lanes Add(const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_add_epi32(a.lo, b.lo), _mm_add_epi32(a.hi, b.hi)};
    }
    static Sse2Lanes Greater(const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_cmpgt_epi32(a.lo, b.lo), _mm_cmpgt_epi32(a.hi, b.hi)};
    }
    static Sse2Lanes Or(const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_or_si128(a.lo, b.lo), _mm_or_si128(a.hi, b.hi)};
    }
    static Sse2Lanes And(const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_and_si128(a.lo, b.lo), _mm_and_si128(a.hi, b.hi)};
    }
    static Sse2Lanes Select(const Sse2Lanes& mask, const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_or_si128(_mm_and_si128(mask.lo, a.lo), _mm_andnot_si128(mask.lo, b.lo)),
                _mm_or_si128(_mm_and_si128(mask.hi, a.hi), _mm_andnot_si128(mask.hi, b.hi))};
    }
    static void StoreCodes(std::uint8_t* p, const Sse2Lanes& codes) {
        const __m128i words = _mm_packs_epi32(codes.lo, codes.hi);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi16(words, words));
    }
};

}  // namespace

namespace detail {
void AntiDiagonalSse2(const AntiDiagonalInterior& args) { antiDiagonalVector<Sse2Lanes>(args); }
}  // namespace detail

}  // namespace PairAlignment
