#include "decoders/state_moves.h"

namespace BasecallHMM {

int MoveBetweenStates(int prev, int cur, int kmerLength) {
    if (cur == prev) {
        return 0;
    }
    for (int m = 1; m < kmerLength; ++m) {
        // The last k - m bases of prev, as the leading digits of a k-mer.
        const unsigned keep = 2u * static_cast<unsigned>(kmerLength - m);
        const unsigned overlap = static_cast<unsigned>(prev) & ((1u << keep) - 1u);
        if ((static_cast<unsigned>(cur) >> (2u * static_cast<unsigned>(m))) == overlap) {
            return m;
        }
    }
    return kmerLength;
}

void MovesFromStates(const std::vector<int>& states, int kmerLength, std::vector<signed char>& moves) {
    moves.resize(states.size());
    if (states.empty()) {
        return;
    }
    moves[0] = 1;
    for (std::size_t i = 1; i < states.size(); ++i) {
        moves[i] = static_cast<signed char>(MoveBetweenStates(states[i - 1], states[i], kmerLength));
    }
}

}  // namespace BasecallHMM
