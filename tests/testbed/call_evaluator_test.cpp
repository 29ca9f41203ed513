#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>

#include "call_evaluator.h"

using namespace TestBed;

TEST(CallEvaluator, CountsColumnsOfHandMadeAlignments) {
    const std::string truth = "ACGTTGCAAGGCTTACGATC";
    // Identical.
    auto same = AlignToTruth(truth, truth);
    EXPECT_EQ(same.matches, truth.size());
    EXPECT_DOUBLE_EQ(same.Identity(), 1.0);

    // One substitution in 20 bases.
    std::string sub = truth;
    sub[7] = 'T';
    auto s = AlignToTruth(sub, truth);
    EXPECT_EQ(s.mismatches, 1u);
    EXPECT_EQ(s.matches, 19u);
    EXPECT_DOUBLE_EQ(s.Identity(), 19.0 / 20.0);

    // One base deleted and one inserted: 19 matches over 21 columns.
    std::string indel = truth.substr(0, 5) + truth.substr(6);
    indel.insert(12, "A");
    auto d = AlignToTruth(indel, truth);
    EXPECT_EQ(d.matches + d.mismatches + d.insertions + d.deletions, d.matches + 2u);
    EXPECT_NEAR(d.Identity(), 19.0 / 21.0, 1e-12);

    // A call trimmed at both ends is not charged for the missing ends.
    auto trimmed = AlignToTruth(truth.substr(3, 12), truth);
    EXPECT_DOUBLE_EQ(trimmed.Identity(), 1.0);

    // The reverse complement of the truth, and U for T, count as a perfect call.
    auto rc = AlignToTruth("GATCGTAAGCCTTGCAACGT", truth);
    EXPECT_DOUBLE_EQ(rc.Identity(), 1.0);
    auto rna = AlignToTruth("ACGUUGCAAGGCUUACGAUC", truth);
    EXPECT_DOUBLE_EQ(rna.Identity(), 1.0);

    EXPECT_DOUBLE_EQ(AlignToTruth("", truth).Identity(), 0.0);
}

TEST(CallEvaluator, SummaryQuantilesAndQscore) {
    auto s = Summarise("x", {0.9, 0.8, 1.0, 0.7, 0.95});
    EXPECT_EQ(s.count, 5u);
    EXPECT_DOUBLE_EQ(s.median, 0.9);
    EXPECT_NEAR(s.mean, 0.87, 1e-12);
    EXPECT_NEAR(s.p10, 0.74, 1e-12);  // 0.7 + 0.4 * (0.8 - 0.7)
    EXPECT_NEAR(s.median_qscore, 10.0, 1e-9);
    EXPECT_DOUBLE_EQ(Summarise("perfect", {1.0}).median_qscore, 60.0);
    EXPECT_EQ(Summarise("empty", {}).count, 0u);

    const std::string json = FormatJson({s});
    EXPECT_NE(json.find("\"median_identity\": 0.9"), std::string::npos) << json;
    EXPECT_NE(FormatTable({s}).find("90.00%"), std::string::npos);
}

TEST(CallEvaluator, ReadsFastaAndFastq) {
    const std::string path = testing::TempDir() + "/eval_reads.txt";
    {
        std::ofstream out(path);
        out << ">r1 extra words\nACGT\nTTGG\n>r2\nCC\n";
    }
    auto fasta = ReadSequences(path);
    ASSERT_EQ(fasta.size(), 2u);
    EXPECT_EQ(fasta[0].id, "r1");
    EXPECT_EQ(fasta[0].sequence, "ACGTTTGG");
    {
        std::ofstream out(path);
        out << "@q1 runid=abc\r\nACGU\r\n+\r\n!!!!\r\n@q2\nAC\n";
    }
    EXPECT_THROW(ReadSequences(path), std::runtime_error);  // q2 is cut short
    std::remove(path.c_str());
}
