#pragma once
// The list of read pairs to call. The single-strand run that came before wrote an index of its reads;
// two reads that passed through the same pore of the same run one right after the other, with nearly
// the same length, are taken to be the two strands of one molecule.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "async_caller/read_pair.h"

// Run statistics; owned by the run driver, may be absent.
class TelemetryAggregator;

namespace Marlo {

// One usable row of the index.
struct IndexRecord {
    std::string path;  // read file's directory joined with the file name of the row
    std::string read_id;
    std::string run_id;
    std::string channel;
    std::string group_key;  // run_id + "_" + channel: one pore in one run
    double start_time = 0.0;
    double end_time = 0.0;  // start_time + duration, seconds
    std::uint64_t sequence_length = 0;
};

// Two neighbouring reads of one pore, whether or not they became a pair.
struct PairCandidate {
    double end_time;      // end of the earlier read
    float length_ratio;   // earlier length / later length
    double gap;           // later start - earlier end; negative when they overlap
    std::string run_id;
};
using PairCandidateObserver = std::function<void(const PairCandidate&)>;

// Reads closer than this in time (seconds) may be two strands of one molecule.
constexpr double kMaxPairGap = 0.5;
// ... if their lengths differ by less than this fraction of the longer one.
constexpr double kMaxPairLengthRatio = 0.2;

// Fills `files` with file name -> directory for every regular ".rawh5" file in dir (and below it, if
// recursive). A later file of the same name replaces an earlier one.
void ListReadFiles(const std::string& dir, bool recursive, std::map<std::string, std::string>& files);

// Pairs the reads of each group (groups in key order, reads sorted by start time), reporting every
// neighbouring candidate to `observer` if it is set.
std::vector<AsyncCaller::ReadPair> PairGroups(std::map<std::string, std::vector<IndexRecord>>& groups,
                                              const PairCandidateObserver& observer);

// Reads the index, keeps the rows whose read file exists under input_path, and returns the pairs in
// group-key then time order. Logs the number of pairs found. Throws std::runtime_error for an
// unreadable index, a malformed row or a missing required column.
std::vector<AsyncCaller::ReadPair> FindReadPairs(const std::string& index_file, const std::string& input_path,
                                                 bool recursive, const PairCandidateObserver& observer);

// FindReadPairs with candidates reported to the run's telemetry, which may be null.
std::vector<AsyncCaller::ReadPair> GetFileList(const std::string& index_file, const std::string& input_path,
                                               bool recursive, TelemetryAggregator* telemetry);

}  // namespace Marlo
