#include "decoders/mismatch_table.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <limits>
#include <string>

#include "decoders/fast_align.h"

namespace {

class MismatchTable : public ::testing::Test {
protected:
    // One file per test: ctest runs the tests of this fixture as parallel processes.
    std::string path = ::testing::TempDir() + "kvx_mismatch_table_" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt";
    void TearDown() override { std::remove(path.c_str()); }

    // A table with a leading label column and `rows` probabilities; row k holds `value(k)`.
    template <typename F>
    void write(int rows, const std::string& column, F value) {
        std::ofstream out(path);
        out << "kmer\t" << column << "\n";
        for (int k = 0; k < rows; ++k) {
            out << k << "\t" << value(k) << "\n";
        }
    }
    std::string message() {
        try {
            PairAlignment::LoadMismatchMatrix(path);
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "no error";
    }
};

TEST_F(MismatchTable, LoadsRowMajorIntegerLogs) {
    // Diagonal 0.5, off-diagonal 0.01, one empty cell at (3, 7).
    write(4096, "prob", [](int k) -> std::string {
        if (k == 64 * 3 + 7) {
            return "";
        }
        return k / 64 == k % 64 ? "0.5" : "0.01";
    });
    const PairAlignment::MismatchMatrix m = PairAlignment::LoadMismatchMatrix(path);
    ASSERT_EQ(m.values.size(), 4096u);
    const auto view = m.View();
    EXPECT_EQ(view(5, 5), -69);    // logf(0.5) * 100 = -69.3
    EXPECT_EQ(view(5, 6), -460);   // logf(0.01) * 100 = -460.5
    EXPECT_EQ(view(3, 7), std::numeric_limits<std::int32_t>::min());  // empty counts as 0
    // The matrix serves the prior aligner directly.
    PairAlignment::FastAlign aligner(view, {300, 300, 500, 300, 300, 500}, 1000);
    EXPECT_EQ(aligner.MismatchScore(63, 63), -69);
}

TEST_F(MismatchTable, RefusesWrongSizeMissingColumnAndMissingFile) {
    write(4095, "prob", [](int) { return "0.1"; });
    EXPECT_EQ(message(), "Unexpected size of mismatch data.");
    write(4097, "prob", [](int) { return "0.1"; });
    EXPECT_EQ(message(), "Unexpected size of mismatch data.");

    write(4096, "probability", [](int) { return "0.1"; });
    const std::string missing = message();
    EXPECT_NE(missing.find("has no \"prob\" column"), std::string::npos) << missing;
    EXPECT_NE(missing.find(path), std::string::npos) << missing;

    std::remove(path.c_str());
    EXPECT_EQ(message(), "Error: Failed to open file \"" + path + "\"");
}

}  // namespace
