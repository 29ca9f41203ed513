// AVX-512 build (F, BW, VL) of the Caller<N> row kernels: the same source on eight-float vectors, where
// the selects of the decode and transducer rows become masked moves. Built with FMA available, so
// the source's ban on contraction is what keeps its sums identical to the other builds.
#define KVX_HMM_ISA isa_avx512
#include "decoders/hmm_kernels_impl.h"

namespace BasecallHMM {
namespace kernels {

const KernelSet* Avx512Kernels(int numStates) { return isa_avx512::Sets(numStates, "avx512"); }

}  // namespace kernels
}  // namespace BasecallHMM
