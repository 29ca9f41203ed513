#include "stored_call.h"

#include <stdexcept>

namespace TestBed {

namespace {
// The analysis whose name begins with prefix and has the greatest suffix; empty if none.
std::string newest(const std::vector<DataAPI::NamePath>& analyses, const std::string& prefix) {
    std::string best;
    std::string bestSuffix = "///";
    for (const auto& a : analyses) {
        if (a.name.compare(0, prefix.size(), prefix) == 0) {
            const std::string suffix = a.name.substr(prefix.size(), 3);
            if (suffix > bestSuffix) {
                bestSuffix = suffix;
                best = a.name;
            }
        }
    }
    return best;
}

const DataAPI::AttributeMap& summaryGroup(const DataAPI::AnalysisData& analysis, const std::string& name) {
    const auto it = analysis.Summary().find(name);
    if (it == analysis.Summary().end()) {
        throw std::runtime_error("Analysis " + analysis.Name().name + " has no summary group \"" + name + "\".");
    }
    return it->second;
}

std::uint64_t number(const DataAPI::AttributeMap& attributes, const std::string& name) {
    const auto it = attributes.find(name);
    if (it == attributes.end()) {
        throw std::runtime_error("Attribute \"" + name + "\" is missing.");
    }
    return DataAPI::GenericCast<std::uint64_t>(it->second);
}

const DataAPI::NamePath& dataSet(const DataAPI::AnalysisData& analysis, const std::string& name) {
    for (const auto& d : analysis.Datasets()) {
        if (d.name == name) {
            return d;
        }
    }
    throw std::runtime_error("Analysis " + analysis.Name().name + " has no data set \"" + name + "\".");
}
}  // namespace

std::int64_t StoredCall::KmerLength() const {
    std::int64_t sum = 0;
    for (std::uint8_t m : moves) {
        sum += m;
    }
    return static_cast<std::int64_t>(sequence.size()) + 1 - sum;
}

StoredCall ReadStoredCall(DataAPI::ReadData& read) {
    StoredCall call;
    const auto analyses = read.GetAnalyses();
    call.segmentation_analysis = newest(analyses, "Segmentation_");
    call.basecall_analysis = newest(analyses, "Basecall_1D_");
    if (call.segmentation_analysis.empty() || call.basecall_analysis.empty()) {
        throw std::runtime_error("Read " + read.ReadId() + " has no single-strand results.");
    }
    const auto segmentation = read.GetAnalysis({call.segmentation_analysis, call.segmentation_analysis});
    const auto& seg = summaryGroup(*segmentation, "segmentation");
    call.first_sample = number(seg, "first_sample_template");
    call.duration = number(seg, "duration_template");

    const auto basecall = read.GetAnalysis({call.basecall_analysis, call.basecall_analysis});
    const auto& template_summary = summaryGroup(*basecall, "basecall_1d_template");
    if (template_summary.count("block_stride")) {
        call.block_stride = number(template_summary, "block_stride");
    }
    call.moves = basecall->GetDataSet(dataSet(*basecall, "Move"))->ReadVector<std::uint8_t>();
    call.fastq = basecall->GetDataSet(dataSet(*basecall, "Fastq"))->ReadString();
    const auto first = call.fastq.find('\n');
    const auto second = first == std::string::npos ? std::string::npos : call.fastq.find('\n', first + 1);
    if (second == std::string::npos) {
        throw std::runtime_error("The Fastq data set of read " + read.ReadId() + " is not a FASTQ record.");
    }
    call.sequence = call.fastq.substr(first + 1, second - first - 1);
    return call;
}

}  // namespace TestBed
