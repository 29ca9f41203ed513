#pragma once
// The label mismatch table of the prior aligner: a tab-separated file whose "prob" column holds the
// 4096 probabilities of label r against label c, row-major (value 64 * r + c), for the 64 3-mer
// labels. Each is stored as an integer log score, truncate(logf(p) * 100).

#include <cstdint>
#include <string>
#include <vector>

#include "common/views.h"

namespace PairAlignment {

constexpr int kMismatchLabels = 64;

struct MismatchMatrix {
    std::vector<std::int32_t> values;  // kMismatchLabels * kMismatchLabels, row-major

    Common::MatView<const int> View() const {
        return Common::MatView<const int>(values.data(), kMismatchLabels, kMismatchLabels, kMismatchLabels, 1);
    }
};

// Reads the table at `path`. Throws std::runtime_error when the file cannot be read, has no "prob"
// column, or the column does not have exactly 4096 rows ("Unexpected size of mismatch data.").
// An empty cell counts as 0, whose log is the most negative integer: the table must not have one at a
// label pair that can be met.
MismatchMatrix LoadMismatchMatrix(const std::string& path);

}  // namespace PairAlignment
