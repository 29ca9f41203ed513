#pragma once
// Full-matrix global aligner with affine gaps in three matrices, for the short overlaps of
// neighbouring chunks' base sequences. Memory is three (n+1) x (m+1) integer matrices, resized at
// each call; overlaps are a few hundred bases, so this is not a hot path.

#include <cstdint>
#include <vector>

#include "common/views.h"
#include "decoders/aligner.h"

namespace PairAlignment {

class NWAlign : public Aligner {
public:
    // `gap_penalties`: eight positive values {start b, end b, open b, extend b, start a, end a, open a,
    // extend a}, stored negated; `b` gaps consume the second sequence, `a` gaps the first. The six-long
    // layout {start b, end b, gap b, start a, end a, gap a} is taken as linear gaps.
    NWAlign(const Common::MatView<const int>& score_matrix, const std::vector<int>& gap_penalties);

    std::int32_t Align(const Sequence& first, const Sequence& second, AlignmentPath& path) override;
    std::int32_t MismatchScore(int row, int col) const override;

private:
    std::int32_t score(int row, int col) const { return scores[static_cast<std::size_t>(row) * score_cols + col]; }

    std::vector<std::int32_t> match;
    std::vector<std::int32_t> gap_a_matrix;
    std::vector<std::int32_t> gap_b_matrix;
    std::vector<std::int32_t> scores;
    int score_rows = 0;
    int score_cols = 0;
    std::int32_t nw_start_a = 0, nw_end_a = 0, nw_open_a = 0, nw_extend_a = 0;
    std::int32_t nw_start_b = 0, nw_end_b = 0, nw_open_b = 0, nw_extend_b = 0;
};

}  // namespace PairAlignment
