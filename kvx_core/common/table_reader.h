#pragma once
// A whole tab-separated text table in memory, column by column. Comment lines ("#") may precede the
// header; after it every line must have as many cells as the header, and row numbers in errors count
// the header as line 1.

#include <cstdint>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Common {

class TableReader {
public:
    // Reads the file; throws std::runtime_error if it cannot be opened or a row is incomplete.
    void Read(const std::string& path);
    // Same, from an open stream.
    void Read(std::istream& input);

    // Column position of a header name, or -1. A repeated name keeps its last position.
    int ColumnIndex(const std::string& name) const;

    // One value per row. An empty cell takes `default_value`; any other cell goes through a formatted
    // stream read, so a string stops at the first white space and a number that does not parse is 0.
    template <typename T>
    void GetColumn(int index, std::vector<T>& out, const T& default_value) const;

    const std::vector<std::string>& ColumnNames() const { return column_names; }
    std::size_t RowCount() const { return columns.empty() ? 0 : columns.front().size(); }

private:
    std::vector<std::string> column_names;
    std::vector<std::vector<std::string>> columns;
    std::map<std::string, std::int32_t> column_index;
};

template <typename T>
void TableReader::GetColumn(int index, std::vector<T>& out, const T& default_value) const {
    if (index < 0 || static_cast<std::size_t>(index) >= columns.size()) {
        throw std::runtime_error("Error: Table has no column " + std::to_string(index));
    }
    const auto& cells = columns[static_cast<std::size_t>(index)];
    out.clear();
    out.reserve(cells.size());
    for (const auto& cell : cells) {
        if (cell.empty()) {
            out.push_back(default_value);
            continue;
        }
        T value{};
        std::istringstream stream(cell);
        stream >> value;
        out.push_back(value);
    }
}

}  // namespace Common
