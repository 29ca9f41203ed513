#pragma once
// The end of a read's road: pass/fail filtering on the mean qscore, the FASTQ record, one row of
// the sequencing summary, and the report to the run's telemetry.
//
// PostProcess runs on every caller thread at once. The FASTQ writer keeps one set of files per
// worker; the summary takes its own mutex for each row, so rows stay whole and come in completion
// order. Every pair that reaches PostProcess gets a row, also a failed one with an empty sequence,
// which gets no FASTQ record.

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "async_caller/data_trimmer.h"
#include "common/fastq_writer.h"

namespace AsyncCaller {

// The tab-separated summary: a header line of the column names, then one row per read.
class SummaryFile {
public:
    // Opens `path` for writing, truncating it, writes the header and flushes. With `append` the
    // rows of an earlier run stay and the header is written only into an empty file. Throws "Could
    // not open summary file '<path>' for writing." when the file cannot be opened.
    SummaryFile(const std::string& path, const std::vector<std::string>& columns, bool append = false);
    // Appends the holder's row and flushes it.
    void WriteRow(const ReadHolder& holder);
    const std::vector<std::string>& Columns() const { return columns; }

private:
    std::mutex mutex;
    std::vector<std::string> columns;
    std::ofstream stream;
};

class TrimInFastqOut : public DataTrimmer {
public:
    // Receives every post-processed read; the run's telemetry sits behind it. Empty for none.
    using CalledReadReport = std::function<void(const ReadHolder&)>;

    // A processor that can only scale: PostProcess throws.
    TrimInFastqOut() = default;
    // Builds the FASTQ writer (one file set per worker) and opens the summary, writing its header.
    // With `resume`, both carry on from the (repaired) outputs of an earlier run in the save path.
    // `compress_fastq` writes gzip-compressed FASTQ files.
    TrimInFastqOut(const std::string& save_path, std::uint64_t records_per_fastq, std::size_t workers,
                   float scaling_med, float scaling_mad, const std::string& summary_path,
                   const std::vector<std::string>& summary_columns, const std::string& trim_strategy,
                   bool auto_scale, float min_qscore, bool qscore_filtering,
                   CalledReadReport telemetry = CalledReadReport(), bool resume = false,
                   bool compress_fastq = false);
    ~TrimInFastqOut() override;

    // Sets passes_filtering (min_qscore <= mean_qscore), writes the FASTQ record if the sequence is
    // not empty, writes the summary row and reports to the telemetry.
    void PostProcess(ReadHolder& holder, int worker) override;

    std::unique_ptr<Common::FastqWriter> writer;
    std::unique_ptr<SummaryFile> summary;
    bool filter_calibration = false;
    float min_qscore = 0.0f;
    CalledReadReport telemetry;
};

}  // namespace AsyncCaller
