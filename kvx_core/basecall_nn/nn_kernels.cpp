#include "basecall_nn/nn_kernels.h"

#include <atomic>

#include "decoders/kernel_isa.h"

namespace BasecallNN {
namespace kernels {
namespace detail {
extern const KernelSet kBaselineKernels;
extern const KernelSet kAvx2Kernels;
extern const KernelSet kAvx512Kernels;
}  // namespace detail

namespace {
bool HasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}
bool HasAvx512() { return HasAvx2() && BasecallCommon::IsaSupported(BasecallCommon::KernelIsa::Avx512); }
}  // namespace

const KernelSet& Baseline() { return detail::kBaselineKernels; }

const KernelSet& Best() {
    static const KernelSet& best = HasAvx512() ? detail::kAvx512Kernels
                                   : HasAvx2() ? detail::kAvx2Kernels
                                               : detail::kBaselineKernels;
    return best;
}

std::vector<const KernelSet*> Available() {
    std::vector<const KernelSet*> sets{&detail::kBaselineKernels};
    if (HasAvx2()) {
        sets.push_back(&detail::kAvx2Kernels);
    }
    if (HasAvx512()) {
        sets.push_back(&detail::kAvx512Kernels);
    }
    return sets;
}

namespace {
std::atomic<const KernelSet*>& activeSet() {
    static std::atomic<const KernelSet*> active{&Best()};
    return active;
}
}  // namespace

const KernelSet& Active() { return *activeSet().load(std::memory_order_relaxed); }

void Use(const KernelSet& set) { activeSet().store(&set, std::memory_order_relaxed); }

}  // namespace kernels
}  // namespace BasecallNN
