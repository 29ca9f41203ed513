#include "previous_run.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <stdexcept>
#include <vector>

#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include "read_annotator.h"

namespace TestBed {

namespace fs = boost::filesystem;

namespace {

// A byte range of a file and the read it belongs to.
struct Piece {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::string key;
};

// Lines with their offsets; a last line without its newline is reported as incomplete.
class LineScanner {
public:
    explicit LineScanner(const std::string& path) : in(path, std::ios::binary) {}
    bool Next(std::string& line, std::uint64_t& begin, bool& complete) {
        if (!in || !std::getline(in, line)) {
            return false;
        }
        begin = offset;
        complete = !in.eof();
        offset += line.size() + (complete ? 1 : 0);
        return true;
    }

private:
    std::ifstream in;
    std::uint64_t offset = 0;
};

std::uint64_t sizeOf(const std::string& path) {
    boost::system::error_code error;
    const auto size = fs::file_size(path, error);
    return error ? 0 : static_cast<std::uint64_t>(size);
}

// A table with a header: the header's piece (empty key) first, then one piece per complete row of
// the right width, keyed by column `key_column` (and by the columns before it, for the failed list).
std::vector<Piece> scanTable(const std::string& path, const std::string& header, std::size_t key_column,
                             bool key_with_file) {
    std::vector<Piece> pieces;
    LineScanner lines(path);
    std::string line;
    std::uint64_t begin = 0;
    bool complete = false;
    if (!lines.Next(line, begin, complete) || !complete) {
        return pieces;  // no header, or only the start of one: the file starts again
    }
    if (line + "\n" != header) {
        throw std::runtime_error("\"" + path + "\" was not written by this step (its header differs); "
                                 "choose another save path.");
    }
    pieces.push_back({0, line.size() + 1, ""});
    const std::size_t width = static_cast<std::size_t>(std::count(header.begin(), header.end(), '\t')) + 1;
    std::vector<std::string> fields;
    while (lines.Next(line, begin, complete)) {
        if (!complete) {
            break;
        }
        boost::split(fields, line, boost::is_any_of("\t"));
        if (fields.size() == width && !fields[key_column].empty()) {
            const std::string key = key_with_file ? fields[0] + "\t" + fields[key_column] : fields[key_column];
            pieces.push_back({begin, begin + line.size() + 1, key});
        }
    }
    return pieces;
}

// FASTQ records of four lines, keyed by read id. Scanning ends at the first record that is cut short
// or malformed: what follows cannot be trusted to start a record.
std::vector<Piece> scanFastq(const std::string& path) {
    std::vector<Piece> pieces;
    LineScanner lines(path);
    std::string line[4];
    while (true) {
        std::uint64_t begin = 0;
        std::uint64_t at = 0;
        bool whole = true;
        for (int i = 0; i < 4 && whole; ++i) {
            bool complete = false;
            whole = lines.Next(line[i], i == 0 ? begin : at, complete) && complete;
        }
        if (!whole || line[0].size() < 2 || line[0][0] != '@' || line[2].empty() || line[2][0] != '+' ||
            line[1].size() != line[3].size()) {
            return pieces;
        }
        const std::uint64_t end = begin + line[0].size() + line[1].size() + line[2].size() + line[3].size() + 4;
        pieces.push_back({begin, end, line[0].substr(1, line[0].find_first_of(" \t") - 1)});
    }
}

// Leaves only the `keep` ranges (in file order) in the file: a cut when they are its beginning, a
// rewrite under a temporary name and a rename otherwise. Returns how many pieces went.
std::uint64_t keepOnly(const std::string& path, const std::vector<Piece>& all, const std::vector<Piece>& keep) {
    const std::uint64_t size = sizeOf(path);
    std::uint64_t end = 0;
    bool prefix = true;
    for (const auto& piece : keep) {
        prefix = prefix && piece.begin == end;
        end = piece.end;
    }
    // A cut line or record after the last piece recognised goes as well, and counts once.
    const std::uint64_t recognised = all.empty() ? 0 : all.back().end;
    const std::uint64_t dropped = all.size() - keep.size() + (size > recognised ? 1 : 0);
    if (prefix) {
        if (end < size && ::truncate(path.c_str(), static_cast<off_t>(end)) != 0) {
            throw std::runtime_error("Could not cut the incomplete end off \"" + path + "\".");
        }
        return dropped;
    }
    const std::string temporary = path + ".repair-" + std::to_string(::getpid());
    {
        std::ifstream in(path, std::ios::binary);
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        std::vector<char> buffer;
        for (const auto& piece : keep) {
            buffer.resize(piece.end - piece.begin);
            in.seekg(static_cast<std::streamoff>(piece.begin));
            in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
            out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        }
        out.flush();
        if (!in || !out) {
            out.close();
            ::unlink(temporary.c_str());
            throw std::runtime_error("Could not rewrite \"" + path + "\" without its incomplete records.");
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        throw std::runtime_error("Could not replace \"" + path + "\" by its repaired copy.");
    }
    return dropped;
}

// The pieces whose key is in `wanted`, each key once, with the header piece (empty key).
std::vector<Piece> select(const std::vector<Piece>& pieces, const std::set<std::string>& wanted) {
    std::vector<Piece> kept;
    std::set<std::string> seen;
    for (const auto& piece : pieces) {
        if (piece.key.empty() || (wanted.count(piece.key) > 0 && seen.insert(piece.key).second)) {
            kept.push_back(piece);
        }
    }
    return kept;
}

}  // namespace

std::uint64_t CountIndexRows(const std::string& path) {
    LineScanner lines(path);
    std::string line;
    std::uint64_t begin = 0;
    bool complete = false;
    std::uint64_t rows = 0;
    while (lines.Next(line, begin, complete)) {
        rows += begin > 0 && !line.empty() ? 1 : 0;
    }
    return rows;
}

PreviousRun RepairPreviousRun(const std::string& index_path, const std::string& fastq_path,
                              const std::string& failed_path) {
    PreviousRun previous;
    const auto indexRows = scanTable(index_path, IndexHeader(), 1, false);
    const auto records = scanFastq(fastq_path);
    const auto failedLines = scanTable(failed_path, FailedReadsHeader(), 1, true);

    std::set<std::string> indexed, recorded;
    for (const auto& row : indexRows) {
        indexed.insert(row.key);
    }
    for (const auto& record : records) {
        if (indexed.count(record.key) > 0) {
            recorded.insert(record.key);
        }
    }
    std::set<std::string> failedKeys;
    for (const auto& line : failedLines) {
        failedKeys.insert(line.key);
    }

    const auto keptRows = select(indexRows, recorded);
    const auto keptRecords = select(records, recorded);
    const auto keptFailed = select(failedLines, failedKeys);
    previous.dropped += keepOnly(index_path, indexRows, keptRows);
    previous.dropped += keepOnly(fastq_path, records, keptRecords);
    previous.dropped += keepOnly(failed_path, failedLines, keptFailed);

    previous.done_reads = recorded;
    previous.annotated = recorded.size();
    for (const auto& line : keptFailed) {
        if (line.key.empty()) {
            continue;
        }
        ++previous.failed;
        const auto tab = line.key.find('\t');
        const std::string read = line.key.substr(tab + 1);
        if (read == "*") {
            previous.failed_files.insert(line.key.substr(0, tab));
        } else {
            previous.done_reads.insert(read);
        }
    }
    return previous;
}

}  // namespace TestBed
