#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "decoders/hmm_caller.h"
#include "decoders/quality_matrix.h"
#include "decoders/sequence_builder.h"

using BasecallCommon::BuildSequence;
using BasecallCommon::QualityChar;

namespace {

template <typename F>
std::string ErrorOf(F f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

// k = 3 states from a k-mer text, first base most significant.
int state(const char* kmer) {
    int s = 0;
    for (const char* c = kmer; *c; ++c) {
        s = s * 4 + static_cast<int>(std::string("ACGT").find(*c));
    }
    return s;
}

// A quality data row for a 3-mer state in which every position gives its true base probability p and
// spreads 1 - p over the other three.
void fillRow(float* row, int s, float p) {
    for (int digit = 0; digit < 3; ++digit) {
        const int base = (s >> (2 * digit)) & 3;
        for (int b = 0; b < 4; ++b) {
            row[4 * digit + b] = b == base ? p : (1.0f - p) / 3.0f;
        }
    }
}

struct Calibration {
    float qscore_offset = 0.0f;
    float qscore_scale = 1.0f;
};

}  // namespace

TEST(QualityChar, ClampsAndRounds) {
    EXPECT_EQ(QualityChar(0.9f, 0.0f, 1.0f), '+');   // q 10
    EXPECT_EQ(QualityChar(1.0f, 0.0f, 1.0f), '{');   // infinite, clamped to 90
    EXPECT_EQ(QualityChar(0.0f, 0.0f, 1.0f), '"');   // q 0, clamped to 1
    EXPECT_EQ(QualityChar(0.99f, 0.0f, 1.0f), '5');  // q 20
    EXPECT_EQ(QualityChar(0.9f, 1.0f, 2.0f), '6');   // 10 * 2 + 1
    EXPECT_EQ(QualityChar(0.99f, 0.0f, 10.0f), '{');
}

TEST(SequenceBuilder, OneEventGivesItsKmer) {
    std::vector<float> q(12);
    fillRow(q.data(), state("GTA"), 0.9f);
    const std::vector<int> states{state("GTA")};
    const std::vector<signed char> moves{1};
    std::string seq, qual;
    BuildSequence(Calibration{}, Common::MatView<const float>(q.data(), 1, 12, 12), states, moves, seq, qual);
    EXPECT_EQ(seq, "GTA");
    EXPECT_EQ(qual, "+++");
}

TEST(SequenceBuilder, StaysStepsAndSkipsPoolQualities) {
    // ACG, stay, step to CGT, skip to TAC: "ACG" + "T" + "AC". Base 0 is seen by rows 0 and 1, bases 1
    // and 2 by rows 0, 1, 2, base 3 by rows 2 and 3, bases 4 and 5 by row 3 alone.
    const std::vector<short> states{static_cast<short>(state("ACG")), static_cast<short>(state("ACG")),
                                    static_cast<short>(state("CGT")), static_cast<short>(state("TAC"))};
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
    EXPECT_EQ(seq, "ACGTAC");
    EXPECT_EQ(qual, "6//.JJ");

    // A stay changes the counts of the bases its k-mer covers and nothing else.
    fillRow(q.data() + 12, states[1], 0.0f);
    BuildSequence(Calibration{}, data, states, moves, seq, qual);
    EXPECT_EQ(seq, "ACGTAC");
    // 0.9 / 2 -> q 2.6 and 1.4 / 3 -> q 2.7 for the first three; the rest as before.
    EXPECT_EQ(qual, "$$$'55");
}

TEST(SequenceBuilder, RefusesInconsistentInput) {
    std::vector<float> q(24, 0.25f);
    std::string seq, qual;
    EXPECT_NE(ErrorOf([&] {
                  BuildSequence(Calibration{}, Common::MatView<const float>(q.data(), 2, 12, 12),
                                std::vector<int>{0}, std::vector<signed char>{1}, seq, qual);
              }),
              "<no error>");
    EXPECT_NE(ErrorOf([&] {
                  BuildSequence(Calibration{}, Common::MatView<const float>(q.data(), 2, 12, 12),
                                std::vector<int>{0, 0}, std::vector<signed char>{1, 4}, seq, qual);
              }),
              "<no error>");
    BuildSequence(Calibration{}, Common::MatView<const float>(), std::vector<int>{}, std::vector<signed char>{},
                  seq, qual);
    EXPECT_EQ(seq, "");
    EXPECT_EQ(qual, "");
}

TEST(QualityMatrix, LayoutChecksAndProduct) {
    BasecallHMM::QualityMatrix m(64);
    EXPECT_EQ(m.KmerLength(), 3);
    const auto v = m.View();
    // State TAC: digit 0 (newest) C, digit 1 A, digit 2 T.
    const int tac = state("TAC");
    for (int c = 0; c < 12; ++c) {
        const bool one = c == 0 * 4 + 1 || c == 1 * 4 + 0 || c == 2 * 4 + 3;
        EXPECT_EQ(v(tac, c), one ? 1.0f : 0.0f) << c;
    }
    EXPECT_EQ(BasecallHMM::QualityMatrix(0).View().rows, 0u);
    EXPECT_EQ(ErrorOf([] { BasecallHMM::QualityMatrix(48); }),
              "Unsupported number of states: 48. State count should be a positive power of 4.");

    // One-hot posteriors reduce to the digits of their state; a 50/50 row to the halves.
    std::vector<float> post(2 * 64, 0.0f), data(2 * 16, -1.0f);
    post[tac] = 1.0f;
    post[64 + state("AAA")] = 0.5f;
    post[64 + state("AAC")] = 0.5f;
    Common::MatView<float> postView(post.data(), 2, 64, 64);
    Common::MatView<float> dataView(data.data(), 2, 12, 16);
    m.Apply(postView, dataView);
    EXPECT_EQ(data[1], 1.0f);
    EXPECT_EQ(data[4], 1.0f);
    EXPECT_EQ(data[11], 1.0f);
    EXPECT_EQ(data[0], 0.0f);
    EXPECT_EQ(data[16 + 0], 0.5f);  // newest base A or C
    EXPECT_EQ(data[16 + 1], 0.5f);
    EXPECT_EQ(data[16 + 4], 1.0f);  // the older two are A
    EXPECT_EQ(data[16 + 8], 1.0f);
    EXPECT_EQ(data[12], -1.0f);  // padding untouched

    // The same through the transducer object.
    BasecallHMM::Caller<64> caller;
    std::fill(data.begin(), data.end(), -1.0f);
    caller.GetQualityData(postView, dataView);
    EXPECT_EQ(data[11], 1.0f);

    Common::MatView<float> strided(post.data(), 2, 32, 64, 2);
    EXPECT_EQ(ErrorOf([&] { m.Apply(strided, dataView); }),
              "Posteriors must be dense and row-major for GetQualityData() function.");
    Common::MatView<float> overlapping(data.data(), 2, 12, 8);
    EXPECT_EQ(ErrorOf([&] { m.Apply(postView, overlapping); }),
              "Data must be dense and row-major for GetQualityData() function.");
    Common::MatView<float> short_(data.data(), 1, 12, 16);
    EXPECT_EQ(ErrorOf([&] { m.Apply(postView, short_); }), "Size mismatch in GetQualityData() function.");
    Common::MatView<float> narrow(data.data(), 2, 8, 16);
    EXPECT_EQ(ErrorOf([&] { m.Apply(postView, narrow); }), "Size mismatch in GetQualityData() function.");
}
