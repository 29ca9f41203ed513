// Baseline (x86-64 SSE2) build of the Caller<N> row kernels.
#define KVX_HMM_ISA isa_default
#include "decoders/hmm_kernels_impl.h"

namespace BasecallHMM {
namespace kernels {

const KernelSet* DefaultKernels(int numStates) { return isa_default::Sets(numStates, "default"); }

}  // namespace kernels
}  // namespace BasecallHMM
