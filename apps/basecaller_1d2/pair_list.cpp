#include "pair_list.h"

#include <algorithm>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "common/logger.h"
#include "common/table_reader.h"
#include "telemetry/telemetry_aggregator.h"

namespace fs = boost::filesystem;

namespace Marlo {

namespace {

template <typename Iterator>
void collectReadFiles(Iterator it, std::map<std::string, std::string>& files) {
    for (Iterator end; it != end; ++it) {
        const fs::path& path = it->path();
        if (fs::is_regular_file(it->status()) && path.extension() == ".rawh5") {
            files[path.filename().string()] = path.parent_path().string();
        }
    }
}

int requiredColumn(const Common::TableReader& table, const std::string& name, const std::string& index_file) {
    const int index = table.ColumnIndex(name);
    if (index < 0) {
        throw std::runtime_error("Required column \"" + name + "\" not found in 1d2 index file: " + index_file);
    }
    return index;
}

}  // namespace

void ListReadFiles(const std::string& dir, bool recursive, std::map<std::string, std::string>& files) {
    if (recursive) {
        collectReadFiles(fs::recursive_directory_iterator(dir), files);
    } else {
        collectReadFiles(fs::directory_iterator(dir), files);
    }
}

std::vector<AsyncCaller::ReadPair> PairGroups(std::map<std::string, std::vector<IndexRecord>>& groups,
                                              const PairCandidateObserver& observer) {
    std::vector<AsyncCaller::ReadPair> pairs;
    for (auto& group : groups) {
        auto& reads = group.second;
        std::sort(reads.begin(), reads.end(),
                  [](const IndexRecord& a, const IndexRecord& b) { return a.start_time < b.start_time; });
        for (std::size_t i = 0; i + 1 < reads.size();) {
            const IndexRecord& first = reads[i];
            const IndexRecord& second = reads[i + 1];
            const double gap = second.start_time - first.end_time;
            const double longer = static_cast<double>(std::max(first.sequence_length, second.sequence_length));
            const double shorter = static_cast<double>(std::min(first.sequence_length, second.sequence_length));
            // Two empty reads give 0/0: not-a-number fails the comparison below, so they never pair.
            const double ratio = (longer - shorter) / longer;
            if (observer) {
                observer({first.end_time,
                          static_cast<float>(first.sequence_length) / static_cast<float>(second.sequence_length),
                          gap, first.run_id});
            }
            if (gap < kMaxPairGap && ratio < kMaxPairLengthRatio) {
                pairs.push_back({first.path, second.path, first.read_id, second.read_id});
                // The later read is used up, but its candidacy with the next read still counts.
                if (observer && i + 2 < reads.size()) {
                    const IndexRecord& third = reads[i + 2];
                    observer({second.end_time,
                              static_cast<float>(second.sequence_length) / static_cast<float>(third.sequence_length),
                              third.start_time - second.end_time, second.run_id});
                }
                i += 2;
            } else {
                i += 1;
            }
        }
    }
    return pairs;
}

std::vector<AsyncCaller::ReadPair> FindReadPairs(const std::string& index_file, const std::string& input_path,
                                                 bool recursive, const PairCandidateObserver& observer) {
    std::map<std::string, std::string> files;
    ListReadFiles(input_path, recursive, files);

    Common::TableReader table;
    table.Read(index_file);
    const int read_id_col = requiredColumn(table, "read_id", index_file);
    const int run_id_col = requiredColumn(table, "run_id", index_file);
    const int channel_col = requiredColumn(table, "channel", index_file);
    const int start_time_col = requiredColumn(table, "start_time", index_file);
    const int duration_col = requiredColumn(table, "duration", index_file);
    const int length_col = requiredColumn(table, "sequence_length_template", index_file);
    int filename_col = table.ColumnIndex("filename");
    if (filename_col < 0) {
        filename_col = table.ColumnIndex("filename_rawh5");
    }
    if (filename_col < 0) {
        throw std::runtime_error(
            "Required column \"filename\" or \"filename_rawh5\" not found in 1d2 index file: " + index_file);
    }

    std::vector<std::string> filenames, read_ids, run_ids, channels;
    std::vector<double> start_times, durations;
    std::vector<std::uint64_t> lengths;
    table.GetColumn(filename_col, filenames, std::string());
    table.GetColumn(read_id_col, read_ids, std::string());
    table.GetColumn(run_id_col, run_ids, std::string());
    table.GetColumn(channel_col, channels, std::string());
    table.GetColumn(start_time_col, start_times, 0.0);
    table.GetColumn(duration_col, durations, 0.0);
    table.GetColumn(length_col, lengths, std::uint64_t(0));

    std::map<std::string, std::vector<IndexRecord>> groups;
    for (std::size_t row = 0; row < filenames.size(); ++row) {
        const auto file = files.find(filenames[row]);
        if (file == files.end()) {
            continue;
        }
        IndexRecord record;
        record.path = (fs::path(file->second) / filenames[row]).string();
        record.read_id = read_ids[row];
        record.run_id = run_ids[row];
        record.channel = channels[row];
        record.group_key = record.run_id + "_" + record.channel;
        record.start_time = start_times[row];
        record.end_time = start_times[row] + durations[row];
        record.sequence_length = lengths[row];
        groups[record.group_key].push_back(std::move(record));
    }

    auto pairs = PairGroups(groups, observer);
    KVX_LOG(message) << "Found " << pairs.size() << " read pairs to process.";
    return pairs;
}

std::vector<AsyncCaller::ReadPair> GetFileList(const std::string& index_file, const std::string& input_path,
                                               bool recursive, TelemetryAggregator* telemetry) {
    PairCandidateObserver observer;
    if (telemetry != nullptr) {
        observer = [telemetry](const PairCandidate& c) {
            telemetry->AddPairCandidate(c.end_time, c.length_ratio, c.gap, c.run_id);
        };
    }
    return FindReadPairs(index_file, input_path, recursive, observer);
}

}  // namespace Marlo
