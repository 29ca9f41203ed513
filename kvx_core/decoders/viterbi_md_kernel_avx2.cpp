// AVX2 build of the two-dimensional Viterbi cell kernel: eight states per vector.
#include <immintrin.h>

#include "decoders/viterbi_md_kernel_impl.h"

namespace BasecallMD {
namespace {

struct Avx2Lanes {
    static constexpr int kLanes = 8;
    __m256i v;

    static Avx2Lanes Load(const std::int32_t* p) {
        return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
    }
    static void Store(std::int32_t* p, const Avx2Lanes& x) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), x.v);
    }
    static Avx2Lanes Set1(std::int32_t x) { return {_mm256_set1_epi32(x)}; }
    static Avx2Lanes Add(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_add_epi32(a.v, b.v)}; }
    static Avx2Lanes Greater(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_cmpgt_epi32(a.v, b.v)}; }
    static Avx2Lanes Or(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_or_si256(a.v, b.v)}; }
    static Avx2Lanes And(const Avx2Lanes& a, const Avx2Lanes& b) { return {_mm256_and_si256(a.v, b.v)}; }
    static Avx2Lanes Select(const Avx2Lanes& mask, const Avx2Lanes& a, const Avx2Lanes& b) {
        return {_mm256_blendv_epi8(b.v, a.v, mask.v)};
    }
    static Avx2Lanes Expand4(const std::int32_t* p) {
        const __m256i pair = _mm256_castsi128_si256(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        return {_mm256_permutevar8x32_epi32(pair, _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1))};
    }
    static Avx2Lanes Expand4(const std::uint8_t* p) {
        return {_mm256_set_m128i(_mm_set1_epi32(p[1]), _mm_set1_epi32(p[0]))};
    }
    static void StoreBytes(std::uint8_t* p, const Avx2Lanes& x) {
        const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(x.v), _mm256_extracti128_si256(x.v, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
    }
};

}  // namespace

namespace detail {
void ViterbiCellAvx2(const CellArgs& args) { viterbiCellVector<Avx2Lanes>(args); }
void SummaryAvx2(const std::int32_t* row, int W, const SourceSummary& out) { summaryVector<Avx2Lanes>(row, W, out); }
}  // namespace detail

}  // namespace BasecallMD
