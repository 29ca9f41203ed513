#include "async_caller/trim_in_fastq_out.h"

#include <stdexcept>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"
#include "async_caller/summary_values.h"
#include "common/fastq_record.h"
#include "common/value_formatter.h"

namespace AsyncCaller {

SummaryFile::SummaryFile(const std::string& path, const std::vector<std::string>& columns_, bool append)
    : columns(columns_), stream(path, append ? std::ios::out | std::ios::app : std::ios::out | std::ios::trunc) {
    if (!stream.is_open()) {
        throw std::runtime_error("Could not open summary file '" + path + "' for writing.");
    }
    // An appended file already has its header, unless the earlier run died before writing it.
    stream.seekp(0, std::ios::end);
    if (!append || stream.tellp() == std::streampos(0)) {
        for (std::size_t i = 0; i < columns.size(); ++i) {
            stream << columns[i] << (i + 1 < columns.size() ? '\t' : '\n');
        }
    }
    stream.flush();
}

void SummaryFile::WriteRow(const ReadHolder& holder) {
    std::string row;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const Common::ValueFormatter formatter;  // the summary's settings
        row += GetSummaryValue(holder, columns[i], formatter);
        row += i + 1 < columns.size() ? '\t' : '\n';
    }
    // Whole rows, written through as each pair finishes (after its FASTQ record): a stopped run
    // keeps every row, and a row on disk always means its record is complete.
    std::lock_guard<std::mutex> lock(mutex);
    stream << row;
    stream.flush();
}

TrimInFastqOut::TrimInFastqOut(const std::string& save_path, std::uint64_t records_per_fastq, std::size_t workers,
                               float scaling_med_, float scaling_mad_, const std::string& summary_path,
                               const std::vector<std::string>& summary_columns, const std::string& trim_strategy_,
                               bool auto_scale_, float min_qscore_, bool qscore_filtering,
                               CalledReadReport telemetry_, bool resume, bool compress_fastq)
    : DataTrimmer(scaling_med_, scaling_mad_, auto_scale_, trim_strategy_),
      writer(std::make_unique<Common::FastqWriter>(save_path, records_per_fastq, workers, qscore_filtering,
                                                   compress_fastq)),
      summary(std::make_unique<SummaryFile>(summary_path, summary_columns, resume)),
      min_qscore(min_qscore_),
      telemetry(std::move(telemetry_)) {
    if (resume) {
        writer->ContinueExisting();
    }
}

TrimInFastqOut::~TrimInFastqOut() = default;

void TrimInFastqOut::PostProcess(ReadHolder& holder, int worker) {
    if (!writer || !summary) {
        throw std::runtime_error("Attempted to post-process using default constructed TrimInFastqOut object.");
    }
    const ReadMeta* meta = nullptr;
    switch (holder.dimension) {
        case 0:
            meta = &static_cast<const ReadHolder1D&>(holder).read;
            break;
        case 1:
            meta = &static_cast<const ReadHolderMD&>(holder).read1;
            break;
        default:
            throw std::runtime_error("Unrecognized dimensionality of read object.");
    }
    // Neither a pair nor a read loaded by this program is ever a calibration strand.
    const bool calibration = false;

    Common::FastQHeaderFields fields;
    fields.read_id = meta->read_id;
    fields.run_id = meta->run_id;
    fields.sample_id = meta->sample_id;
    fields.start_time = meta->start_time_text;
    fields.channel = meta->channel;
    fields.read_number = meta->read_number;
    const Common::FastQRecord record(Common::FastQRecord::MakeHeader(fields), holder.sequence, holder.qualities);

    // A NaN mean qscore compares false, so a read that could not be scored fails.
    holder.passes_filtering = min_qscore <= holder.mean_qscore;

    if (!holder.sequence.empty()) {
        const std::string key = writer->Key(holder.passes_filtering, calibration);
        const std::string folder = writer->Folder(holder.passes_filtering, calibration);
        writer->Write(static_cast<std::size_t>(worker), record, meta->run_id, key, folder);
    }
    summary->WriteRow(holder);
    if (telemetry) {
        telemetry(holder);
    }
}

}  // namespace AsyncCaller
