#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <numeric>
#include <utility>
#include <string>
#include <vector>

#include "../common/test_support.h"
#include "call_evaluator.h"
#include "read_simulator.h"

using namespace TestBed;

namespace {
// No base repeats its neighbour, so every error below has exactly one best place in the alignment.
const std::string kTruth = "ACGTAGCTGATCGATGCATCAGTC";
const auto reverseComplement = ReadSimulator::ReverseComplement;
}  // namespace

// Each call's errors land on the call bases named (index as written -> charge) and give the identity of
// `matches`; with printed quality i + 1 at base i, the charges land in the matching bins.
TEST(CallEvaluator, ErrorsLandOnTheirCallBasesAndQualityBins) {
    const std::string sub = kTruth.substr(0, 7) + "A" + kTruth.substr(8);               // T -> A at 7
    const std::string ins = kTruth.substr(0, 6) + "T" + kTruth.substr(6);               // T before 6
    const std::string del = kTruth.substr(0, 10) + kTruth.substr(11);                   // T at 10 lost
    const std::string two = kTruth.substr(0, 3) + "A" + kTruth.substr(3, 14) + kTruth.substr(18);
    std::string rna = kTruth;
    std::replace(rna.begin(), rna.end(), 'T', 'U');
    const struct {
        const char* name;
        std::string call;
        std::map<std::size_t, double> charges;
        bool reverse;
        double matches;
    } cases[] = {
        {"exact", kTruth, {}, false, 24},
        {"U read as T", rna, {}, false, 24},
        {"substitution", sub, {{7, 1.0}}, false, 23},
        {"insertion", ins, {{6, 1.0}}, false, 24},
        {"deletion split between neighbours", del, {{9, 0.5}, {10, 0.5}}, false, 23},
        {"insertion and deletion", two, {{3, 1.0}, {17, 0.5}, {18, 0.5}}, false, 23},
        {"call trimmed at both ends", kTruth.substr(4, 15), {}, false, 15},
        // The reverse complement aligns; charges still index the call as it was written.
        {"reverse-complement substitution", reverseComplement(sub), {{kTruth.size() - 1 - 7, 1.0}}, true, 23},
        {"reverse-complement deletion", reverseComplement(del),
         {{del.size() - 1 - 10, 0.5}, {del.size() - 1 - 9, 0.5}}, true, 23},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const BaseCharges got = ChargeBases(c.call, kTruth);
        EXPECT_EQ(got.reverse, c.reverse);
        std::vector<double> expected(c.call.size(), 0.0);
        for (const auto& [index, charge] : c.charges) expected.at(index) = charge;
        EXPECT_EQ(got.charges, expected);
        const double errors = std::accumulate(expected.begin(), expected.end(), 0.0);
        const auto& n = got.counts;
        EXPECT_DOUBLE_EQ(errors, static_cast<double>(n.mismatches + n.insertions + n.deletions));
        EXPECT_DOUBLE_EQ(AlignToTruth(c.call, kTruth).Identity(), c.matches / (c.matches + errors));

        std::string quality;
        for (std::size_t i = 0; i < c.call.size(); ++i) quality += static_cast<char>(33 + 1 + i);
        QualityBins bins;
        ASSERT_TRUE(bins.Add(quality, got.charges));
        ASSERT_EQ(bins.bases.size(), c.call.size() + 1);
        EXPECT_EQ(bins.bases[0], 0u);
        for (std::size_t i = 0; i < c.call.size(); ++i) {
            EXPECT_EQ(bins.bases[i + 1], 1u);
            EXPECT_EQ(bins.errors[i + 1], expected[i]) << "printed Q " << i + 1;
        }
        EXPECT_FALSE(bins.Add(quality + "!", got.charges));  // lengths differ: nothing added
        EXPECT_EQ(bins.bases[1], 1u);
    }
    EXPECT_DOUBLE_EQ(AlignToTruth("", kTruth).Identity(), 0.0);
}

TEST(CallEvaluator, SummaryQscoresAndReaders) {
    const double phred[][3] = {{1, 10, 10}, {1, 1000, 30}, {0, 1000, 60}, {1, 1e9, 60}, {0, 0, 60}};
    for (const auto& p : phred) EXPECT_DOUBLE_EQ(PhredOf(p[0], p[1]), p[2]) << p[0] << " in " << p[1];
    auto s = Summarise("x", {0.9, 0.8, 1.0, 0.7, 0.95});
    EXPECT_EQ(s.count, 5u);
    // p10 is 0.7 + 0.4 * (0.8 - 0.7); the median's error of 0.1 is Q 10.
    const std::vector<std::pair<double, double>> values{{s.median, 0.9}, {s.mean, 0.87}, {s.p10, 0.74},
                                                        {s.median_qscore, 10.0}};
    for (const auto& [got, want] : values) EXPECT_NEAR(got, want, 1e-9) << want;
    EXPECT_DOUBLE_EQ(Summarise("perfect", {1.0}).median_qscore, 60.0);
    EXPECT_EQ(Summarise("empty", {}).count, 0u);
    EXPECT_NE(FormatJson({s}).find("\"median_identity\": 0.9"), std::string::npos);
    EXPECT_NE(FormatTable({s}).find("90.00%"), std::string::npos);

    const TestSupport::TempDir dir;
    auto fasta = ReadSequences(dir.File("r.fa", ">r1 extra words\nACGT\nTTGG\n>r2\nCC\n"));
    ASSERT_EQ(fasta.size(), 2u);
    EXPECT_EQ(fasta[0].id + " " + fasta[0].sequence, "r1 ACGTTTGG");
    // q2 is cut short.
    EXPECT_THROW(ReadSequences(dir.File("r.fq", "@q1 runid=abc\r\nACGU\r\n+\r\n!!!!\r\n@q2\nAC\n")), std::runtime_error);
}
