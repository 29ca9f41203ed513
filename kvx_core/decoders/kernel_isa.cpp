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
    }
    return false;
}

KernelIsa BestIsa() {
    static const KernelIsa best = IsaSupported(KernelIsa::Avx2) ? KernelIsa::Avx2 : KernelIsa::Sse2;
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
    }
    return "unknown";
}

}  // namespace BasecallCommon
