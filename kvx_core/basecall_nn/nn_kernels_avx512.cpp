// AVX-512 (F, BW, VL) build of the kernels; only reached when the processor has them.
#include "basecall_nn/nn_kernels_impl.h"

namespace BasecallNN {
namespace kernels {
namespace detail {
extern const KernelSet kAvx512Kernels;
const KernelSet kAvx512Kernels = MakeKernelSet("avx512");
}  // namespace detail
}  // namespace kernels
}  // namespace BasecallNN
