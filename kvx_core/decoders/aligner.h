#pragma once
// Pairwise sequence aligners. Sequences are integer views whose elements index a small square score
// matrix; all scores are 32-bit integers, higher is better, and gap penalties are stored negated so
// every term of every recursion is added.

#include <cstdint>
#include <utility>
#include <vector>

#include "common/views.h"

namespace PairAlignment {

// One entry per alignment column, first aligned position first: (index in the first sequence, index
// in the second), with -1 for the sequence that the step does not consume. Never -1 twice.
using AlignmentPath = std::vector<std::pair<std::int32_t, std::int32_t>>;
using Sequence = Common::VecView<const int>;

// Score of a state that cannot be reached. Never clipped; no aligner arithmetic saturates.
constexpr std::int32_t kUnreachableScore = -1000000000;

class Aligner {
public:
    virtual ~Aligner() = default;
    // Fills `path` and returns the alignment score.
    virtual std::int32_t Align(const Sequence& first, const Sequence& second, AlignmentPath& path) = 0;
    // Element (row, col) of the score matrix.
    virtual std::int32_t MismatchScore(int row, int col) const { (void)row; (void)col; return -1; }
};

}  // namespace PairAlignment
