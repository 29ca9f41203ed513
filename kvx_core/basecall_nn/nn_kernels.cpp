#include "basecall_nn/nn_kernels.h"

#include <atomic>

namespace BasecallNN {
namespace kernels {
namespace detail {
extern const KernelSet kBaselineKernels;
extern const KernelSet kAvx2Kernels;
}  // namespace detail

namespace {
bool HasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
}
}  // namespace

const KernelSet& Baseline() { return detail::kBaselineKernels; }

const KernelSet& Best() {
    static const KernelSet& best = HasAvx2() ? detail::kAvx2Kernels : detail::kBaselineKernels;
    return best;
}

std::vector<const KernelSet*> Available() {
    std::vector<const KernelSet*> sets{&detail::kBaselineKernels};
    if (HasAvx2()) {
        sets.push_back(&detail::kAvx2Kernels);
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
