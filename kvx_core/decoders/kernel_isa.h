#pragma once
// Instruction sets the decoder kernels are built for. Each hot kernel has a plain scalar reference
// (what the tests compare against), a baseline SSE2 build that every x86-64 processor runs, and an
// AVX2 build and an AVX-512 build (F, BW, VL); the best one the processor supports is chosen once, at
// run time.

namespace BasecallCommon {

enum class KernelIsa { Scalar, Sse2, Avx2, Avx512 };

// True if this processor can run kernels built for `isa`.
bool IsaSupported(KernelIsa isa);
// The fastest instruction set this processor supports.
KernelIsa BestIsa();
const char* IsaName(KernelIsa isa);

}  // namespace BasecallCommon
