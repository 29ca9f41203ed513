#include "decoders/mismatch_table.h"

#include <gtest/gtest.h>

#include <iostream>
#include <limits>
#include <sstream>
#include <string>

#include "../common/test_support.h"
#include "decoders/fast_align.h"
#include "decoders/nw_align.h"

namespace {

// A table with a leading label column and `rows` probabilities: 0.5 on the diagonal of the 64 by 64
// matrix, 0.01 elsewhere, and an empty cell at (3, 7).
std::string table(int rows, const std::string& column) {
    std::ostringstream out;
    out << "kmer\t" << column << "\n";
    for (int k = 0; k < rows; ++k)
        out << k << "\t" << (k == 64 * 3 + 7 ? "" : k / 64 == k % 64 ? "0.5" : "0.01") << "\n";
    return out.str();
}

TEST(MismatchTable, LoadsRowMajorIntegerLogsOrSaysWhatIsWrong) {
    TestSupport::TempDir dir;
    const PairAlignment::MismatchMatrix m =
        PairAlignment::LoadMismatchMatrix(dir.File("good.txt", table(4096, "prob")));
    ASSERT_EQ(m.values.size(), 4096u);
    EXPECT_EQ(m.View()(5, 5), -69);   // logf(0.5) * 100 = -69.3
    EXPECT_EQ(m.View()(5, 6), -460);  // logf(0.01) * 100 = -460.5
    EXPECT_EQ(m.View()(3, 7), std::numeric_limits<std::int32_t>::min());  // empty counts as 0
    EXPECT_EQ(m.View()(7, 3), -460);  // row-major
    // Both aligners serve the matrix; a look-up outside it is reported on the log stream and scores 0.
    PairAlignment::FastAlign fast(m.View(), {300, 300, 500, 300, 300, 500}, 1000);
    PairAlignment::NWAlign nw(m.View(), {300, 300, 500, 300, 300, 500, 100, 100});
    for (const PairAlignment::Aligner* a : {static_cast<const PairAlignment::Aligner*>(&fast),
                                            static_cast<const PairAlignment::Aligner*>(&nw)}) {
        EXPECT_EQ(a->MismatchScore(7, 3), -460);
        std::ostringstream captured;
        std::streambuf* old = std::clog.rdbuf(captured.rdbuf());
        EXPECT_EQ(a->MismatchScore(64, 0), 0);
        std::clog.rdbuf(old);
        EXPECT_EQ(captured.str(), "Trying to access mismatch matrix element (64, 0)!\n");
    }

    const auto error = [&](const std::string& text) {
        const std::string path = dir.File("bad.txt", text);
        return TestSupport::ErrorOf([&] { PairAlignment::LoadMismatchMatrix(path); });
    };
    EXPECT_EQ(error(table(4095, "prob")), "Unexpected size of mismatch data.");
    EXPECT_EQ(error(table(4097, "prob")), "Unexpected size of mismatch data.");
    const std::string missing = error(table(4096, "probability"));
    EXPECT_NE(missing.find("has no \"prob\" column"), std::string::npos) << missing;
    EXPECT_NE(missing.find(dir.Str() + "/bad.txt"), std::string::npos) << missing;
    EXPECT_EQ(TestSupport::ErrorOf([&] { PairAlignment::LoadMismatchMatrix(dir.Str() + "/none.txt"); }),
              "Error: Failed to open file \"" + dir.Str() + "/none.txt\"");
}

}  // namespace
