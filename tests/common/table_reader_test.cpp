#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/table_reader.h"
#include "test_support.h"

using Common::TableReader;

namespace {

TableReader ReadText(const std::string& text) {
    std::istringstream in(text);
    TableReader table;
    table.Read(in);
    return table;
}

std::string ReadError(const std::string& text) {
    return TestSupport::ErrorOf([&] { ReadText(text); });
}

}  // namespace

TEST(TableReader, ByteOrderMarkCarriageReturnsAndEmptyCells) {
    const auto table = ReadText("\xEF\xBB\xBFname\tvalue\t\r\nalpha\t1.5\t\r\n\t\tx\r\n");
    ASSERT_EQ(table.ColumnNames(), (std::vector<std::string>{"name", "value", ""}));
    EXPECT_EQ(table.ColumnIndex(""), 2);
    EXPECT_EQ(table.ColumnIndex("missing"), -1);
    std::vector<std::string> names;
    std::vector<double> values;
    table.GetColumn(0, names, std::string("default"));
    table.GetColumn(1, values, -1.0);
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "default"}));
    EXPECT_EQ(values, (std::vector<double>{1.5, -1.0}));
}

TEST(TableReader, CellsAreReadAsFormattedStreamValues) {
    const auto table = ReadText("s\tn\tu\nfile name.rawh5\t12abc\t42\n  padded\tjunk\t\n");
    std::vector<std::string> s;
    std::vector<double> n;
    std::vector<std::uint64_t> u;
    table.GetColumn(0, s, std::string());
    table.GetColumn(1, n, 9.0);
    table.GetColumn(2, u, std::uint64_t(0));
    EXPECT_EQ(s, (std::vector<std::string>{"file", "padded"}));  // cut at white space
    EXPECT_EQ(n, (std::vector<double>{12.0, 0.0}));              // leading number; junk is zero
    EXPECT_EQ(u, (std::vector<std::uint64_t>{42, 0}));
    EXPECT_THROW(table.GetColumn(3, s, std::string()), std::runtime_error);
}

TEST(TableReader, CommentsBeforeHeaderAndRowNumbers) {
    const std::string text = "# produced by the 1D run\n#\ta\tcomment\r\na\tb\n1\t2\n# not a comment here\n";
    EXPECT_EQ(ReadError(text), "Error: Incomplete row in line 3: expecting 2 columns but got 1");
    EXPECT_EQ(ReadError("a\tb\n1\t2\t3\n"), "Error: Incomplete row in line 2: expecting 2 columns but got 3");
    // A blank line inside a table is an incomplete row, unless the table has one column.
    EXPECT_EQ(ReadError("a\tb\n1\t2\n\n3\t4\n"), "Error: Incomplete row in line 3: expecting 2 columns but got 1");
    EXPECT_EQ(ReadText("only\nx\n\ny\n").RowCount(), 3u);
}

TEST(TableReader, RepeatedHeaderKeepsLastPositionAndEmptyInputs) {
    const auto table = ReadText("id\tx\tid\n1\t2\t3\n");
    EXPECT_EQ(table.ColumnIndex("id"), 2);
    EXPECT_TRUE(ReadText("# only comments\n").ColumnNames().empty());
    // An empty line ends the search for the header: it is a header of one empty cell.
    const auto blank_header = ReadText("# c\n\nrow\n");
    EXPECT_EQ(blank_header.ColumnNames(), (std::vector<std::string>{""}));
    EXPECT_EQ(blank_header.RowCount(), 1u);
}

TEST(TableReader, MissingFileMessage) {
    EXPECT_EQ(TestSupport::ErrorOf([] { TableReader().Read("/nonexistent/index.txt"); }),
              "Error: Failed to open file \"/nonexistent/index.txt\"");
}
