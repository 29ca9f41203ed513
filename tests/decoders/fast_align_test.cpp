#include "decoders/fast_align.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include "decoders/kernel_isa.h"

namespace {

using BasecallCommon::KernelIsa;
using PairAlignment::AlignmentPath;
using PairAlignment::FastAlign;
using PairAlignment::Sequence;

constexpr std::int32_t kUnreachable = -1000000000;

struct Problem {
    int size = 4;
    std::vector<int> matrix;  // size x size, row-major
    std::vector<int> gaps;    // six positive penalties: start b, end b, gap b, start a, end a, gap a
    std::vector<int> first;
    std::vector<int> second;

    Common::MatView<const int> View() const { return Common::MatView<const int>(matrix.data(), size, size, size, 1); }
};

Sequence view(const std::vector<int>& v) { return Sequence(v.data(), v.size(), 1); }

// Plain full-matrix linear-gap global alignment with the aligner's penalties and tie rules: start
// penalties along row 0 and column 0, end penalties along row n and column m, a diagonal on any tie,
// and of two equal gaps the one that consumes the first sequence.
std::int32_t fullMatrixAlign(const Problem& p, AlignmentPath& path) {
    const int n = static_cast<int>(p.first.size());
    const int m = static_cast<int>(p.second.size());
    std::vector<std::int64_t> H((n + 1) * (m + 1));
    std::vector<int> code((n + 1) * (m + 1));
    const auto at = [m](int i, int j) { return i * (m + 1) + j; };
    for (int i = 0; i <= n; ++i) {
        for (int j = 0; j <= m; ++j) {
            if (i == 0 && j == 0) {
                H[0] = 0;
                continue;
            }
            const int penA = j == 0 ? p.gaps[3] : (j == m ? p.gaps[4] : p.gaps[5]);
            const int penB = i == 0 ? p.gaps[0] : (i == n ? p.gaps[1] : p.gaps[2]);
            const std::int64_t diag = i > 0 && j > 0 ? H[at(i - 1, j - 1)] + p.matrix[p.first[i - 1] * p.size + p.second[j - 1]]
                                                     : kUnreachable;
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
    int i = n;
    int j = m;
    while (i > 0 || j > 0) {
        switch (code[at(i, j)]) {
            case 0:
                --i;
                --j;
                path.emplace_back(i, j);
                break;
            case 1:
                --j;
                path.emplace_back(-1, j);
                break;
            default:
                --i;
                path.emplace_back(i, -1);
                break;
        }
    }
    std::reverse(path.begin(), path.end());
    return static_cast<std::int32_t>(H[at(n, m)]);
}

Problem randomProblem(std::mt19937& rng, int alphabet, int n, int m) {
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
    std::uniform_int_distribution<int> symbol(0, alphabet - 1);
    for (int i = 0; i < n; ++i) {
        p.first.push_back(symbol(rng));
    }
    for (int j = 0; j < m; ++j) {
        p.second.push_back(symbol(rng));
    }
    return p;
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

// Every index of both sequences exactly once, in order, and never -1 twice.
void expectWellFormed(const AlignmentPath& path, int n, int m) {
    int nextI = 0;
    int nextJ = 0;
    for (const auto& [i, j] : path) {
        ASSERT_FALSE(i == -1 && j == -1);
        if (i != -1) {
            ASSERT_EQ(i, nextI++);
        }
        if (j != -1) {
            ASSERT_EQ(j, nextJ++);
        }
    }
    EXPECT_EQ(nextI, n);
    EXPECT_EQ(nextJ, m);
}

TEST(FastAlign, WideBandMatchesFullMatrixDynamicProgramme) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> length(1, 40);
    std::uniform_int_distribution<int> alphabetSize(2, 4);
    const auto kernels = availableKernels();
    for (int trial = 0; trial < 1500; ++trial) {
        const Problem p = randomProblem(rng, alphabetSize(rng), length(rng), length(rng));
        AlignmentPath expected;
        const std::int32_t expectedScore = fullMatrixAlign(p, expected);
        for (KernelIsa isa : kernels) {
            FastAlign aligner(p.View(), p.gaps, 1001);
            ASSERT_TRUE(aligner.SetKernel(isa));
            AlignmentPath path{{7, 7}};  // cleared by the call
            const std::int32_t score = aligner.Align(view(p.first), view(p.second), path);
            ASSERT_EQ(score, expectedScore) << "trial " << trial << " kernel " << BasecallCommon::IsaName(isa);
            ASSERT_EQ(path, expected) << "trial " << trial << " kernel " << BasecallCommon::IsaName(isa);
            // A band covering the matrix fills every cell once.
            EXPECT_EQ(aligner.LastCellCount(), static_cast<std::int64_t>(p.first.size() + 1) * (p.second.size() + 1));
        }
    }
}

TEST(FastAlign, KernelsAgreeOnLongInputsWithNarrowBand) {
    std::mt19937 rng(77);
    const auto kernels = availableKernels();
    ASSERT_GE(kernels.size(), 2u);
    for (int trial = 0; trial < 12; ++trial) {
        std::uniform_int_distribution<int> length(2000, 5000);
        const int n = length(rng);
        const int m = n + std::uniform_int_distribution<int>(-300, 300)(rng);
        Problem p = randomProblem(rng, trial % 2 == 0 ? 4 : 64, n, m);
        const int band = std::vector<int>{1, 2, 9, 31, 64, 101}[trial % 6];
        std::vector<AlignmentPath> paths;
        std::vector<std::int32_t> scores;
        for (KernelIsa isa : kernels) {
            FastAlign aligner(p.View(), p.gaps, band);
            ASSERT_TRUE(aligner.SetKernel(isa));
            paths.emplace_back();
            scores.push_back(aligner.Align(view(p.first), view(p.second), paths.back()));
            expectWellFormed(paths.back(), n, m);
        }
        for (std::size_t k = 1; k < kernels.size(); ++k) {
            EXPECT_EQ(scores[k], scores[0]) << BasecallCommon::IsaName(kernels[k]) << " trial " << trial;
            EXPECT_EQ(paths[k], paths[0]) << BasecallCommon::IsaName(kernels[k]) << " trial " << trial;
        }
    }
}

TEST(FastAlign, ReusedAlignerGivesTheSameAsAFreshOne) {
    std::mt19937 rng(5);
    Problem big = randomProblem(rng, 4, 900, 850);
    Problem small = big;
    small.first.resize(30);
    small.second.resize(45);
    FastAlign reused(big.View(), big.gaps, 41);
    AlignmentPath path;
    reused.Align(view(big.first), view(big.second), path);
    const std::int32_t score = reused.Align(view(small.first), view(small.second), path);
    FastAlign fresh(big.View(), big.gaps, 41);
    AlignmentPath freshPath;
    EXPECT_EQ(score, fresh.Align(view(small.first), view(small.second), freshPath));
    EXPECT_EQ(path, freshPath);
}

TEST(FastAlign, BandWidthRules) {
    Problem p;
    p.size = 2;
    p.matrix = {1, -1, -1, 1};
    p.gaps = {1, 1, 1, 1, 1, 1};
    p.first = {0, 1, 0, 1};
    p.second = {0, 1, 1, 1};
    // Four by four inside a band of 1001: the band shrinks to 5 and still covers all 25 cells.
    FastAlign wide(p.View(), p.gaps, 1001);
    AlignmentPath path;
    wide.Align(view(p.first), view(p.second), path);
    EXPECT_EQ(wide.LastCellCount(), 25);

    EXPECT_EQ(FastAlign(p.View(), p.gaps, 1000).Band(), 1001);
    EXPECT_EQ(FastAlign(p.View(), p.gaps, 1001).Band(), 1001);

    // A band of one keeps a single cell per anti-diagonal.
    std::vector<int> longer(30, 0);
    std::vector<int> shorter(20, 1);
    FastAlign single(p.View(), p.gaps, 1);
    single.Align(view(longer), view(shorter), path);
    EXPECT_EQ(single.LastCellCount(), 51);
    expectWellFormed(path, 30, 20);
}

TEST(FastAlign, EmptyAndSingleElementSequences) {
    Problem p;
    p.size = 2;
    p.matrix = {2, -2, -2, 2};
    p.gaps = {1, 1, 3, 1, 1, 3};
    FastAlign aligner(p.View(), p.gaps, 1001);
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

    // One label against many: one entry per label of the long sequence, the single index once.
    std::vector<int> one = {1};
    std::vector<int> many(50, 0);
    many[17] = 1;
    aligner.Align(view(one), view(many), path);
    ASSERT_EQ(path.size(), 50u);
    int paired = 0;
    for (std::size_t k = 0; k < path.size(); ++k) {
        EXPECT_EQ(path[k].second, static_cast<int>(k));
        if (path[k].first != -1) {
            EXPECT_EQ(path[k].first, 0);
            ++paired;
        }
    }
    EXPECT_EQ(paired, 1);
    EXPECT_EQ(path[17].first, 0);
}

TEST(FastAlign, TiesPreferDiagonalThenTheFirstSequence) {
    std::vector<int> zero = {0};
    AlignmentPath path;
    // One label each. The diagonal scores -4; the two-gap routes score -2 + -2.
    std::vector<int> matrix = {-4};
    FastAlign diagonalTie(Common::MatView<const int>(matrix.data(), 1, 1, 1, 1), {2, 2, 2, 2, 2, 2}, 1001);
    EXPECT_EQ(diagonalTie.Align(view(zero), view(zero), path), -4);
    EXPECT_EQ(path, (AlignmentPath{{0, 0}}));

    // With the diagonal worse, the two gap orders tie and the last step consumes the first sequence.
    matrix = {-10};
    FastAlign gapTie(Common::MatView<const int>(matrix.data(), 1, 1, 1, 1), {2, 2, 2, 2, 2, 2}, 1001);
    EXPECT_EQ(gapTie.Align(view(zero), view(zero), path), -4);
    EXPECT_EQ(path, (AlignmentPath{{-1, 0}, {0, -1}}));
}

TEST(FastAlign, EightLongPenaltiesIgnoreTheExtensions) {
    std::mt19937 rng(11);
    for (int trial = 0; trial < 50; ++trial) {
        const Problem p = randomProblem(rng, 4, 60 + trial, 70);
        const std::vector<int>& g = p.gaps;
        FastAlign six(p.View(), g, 21);
        FastAlign eight(p.View(), {g[0], g[1], g[2], 999, g[3], g[4], g[5], 777}, 21);
        AlignmentPath a;
        AlignmentPath b;
        ASSERT_EQ(six.Align(view(p.first), view(p.second), a), eight.Align(view(p.first), view(p.second), b));
        ASSERT_EQ(a, b);
    }
}

TEST(FastAlign, Failures) {
    std::vector<int> matrix = {1, 0, 0, 1};
    const Common::MatView<const int> scores(matrix.data(), 2, 2, 2, 1);
    try {
        FastAlign bad(scores, {1, 2, 3, 4, 5, 6, 7}, 11);
        FAIL() << "seven penalties accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Gap penalty vector must be length 6 or 8.");
    }
    FastAlign aligner(scores, {1, 1, 1, 1, 1, 1}, 11);
    std::vector<int> seq = {0, 1, 0, 1};
    AlignmentPath path;
    try {
        aligner.Align(Sequence(seq.data(), 2, 2), view(seq), path);
        FAIL() << "strided view accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Fast aligner does not allow non-unit-stride sequence vectors.");
    }
    std::vector<int> outside = {0, 2};
    EXPECT_THROW(aligner.Align(view(outside), view(seq), path), std::runtime_error);

    // Out-of-range look-ups report on the log stream and score 0.
    std::ostringstream captured;
    std::streambuf* old = std::clog.rdbuf(captured.rdbuf());
    const std::int32_t s = aligner.MismatchScore(2, -1);
    std::clog.rdbuf(old);
    EXPECT_EQ(s, 0);
    EXPECT_EQ(captured.str(), "Trying to access mismatch matrix element (2, -1)!\n");
    EXPECT_EQ(aligner.MismatchScore(1, 1), 1);
}

}  // namespace
