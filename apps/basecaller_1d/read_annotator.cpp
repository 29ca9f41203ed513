#include "read_annotator.h"

#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "common/fastq_record.h"

namespace TestBed {

namespace {
const DataAPI::AttributeMap& group(const DataAPI::ReadMetadata& metadata, const std::string& name) {
    const auto it = metadata.find(name);
    if (it == metadata.end()) {
        throw std::runtime_error("The read has no '" + name + "' metadata.");
    }
    return it->second;
}

const boost::any& attribute(const DataAPI::AttributeMap& attributes, const std::string& group_name,
                            const std::string& name) {
    const auto it = attributes.find(name);
    if (it == attributes.end()) {
        throw std::runtime_error("The read's '" + group_name + "' metadata has no '" + name + "'.");
    }
    return it->second;
}

std::string timeStamp() {
    char text[32];
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::strftime(text, sizeof(text), "%FT%TZ", &utc);
    return text;
}

std::string seconds(std::uint64_t samples, double rate) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.6f", rate > 0.0 ? static_cast<double>(samples) / rate : 0.0);
    return text;
}
}  // namespace

std::string StartTimeText(const DataAPI::ReadMetadata& metadata, std::uint64_t start_time, double sampling_rate) {
    const auto tracking = metadata.find("tracking_id");
    if (tracking == metadata.end()) {
        return "";
    }
    const auto value = tracking->second.find("exp_start_time");
    const std::string* text = value == tracking->second.end() ? nullptr : boost::any_cast<std::string>(&value->second);
    std::tm start{};
    if (!text || !strptime(text->c_str(), "%Y-%m-%dT%H:%M:%SZ", &start)) {
        return "";
    }
    // timegm keeps the experiment start in UTC; the offset into the run is whole seconds.
    std::time_t t = timegm(&start);
    if (sampling_rate > 0.0) {
        t += static_cast<std::time_t>(static_cast<double>(start_time) / sampling_rate);
    }
    std::tm utc{};
    gmtime_r(&t, &utc);
    char out[32];
    std::strftime(out, sizeof(out), "%FT%TZ", &utc);
    return out;
}

ReadInfo ReadInfoOf(const DataAPI::ReadData& read) {
    ReadInfo info;
    info.read_id = read.ReadId();
    info.run_id = read.RunId();
    info.sample_id = read.SampleId();
    info.read_number = read.ReadNumber();
    info.start_time = read.StartTime();
    info.duration = read.Duration();
    info.sampling_rate = read.SamplingRate();
    const auto& channel = group(read.Metadata(), "channel_id");
    info.channel = DataAPI::GenericCastOrParse<std::uint32_t>(attribute(channel, "channel_id", "channel_number"));
    info.start_time_text = StartTimeText(read.Metadata(), info.start_time, info.sampling_rate);
    return info;
}

std::string FastqRecordText(const ReadInfo& info, const StrandCall& call) {
    Common::FastQHeaderFields fields;
    fields.read_id = info.read_id;
    fields.run_id = info.run_id;
    fields.sample_id = info.sample_id;
    fields.start_time = info.start_time_text;
    fields.channel = info.channel;
    fields.read_number = info.read_number;
    const Common::FastQRecord record(Common::FastQRecord::MakeHeader(fields), call.sequence, call.qualities);
    return record.ToString();
}

void WriteAnalyses(DataAPI::ReadData& read, const StrandCall& call, const std::string& fastq,
                   const AnnotationSource& source) {
    const DataAPI::AttributeMap attributes{
        {"name", std::string("basecaller_1d")},
        {"version", source.version},
        {"time_stamp", timeStamp()},
    };

    auto segmentation = read.CreateAnalysis("Segmentation", attributes);
    DataAPI::ReadMetadata segmentationSummary;
    segmentationSummary["segmentation"] = DataAPI::AttributeMap{
        {"first_sample_template", static_cast<unsigned long>(call.segmentation.first_sample)},
        {"duration_template", static_cast<unsigned long>(call.segmentation.duration)},
        {"has_template", static_cast<int>(1)},
        {"open_pore_end", static_cast<unsigned long>(call.segmentation.open_pore_end)},
    };
    segmentation->SetSummary(DataAPI::ReturnStatus::Successful, segmentationSummary);

    DataAPI::AttributeMap basecallAttributes = attributes;
    basecallAttributes["model_file"] = source.model_file;
    basecallAttributes["segmentation"] = segmentation->Name().name;
    auto basecall = read.CreateAnalysis("Basecall_1D", basecallAttributes);
    basecall->CreateDataSet("BaseCalled_template/Move", DataAPI::DataView::Of(call.moves), {});
    basecall->CreateDataSet("BaseCalled_template/Fastq", DataAPI::DataView::OfString(fastq), {});
    DataAPI::ReadMetadata basecallSummary;
    basecallSummary["basecall_1d_template"] = DataAPI::AttributeMap{
        {"block_stride", static_cast<unsigned long>(call.block_stride)},
        {"kmer_length", static_cast<unsigned long>(call.kmer_length)},
        {"num_events", static_cast<unsigned long>(call.moves.size())},
        {"sequence_length", static_cast<unsigned long>(call.sequence.size())},
        {"mean_qscore", call.mean_qscore},
        {"strand_score", call.score},
    };
    basecall->SetSummary(DataAPI::ReturnStatus::Successful, basecallSummary);
}

const std::vector<std::string>& IndexColumns() {
    static const std::vector<std::string> columns{
        "filename",       "read_id",           "run_id",         "channel",
        "start_time",     "duration",          "num_events",     "template_start",
        "template_duration", "num_events_template", "sequence_length_template", "mean_qscore_template",
        "strand_score_template", "median_template", "mad_template",
    };
    return columns;
}

std::string IndexHeader() {
    std::string header;
    for (const auto& column : IndexColumns()) {
        header += (header.empty() ? "" : "\t") + column;
    }
    return header + "\n";
}

std::string FailedReadsHeader() { return "filename\tread_id\treason\n"; }

std::string IndexRow(const ReadInfo& info, const StrandCall& call) {
    const double rate = info.sampling_rate;
    const std::uint64_t stride = call.block_stride > 0 ? call.block_stride : 1;
    char numbers[160];
    std::snprintf(numbers, sizeof(numbers), "%.3f\t%.3f\t%.3f\t%.3f", call.mean_qscore, call.score, call.median,
                  call.mad);
    return info.filename + "\t" + info.read_id + "\t" + info.run_id + "\t" + std::to_string(info.channel) + "\t" +
           seconds(info.start_time, rate) + "\t" + seconds(info.duration, rate) + "\t" +
           std::to_string(info.duration / stride) + "\t" +
           seconds(info.start_time + call.segmentation.first_sample, rate) + "\t" +
           seconds(call.segmentation.duration, rate) + "\t" + std::to_string(call.moves.size()) + "\t" +
           std::to_string(call.sequence.size()) + "\t" + numbers + "\n";
}

}  // namespace TestBed
