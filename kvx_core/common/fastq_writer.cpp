#include "common/fastq_writer.h"

#include <cstdio>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "common/logger.h"

namespace fs = boost::filesystem;

namespace Common {

FastqWriter::FastqWriter(const std::string& save_path_, std::uint64_t records_per_fastq_, std::size_t workers_,
                         bool qscore_filtering_)
    : save_path(save_path_), records_per_fastq(records_per_fastq_), qscore_filtering(qscore_filtering_) {
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

std::string FastqWriter::FileName(const std::string& run_id, std::uint64_t number) {
    char digits[24];
    std::snprintf(digits, sizeof(digits), "%lu", static_cast<unsigned long>(number));
    return "fastq_runid_" + run_id + "_" + digits + ".fastq";
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
    // Plain buffered output: the stream reaches the disk when its buffer fills or the file closes.
    *entry->second.stream << record.ToString();
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
    const fs::path path = fs::path(folder) / FileName(run_id, next_number);
    if (fs::exists(path)) {
        KVX_LOG(info) << "The output file '" << path.string() << "' will be overwitten.";
    }
    // A stream that fails to open stays in its failed state and swallows what is written to it.
    entry->second.stream = std::make_unique<std::ofstream>(path.string(), std::ios::out | std::ios::trunc);
    entry->second.records = 0;
    ++next_number;
    return entry;
}

void FastqWriter::Finalize(std::size_t worker) {
    WorkerFiles& files = *workers.at(worker);
    std::lock_guard<std::mutex> lock(files.mutex);
    files.handles.clear();
    files.open = false;
}

void LoadReadIdWhitelist(const std::string& path, std::unordered_set<std::string>& ids) {
    std::ifstream in(path);
    if (!in.is_open()) {
        throw std::runtime_error("Could not load readIdWhitelist file: '" + path + "'");
    }
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        if (line.find(' ') != std::string::npos) {
            KVX_LOG(warning) << "read_id is invalid as it contains a space " << line;
            continue;
        }
        ids.insert(line);
    }
}

}  // namespace Common
