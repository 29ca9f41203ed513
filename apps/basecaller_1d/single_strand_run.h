#pragma once
// The single-strand step over a directory of read files: every read is segmented and called, its
// results are written back into its file, and the run leaves an index, a FASTQ file of all calls and
// a list of the reads that failed.
//
// Threads. HDF5 access is serialised process-wide anyway, so all file work (opening, loading,
// writing the analyses) happens on the calling thread, and `workers` threads do the scaling,
// network and decoding. Loaded reads wait in a queue of at most 2 x workers reads, so memory holds
// only a few reads' signal beyond the workers' own buffers. A file stays open, read-write, until
// every read loaded from it has been written back; the next file is opened meanwhile, so the
// workers never wait for a file boundary.
//
// Nothing is lost: a read that cannot be loaded, called or written is logged at warning, listed in
// the failed-reads file with the reason, and the run goes on. Outputs are written in input order
// (files in path order, reads in file order), whatever order the workers finish in.

#include <cstdint>
#include <string>
#include <vector>

#include "read_annotator.h"
#include "strand_caller.h"
#include "strand_segmenter.h"

namespace TestBed {

struct SingleStrandOptions {
    std::string input_path;
    bool recursive = false;
    std::string save_path;
    std::string model_file;
    int workers = 2;
    std::uint64_t max_reads = 0;  // 0: all
    bool progress = true;         // a progress line on standard error
    SegmenterSettings segmenter;
    StrandCallSettings call;
};

struct SingleStrandSummary {
    std::uint64_t reads = 0;      // reads found in the files
    std::uint64_t annotated = 0;  // reads called and written back
    std::uint64_t failed = 0;     // reads listed as failed (a file that cannot be opened counts once)
    std::uint64_t bases = 0;
    std::uint64_t samples = 0;
    double seconds = 0.0;
};

class SingleStrandRun {
public:
    static constexpr const char* kIndexName = "index_1d.tsv";
    static constexpr const char* kFastqName = "calls_1d.fastq";
    static constexpr const char* kFailedName = "failed_reads.tsv";

    explicit SingleStrandRun(SingleStrandOptions options);

    // Runs the step. Throws std::runtime_error for what stops the whole run (no model, no input
    // directory, outputs that cannot be written); single reads never do.
    SingleStrandSummary Run();

    // Every regular ".rawh5" file under dir (and below it with recursive), sorted by path.
    static std::vector<std::string> ListReadFiles(const std::string& dir, bool recursive);

private:
    SingleStrandOptions options;
};

}  // namespace TestBed
