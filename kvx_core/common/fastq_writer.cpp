#include "common/fastq_writer.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "common/logger.h"

namespace fs = boost::filesystem;

namespace Common {

namespace {

// Lines of a FASTQ file, compressed or not.
std::uint64_t countLines(const std::string& path, bool compressed) {
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (compressed) {
        bytes = ReadGzipMembers(bytes).text;
    }
    return static_cast<std::uint64_t>(std::count(bytes.begin(), bytes.end(), '\n'));
}

}  // namespace

FastqWriter::FastqWriter(const std::string& save_path_, std::uint64_t records_per_fastq_, std::size_t workers_,
                         bool qscore_filtering_, bool compress_)
    : save_path(save_path_),
      records_per_fastq(records_per_fastq_),
      qscore_filtering(qscore_filtering_),
      compress(compress_) {
    workers.reserve(workers_);
    for (std::size_t i = 0; i < workers_; ++i) {
        workers.push_back(std::make_unique<WorkerFiles>());
    }
}

FastqWriter::~FastqWriter() {
    for (std::size_t i = 0; i < workers.size(); ++i) {
        Finalize(i);
    }
}

std::string FastqWriter::Key(bool passes, bool calibration) const {
    char text[24];
    std::snprintf(text, sizeof(text), "%d%d", (qscore_filtering && passes) ? 1 : 0, calibration ? 1 : 0);
    return text;
}

std::string FastqWriter::Folder(bool passes, bool calibration) const {
    fs::path folder(save_path);
    if (calibration) {
        folder /= "calibration_strands";
    } else if (qscore_filtering) {
        folder /= passes ? "pass" : "fail";
    }
    if (!folder.empty() && !fs::exists(folder)) {
        fs::create_directories(folder);
    }
    return folder.string();
}

std::string FastqWriter::FileName(const std::string& run_id, std::uint64_t number, bool compressed) {
    char digits[24];
    std::snprintf(digits, sizeof(digits), "%lu", static_cast<unsigned long>(number));
    return "fastq_runid_" + run_id + "_" + digits + (compressed ? ".fastq.gz" : ".fastq");
}

void FastqWriter::Write(std::size_t worker, const FastQRecord& record, const std::string& run_id,
                        const std::string& key, const std::string& folder) {
    WorkerFiles& files = *workers.at(worker);
    std::lock_guard<std::mutex> lock(files.mutex);
    if (!files.open) {
        throw std::runtime_error("Attempted to write record after finalizing the writer.");
    }
    auto entry = files.handles.find(FileKey(key, run_id));
    if (entry == files.handles.end() || (records_per_fastq != 0 && entry->second.records >= records_per_fastq)) {
        entry = startNewFile(files, run_id, key, entry, folder);
    }
    // Written through, record by record, rather than left in the stream's buffer: a run that is
    // stopped or killed keeps every record it finished, and the summary row that follows can be
    // trusted to mean a complete record. One write per called pair costs nothing next to the call.
    // Compressed, the record is a gzip member of its own for the same reason.
    Handle& handle = entry->second;
    if (handle.gzip) {
        const std::string& member = handle.gzip->Member(record.ToString());
        handle.stream->write(member.data(), static_cast<std::streamsize>(member.size()));
    } else {
        *handle.stream << record.ToString();
    }
    handle.stream->flush();
    ++entry->second.records;
}

FastqWriter::HandleMap::iterator FastqWriter::startNewFile(WorkerFiles& files, const std::string& run_id,
                                                          const std::string& key, HandleMap::iterator entry,
                                                          const std::string& folder) {
    const FileKey file_key(key, run_id);
    std::lock_guard<std::mutex> lock(counts_mutex);
    std::uint64_t& next_number = file_counts[file_key];
    if (entry == files.handles.end()) {
        entry = files.handles.emplace(file_key, Handle()).first;
    } else {
        entry->second.stream.reset();  // closes the full file
    }
    if (compress && !entry->second.gzip) {
        entry->second.gzip = std::make_unique<GzipMemberWriter>();  // kept for the worker's next files
    }
    // A resumed run first fills up the last file an earlier run left for this key and run id, once.
    const auto last = continued.find(file_key);
    if (last != continued.end()) {
        const fs::path path = fs::path(folder) / FileName(run_id, last->second.number, compress);
        entry->second.stream =
            std::make_unique<std::ofstream>(path.string(), std::ios::out | std::ios::app | std::ios::binary);
        entry->second.records = last->second.records;
        continued.erase(last);
        return entry;
    }
    const fs::path path = fs::path(folder) / FileName(run_id, next_number, compress);
    if (fs::exists(path)) {
        KVX_LOG(info) << "The output file '" << path.string() << "' will be overwitten.";
    }
    // A stream that fails to open stays in its failed state and swallows what is written to it.
    entry->second.stream =
        std::make_unique<std::ofstream>(path.string(), std::ios::out | std::ios::trunc | std::ios::binary);
    entry->second.records = 0;
    ++next_number;
    return entry;
}

void FastqWriter::ContinueExisting() {
    std::lock_guard<std::mutex> lock(counts_mutex);
    for (const bool passes : {true, false}) {
        const std::string key = Key(passes, false);
        fs::path folder(save_path);
        if (qscore_filtering) {
            folder /= passes ? "pass" : "fail";
        }
        if (!fs::is_directory(folder)) {
            continue;
        }
        // The highest number of each run id; only that file can have room left.
        std::map<std::string, std::pair<std::uint64_t, fs::path>> highest;
        for (const fs::directory_entry& item : fs::directory_iterator(folder)) {
            std::string run_id;
            std::uint64_t number = 0;
            bool compressed = false;
            if (!ParseFileName(item.path().filename().string(), run_id, number, compressed) ||
                compressed != compress) {
                continue;
            }
            const auto known = highest.find(run_id);
            if (known == highest.end() || known->second.first < number) {
                highest[run_id] = {number, item.path()};
            }
        }
        for (const auto& last : highest) {
            const FileKey file_key(key, last.first);
            std::uint64_t& next_number = file_counts[file_key];
            const std::uint64_t number = last.second.first;
            if (number + 1 <= next_number) {
                continue;
            }
            next_number = number + 1;
            // Files hold whole records only once a resumed run has repaired them: four lines each.
            const std::uint64_t records = countLines(last.second.second.string(), compress) / 4;
            if (records_per_fastq == 0 || records < records_per_fastq) {
                continued[file_key] = {number, records};
            } else {
                continued.erase(file_key);
            }
        }
    }
}

bool FastqWriter::ParseFileName(const std::string& name, std::string& run_id, std::uint64_t& number,
                                bool& compressed) {
    static const std::string prefix = "fastq_runid_";
    static const std::string gz = ".gz";
    compressed = name.size() > gz.size() && name.compare(name.size() - gz.size(), gz.size(), gz) == 0;
    const std::string suffix = compressed ? ".fastq.gz" : ".fastq";
    if (name.size() <= prefix.size() + suffix.size() || name.compare(0, prefix.size(), prefix) != 0 ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return false;
    }
    const std::string middle = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
    const std::size_t cut = middle.rfind('_');
    if (cut == std::string::npos || cut + 1 == middle.size() ||
        middle.find_first_not_of("0123456789", cut + 1) != std::string::npos || middle.size() - cut > 20) {
        return false;
    }
    run_id = middle.substr(0, cut);
    number = std::stoull(middle.substr(cut + 1));
    return true;
}

void FastqWriter::Finalize(std::size_t worker) {
    WorkerFiles& files = *workers.at(worker);
    std::lock_guard<std::mutex> lock(files.mutex);
    files.handles.clear();
    files.open = false;
}

}  // namespace Common
