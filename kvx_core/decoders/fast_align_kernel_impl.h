#pragma once
// Vector body of the anti-diagonal kernel, written once against an eight-lane interface of 32-bit
// integers and compiled per instruction set (fast_align_kernel_sse2.cpp, fast_align_kernel_avx2.cpp).
// Only include it from those translation units: each instantiates it with its own lane type.
//
// The lane type V provides: Load(const int32_t*) unaligned, Store(int32_t*) at V::kAlign bytes,
// Set1, Add (wrapping), Greater (signed compare, all-ones mask), Select(mask, a, b), Or, And, and
// StoreCodes(uint8_t*), which narrows eight lanes holding 0..2 to bytes in one 8-byte store.
//
// Everything here has internal linkage: the same inline code compiled with different instruction-set
// flags must never be merged by the linker, or a baseline caller could end up in AVX2 code.

#include <cstdint>

#include "decoders/fast_align_kernel.h"

namespace PairAlignment {
namespace {

inline std::int32_t wrapAdd(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

inline void antiDiagonalCell(const AntiDiagonalInterior& a, int k) {
    const std::int32_t diag = wrapAdd(a.previous2[k - 1 + a.delta2], a.substitution[k]);
    const std::int32_t fromB = wrapAdd(a.previous[k - 1 + a.delta1], a.gapB);
    const std::int32_t fromA = wrapAdd(a.previous[k + a.delta1], a.gapA);
    if (diag >= fromB && diag >= fromA) {
        a.current[k] = diag;
        a.trace[k] = 0;
    } else if (fromA < fromB) {
        a.current[k] = fromB;
        a.trace[k] = 1;
    } else {
        a.current[k] = fromA;
        a.trace[k] = 2;
    }
}

template <typename V>
void antiDiagonalVector(const AntiDiagonalInterior& a) {
    int k = a.begin;
    // Bring the destination to the vector boundary so the score stores are aligned.
    while (k < a.end && (reinterpret_cast<std::uintptr_t>(a.current + k) % V::kAlign) != 0) {
        antiDiagonalCell(a, k);
        ++k;
    }
    const std::int32_t* diagSrc = a.previous2 + a.delta2 - 1;
    const std::int32_t* bSrc = a.previous + a.delta1 - 1;
    const std::int32_t* aSrc = a.previous + a.delta1;
    const V gapA = V::Set1(a.gapA);
    const V gapB = V::Set1(a.gapB);
    const V two = V::Set1(2);
    for (; k + 8 <= a.end; k += 8) {
        const V diag = V::Add(V::Load(diagSrc + k), V::Load(a.substitution + k));
        const V fromB = V::Add(V::Load(bSrc + k), gapB);
        const V fromA = V::Add(V::Load(aSrc + k), gapA);
        // The diagonal wins unless a gap is strictly better; between the gaps, b only if strictly
        // better than a.
        const V gapWins = V::Or(V::Greater(fromB, diag), V::Greater(fromA, diag));
        const V bWins = V::Greater(fromB, fromA);
        const V gap = V::Select(bWins, fromB, fromA);
        V::Store(a.current + k, V::Select(gapWins, gap, diag));
        // 2 + (-1) = 1 where b wins; masked to 0 where the diagonal wins.
        V::StoreCodes(a.trace + k, V::And(gapWins, V::Add(two, bWins)));
    }
    for (; k < a.end; ++k) {
        antiDiagonalCell(a, k);
    }
}

}  // namespace
}  // namespace PairAlignment
