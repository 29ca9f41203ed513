#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "call_evaluator.h"

using namespace TestBed;

namespace {
// No base repeats its neighbour, so every error below has exactly one best place in the alignment.
const std::string kTruth = "ACGTAGCTGATCGATGCATCAGTC";

std::string reverseComplement(const std::string& s) {
    static const std::map<char, char> pairs{{'A', 'T'}, {'C', 'G'}, {'G', 'C'}, {'T', 'A'}};
    std::string rc;
    for (auto it = s.rbegin(); it != s.rend(); ++it) {
        rc += pairs.at(*it);
    }
    return rc;
}
}  // namespace

// Each call's errors must land on the call bases named here (index in the call as written -> charge),
// and, through a quality string that gives base i the printed value i + 1, in the matching bins.
TEST(BaseCharges, ErrorsLandOnTheirCallBasesAndQualityBins) {
    const std::string sub = kTruth.substr(0, 7) + "A" + kTruth.substr(8);               // T -> A at 7
    const std::string ins = kTruth.substr(0, 6) + "T" + kTruth.substr(6);               // T before 6
    const std::string del = kTruth.substr(0, 10) + kTruth.substr(11);                   // T at 10 lost
    const std::string two = kTruth.substr(0, 3) + "A" + kTruth.substr(3, 14) + kTruth.substr(18);
    struct Case {
        const char* name;
        std::string call;
        std::map<std::size_t, double> charges;
        bool reverse;
    };
    const std::vector<Case> cases = {
        {"exact", kTruth, {}, false},
        {"substitution", sub, {{7, 1.0}}, false},
        {"insertion", ins, {{6, 1.0}}, false},
        {"deletion split between neighbours", del, {{9, 0.5}, {10, 0.5}}, false},
        {"insertion and deletion", two, {{3, 1.0}, {17, 0.5}, {18, 0.5}}, false},
        {"call trimmed at both ends", kTruth.substr(4, 15), {}, false},
        // The reverse complement aligns; charges still index the call as it was written.
        {"reverse-complement substitution", reverseComplement(sub), {{kTruth.size() - 1 - 7, 1.0}}, true},
        {"reverse-complement deletion", reverseComplement(del),
         {{del.size() - 1 - 10, 0.5}, {del.size() - 1 - 9, 0.5}}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const BaseCharges got = ChargeBases(c.call, kTruth);
        EXPECT_EQ(got.reverse, c.reverse);
        std::vector<double> expected(c.call.size(), 0.0);
        for (const auto& [index, charge] : c.charges) {
            expected.at(index) = charge;
        }
        EXPECT_EQ(got.charges, expected);
        const auto& n = got.counts;
        EXPECT_DOUBLE_EQ(std::accumulate(expected.begin(), expected.end(), 0.0),
                         static_cast<double>(n.mismatches + n.insertions + n.deletions));

        std::string quality;
        for (std::size_t i = 0; i < c.call.size(); ++i) {
            quality += static_cast<char>(33 + 1 + i);
        }
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
}

TEST(BaseCharges, PhredOfErrorsCapsAt60) {
    EXPECT_DOUBLE_EQ(PhredOf(1, 10), 10.0);
    EXPECT_DOUBLE_EQ(PhredOf(1, 1000), 30.0);
    EXPECT_DOUBLE_EQ(PhredOf(0, 1000), 60.0);
    EXPECT_DOUBLE_EQ(PhredOf(1, 1e9), 60.0);
    EXPECT_DOUBLE_EQ(PhredOf(0, 0), 60.0);
}
