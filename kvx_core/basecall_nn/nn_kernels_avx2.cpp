// AVX2 + FMA build of the element-wise kernels; only reached when the processor has both.
#include "basecall_nn/nn_kernels_impl.h"

namespace BasecallNN {
namespace kernels {
namespace detail {
extern const KernelSet kAvx2Kernels;
const KernelSet kAvx2Kernels = MakeKernelSet("avx2");
}  // namespace detail
}  // namespace kernels
}  // namespace BasecallNN
