#include "decoders/fast_align.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>

#include "decoders/int_score.h"

namespace PairAlignment {

using BasecallCommon::WrapAdd;

FastAlign::FastAlign(const Common::MatView<const int>& score_matrix, const std::vector<int>& gap_penalties, int band_)
    : band(band_ % 2 == 0 ? band_ + 1 : band_) {
    if (gap_penalties.size() != 6 && gap_penalties.size() != 8) {
        throw std::runtime_error("Gap penalty vector must be length 6 or 8.");
    }
    if (score_matrix.rows != score_matrix.cols) {
        throw std::runtime_error("Score matrix of the fast aligner must be square, not " +
                                 std::to_string(score_matrix.rows) + " by " + std::to_string(score_matrix.cols) +
                                 ".");
    }
    if (band < 1) {
        throw std::runtime_error("Band of the fast aligner must be at least 1, not " + std::to_string(band_) + ".");
    }
    // This aligner has no gap extension: the eight-long affine layout gives up its extension terms.
    const bool affine = gap_penalties.size() == 8;
    start_gap_b = -gap_penalties[0];
    end_gap_b = -gap_penalties[1];
    gap_b = -gap_penalties[2];
    start_gap_a = -gap_penalties[affine ? 4 : 3];
    end_gap_a = -gap_penalties[affine ? 5 : 4];
    gap_a = -gap_penalties[affine ? 6 : 5];

    size = static_cast<std::int32_t>(score_matrix.rows);
    scores.resize(static_cast<std::size_t>(size) * size);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c) {
            scores[static_cast<std::size_t>(r) * size + c] = score_matrix(r, c);
        }
    }
    current.reserve(band);
    previous.reserve(band);
    previous2.reserve(band);
    substitution.reserve(band);
    SetKernel(BasecallCommon::BestIsa());
}

bool FastAlign::SetKernel(BasecallCommon::KernelIsa isa) {
    const AntiDiagonalKernel k = GetAntiDiagonalKernel(isa);
    if (k == nullptr) {
        return false;
    }
    kernel = k;
    kernel_isa = isa;
    return true;
}

std::int32_t FastAlign::MismatchScore(int row, int col) const {
    if (row < 0 || col < 0 || row >= size || col >= size) {
        std::clog << "Trying to access mismatch matrix element (" << row << ", " << col << ")!" << "\n";
        return 0;
    }
    return scores[static_cast<std::size_t>(row) * size + col];
}

std::int32_t FastAlign::Align(const Sequence& firstSeq, const Sequence& secondSeq, AlignmentPath& path) {
    if (firstSeq.stride != 1 || secondSeq.stride != 1) {
        throw std::runtime_error("Fast aligner does not allow non-unit-stride sequence vectors.");
    }
    const int n = static_cast<int>(firstSeq.size);
    const int m = static_cast<int>(secondSeq.size);
    cell_count = 0;
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
    const int* first = firstSeq.data;
    const int* second = secondSeq.data;
    // The gather below indexes the score matrix with every element; refuse what would read past it.
    const auto inMatrix = [this](int v) { return v >= 0 && v < size; };
    if (!std::all_of(first, first + n, inMatrix) || !std::all_of(second, second + m, inMatrix)) {
        throw std::runtime_error("Fast aligner given a sequence element outside the " + std::to_string(size) +
                                 " by " + std::to_string(size) + " score matrix.");
    }

    // Score-matrix row offsets of the first sequence, last element first, so that the gather walks
    // both of its index streams forwards.
    reversed_rows.resize(n);
    for (int i = 0; i < n; ++i) {
        reversed_rows[i] = first[n - 1 - i] * size;
    }

    // Sequences that fit in the band are covered whole, which makes the result the exact optimum.
    width = band;
    if (std::max(n, m) <= band) {
        width = std::max(n, m) + 1;
        if (width % 2 == 0) {
            ++width;
        }
    }
    const int half = width / 2;
    const int total = n + m;
    diagonal_start.resize(total + 1);
    diagonal_length.resize(total + 1);
    current.resize(width);
    previous.resize(width);
    previous2.resize(width);
    substitution.resize(width);
    trace.resize(static_cast<std::size_t>(total + 1) * width);

    diagonal_start[0] = 0;
    diagonal_length[0] = 1;
    trace[0] = 0;
    previous[0] = 0;
    cell_count = 1;

    // Walk the centre along the straight line from (0, 0) to (n + 1/2, m + 1/2). The comparison is
    // the floating-point one scaled by T = n + m + 1 and kept in integers, so that an exact tie is
    // seen as one and always advances j.
    const std::int64_t T = std::int64_t{n} + m + 1;
    int centreI = 0;
    int centreJ = 0;
    for (int d = 1; d <= total; ++d) {
        if ((std::int64_t{n} + 1) * d - centreI * T <= (std::int64_t{m} + 1) * d - centreJ * T) {
            ++centreJ;
        } else {
            ++centreI;
        }
        int iHi = centreI + half;
        int jLo = centreJ - half;
        int iLo = centreI - half;
        int jHi = centreJ + half;
        if (iHi > n) {
            jLo += iHi - n;
            iHi = n;
        }
        if (jLo < 0) {
            iHi += jLo;
            jLo = 0;
        }
        if (iLo < 0) {
            jHi += iLo;
            iLo = 0;
        }
        if (jHi > m) {
            iLo += jHi - m;
            jHi = m;
        }
        const int length = jHi - jLo + 1;
        diagonal_start[d] = jLo;
        diagonal_length[d] = length;
        cell_count += length;
        const int delta1 = diagonal_start[d] - diagonal_start[d - 1];
        const int delta2 = d >= 2 ? diagonal_start[d] - diagonal_start[d - 2] : 0;

        const bool last = d == total;
        fillEdgeCell(d, 0, iHi, jLo, true, last, n, m, first, second);
        if (!last) {
            // On a one-cell anti-diagonal this visit overwrites the first-cell result, so the cell
            // must keep the first cell's rule too (with a band of 1 every anti-diagonal is one cell).
            fillEdgeCell(d, length - 1, iLo, jHi, length == 1, true, n, m, first, second);
        }
        if (length >= 3) {
            // Take the scattered score-matrix reads out of the vector loop.
            std::int32_t* sub = substitution.data();
            // Cell k is (iHi - k, jLo + k): the first sequence read backwards, the second forwards.
            const std::int32_t* rowBase = reversed_rows.data() + (n - iHi);
            const int* colBase = second + jLo - 1;
            for (int k = 1; k < length - 1; ++k) {
                sub[k] = scores[rowBase[k] + colBase[k]];
            }
            AntiDiagonalInterior args;
            args.previous = previous.data();
            args.previous2 = previous2.data();
            args.substitution = sub;
            args.current = current.data();
            args.trace = trace.data() + static_cast<std::size_t>(d) * width;
            args.begin = 1;
            args.end = length - 1;
            args.delta1 = delta1;
            args.delta2 = delta2;
            args.gapA = gap_a;
            args.gapB = gap_b;
            kernel(args);
        }
        // Rotate by exchanging buffers: filled -> previous -> previous2 -> reused as current.
        std::swap(previous2, previous);
        std::swap(previous, current);
    }
    traceBack(n, m, path);
    return previous[0];
}

void FastAlign::fillEdgeCell(int d, int k, int i, int j, bool firstRule, bool lastRule, int n, int m,
                             const int* first, const int* second) {
    std::int32_t diag = kUnreachableScore;
    std::int32_t fromB = kUnreachableScore;
    std::int32_t fromA = kUnreachableScore;
    const auto stored = [this](int diagonal, int jIndex, int& index) {
        index = jIndex - diagonal_start[diagonal];
        return index >= 0 && index < diagonal_length[diagonal];
    };
    int index = 0;
    if (d >= 2 && i >= 1 && j >= 1 && stored(d - 2, j - 1, index)) {
        diag = previous2[index];
    }
    if (j >= 1 && stored(d - 1, j - 1, index)) {
        fromB = previous[index];
    }
    if (i >= 1 && stored(d - 1, j, index)) {
        fromA = previous[index];
    }
    if (i > 0 && j > 0) {
        diag = WrapAdd(diag, scores[static_cast<std::size_t>(first[i - 1]) * size + second[j - 1]]);
    }
    // A first cell has the largest i of its anti-diagonal and the smallest j, a last cell the
    // opposite; so only they can lie on the matrix edges, where the start and end penalties apply.
    std::int32_t penaltyA = gap_a;
    if (firstRule && j == 0) {
        penaltyA = start_gap_a;
    }
    if (lastRule && j == m) {
        penaltyA = end_gap_a;
    }
    std::int32_t penaltyB = gap_b;
    if (lastRule && i == 0) {
        penaltyB = start_gap_b;
    }
    if (firstRule && i == n) {
        penaltyB = end_gap_b;
    }
    fromA = WrapAdd(fromA, penaltyA);
    fromB = WrapAdd(fromB, penaltyB);

    std::uint8_t code;
    if (diag >= fromB && diag >= fromA) {
        current[k] = diag;
        code = 0;
    } else if (fromA < fromB) {
        current[k] = fromB;
        code = 1;
    } else {
        current[k] = fromA;
        code = 2;
    }
    trace[static_cast<std::size_t>(d) * width + k] = code;
}

void FastAlign::traceBack(int n, int m, AlignmentPath& path) const {
    path.clear();
    path.reserve(static_cast<std::size_t>(n) + m + 1);
    int d = n + m;
    int k = 0;
    int i = n - 1;
    int j = m - 1;
    while (i >= 0 || j >= 0) {
        if (d < 0 || k < 0 || k >= diagonal_length[d]) {
            throw std::runtime_error("Error in fast aligner trace-back: left the band at anti-diagonal " +
                                     std::to_string(d) + ".");
        }
        path.emplace_back(i, j);
        const int delta1 = d >= 1 ? diagonal_start[d] - diagonal_start[d - 1] : 0;
        const int delta2 = d >= 2 ? diagonal_start[d] - diagonal_start[d - 2] : 0;
        switch (trace[static_cast<std::size_t>(d) * width + k]) {
            case 0:
                --i;
                --j;
                d -= 2;
                k = k - 1 + delta2;
                break;
            case 1:
                --j;
                d -= 1;
                k = k - 1 + delta1;
                break;
            default:
                --i;
                d -= 1;
                k = k + delta1;
                break;
        }
    }
    // An entry whose index repeats in the entry after it (the one before it, read forwards) did not
    // consume that sequence: mark it as a gap.
    for (std::size_t e = 0; e + 1 < path.size(); ++e) {
        if (path[e].first == path[e + 1].first) {
            path[e].first = -1;
        }
        if (path[e].second == path[e + 1].second) {
            path[e].second = -1;
        }
    }
    std::reverse(path.begin(), path.end());
}

}  // namespace PairAlignment
