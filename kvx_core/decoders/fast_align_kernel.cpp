#include "decoders/fast_align_kernel.h"

#include "decoders/int_score.h"

namespace PairAlignment {

namespace detail {

// The readable reference the vector builds are tested against.
void AntiDiagonalScalar(const AntiDiagonalInterior& a) {
    using BasecallCommon::WrapAdd;
    for (int k = a.begin; k < a.end; ++k) {
        const std::int32_t diag = WrapAdd(a.previous2[k - 1 + a.delta2], a.substitution[k]);
        const std::int32_t fromB = WrapAdd(a.previous[k - 1 + a.delta1], a.gapB);
        const std::int32_t fromA = WrapAdd(a.previous[k + a.delta1], a.gapA);
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
}

}  // namespace detail

AntiDiagonalKernel GetAntiDiagonalKernel(BasecallCommon::KernelIsa isa) {
    using BasecallCommon::KernelIsa;
    if (!BasecallCommon::IsaSupported(isa)) {
        return nullptr;
    }
    switch (isa) {
        case KernelIsa::Scalar:
            return &detail::AntiDiagonalScalar;
        case KernelIsa::Sse2:
            return &detail::AntiDiagonalSse2;
        case KernelIsa::Avx2:
            return &detail::AntiDiagonalAvx2;
        case KernelIsa::Avx512:
            return &detail::AntiDiagonalAvx512;
    }
    return nullptr;
}

}  // namespace PairAlignment
