// Baseline build of the two-dimensional Viterbi cell kernel: four states per vector.
#include <emmintrin.h>

#include <cstring>

#include "decoders/viterbi_md_kernel_impl.h"

namespace BasecallMD {
namespace {

struct Sse2Lanes {
    static constexpr int kLanes = 4;
    __m128i v;

    static Sse2Lanes Load(const std::int32_t* p) { return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))}; }
    static void Store(std::int32_t* p, const Sse2Lanes& x) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), x.v);
    }
    static Sse2Lanes Set1(std::int32_t x) { return {_mm_set1_epi32(x)}; }
    static Sse2Lanes Add(const Sse2Lanes& a, const Sse2Lanes& b) { return {_mm_add_epi32(a.v, b.v)}; }
    static Sse2Lanes Greater(const Sse2Lanes& a, const Sse2Lanes& b) { return {_mm_cmpgt_epi32(a.v, b.v)}; }
    static Sse2Lanes Or(const Sse2Lanes& a, const Sse2Lanes& b) { return {_mm_or_si128(a.v, b.v)}; }
    static Sse2Lanes And(const Sse2Lanes& a, const Sse2Lanes& b) { return {_mm_and_si128(a.v, b.v)}; }
    static Sse2Lanes Select(const Sse2Lanes& mask, const Sse2Lanes& a, const Sse2Lanes& b) {
        return {_mm_or_si128(_mm_and_si128(mask.v, a.v), _mm_andnot_si128(mask.v, b.v))};
    }
    static Sse2Lanes Expand4(const std::int32_t* p) { return {_mm_set1_epi32(p[0])}; }
    static Sse2Lanes Expand4(const std::uint8_t* p) { return {_mm_set1_epi32(p[0])}; }
    static void StoreBytes(std::uint8_t* p, const Sse2Lanes& x) {
        const __m128i words = _mm_packs_epi32(x.v, x.v);
        const int bytes = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
        std::memcpy(p, &bytes, 4);
    }
};

}  // namespace

namespace detail {
void ViterbiCellSse2(const CellArgs& args) { viterbiCellVector<Sse2Lanes>(args); }
void SummarySse2(const std::int32_t* row, int W, const SourceSummary& out) { summaryVector<Sse2Lanes>(row, W, out); }
}  // namespace detail

}  // namespace BasecallMD
