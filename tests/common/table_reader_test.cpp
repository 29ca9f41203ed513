#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
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

// "column,column,...|rows", or the error.
std::string Shape(const std::string& text) {
    std::string out;
    const std::string error = TestSupport::ErrorOf([&] {
        const TableReader table = ReadText(text);
        for (const std::string& name : table.ColumnNames()) out += (out.empty() ? "" : ",") + name;
        out += "|" + std::to_string(table.RowCount());
    });
    return error == "<no error>" ? out : error;
}

}  // namespace

TEST(TableReader, HeadersRowsAndErrors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\xEF\xBB\xBFname\tvalue\t\r\nalpha\t1.5\t\r\n\t\tx\r\n", "name,value,|2"},  // byte order mark, CR, empty cells
        // Comments only before the header.
        {"# produced by the 1D run\n#\ta\tcomment\r\na\tb\n1\t2\n# not a comment here\n",
         "Error: Incomplete row in line 3: expecting 2 columns but got 1"},
        {"a\tb\n1\t2\t3\n", "Error: Incomplete row in line 2: expecting 2 columns but got 3"},
        // A blank line inside a table is an incomplete row, unless the table has one column.
        {"a\tb\n1\t2\n\n3\t4\n", "Error: Incomplete row in line 3: expecting 2 columns but got 1"},
        {"only\nx\n\ny\n", "only|3"},
        {"# only comments\n", "|0"},
        {"# c\n\nrow\n", "|1"},  // an empty line ends the search for the header: one empty cell
    };
    for (const auto& [text, shape] : cases) EXPECT_EQ(Shape(text), shape) << text;
    EXPECT_EQ(ReadText("id\tx\tid\n1\t2\t3\n").ColumnIndex("id"), 2);  // a repeated name keeps the last
    EXPECT_EQ(ReadText("id\n").ColumnIndex("missing"), -1);
    EXPECT_EQ(TestSupport::ErrorOf([] { TableReader().Read("/nonexistent/index.txt"); }),
              "Error: Failed to open file \"/nonexistent/index.txt\"");
}

TEST(TableReader, CellsAreReadAsFormattedStreamValues) {
    const auto table = ReadText("s\tn\tu\nfile name.rawh5\t12abc\t42\n  padded\tjunk\t\n\t\t\n");
    std::vector<std::string> s;
    std::vector<double> n;
    std::vector<std::uint64_t> u;
    table.GetColumn(0, s, std::string("default"));
    table.GetColumn(1, n, 9.0);
    table.GetColumn(2, u, std::uint64_t(7));
    EXPECT_EQ(s, (std::vector<std::string>{"file", "padded", "default"}));  // cut at white space; empty is the default
    EXPECT_EQ(n, (std::vector<double>{12.0, 0.0, 9.0}));                    // leading number; junk is zero
    EXPECT_EQ(u, (std::vector<std::uint64_t>{42, 7, 7}));
    EXPECT_THROW(table.GetColumn(3, s, std::string()), std::runtime_error);
}
