#include "decoders/fast_align.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <vector>

#include "decoders/kernel_isa.h"

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

    Common::MatView<const int> View() const { return Common::MatView<const int>(matrix.data(), size, size, size, 1); }
};

Sequence view(const std::vector<int>& v) { return Sequence(v.data(), v.size(), 1); }

// The centre of anti-diagonal d (i + j = d) is its cell nearest, along the anti-diagonal, to the
// straight line from (0, 0) to (n + 1/2, m + 1/2): i - j nearest d (n - m) / (n + m + 1), the smaller
// i - j on a tie. Returned as i, in exact integer arithmetic, trying the cells within two of where
// the line crosses.
int bandCentreI(int d, int n, int m) {
    const std::int64_t t = n + m + 1;
    const auto miss = [&](int i) { return std::llabs((2 * i - d) * t - std::int64_t{d} * (n - m)); };
    const int crossing = static_cast<int>(std::int64_t{d} * (n + 1) / t);
    int best = std::max(0, crossing - 2);
    for (int i = best + 1; i <= std::min(d, crossing + 2); ++i) {
        if (miss(i) < miss(best)) {
            best = i;
        }
    }
    return best;
}

// Plain full-matrix linear-gap global alignment with the aligner's penalties and tie rules: start
// penalties along row 0 and column 0, end penalties along row n and column m, a diagonal on any tie,
// and of two equal gaps the one that consumes the first sequence. Cells further than `half` steps
// along their anti-diagonal from its centre are left unreachable. `cells` counts the others.
std::int32_t bandedAlign(const Problem& p, int half, AlignmentPath& path, std::int64_t& cells) {
    const int n = static_cast<int>(p.first.size());
    const int m = static_cast<int>(p.second.size());
    std::vector<std::int64_t> H((n + 1) * (m + 1), kUnreachable);
    std::vector<int> code((n + 1) * (m + 1));
    const auto at = [m](int i, int j) { return i * (m + 1) + j; };
    std::vector<int> centre(n + m + 1);
    for (int d = 0; d <= n + m; ++d) {
        centre[d] = bandCentreI(d, n, m);
    }
    cells = 0;
    for (int i = 0; i <= n; ++i) {
        for (int j = 0; j <= m; ++j) {
            if (std::abs(i - centre[i + j]) > half) {
                continue;
            }
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

// A random scoring: a square matrix of few even values, so that scores tie often, and six penalties.
Problem randomScoring(std::mt19937& rng, int alphabet) {
    Problem p;
    p.size = alphabet;
    std::uniform_int_distribution<int> score(-3, 3);
    std::uniform_int_distribution<int> gap(0, 4);
    p.matrix.resize(alphabet * alphabet);
    for (auto& s : p.matrix) {
        s = score(rng) * 2;
    }
    for (int k = 0; k < 6; ++k) {
        p.gaps.push_back(gap(rng));
    }
    return p;
}

std::vector<int> randomSequence(std::mt19937& rng, int alphabet, int length) {
    std::uniform_int_distribution<int> symbol(0, alphabet - 1);
    std::vector<int> out(length);
    for (auto& x : out) {
        x = symbol(rng);
    }
    return out;
}

std::vector<KernelIsa> availableKernels() {
    std::vector<KernelIsa> out;
    for (KernelIsa isa : {KernelIsa::Scalar, KernelIsa::Sse2, KernelIsa::Avx2, KernelIsa::Avx512}) {
        if (BasecallCommon::IsaSupported(isa)) {
            out.push_back(isa);
        }
    }
    return out;
}

// Every kernel against the reference: small problems inside a band that covers them (the exact
// optimum) and larger ones inside narrow bands, where the band's walk decides which cells exist. Each
// scoring serves a run of problems of varying sizes through the same aligners, as a worker reuses
// its own; half the scorings give the penalties in the eight-long affine layout, whose extension
// terms the aligner ignores.
TEST(FastAlign, MatchesBandedFullMatrixReference) {
    std::mt19937 rng(20240611);
    const auto kernels = availableKernels();
    ASSERT_GE(kernels.size(), 2u);
    const std::vector<int> bands = {1001, 1001, 1, 3, 4, 9, 31, 64, 101};
    for (int scoring = 0; scoring < 40; ++scoring) {
        const int alphabet = scoring % 4 == 3 ? 64 : 2 + scoring % 3;
        Problem p = randomScoring(rng, alphabet);
        std::vector<int> gaps = p.gaps;
        if (scoring % 2) {
            gaps = {p.gaps[0], p.gaps[1], p.gaps[2], 999, p.gaps[3], p.gaps[4], p.gaps[5], 777};
        }
        std::map<std::pair<int, KernelIsa>, FastAlign> aligners;
        for (const int band : bands) {
            for (KernelIsa isa : kernels) {
                FastAlign& aligner = aligners.emplace(std::make_pair(band, isa), FastAlign(p.View(), gaps, band))
                                         .first->second;
                ASSERT_TRUE(aligner.SetKernel(isa));
                ASSERT_EQ(aligner.Band(), band | 1);  // an even band grows by one
            }
        }
        for (int trial = 0; trial < 20; ++trial) {
            const int band = bands[trial % bands.size()];
            std::uniform_int_distribution<int> length(1, band > 1000 ? 40 : 300);
            const int n = length(rng);
            int m = length(rng);
            // On an exact tie between the two ways to move the centre the aligner's floating-point
            // comparison may go either way; lengths with |n - m| prime to n + m + 1 have no such tie.
            while (band < 1000 && std::gcd(std::abs(n - m), n + m + 1) != 1) {
                m = length(rng);
            }
            p.first = randomSequence(rng, alphabet, n);
            p.second = randomSequence(rng, alphabet, m);
            // Sequences that fit in the band are covered whole.
            const bool whole = std::max(n, m) <= (band | 1);
            AlignmentPath expected;
            std::int64_t expectedCells = 0;
            const std::int32_t expectedScore =
                bandedAlign(p, whole ? (std::max(n, m) + 1) / 2 : band / 2, expected, expectedCells);
            ASSERT_TRUE(!whole || expectedCells == std::int64_t{n + 1} * (m + 1));
            for (KernelIsa isa : kernels) {
                SCOPED_TRACE("scoring " + std::to_string(scoring) + " trial " + std::to_string(trial) + " kernel " +
                             BasecallCommon::IsaName(isa) + " band " + std::to_string(band) + " lengths " +
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
    std::vector<int> matrix = {2, -2, -2, 2};
    const Common::MatView<const int> scores(matrix.data(), 2, 2, 2, 1);
    FastAlign aligner(scores, {1, 1, 3, 1, 1, 3}, 1001);
    std::vector<int> none;
    std::vector<int> three = {0, 1, 0};
    AlignmentPath path;
    EXPECT_EQ(aligner.Align(view(none), view(none), path), kUnreachable);
    EXPECT_TRUE(path.empty());
    // The empty cases append to what the path already holds.
    path = {{9, 9}};
    EXPECT_EQ(aligner.Align(view(none), view(three), path), kUnreachable);
    EXPECT_EQ(path, (AlignmentPath{{9, 9}, {-1, 0}, {-1, 1}, {-1, 2}}));
    path.clear();
    EXPECT_EQ(aligner.Align(view(three), view(none), path), kUnreachable);
    EXPECT_EQ(path, (AlignmentPath{{0, -1}, {1, -1}, {2, -1}}));

    try {
        FastAlign bad(scores, {1, 2, 3, 4, 5, 6, 7}, 11);
        FAIL() << "seven penalties accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Gap penalty vector must be length 6 or 8.");
    }
    try {
        aligner.Align(Sequence(three.data(), 2, 2), view(three), path);
        FAIL() << "strided view accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Fast aligner does not allow non-unit-stride sequence vectors.");
    }
    std::vector<int> outside = {0, 2};
    EXPECT_THROW(aligner.Align(view(outside), view(three), path), std::runtime_error);

    // Out-of-range look-ups report on the log stream and score 0.
    std::ostringstream captured;
    std::streambuf* old = std::clog.rdbuf(captured.rdbuf());
    const std::int32_t s = aligner.MismatchScore(2, -1);
    std::clog.rdbuf(old);
    EXPECT_EQ(s, 0);
    EXPECT_EQ(captured.str(), "Trying to access mismatch matrix element (2, -1)!\n");
}

}  // namespace
