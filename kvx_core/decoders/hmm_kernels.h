#pragma once
// Row kernels of the one-dimensional decoders: one event's step of the Viterbi decode (Caller<N>) and
// of the transducer search (TransducerDecoder). Each kernel set is built from one source per instruction set
// (hmm_kernels_impl.h, compiled in hmm_kernels_default.cpp, hmm_kernels_avx2.cpp and
// hmm_kernels_avx512.cpp); a plain scalar reference (hmm_kernels_reference.cpp) states what they
// compute. Every variant gives bit-identical results: row sums run in the same fixed order everywhere
// (eight lane sums, then a fixed tree), and no variant contracts a multiply and an add.
//
// State numbering: a state is a k-mer as a base-4 number, newest base in the least significant digit,
// N = 4^k. A step to a new base maps p to (p mod N/4) * 4 + b, a skip maps p to (p mod N/16) * 16 + j.
// So the step predecessors of s are m * N/4 + s/4 and the skip predecessors m * N/16 + s/16.

#include <cstdint>
#include <vector>

namespace BasecallHMM {
namespace kernels {

// Transition probabilities as Caller::SetTrans stores them: pStep and pSkip are per target state.
struct TransParams {
    float stay;
    float step;
    float skip;
    float leak;
};

// Back pointer codes of the decode, one byte per event and state.
constexpr std::uint8_t kCodeStay = 0;       // from the same state
constexpr std::uint8_t kCodeStepFirst = 1;  // 1 + m: from step predecessor m * N/4 + s/4, m = 0 .. 3
constexpr std::uint8_t kCodeSkipFirst = 5;  // 5 + m: from skip predecessor m * N/16 + s/16, m = 0 .. 15
constexpr std::uint8_t kCodeLeak = 21;      // from the largest state of the previous row

// Floats of workspace a kernel set needs for N states.
inline std::size_t WorkspaceFloats(int numStates) { return static_cast<std::size_t>(numStates) * 2 + 64; }

struct KernelSet {
    const char* name;
    // For each state the best of the candidates stay, step (m order), skip (m order), leak, kept by a
    // strict comparison so that a later candidate loses a tie; cur[s] = best * em[s] and codes[s] says
    // where it came from. *leakSource gets the first largest state of prev (or -1 when leak is 0, in
    // which case the leak candidate is never taken). Returns the sum of cur.
    float (*decodeRow)(int numStates, const float* prev, const float* em, float* cur, std::uint8_t* codes,
                       const TransParams& tp, float* work, int* leakSource);
    // x[s] *= factor.
    void (*scaleRow)(int numStates, float* x, float factor);
    // The sum of x in the fixed order.
    float (*sumRow)(int numStates, const float* x);
    // One row of the transducer search over posterior rows (see transducer_decoder.h). post holds the
    // row's N arrival probabilities and stay its probability of no new base, already scaled by the stay
    // penalty. Step source of group t: the first largest of cur[t + m * N/4], m = 0 .. 3. Skip source
    // of group u: the first largest of the step sources u + m * N/16, m = 0 .. 3. State s takes the
    // skip source of s / 16 only if the step source of s / 4 is strictly below it. Then
    // arrive = source * post[s] and keep = cur[s] * stay; next[s] = arrive and trace[s] = the source
    // state if arrive is strictly larger, else next[s] = keep and trace[s] = -1. Returns the sum of
    // next, unscaled.
    float (*transducerRow)(int numStates, const float* cur, const float* post, float stay, float* next,
                           std::int32_t* trace, float* work);
};

// The set for N states built for the named instruction set; null when N has no such build.
const KernelSet* ReferenceKernels(int numStates);
const KernelSet* DefaultKernels(int numStates);
const KernelSet* Avx2Kernels(int numStates);
const KernelSet* Avx512Kernels(int numStates);

// The fastest set this processor can run, chosen once per state count.
const KernelSet* SelectKernels(int numStates);
// Every set this processor can run, the reference first.
std::vector<const KernelSet*> AvailableKernels(int numStates);

}  // namespace kernels
}  // namespace BasecallHMM
