#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../common/test_support.h"
#include "decoders/quality_matrix.h"
#include "decoders/sequence_builder.h"

using BasecallCommon::BuildSequence;
using BasecallCommon::QualityChar;
using TestSupport::ErrorOf;
using States = std::vector<int>;
using Moves = std::vector<signed char>;

namespace {

// k = 3 states from a k-mer text, first base most significant.
int state(const char* kmer) {
    int s = 0;
    for (const char* c = kmer; *c; ++c) s = s * 4 + static_cast<int>(std::string("ACGT").find(*c));
    return s;
}

// A quality data row for a 3-mer state in which every position gives its true base probability p and
// spreads 1 - p over the other three.
void fillRow(float* row, int s, float p) {
    for (int digit = 0; digit < 3; ++digit) {
        const int base = (s >> (2 * digit)) & 3;
        for (int b = 0; b < 4; ++b) row[4 * digit + b] = b == base ? p : (1.0f - p) / 3.0f;
    }
}

struct Calibration {
    float qscore_offset = 0.0f, qscore_scale = 1.0f;
};

}  // namespace

TEST(QualityChar, ClampsAndRounds) {
    // q 10, infinite clamped to 90, q 0 clamped to 1, q 20, 10 * 2 + 1, clamped after scaling.
    const struct { float p, offset, scale; char want; } cases[] = {
        {0.9f, 0, 1, '+'}, {1.0f, 0, 1, '{'}, {0.0f, 0, 1, '"'}, {0.99f, 0, 1, '5'}, {0.9f, 1, 2, '6'},
        {0.99f, 0, 10, '{'}};
    for (const auto& c : cases) EXPECT_EQ(QualityChar(c.p, c.offset, c.scale), c.want) << c.p;
}

TEST(SequenceBuilder, StaysStepsAndSkipsPoolQualities) {
    // ACG, stay, step to CGT, skip to TAC: "ACG" + "T" + "AC". Base 0 is seen by rows 0 and 1, bases 1
    // and 2 by rows 0, 1, 2, base 3 by rows 2 and 3, bases 4 and 5 by row 3 alone.
    std::vector<short> states;
    for (const char* kmer : {"ACG", "ACG", "CGT", "TAC"}) states.push_back(static_cast<short>(state(kmer)));
    const std::vector<signed char> moves{1, 0, 1, 2};
    const float p[] = {0.9f, 0.9f, 0.5f, 0.99f};
    std::vector<float> q(4 * 12);
    for (int r = 0; r < 4; ++r) fillRow(q.data() + 12 * r, states[r], p[r]);
    Common::MatView<const float> data(q.data(), 4, 12, 12);
    std::string seq, qual;
    BuildSequence(Calibration{}, data, states, moves, seq, qual);
    EXPECT_EQ(seq, "ACGTAC");
    // 0.9 -> q 10; 2.3 / 3 -> 6.3; 1.49 / 2 -> 5.9; 0.99 -> 20.
    EXPECT_EQ(qual, "+'''55");
    BuildSequence(Calibration{1.0f, 2.0f}, data, states, moves, seq, qual);
    EXPECT_EQ(qual, "6//.JJ");

    // A stay changes the counts of the bases its k-mer covers and nothing else.
    fillRow(q.data() + 12, states[1], 0.0f);
    BuildSequence(Calibration{}, data, states, moves, seq, qual);
    // 0.9 / 2 -> q 2.6 and 1.4 / 3 -> q 2.7 for the first three; the rest as before.
    EXPECT_EQ(qual, "$$$'55");
}

TEST(SequenceBuilder, RefusesInconsistentInput) {
    std::vector<float> q(24, 0.25f);
    const Common::MatView<const float> two(q.data(), 2, 12, 12);
    std::string seq = "x", qual = "x";
    EXPECT_NE(ErrorOf([&] { BuildSequence(Calibration{}, two, States{0}, Moves{1}, seq, qual); }),
              "<no error>");  // fewer states than rows
    EXPECT_NE(ErrorOf([&] { BuildSequence(Calibration{}, two, States{0, 0}, Moves{1, 4}, seq, qual); }),
              "<no error>");  // a move longer than k
    BuildSequence(Calibration{}, Common::MatView<const float>(), States{}, Moves{}, seq, qual);
    EXPECT_EQ(seq + qual, "");
}

TEST(QualityMatrix, LayoutChecksAndProduct) {
    BasecallHMM::QualityMatrix m(64);
    EXPECT_EQ(m.KmerLength(), 3);
    EXPECT_EQ(BasecallHMM::QualityMatrix(0).View().rows, 0u);
    EXPECT_EQ(ErrorOf([] { BasecallHMM::QualityMatrix(48); }),
              "Unsupported number of states: 48. State count should be a positive power of 4.");
    // One-hot TAC reduces to its digits (newest first: C, A, T); a 50/50 AAA/AAC row to the halves.
    // The padding columns 12..15 stay untouched.
    std::vector<float> post(2 * 64, 0.0f), data(2 * 16, -1.0f);
    post[state("TAC")] = 1.0f;
    post[64 + state("AAA")] = post[64 + state("AAC")] = 0.5f;
    Common::MatView<float> postView(post.data(), 2, 64, 64);
    Common::MatView<float> dataView(data.data(), 2, 12, 16);
    const std::vector<float> want = {0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1, -1, -1, -1, -1,
                                     0.5f, 0.5f, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, -1, -1, -1, -1};
    m.Apply(postView, dataView);
    EXPECT_EQ(data, want);

    const auto dataOf = [&](std::size_t rows, std::size_t cols, std::int64_t stride) {
        return Common::MatView<float>(data.data(), rows, cols, stride);
    };
    const char* size = "Size mismatch in GetQualityData() function.";
    struct { Common::MatView<float> post, data; const char* error; } bad[] = {
        {Common::MatView<float>(post.data(), 2, 32, 64, 2), dataView,
         "Posteriors must be dense and row-major for GetQualityData() function."},
        {postView, dataOf(2, 12, 8), "Data must be dense and row-major for GetQualityData() function."},
        {postView, dataOf(1, 12, 16), size}, {postView, dataOf(2, 8, 16), size},
        {postView, dataOf(2, 16, 16), size}};
    for (auto& c : bad) EXPECT_EQ(ErrorOf([&] { m.Apply(c.post, c.data); }), c.error);
}
