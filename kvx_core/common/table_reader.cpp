#include "common/table_reader.h"

#include <fstream>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace Common {

namespace {

// Index files come from other tools and other systems: drop a Windows line end, and the UTF-8 byte
// order mark some editors put at the start of the file.
void cleanLine(std::string& line) {
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (line.size() > 2 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        line.erase(0, 3);
    }
}

std::vector<std::string> splitTabs(const std::string& line) {
    std::vector<std::string> cells;
    boost::split(cells, line, boost::is_any_of("\t"), boost::token_compress_off);
    return cells;
}

}  // namespace

void TableReader::Read(const std::string& path) {
    std::ifstream input(path);
    if (!input.is_open()) {
        throw std::runtime_error("Error: Failed to open file \"" + path + "\"");
    }
    Read(input);
}

void TableReader::Read(std::istream& input) {
    column_names.clear();
    columns.clear();
    column_index.clear();

    std::string line;
    bool have_header = false;
    while (std::getline(input, line)) {
        cleanLine(line);
        if (line.empty() || line[0] != '#') {
            have_header = true;
            break;
        }
    }
    if (!have_header) {
        return;
    }

    column_names = splitTabs(line);
    columns.resize(column_names.size());
    for (std::size_t i = 0; i < column_names.size(); ++i) {
        column_index[column_names[i]] = static_cast<std::int32_t>(i);
    }

    // The header is line 1 whatever comments came before it.
    std::size_t line_number = 1;
    while (std::getline(input, line)) {
        ++line_number;
        cleanLine(line);
        const auto cells = splitTabs(line);
        if (cells.size() != columns.size()) {
            throw std::runtime_error("Error: Incomplete row in line " + std::to_string(line_number) +
                                     ": expecting " + std::to_string(columns.size()) + " columns but got " +
                                     std::to_string(cells.size()));
        }
        for (std::size_t i = 0; i < cells.size(); ++i) {
            columns[i].push_back(cells[i]);
        }
    }
}

int TableReader::ColumnIndex(const std::string& name) const {
    const auto it = column_index.find(name);
    return it == column_index.end() ? -1 : it->second;
}

}  // namespace Common
