#include "async_caller/output_resume.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "common/fastq_writer.h"

namespace fs = boost::filesystem;

namespace AsyncCaller {

namespace {

std::string readWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Replaces the file by `text` through a temporary beside it, so that a stop during the repair
// leaves either the old file or the new one, never a mix.
void replaceFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".repair";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        out.flush();
        if (!out) {
            throw std::runtime_error("Could not write '" + temporary + "' while repairing the outputs of the run.");
        }
    }
    fs::rename(temporary, path);
}

std::vector<std::string> splitTabs(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t from = 0;
    while (true) {
        const std::size_t tab = line.find('\t', from);
        fields.push_back(line.substr(from, tab == std::string::npos ? std::string::npos : tab - from));
        if (tab == std::string::npos) {
            return fields;
        }
        from = tab + 1;
    }
}

// Keeps the whole records of a FASTQ text whose read id has a summary row. Reading stops at the
// first record that is cut or malformed: nothing after it can be trusted.
std::string keptRecords(const std::string& text, const std::set<std::string>& with_row, std::uint64_t& removed) {
    std::string kept;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t ends[4];
        std::size_t from = at;
        bool whole = true;
        for (std::size_t& end : ends) {
            end = text.find('\n', from);
            if (end == std::string::npos) {
                whole = false;
                break;
            }
            from = end + 1;
        }
        if (!whole || text[at] != '@' || text[ends[1] + 1] != '+' ||
            ends[1] - ends[0] != ends[3] - ends[2]) {
            ++removed;  // the cut or damaged tail counts as one record
            break;
        }
        const std::string header = text.substr(at + 1, ends[0] - at - 1);
        const std::string read_id = header.substr(0, header.find(' '));
        if (with_row.count(read_id) != 0) {
            kept.append(text, at, from - at);
        } else {
            ++removed;
        }
        at = from;
    }
    return kept;
}

}  // namespace

std::uint64_t CountSummaryRows(const std::string& summary_path) {
    std::ifstream in(summary_path);
    std::uint64_t lines = 0;
    for (std::string line; std::getline(in, line);) {
        ++lines;
    }
    return lines > 1 ? lines - 1 : 0;
}

ResumeReport RepairOutputs(const std::string& save_path, const std::string& summary_path,
                           const std::vector<std::string>& columns) {
    ResumeReport report;
    if (!fs::exists(summary_path)) {
        return report;
    }
    const std::string text = readWhole(summary_path);
    std::string header;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        header += columns[i] + (i + 1 < columns.size() ? "\t" : "\n");
    }
    if (text.size() < header.size() && header.compare(0, text.size(), text) == 0) {
        // Stopped while the header was written: no pair had finished yet.
        replaceFile(summary_path, std::string());
        return report;
    }
    if (text.compare(0, header.size(), header) != 0) {
        throw std::runtime_error("The summary file '" + summary_path +
                                 "' does not have the columns this program writes, so its run cannot be resumed. "
                                 "Choose another save path.");
    }
    const auto id1 = static_cast<std::size_t>(std::find(columns.begin(), columns.end(), "read_id1") - columns.begin());
    const auto id2 = static_cast<std::size_t>(std::find(columns.begin(), columns.end(), "read_id2") - columns.begin());
    const auto length =
        static_cast<std::size_t>(std::find(columns.begin(), columns.end(), "sequence_length") - columns.begin());
    std::string kept = header;
    std::set<std::string> with_record;  // read_id1 of rows whose pair has a sequence
    std::size_t at = header.size();
    while (at < text.size()) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos) {
            ++report.rows_removed;  // cut while it was written
            break;
        }
        const std::string line = text.substr(at, end - at);
        const std::vector<std::string> fields = splitTabs(line);
        if (fields.size() != columns.size() || id1 >= fields.size() || id2 >= fields.size()) {
            ++report.rows_removed;
        } else {
            report.done.emplace(fields[id1], fields[id2]);
            if (length >= fields.size() || fields[length] != "0") {
                with_record.insert(fields[id1]);
            }
            kept.append(text, at, end + 1 - at);
        }
        at = end + 1;
    }
    if (report.rows_removed != 0) {
        replaceFile(summary_path, kept);
    }

    for (const char* sub : {"", "pass", "fail"}) {
        const fs::path folder = fs::path(save_path) / sub;
        if (!fs::is_directory(folder)) {
            continue;
        }
        for (const fs::directory_entry& item : fs::directory_iterator(folder)) {
            std::string run_id;
            std::uint64_t number = 0;
            if (!fs::is_regular_file(item.path()) ||
                !Common::FastqWriter::ParseFileName(item.path().filename().string(), run_id, number)) {
                continue;
            }
            const std::string path = item.path().string();
            const std::string records = readWhole(path);
            std::uint64_t removed = 0;
            const std::string whole = keptRecords(records, with_record, removed);
            if (removed != 0) {
                replaceFile(path, whole);
                report.records_removed += removed;
                ++report.files_repaired;
            }
        }
    }
    return report;
}

}  // namespace AsyncCaller
