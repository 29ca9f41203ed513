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
#include "common/gzip_members.h"

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
// first record that is cut or malformed: nothing after it can be trusted, and `whole_text` turns false.
std::string keptRecords(const std::string& text, const std::set<std::string>& with_row, std::uint64_t& removed,
                        bool& whole_text) {
    std::string kept;
    whole_text = true;
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
            whole_text = false;
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

// The same for a compressed file, member by member. A member whose records all stay is kept byte
// for byte; one that loses records is compressed again from the rest. Reading stops at the first
// member that is cut, damaged or does not hold whole records. Returns the bytes to keep.
std::string keptMembers(const std::string& bytes, const std::set<std::string>& with_row, std::uint64_t& removed) {
    const Common::GzipMembers members = Common::ReadGzipMembers(bytes);
    std::string kept;
    Common::GzipMemberWriter recompress;
    std::size_t from = 0;
    std::size_t text_from = 0;
    for (std::size_t i = 0; i < members.member_ends.size(); ++i) {
        const std::string text = members.text.substr(text_from, members.text_ends[i] - text_from);
        std::uint64_t lost = 0;
        bool whole = true;
        const std::string records = keptRecords(text, with_row, lost, whole);
        if (lost == 0) {
            kept.append(bytes, from, members.member_ends[i] - from);
        } else {
            removed += lost;
            if (!records.empty()) {
                kept += recompress.Member(records);
            }
        }
        if (!whole) {
            return kept;
        }
        from = members.member_ends[i];
        text_from = members.text_ends[i];
    }
    if (!members.complete) {
        ++removed;  // the cut member at the end counts as one record
    }
    return kept;
}

// The run's FASTQ files under the save path (its root and its "pass" and "fail" folders), each
// with whether it is compressed. Listed first, so that repairs never change a folder being read.
std::vector<std::pair<std::string, bool>> fastqFiles(const std::string& save_path) {
    std::vector<std::pair<std::string, bool>> files;
    for (const char* sub : {"", "pass", "fail"}) {
        const fs::path folder = fs::path(save_path) / sub;
        if (!fs::is_directory(folder)) {
            continue;
        }
        for (const fs::directory_entry& item : fs::directory_iterator(folder)) {
            std::string run_id;
            std::uint64_t number = 0;
            bool compressed = false;
            if (fs::is_regular_file(item.path()) &&
                Common::FastqWriter::ParseFileName(item.path().filename().string(), run_id, number, compressed)) {
                files.emplace_back(item.path().string(), compressed);
            }
        }
    }
    return files;
}

}  // namespace

FastqKinds FindFastqKinds(const std::string& save_path) {
    FastqKinds kinds;
    for (const auto& file : fastqFiles(save_path)) {
        (file.second ? kinds.compressed : kinds.plain) = true;
    }
    return kinds;
}

std::uint64_t CountSummaryRows(const std::string& summary_path) {
    std::ifstream in(summary_path);
    std::uint64_t lines = 0;
    for (std::string line; std::getline(in, line);) {
        ++lines;
    }
    return lines > 1 ? lines - 1 : 0;
}

ResumeReport RepairOutputs(const std::string& save_path, const std::string& summary_path,
                           const std::vector<std::string>& columns, bool compressed) {
    ResumeReport report;
    // One save path, one kind of FASTQ file: a mix would hide part of the run from whoever reads
    // only one kind. Refused before anything is changed.
    const FastqKinds kinds = FindFastqKinds(save_path);
    if (compressed ? kinds.plain : kinds.compressed) {
        throw std::runtime_error("The save path '" + save_path + "' holds " +
                                 (compressed ? "uncompressed" : "compressed") +
                                 " FASTQ files of the run to resume. Resume it " +
                                 (compressed ? "without" : "with") +
                                 " --compress_fastq, or choose another save path.");
    }
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

    for (const auto& file : fastqFiles(save_path)) {
        const std::string records = readWhole(file.first);
        std::uint64_t removed = 0;
        bool whole_text = true;
        const std::string whole = file.second ? keptMembers(records, with_record, removed)
                                              : keptRecords(records, with_record, removed, whole_text);
        if (removed != 0) {
            replaceFile(file.first, whole);
            report.records_removed += removed;
            ++report.files_repaired;
        }
    }
    return report;
}

}  // namespace AsyncCaller
