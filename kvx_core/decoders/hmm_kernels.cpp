#include "decoders/hmm_kernels.h"

#include "decoders/kernel_isa.h"

namespace BasecallHMM {
namespace kernels {

namespace {
bool haveAvx2() {
    static const bool have = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return have;
}
bool haveAvx512() {
    static const bool have = haveAvx2() && BasecallCommon::IsaSupported(BasecallCommon::KernelIsa::Avx512);
    return have;
}
}  // namespace

const KernelSet* SelectKernels(int numStates) {
    if (haveAvx512()) {
        if (const KernelSet* set = Avx512Kernels(numStates)) {
            return set;
        }
    }
    if (haveAvx2()) {
        if (const KernelSet* set = Avx2Kernels(numStates)) {
            return set;
        }
    }
    return DefaultKernels(numStates);
}

std::vector<const KernelSet*> AvailableKernels(int numStates) {
    std::vector<const KernelSet*> sets;
    for (const KernelSet* set : {ReferenceKernels(numStates), DefaultKernels(numStates),
                                 haveAvx2() ? Avx2Kernels(numStates) : nullptr,
                                 haveAvx512() ? Avx512Kernels(numStates) : nullptr}) {
        if (set != nullptr) {
            sets.push_back(set);
        }
    }
    return sets;
}

}  // namespace kernels
}  // namespace BasecallHMM
