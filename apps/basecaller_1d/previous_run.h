#pragma once
// What an earlier, stopped run of the single-strand step left in its save path, made whole again so
// that a resumed run can append to it.
//
// A run writes each batch of finished reads to the FASTQ file first and to the index after it,
// flushing each, so a stop at any moment leaves at worst a last line or record cut short and some
// FASTQ records whose index rows never came. Repairing keeps exactly the reads that have both a
// complete index row and a complete FASTQ record (each once) and cuts the files to hold only those,
// or rewrites them when something other than their end has to go; every other read is called again.
// Reads listed in the failed-reads file count as done: resuming finishes the earlier run, it does not
// retry what failed there.

#include <cstdint>
#include <set>
#include <string>

namespace TestBed {

struct PreviousRun {
    std::set<std::string> done_reads;    // read ids not to call again
    std::set<std::string> failed_files;  // file names listed as unreadable as a whole
    std::uint64_t annotated = 0;         // index rows kept
    std::uint64_t failed = 0;            // failed-reads lines kept
    std::uint64_t dropped = 0;           // rows, records and lines left out (incomplete or unmatched)
};

// Data rows of an index file, complete or not; 0 when there is no such file.
std::uint64_t CountIndexRows(const std::string& path);

// Reads and repairs the index, FASTQ and failed-reads files of an earlier run. A missing file counts
// as empty; a file left empty has lost its header too, and the run writes it anew. Throws
// std::runtime_error when the index or failed-reads file has a header this step does not write.
PreviousRun RepairPreviousRun(const std::string& index_path, const std::string& fastq_path,
                              const std::string& failed_path);

}  // namespace TestBed
