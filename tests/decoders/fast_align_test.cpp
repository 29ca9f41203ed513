#include "decoders/fast_align.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

#include "../common/test_support.h"
#include "decoder_test_util.h"

namespace {

using BasecallCommon::KernelIsa;
using PairAlignment::AlignmentPath;
using PairAlignment::FastAlign;
using PairAlignment::Sequence;

constexpr std::int64_t kUnreachable = -1000000000;

struct Problem {
    int size = 4;
    std::vector<int> matrix;  // size x size, row-major
    std::vector<int> gaps;    // six positive penalties: start b, end b, gap b, start a, end a, gap a
    std::vector<int> first;
    std::vector<int> second;

    Common::MatView<const int> View() const {
        return Common::MatView<const int>(matrix.data(), size, size, size, 1);
    }
};

Sequence view(const std::vector<int>& v) { return Sequence(v.data(), v.size(), 1); }

// The centre (as i) of anti-diagonal d = i + j: i - j nearest d (n - m) / (n + m + 1), the smaller on a
// tie, in integers; the line from (0, 0) to (n + 1/2, m + 1/2) crosses within two cells of it.
int bandCentreI(int d, int n, int m) {
    const std::int64_t t = n + m + 1;
    const auto miss = [&](int i) { return std::llabs((2 * i - d) * t - std::int64_t{d} * (n - m)); };
    const int crossing = static_cast<int>(std::int64_t{d} * (n + 1) / t);
    int best = std::max(0, crossing - 2);
    for (int i = best + 1; i <= std::min(d, crossing + 2); ++i) {
        if (miss(i) < miss(best)) best = i;
    }
    return best;
}

// Full-matrix linear-gap alignment with the aligner's start/end penalties on the edges and tie rules
// (diagonal first, then the gap consuming the first sequence), cells beyond `half` of the centre cut.
std::int32_t bandedAlign(const Problem& p, int half, AlignmentPath& path, std::int64_t& cells) {
    const int n = static_cast<int>(p.first.size()), m = static_cast<int>(p.second.size());
    std::vector<std::int64_t> H((n + 1) * (m + 1), kUnreachable);
    std::vector<int> code((n + 1) * (m + 1));
    const auto at = [m](int i, int j) { return i * (m + 1) + j; };
    std::vector<int> centre(n + m + 1);
    for (int d = 0; d <= n + m; ++d) centre[d] = bandCentreI(d, n, m);
    cells = 0;
    for (int i = 0; i <= n; ++i) {
        for (int j = 0; j <= m; ++j) {
            if (std::abs(i - centre[i + j]) > half) continue;
            ++cells;
            if (i == 0 && j == 0) {
                H[0] = 0;
                continue;
            }
            const int penA = j == 0 ? p.gaps[3] : (j == m ? p.gaps[4] : p.gaps[5]);
            const int penB = i == 0 ? p.gaps[0] : (i == n ? p.gaps[1] : p.gaps[2]);
            const int sub = i > 0 && j > 0 ? p.matrix[p.first[i - 1] * p.size + p.second[j - 1]] : 0;
            const std::int64_t diag = i > 0 && j > 0 ? H[at(i - 1, j - 1)] + sub : kUnreachable;
            const std::int64_t b = (j > 0 ? H[at(i, j - 1)] : kUnreachable) - penB;
            const std::int64_t a = (i > 0 ? H[at(i - 1, j)] : kUnreachable) - penA;
            if (diag >= b && diag >= a) {
                H[at(i, j)] = diag;
                code[at(i, j)] = 0;
            } else if (a < b) {
                H[at(i, j)] = b;
                code[at(i, j)] = 1;
            } else {
                H[at(i, j)] = a;
                code[at(i, j)] = 2;
            }
        }
    }
    path.clear();
    for (int i = n, j = m; i > 0 || j > 0;) {
        const int c = code[at(i, j)];
        i -= c != 1;
        j -= c != 2;
        path.emplace_back(c == 1 ? -1 : i, c == 2 ? -1 : j);
    }
    std::reverse(path.begin(), path.end());
    return static_cast<std::int32_t>(H[at(n, m)]);
}

// Every kernel against the reference, in bands that cover the problem (the exact optimum) and narrow
// ones; aligners are reused as a worker reuses its own, and half the scorings use the affine layout.
TEST(FastAlign, MatchesBandedFullMatrixReference) {
    std::mt19937 rng(20240611);
    const auto kernels = AvailableKernels();
    ASSERT_GE(kernels.size(), 2u);
    const std::vector<int> bands = {1001, 1001, 1, 3, 4, 9, 31, 64, 101};
    for (int scoring = 0; scoring < 40; ++scoring) {
        const int alphabet = scoring % 4 == 3 ? 64 : 2 + scoring % 3;
        // A square matrix of few even values, so that scores tie often, and six penalties.
        Problem p{alphabet, RandomInts(rng, alphabet * alphabet, -3, 3), RandomInts(rng, 6, 0, 4), {}, {}};
        for (auto& s : p.matrix) s *= 2;
        std::vector<int> gaps = p.gaps;
        if (scoring % 2) gaps = {p.gaps[0], p.gaps[1], p.gaps[2], 999, p.gaps[3], p.gaps[4], p.gaps[5], 777};
        std::map<std::pair<int, KernelIsa>, FastAlign> aligners;
        for (const int band : bands) {
            for (KernelIsa isa : kernels) {
                FastAlign& aligner =
                    aligners.emplace(std::make_pair(band, isa), FastAlign(p.View(), gaps, band))
                        .first->second;
                ASSERT_TRUE(aligner.SetKernel(isa));
                ASSERT_EQ(aligner.Band(), band | 1);  // an even band grows by one
            }
        }
        for (int trial = 0; trial < 20; ++trial) {
            const int band = bands[trial % bands.size()];
            std::uniform_int_distribution<int> length(1, band > 1000 ? 40 : 300);
            const int n = length(rng);
            const int m = length(rng);  // lengths where the band centre walk ties included
            p.first = RandomInts(rng, n, 0, alphabet - 1);
            p.second = RandomInts(rng, m, 0, alphabet - 1);
            // Sequences that fit in the band are covered whole.
            const bool whole = std::max(n, m) <= (band | 1);
            AlignmentPath expected;
            std::int64_t expectedCells = 0;
            const std::int32_t expectedScore =
                bandedAlign(p, whole ? (std::max(n, m) + 1) / 2 : band / 2, expected, expectedCells);
            ASSERT_TRUE(!whole || expectedCells == std::int64_t{n + 1} * (m + 1));
            for (KernelIsa isa : kernels) {
                SCOPED_TRACE(std::string(BasecallCommon::IsaName(isa)) + " scoring " +
                             std::to_string(scoring) + " band " + std::to_string(band) + " lengths " +
                             std::to_string(n) + ", " + std::to_string(m));
                FastAlign& aligner = aligners.at({band, isa});
                AlignmentPath path{{7, 7}};  // cleared by the call
                ASSERT_EQ(aligner.Align(view(p.first), view(p.second), path), expectedScore);
                ASSERT_EQ(path, expected);
                ASSERT_EQ(aligner.LastCellCount(), expectedCells);
            }
        }
    }
}

TEST(FastAlign, EmptySequencesAndFailures) {
    std::vector<int> matrix = {2, -2, -2, 2}, none, three = {0, 1, 0}, outside = {0, 2};
    const Common::MatView<const int> scores(matrix.data(), 2, 2, 2, 1);
    FastAlign aligner(scores, {1, 1, 3, 1, 1, 3}, 1001);
    AlignmentPath path{{9, 9}};  // the empty cases append to what the path holds
    EXPECT_EQ(aligner.Align(view(none), view(three), path), kUnreachable);
    EXPECT_EQ(aligner.Align(view(three), view(none), path), kUnreachable);
    EXPECT_EQ(path, (AlignmentPath{{9, 9}, {-1, 0}, {-1, 1}, {-1, 2}, {0, -1}, {1, -1}, {2, -1}}));
    using TestSupport::ErrorOf;
    EXPECT_EQ(ErrorOf([&] { FastAlign(scores, {1, 2, 3, 4, 5, 6, 7}, 11); }),
              "Gap penalty vector must be length 6 or 8.");
    EXPECT_EQ(ErrorOf([&] { aligner.Align(Sequence(three.data(), 2, 2), view(three), path); }),
              "Fast aligner does not allow non-unit-stride sequence vectors.");
    EXPECT_EQ(ErrorOf([&] { aligner.Align(view(outside), view(three), path); }),
              "Fast aligner given a sequence element outside the 2 by 2 score matrix.");
}

}  // namespace
