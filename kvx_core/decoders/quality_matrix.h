#pragma once
// Reduction of state posteriors to per-position base probabilities. For N = 4^k states the matrix has
// N rows and 4 k columns, entry (s, 4 p + b) = 1 when digit p of state s is base b (digit 0 the newest
// base), so that one matrix product over all events gives, for each event and each of the k positions
// of its k-mer, the probability of each base there.

#include <cstdint>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"

namespace BasecallHMM {

class QualityMatrix {
public:
    // Throws "Unsupported number of states: <N>. State count should be a positive power of 4." unless
    // N is 0 (an empty matrix) or a positive power of four.
    explicit QualityMatrix(std::int64_t numStates);

    // data = posteriors * matrix, one cblas_sgemm. Both must be dense and row-major (rowStride >= cols,
    // colStride == 1); posteriors has N columns, data 4 k columns and the same rows.
    void Apply(const Common::MatView<float>& posteriors, Common::MatView<float>& data) const;

    std::int64_t NumStates() const { return numStates; }
    int KmerLength() const { return kmerLength; }
    // The matrix itself, N by 4 k, dense.
    Common::MatView<const float> View() const;

private:
    std::int64_t numStates;
    int kmerLength;
    Common::AlignedVector32<float> matrix;
};

}  // namespace BasecallHMM
