#pragma once
// The single-strand step over a directory of read files: every read is segmented and called, its
// results are written into an annotated copy of its file, and the run leaves an index, a FASTQ file
// of all calls and a list of the reads that failed.
//
// Threads. HDF5 access is serialised process-wide anyway, so all file work (copying, opening,
// loading, writing the analyses) happens on the calling thread, and `workers` threads do the
// scaling, network and decoding. Loaded reads wait in a queue of at most 2 x workers reads, so memory
// holds only a few reads' signal beyond the workers' own buffers. A file's copy stays open,
// read-write, until every read loaded from it has been written back; the next file is opened
// meanwhile, so the workers never wait for a file boundary.
//
// Read files are safe at every moment: each is annotated as a copy under a temporary name and renamed
// into place (over the original, or into output_path) only when complete (see AnnotatedCopy). The
// outputs reach the disk as files complete: a file's FASTQ records, then its index rows, each
// flushed, are written only after the file is in place, so an index row always means that its FASTQ
// record is complete and its read annotated. That is what lets `resume` pick up a stopped run: it
// repairs the outputs (see PreviousRun), appends to them and calls only the reads they lack.
//
// A stop request (the `stop` flag) ends loading; the reads in hand are finished, their files put in
// place (with the reads that were reached; a resumed run adds the rest) and their outputs written.
//
// Nothing is lost: a read that cannot be loaded, called or written is logged at warning, listed in
// the failed-reads file with the reason, and the run goes on. Outputs are written in input order
// (files in path order, reads in file order), whatever order the workers finish in.

#include <atomic>
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
    std::string output_path;      // empty: each annotated file replaces its original
    bool resume = false;          // finish the run whose outputs are in save_path
    std::string model_file;
    int workers = 2;
    std::uint64_t max_reads = 0;  // 0: all
    bool progress = true;         // a progress line on standard error
    const std::atomic<int>* stop = nullptr;  // non-zero (the signal number) asks the run to stop
    SegmenterSettings segmenter;
    StrandCallSettings call;
};

struct SingleStrandSummary {
    std::uint64_t reads = 0;      // reads found in the files
    std::uint64_t skipped = 0;    // reads an earlier run had done (resume)
    std::uint64_t annotated = 0;  // reads called and written back by this run
    std::uint64_t failed = 0;     // reads listed as failed (a file that cannot be opened counts once)
    std::uint64_t left = 0;       // reads not reached (stopped, or max_reads)
    std::uint64_t files = 0;      // read files found
    std::uint64_t files_skipped = 0;  // files an earlier run had finished
    std::uint64_t files_done = 0;     // files this run finished
    std::uint64_t files_left = 0;     // files with reads not reached
    int stopped_by = 0;           // the stop signal when the run ended with work left, else 0
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
    // directory, outputs that cannot be written, an earlier run's outputs in the save path without
    // `resume`); single reads never do.
    SingleStrandSummary Run();

    // Every regular ".rawh5" file under dir (and below it with recursive), sorted by path.
    static std::vector<std::string> ListReadFiles(const std::string& dir, bool recursive);

private:
    SingleStrandOptions options;
};

}  // namespace TestBed
