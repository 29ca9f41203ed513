#include "decoders/nw_align.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>

#include "decoders/int_score.h"

namespace PairAlignment {

using BasecallCommon::WrapAdd;

namespace {
std::int32_t max3(std::int32_t a, std::int32_t b, std::int32_t c) { return std::max(a, std::max(b, c)); }
}  // namespace

NWAlign::NWAlign(const Common::MatView<const int>& score_matrix, const std::vector<int>& gap_penalties) {
    if (gap_penalties.size() != 6 && gap_penalties.size() != 8) {
        throw std::runtime_error("Gap penalty vector must be length 6 or 8.");
    }
    // The six-long layout has one gap cost per sequence: it serves as both opening and extension.
    std::vector<int> g = gap_penalties;
    if (g.size() == 6) {
        g = {g[0], g[1], g[2], g[2], g[3], g[4], g[5], g[5]};
    }
    score_rows = static_cast<int>(score_matrix.rows);
    score_cols = static_cast<int>(score_matrix.cols);
    scores.resize(static_cast<std::size_t>(score_rows) * score_cols);
    for (int r = 0; r < score_rows; ++r) {
        for (int c = 0; c < score_cols; ++c) {
            scores[static_cast<std::size_t>(r) * score_cols + c] = score_matrix(r, c);
        }
    }
    nw_start_b = -g[0];
    nw_end_b = -g[1];
    nw_open_b = -g[2];
    nw_extend_b = -g[3];
    nw_start_a = -g[4];
    nw_end_a = -g[5];
    nw_open_a = -g[6];
    nw_extend_a = -g[7];
}

std::int32_t NWAlign::MismatchScore(int row, int col) const {
    if (row < 0 || col < 0 || row >= score_rows || col >= score_cols) {
        std::clog << "Trying to access mismatch matrix element (" << row << ", " << col << ")!" << "\n";
        return 0;
    }
    return score(row, col);
}

std::int32_t NWAlign::Align(const Sequence& first, const Sequence& second, AlignmentPath& path) {
    const int n = static_cast<int>(first.size);
    const int m = static_cast<int>(second.size);
    if (n == 0) {
        for (int j = 0; j < m; ++j) {
            path.emplace_back(-1, j);
        }
        return kUnreachableScore;
    }
    if (m == 0) {
        for (int i = 0; i < n; ++i) {
            path.emplace_back(i, -1);
        }
        return kUnreachableScore;
    }
    for (int i = 0; i < n; ++i) {
        if (first[i] < 0 || first[i] >= score_rows) {
            throw std::runtime_error("Aligner given a first-sequence element outside the score matrix: " +
                                     std::to_string(first[i]));
        }
    }
    for (int j = 0; j < m; ++j) {
        if (second[j] < 0 || second[j] >= score_cols) {
            throw std::runtime_error("Aligner given a second-sequence element outside the score matrix: " +
                                     std::to_string(second[j]));
        }
    }

    const std::size_t cols = static_cast<std::size_t>(m) + 1;
    const std::size_t cells = (static_cast<std::size_t>(n) + 1) * cols;
    match.resize(cells);
    gap_a_matrix.resize(cells);
    gap_b_matrix.resize(cells);
    std::int32_t* M = match.data();
    std::int32_t* A = gap_a_matrix.data();
    std::int32_t* B = gap_b_matrix.data();
    const auto at = [cols](int i, int j) { return static_cast<std::size_t>(i) * cols + j; };

    M[0] = A[0] = B[0] = 0;
    for (int i = 1; i <= n; ++i) {
        A[at(i, 0)] = WrapAdd(A[at(i - 1, 0)], nw_start_a);
        M[at(i, 0)] = B[at(i, 0)] = kUnreachableScore;
    }
    for (int j = 1; j <= m; ++j) {
        B[at(0, j)] = WrapAdd(B[at(0, j - 1)], nw_start_b);
        M[at(0, j)] = A[at(0, j)] = kUnreachableScore;
    }
    for (int i = 1; i <= n; ++i) {
        // Along the last row a gap in the second sequence is an end gap: one flat cost per position.
        const std::int32_t openB = i == n ? nw_end_b : nw_open_b;
        const std::int32_t extendB = i == n ? nw_end_b : nw_extend_b;
        const int row = first[i - 1];
        for (int j = 1; j <= m; ++j) {
            const std::int32_t openA = j == m ? nw_end_a : nw_open_a;
            const std::int32_t extendA = j == m ? nw_end_a : nw_extend_a;
            const std::size_t c = at(i, j);
            const std::size_t diag = at(i - 1, j - 1);
            const std::size_t up = at(i - 1, j);
            const std::size_t left = at(i, j - 1);
            M[c] = WrapAdd(max3(M[diag], A[diag], B[diag]), score(row, second[j - 1]));
            A[c] = max3(WrapAdd(M[up], openA), WrapAdd(B[up], openA), WrapAdd(A[up], extendA));
            B[c] = max3(WrapAdd(M[left], openB), WrapAdd(A[left], openB), WrapAdd(B[left], extendB));
        }
    }

    // The trace-back looks only at the three values of the cell in hand and carries no state from the
    // step before, so it may leave a gap run at any cell; the paths downstream expect exactly this.
    enum Choice { kMatch, kGapA, kGapB };
    path.clear();
    path.reserve(static_cast<std::size_t>(n) + m);
    int i = n;
    int j = m;
    while (i >= 1 || j >= 1) {
        const std::size_t c = at(i, j);
        Choice choice;
        if (M[c] < A[c]) {
            choice = B[c] > A[c] ? kGapB : kGapA;
        } else {
            choice = M[c] < B[c] ? kGapB : kMatch;
        }
        if (choice == kMatch && i >= 1 && j >= 1) {
            --i;
            --j;
            path.emplace_back(i, j);
        } else if (choice == kGapA && i >= 1) {
            --i;
            path.emplace_back(i, -1);
        } else if (choice == kGapB && j >= 1) {
            --j;
            path.emplace_back(-1, j);
        } else {
            throw std::runtime_error("Error: Invalid result in backtrace.");
        }
    }
    std::reverse(path.begin(), path.end());
    const std::size_t end = at(n, m);
    return max3(M[end], A[end], B[end]);
}

}  // namespace PairAlignment
