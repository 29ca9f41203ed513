// AVX2 build of the anti-diagonal kernel: eight cells per step in one vector.
#include <immintrin.h>

#include "decoders/fast_align_kernel_impl.h"

namespace PairAlignment {
namespace {

struct Avx2Lanes {
    static constexpr std::uintptr_t kAlign = 32;
    __m256i v;

    static Avx2Lanes Load(const std::int32_t* p) {
        return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
    }
    static void Store(std::int32_t* p, const Avx2Lanes& x) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(p), x.v);
    }
    static Avx2Lanes Set1(std::int32_t x) { return {_mm256_set1_epi32(x)}; }
    static Avx2Lanes Add(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_add_epi32(a.v, b.v)}; }
    static Avx2Lanes Greater(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_cmpgt_epi32(a.v, b.v)}; }
    static Avx2Lanes Or(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_or_si256(a.v, b.v)}; }
    static Avx2Lanes And(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_and_si256(a.v, b.v)}; }
    static Avx2Lanes Select(const Avx2Lanes& mask, const Avx2Lanes& a, const Avx2Lanes& b) {
        return {_mm256_blendv_epi8(b.v, a.v, mask.v)};
    }
    static void StoreCodes(std::uint8_t* p, const Avx2Lanes& codes) {
        const __m128i words =
            _mm_packs_epi32(_mm256_castsi256_si128(codes.v), _mm256_extracti128_si256(codes.v, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi16(words, words));
    }
};

}  // namespace

namespace detail {
void AntiDiagonalAvx2(const AntiDiagonalInterior& args) { antiDiagonalVector<Avx2Lanes>(args); }
}  // namespace detail

}  // namespace PairAlignment
