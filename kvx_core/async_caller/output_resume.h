#pragma once
// Taking up the outputs of a pair run that was stopped or killed.
//
// A run writes each pair's FASTQ record and then its summary row, both written through, so after a
// stop of any kind the save path holds: whole rows, perhaps one cut row at the end of the summary,
// and per FASTQ file whole records, perhaps one cut record at its end, or one whole record whose row
// never came. RepairOutputs brings that back to "one row per finished pair, one record per row with
// a sequence", so that a resumed run can skip every pair with a row and call the rest.

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace AsyncCaller {

struct ResumeReport {
    std::set<std::pair<std::string, std::string>> done;  // (read_id1, read_id2) of every kept row
    std::uint64_t rows_removed = 0;                       // cut or malformed rows
    std::uint64_t records_removed = 0;                    // cut records, or records without a row
    std::uint64_t files_repaired = 0;                     // FASTQ files rewritten
};

// The kinds of FASTQ file under a save path (its root and its "pass" and "fail" folders).
struct FastqKinds {
    bool plain = false;       // ".fastq"
    bool compressed = false;  // ".fastq.gz"
};
FastqKinds FindFastqKinds(const std::string& save_path);

// Data rows of the summary at `summary_path`: 0 when there is none, or no file.
std::uint64_t CountSummaryRows(const std::string& summary_path);

// Repairs the summary (its header must be `columns`, otherwise it throws a message that says the
// save path cannot be resumed) and the FASTQ files under `save_path` (its root and its "pass" and
// "fail" folders), rewriting a file through a temporary name and a rename. A summary that does
// not exist yet is fine: nothing is done. `compressed` is the kind of FASTQ the resumed run
// writes: a save path holding files of the other kind is refused with a message, unchanged.
ResumeReport RepairOutputs(const std::string& save_path, const std::string& summary_path,
                           const std::vector<std::string>& columns, bool compressed = false);

}  // namespace AsyncCaller
