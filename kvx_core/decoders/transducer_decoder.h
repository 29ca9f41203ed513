#pragma once
// Viterbi search over the posterior rows of a transducer network, with no transition table: each row
// gives, in columns 0 .. N-1, the probability of arriving at each k-mer state with a new base, and in
// its last column the probability of staying. A state is reached from the best of its step
// predecessors, or from the best of its skip predecessors when that is strictly better, or it keeps
// its own value times the stay probability; a tie keeps.
//
// Rows of 65, 257, 1025 and 4097 columns (N = 64, 256, 1024, 4096) are decoded; any other width gives
// false. The object keeps its buffers between calls, so that decoding reads of a steady size allocates
// nothing.

#include <cstdint>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"
#include "decoders/hmm_kernels.h"

namespace BasecallHMM {

class TransducerDecoder {
public:
    // states: one state per row; a row that stayed repeats its predecessor's state. moves: 1 for the
    // first row, then 0 for a stay, 1 when the state is one of the four step successors of the
    // previous state, else 2. score: log of the largest entry of the last normalised row.
    // stayPenalty scales the stay column (1.0 is neutral). With homopolymerCorrect, the moves inside a
    // run of one homopolymer state are recounted (see recountHomopolymers).
    // False, with the outputs unspecified, for an unsupported width or a row that sums to zero or
    // overflows.
    bool Decode(const Common::MatView<float>& posteriors, std::vector<int>& states, std::vector<signed char>& moves,
                float& score, float stayPenalty, bool homopolymerCorrect);

    // The row kernels to use instead of the processor's best; null restores the choice. For tests.
    void UseKernels(const kernels::KernelSet* set) { forced = set; }

private:
    void recountHomopolymers(const Common::MatView<float>& posteriors, int numStates, float stayPenalty,
                             const std::vector<int>& states, std::vector<signed char>& moves);

    const kernels::KernelSet* forced = nullptr;
    std::vector<std::int32_t> trace;
    Common::AlignedVector32<float> cur;
    Common::AlignedVector32<float> next;
    Common::AlignedVector32<float> postRow;
    Common::AlignedVector32<float> work;
    // Normalised rows of the search, kept only for the homopolymer recount.
    std::vector<float> history;
};

// One-shot form: a decoder made for this call.
bool TransducerDecode(const Common::MatView<float>& posteriors, std::vector<int>& states,
                      std::vector<signed char>& moves, float& score, float stayPenalty, bool homopolymerCorrect);

}  // namespace BasecallHMM
