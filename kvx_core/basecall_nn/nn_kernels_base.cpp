// Baseline (x86-64, SSE2) build of the element-wise kernels.
#include "basecall_nn/nn_kernels_impl.h"

namespace BasecallNN {
namespace kernels {
namespace detail {
extern const KernelSet kBaselineKernels;
const KernelSet kBaselineKernels = MakeKernelSet("default");
}  // namespace detail
}  // namespace kernels
}  // namespace BasecallNN
