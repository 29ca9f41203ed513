#pragma once
// What the single-strand step leaves behind for one read: two analyses in the read file, a FASTQ
// record and a row of the index.
//
// In the read file (names as the pair run looks for them):
//   Analyses/Segmentation_NNN            Summary/segmentation: first_sample_template,
//                                        duration_template (samples), has_template, open_pore_end
//   Analyses/Basecall_1D_NNN             BaseCalled_template/Move (unsigned bytes, one per block)
//                                        BaseCalled_template/Fastq (the FASTQ record as one string)
//                                        Summary/basecall_1d_template: block_stride, sequence_length,
//                                        num_events, mean_qscore, strand_score, kmer_length
// NNN is the next free index, so running the step again adds a newer pair of analyses, which is the
// one the pair run reads.

#include <cstdint>
#include <string>
#include <vector>

#include "data_api/read_data.h"
#include "strand_caller.h"

namespace TestBed {

// The identity of a read, from its file.
struct ReadInfo {
    std::string filename;         // file name without directories, as the index wants it
    std::string read_id;
    std::string run_id;
    std::string sample_id;
    std::string start_time_text;  // wall-clock start, for the FASTQ header
    std::uint32_t channel = 0;
    std::uint32_t read_number = 0;
    std::uint64_t start_time = 0;  // samples since the start of the run
    std::uint64_t duration = 0;    // samples
    double sampling_rate = 0.0;
};

// Fills everything but `filename` from a loaded read. Throws when the metadata cannot be converted.
ReadInfo ReadInfoOf(const DataAPI::ReadData& read);

// exp_start_time ("%Y-%m-%dT%H:%M:%SZ") plus start_time / sampling_rate, as "%FT%TZ"; empty when the
// experiment start is absent or malformed.
std::string StartTimeText(const DataAPI::ReadMetadata& metadata, std::uint64_t start_time, double sampling_rate);

// The FASTQ record of a call: header line, bases, "+", qualities, each ending with a newline.
std::string FastqRecordText(const ReadInfo& info, const StrandCall& call);

struct AnnotationSource {
    std::string model_file;  // recorded in the analyses' attributes
    std::string version;
};

// Writes the two analyses into the read. Throws what the storage layer throws.
void WriteAnalyses(DataAPI::ReadData& read, const StrandCall& call, const std::string& fastq,
                   const AnnotationSource& source);

// The index: a tab-separated table with these columns, one row per annotated read. start_time and
// duration (seconds) cover the whole read, since the pair run measures the gap between two reads from
// the end of one to the start of the next; template_start and template_duration cover the strand.
const std::vector<std::string>& IndexColumns();
// The header line, newline included.
std::string IndexHeader();
// One row, newline included; `info.filename` must be set.
std::string IndexRow(const ReadInfo& info, const StrandCall& call);

// The header of the failed-reads file (filename, read_id, reason), newline included.
std::string FailedReadsHeader();

}  // namespace TestBed
