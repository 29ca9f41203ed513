#include "decoders/kernel_isa.h"

namespace BasecallCommon {

bool IsaSupported(KernelIsa isa) {
    switch (isa) {
        case KernelIsa::Scalar:
        case KernelIsa::Sse2:
            // SSE2 is part of the x86-64 baseline.
            return true;
        case KernelIsa::Avx2:
            return __builtin_cpu_supports("avx2");
        case KernelIsa::Avx512:
            // The kernels use byte and word lanes (BW) and 256-bit forms of the new instructions (VL).
            return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vl");
    }
    return false;
}

KernelIsa BestIsa() {
    static const KernelIsa best = IsaSupported(KernelIsa::Avx512) ? KernelIsa::Avx512
                                  : IsaSupported(KernelIsa::Avx2) ? KernelIsa::Avx2
                                                                  : KernelIsa::Sse2;
    return best;
}

const char* IsaName(KernelIsa isa) {
    switch (isa) {
        case KernelIsa::Scalar:
            return "scalar";
        case KernelIsa::Sse2:
            return "sse2";
        case KernelIsa::Avx2:
            return "avx2";
        case KernelIsa::Avx512:
            return "avx512";
    }
    return "unknown";
}

}  // namespace BasecallCommon
