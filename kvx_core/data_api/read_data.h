#pragma once
// One read of a read file: its metadata, raw signal and analyses, for reading and for writing.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "data_api/analysis_data.h"
#include "data_api/attribute_map.h"

namespace DataAPI {

class ReadData {
public:
    virtual ~ReadData() = default;

    virtual std::vector<NamePath> GetAnalyses() = 0;
    virtual std::shared_ptr<AnalysisData> GetAnalysis(const NamePath& analysis) = 0;
    // Samples [start, start + length) of the raw signal; length 0 means to the end. The whole
    // signal is read in any case.
    virtual std::vector<std::int16_t> GetRawData(unsigned start = 0, unsigned length = 0) = 0;
    // The same stretch in picoamperes: (sample + offset) * range / digitisation.
    virtual std::vector<float> GetScaledData(unsigned start = 0, unsigned length = 0) = 0;

    // Write half. Metadata first: groups "raw_data", "channel_id", "tracking_id" (and any other,
    // e.g. "context_tags"); then the signal; analyses at any time after the read exists.
    virtual void SetMetadata(const ReadMetadata& metadata) = 0;
    virtual void SetRawData(const std::vector<std::int16_t>& samples) = 0;
    // Turns picoamperes back into raw samples with the channel's calibration, then SetRawData.
    virtual void SetScaledData(const std::vector<float>& values) = 0;
    // Creates "<name>_NNN" with the next free index under "Analyses".
    virtual std::shared_ptr<AnalysisData> CreateAnalysis(const std::string& name, const AttributeMap& attributes) = 0;

    std::uint32_t Duration() const { return duration; }
    std::uint32_t ReadNumber() const { return read_number; }
    std::uint64_t StartTime() const { return start_time; }
    double SamplingRate() const { return sampling_rate; }
    const std::string& ReadId() const { return read_id; }
    const std::string& RunId() const { return run_id; }
    const std::string& FlowCellId() const { return flow_cell_id; }
    const std::string& SampleId() const { return sample_id; }
    const ReadMetadata& Metadata() const { return metadata; }

protected:
    std::uint32_t duration = 0;
    std::uint32_t read_number = 0;
    std::uint64_t start_time = 0;
    double sampling_rate = 0.0;
    std::string read_id;
    std::string run_id;
    std::string flow_cell_id;
    std::string sample_id;
    ReadMetadata metadata;
};

}  // namespace DataAPI
