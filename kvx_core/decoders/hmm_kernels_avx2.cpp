// AVX2 build of the Caller<N> row kernels; this file alone is compiled with -mavx2 -mfma, and the
// dispatcher calls into it only on a processor that has both.
#define KVX_HMM_ISA isa_avx2
#include "decoders/hmm_kernels_impl.h"

namespace BasecallHMM {
namespace kernels {

const KernelSet* Avx2Kernels(int numStates) { return isa_avx2::Sets(numStates, "avx2"); }

}  // namespace kernels
}  // namespace BasecallHMM
