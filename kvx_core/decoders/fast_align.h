#pragma once
// Banded global aligner with a linear gap cost, for the two 1D label sequences of a read pair.
//
// The matrix is filled one anti-diagonal at a time inside a band of `band` cells whose centre walks
// the straight line from (0, 0) to (n, m). Memory is O((n + m) * band) bytes of move codes plus
// O(band) scores; the work arrays keep their capacity from call to call. Not re-entrant: each worker
// owns its own copy.

#include <cstdint>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"
#include "decoders/aligner.h"
#include "decoders/fast_align_kernel.h"
#include "decoders/kernel_isa.h"

namespace PairAlignment {

class FastAlign : public Aligner {
public:
    // `score_matrix` is square and copied. `gap_penalties` are positive and stored negated: either six
    // values {start b, end b, gap b, start a, end a, gap a} or the eight-long affine layout, of which
    // indices 3 and 7 (the extensions) are ignored. An even `band` grows by one.
    FastAlign(const Common::MatView<const int>& score_matrix, const std::vector<int>& gap_penalties, int band);

    // Throws "Fast aligner does not allow non-unit-stride sequence vectors." for a strided view.
    std::int32_t Align(const Sequence& first, const Sequence& second, AlignmentPath& path) override;
    std::int32_t MismatchScore(int row, int col) const override;

    int Band() const { return band; }
    // Cells filled by the last call, summed over anti-diagonals.
    std::int64_t LastCellCount() const { return cell_count; }

    // Runs the interior loop with the build for `isa`; false (and no change) if this processor
    // cannot. The constructor picks the fastest.
    bool SetKernel(BasecallCommon::KernelIsa isa);
    BasecallCommon::KernelIsa Kernel() const { return kernel_isa; }

private:
    void fillEdgeCell(int d, int k, int i, int j, bool firstRule, bool lastRule, int n, int m, const int* first,
                      const int* second);
    void traceBack(int n, int m, AlignmentPath& path) const;

    std::vector<std::int32_t> scores;
    Common::AlignedVector32<std::int32_t> current;
    Common::AlignedVector32<std::int32_t> previous;
    Common::AlignedVector32<std::int32_t> previous2;
    Common::AlignedVector32<std::int32_t> substitution;
    std::vector<std::uint8_t> trace;
    std::vector<std::int32_t> diagonal_start;
    std::vector<std::int32_t> diagonal_length;
    std::vector<std::int32_t> reversed_rows;  // first[n-1-x] * size
    std::int32_t start_gap_b = 0, end_gap_b = 0, gap_b = 0;
    std::int32_t start_gap_a = 0, end_gap_a = 0, gap_a = 0;
    std::int32_t band = 1;
    std::int32_t size = 0;

    // Effective band of the current call: `band`, or just enough to cover short sequences whole.
    int width = 1;
    std::int64_t cell_count = 0;
    BasecallCommon::KernelIsa kernel_isa = BasecallCommon::KernelIsa::Scalar;
    AntiDiagonalKernel kernel = nullptr;
};

}  // namespace PairAlignment
