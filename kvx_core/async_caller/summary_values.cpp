#include "async_caller/summary_values.h"

#include <boost/filesystem/path.hpp>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"

namespace AsyncCaller {

namespace {

std::string lastComponent(const std::string& filename, const Common::ValueFormatter& f) {
    if (filename.empty()) {
        return f.Format(std::string());
    }
    return f.Format(boost::filesystem::path(filename).filename().string());
}

float seconds(std::uint64_t samples, float sampling_rate) { return static_cast<float>(samples) / sampling_rate; }

// Samples over stride; a holder that never got a stride has no events rather than a fault.
std::uint64_t events(std::uint64_t samples, std::uint64_t stride) { return stride == 0 ? 0 : samples / stride; }

// Columns that come once per strand, named with a trailing "1" or "2".
std::string strandValue(const std::string& base, const ReadMeta& read, std::uint64_t stride,
                        const Common::ValueFormatter& f) {
    if (base == "filename") {
        return lastComponent(read.filename, f);
    }
    if (base == "read_id") {
        return f.Format(read.read_id);
    }
    if (base == "start_time") {
        return f.Format(seconds(read.start_time, read.sampling_rate));
    }
    if (base == "duration") {
        return f.Format(seconds(read.duration, read.sampling_rate));
    }
    if (base == "num_events") {
        return f.Format(events(read.duration, stride));
    }
    if (base == "trimmed_duration") {
        return f.Format(seconds(read.trimmed_duration, read.sampling_rate));
    }
    if (base == "trimmed_events") {
        return f.Format(events(read.trimmed_duration, stride));
    }
    if (base == "median") {
        return f.Format(read.median);
    }
    if (base == "mad") {
        return f.Format(read.mad);
    }
    return std::string();
}

std::string pairValue(const ReadHolderMD& pair, const std::string& column, const Common::ValueFormatter& f) {
    if (column == "run_id") {
        return f.Format(pair.read1.run_id);
    }
    if (column == "channel") {
        return f.Format(pair.read1.channel);
    }
    if (column == "sequence_length") {
        return f.Format(static_cast<std::uint64_t>(pair.sequence.size()));
    }
    if (column == "passes_filtering") {
        return f.Format(pair.passes_filtering);
    }
    if (column == "mean_qscore") {
        return f.Format(pair.mean_qscore);
    }
    if (column == "strand_score") {
        return f.Format(pair.strand_score);
    }
    if (column.size() > 1) {
        const char strand = column.back();
        if (strand == '1' || strand == '2') {
            const ReadMeta& read = strand == '1' ? pair.read1 : pair.read2;
            return strandValue(column.substr(0, column.size() - 1), read, pair.stride, f);
        }
    }
    return std::string();
}

// A single read has no calibration results, stay/step/skip probabilities or template of its own
// here: those columns stay empty.
std::string singleValue(const ReadHolder1D& single, const std::string& column, const Common::ValueFormatter& f) {
    const ReadMeta& read = single.read;
    if (column == "filename") {
        return lastComponent(read.filename, f);
    }
    if (column == "read_id") {
        return f.Format(read.read_id);
    }
    if (column == "run_id") {
        return f.Format(read.run_id);
    }
    if (column == "channel") {
        return f.Format(read.channel);
    }
    if (column == "start_time") {
        return f.Format(seconds(read.start_time, read.sampling_rate));
    }
    if (column == "duration") {
        return f.Format(seconds(read.duration, read.sampling_rate));
    }
    if (column == "num_events") {
        return f.Format(events(read.duration, single.stride));
    }
    if (column == "median_template") {
        return f.Format(read.median);
    }
    if (column == "mad_template") {
        return f.Format(read.mad);
    }
    if (column == "sequence_length_template") {
        return f.Format(static_cast<std::uint64_t>(single.sequence.size()));
    }
    if (column == "mean_qscore_template") {
        return f.Format(single.mean_qscore);
    }
    if (column == "passes_filtering") {
        return f.Format(single.passes_filtering);
    }
    if (column == "strand_score_template") {
        return f.Format(single.strand_score);
    }
    if (column == "template_start") {
        return f.Format(seconds(read.start_time + read.trimmed_start, read.sampling_rate));
    }
    if (column == "template_duration") {
        return f.Format(seconds(read.trimmed_duration, read.sampling_rate));
    }
    if (column == "num_events_template") {
        return f.Format(events(read.trimmed_duration, single.stride));
    }
    return std::string();
}

}  // namespace

const std::vector<std::string>& PairSummaryColumns() {
    static const std::vector<std::string> columns = {
        "filename1",         "filename2",         "read_id1",       "read_id2",       "run_id",
        "channel",           "start_time1",       "start_time2",    "trimmed_duration1", "trimmed_duration2",
        "trimmed_events1",   "trimmed_events2",   "median1",        "median2",        "mad1",
        "mad2",              "sequence_length",   "passes_filtering", "mean_qscore",  "strand_score"};
    return columns;
}

std::string GetSummaryValue(const ReadHolder& holder, const std::string& column,
                            const Common::ValueFormatter& formatter) {
    switch (holder.dimension) {
        case 0:
            return singleValue(static_cast<const ReadHolder1D&>(holder), column, formatter);
        case 1:
            return pairValue(static_cast<const ReadHolderMD&>(holder), column, formatter);
        default:
            return std::string();
    }
}

}  // namespace AsyncCaller
