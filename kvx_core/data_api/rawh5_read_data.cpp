#include "data_api/rawh5_read_data.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "data_api/compressed_data_view.h"
#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_analysis_data.h"

namespace DataAPI {
namespace Rawh5 {

namespace {

// Raw signal is written in compressed chunks of 1024 samples with the fastest zlib level: the
// signal compresses poorly, so higher levels cost time for little gain.
constexpr std::uint64_t kSignalChunkBytes = 2048;
constexpr std::int32_t kSignalCompressionLevel = 1;

// The read attributes, in the order they are taken.
const char* const kReadAttributes[] = {"duration", "read_number", "start_time", "read_id", "start_mux", "median_before"};

}  // namespace

ReadData::ReadData(H5Wrapper::H5Group* group, const std::string& id) : read_group(group) { read_id = id; }

void ReadData::takeReadAttributes(const AttributeMap& read_attributes, bool legacy) {
    auto get = [&](const char* key) -> const boost::any& {
        auto it = read_attributes.find(key);
        if (it != read_attributes.end()) return it->second;
        if (legacy) throw std::runtime_error(std::string("Rawh5 read file is invalid. Read is missing '") + key + "' metadata.");
        return read_attributes.at(key);
    };
    duration = GenericCast<std::uint32_t>(get(kReadAttributes[0]));
    read_number = GenericCast<std::uint32_t>(get(kReadAttributes[1]));
    start_time = GenericCast<std::uint64_t>(get(kReadAttributes[2]));
    read_id = boost::any_cast<std::string>(get(kReadAttributes[3]));
    const std::uint32_t start_mux = GenericCast<std::uint32_t>(get(kReadAttributes[4]));
    const double median_before = GenericCast<double>(get(kReadAttributes[5]));

    AttributeMap& raw = metadata["raw_data"];
    raw.clear();
    raw["duration"] = static_cast<unsigned int>(duration);
    raw["read_number"] = static_cast<unsigned int>(read_number);
    raw["start_time"] = static_cast<unsigned long>(start_time);
    raw["read_id"] = read_id;
    raw["start_mux"] = static_cast<unsigned int>(start_mux);
    raw["median_before"] = median_before;
}

void ReadData::takeChannelAndTracking() {
    const AttributeMap& channel = metadata.at("channel_id");
    digitisation = boost::any_cast<double>(channel.at("digitisation"));
    offset = boost::any_cast<double>(channel.at("offset"));
    range = boost::any_cast<double>(channel.at("range"));
    sampling_rate = boost::any_cast<double>(channel.at("sampling_rate"));
    const AttributeMap& tracking = metadata.at("tracking_id");
    run_id = boost::any_cast<std::string>(tracking.at("run_id"));
    flow_cell_id = boost::any_cast<std::string>(tracking.at("flow_cell_id"));
    auto sample = tracking.find("sample_id");
    sample_id = sample == tracking.end() ? std::string("unknown") : boost::any_cast<std::string>(sample->second);
}

void ReadData::loadAnalyses(H5Wrapper::H5Group* parent) {
    if (!parent->Exists("Analyses")) return;
    analysis_group = parent->OpenGroup("Analyses");
    if (!analysis_group) return;
    for (const std::string& name : analysis_group->ListGroups()) analyses.push_back(NamePath{name, name});
}

void ReadData::Load() {
    raw_group = read_group->OpenGroup("Raw");
    if (!raw_group) throw std::runtime_error("Rawh5 read file is invalid. 'Raw' group not found.");
    takeReadAttributes(raw_group->GetAttributes(), false);
    bool has_channel = false;
    bool has_tracking = false;
    for (const std::string& name : read_group->ListGroups()) {
        if (name == "channel_id") has_channel = true;
        if (name == "tracking_id") has_tracking = true;
        if (name == "channel_id" || name == "tracking_id" || name == "context_tags") {
            H5Wrapper::H5Group* group = read_group->OpenGroup(name);
            if (!group) continue;
            metadata[name] = group->GetAttributes();
            group->Close();
        }
    }
    if (!has_channel) throw std::runtime_error("Rawh5 read file is invalid. 'channel_id' group not found.");
    if (!has_tracking) throw std::runtime_error("Rawh5 read file is invalid. 'tracking_id' group not found.");
    takeChannelAndTracking();
    loadAnalyses(read_group);
}

std::shared_ptr<DataAPI::AnalysisData> ReadData::makeAnalysis(const std::string& name, H5Wrapper::H5Group* group, bool load,
                                                     const AttributeMap& attributes) {
    return std::make_shared<Rawh5::AnalysisData>(name, group, load, attributes);
}

std::shared_ptr<DataAPI::AnalysisData> ReadData::GetAnalysis(const NamePath& analysis) {
    H5Wrapper::H5Group* group =
        analysis_group && analysis_group->Exists(analysis.path) ? analysis_group->OpenGroup(analysis.path) : nullptr;
    if (!group) throw std::runtime_error("Analysis '" + analysis.path + "' not found in read.");
    return makeAnalysis(analysis.name, group, true, AttributeMap());
}

std::vector<std::int16_t> ReadData::GetRawData(unsigned start, unsigned length) {
    std::vector<std::int16_t> samples;
    if (!raw_group || duration == 0) return samples;
    H5Wrapper::H5Dataset* signal = raw_group->OpenDataset("Signal");
    if (!signal) throw std::runtime_error("Could not open raw dataset.");
    if (start >= duration) {
        start = duration;
        length = 0;
    } else if (length == 0 || std::uint64_t(start) + length > duration) {
        length = duration - start;
    }
    // The whole signal is read whatever the stretch: chunks are small and a read is short. The
    // format (and with it the length against "duration") is tested before the buffer is made, so
    // that a damaged "duration" costs no memory.
    DataView view = DataView::Of(static_cast<const std::int16_t*>(nullptr), duration);
    if (signal->Format() != view.format) {
        signal->Close();
        throw std::runtime_error("Data to be read does not match format of dataset.");
    }
    CheckReadSize("Signal", duration, sizeof(std::int16_t));
    samples.resize(duration);
    view.data = samples.data();
    const bool ok = signal->Read(view);
    signal->Close();
    if (!ok) throw std::runtime_error("Could not read raw dataset.");
    if (start != 0 || length < samples.size())
        samples = std::vector<std::int16_t>(samples.begin() + start, samples.begin() + start + length);
    return samples;
}

std::vector<float> ReadData::GetScaledData(unsigned start, unsigned length) {
    const std::vector<std::int16_t> raw = GetRawData(start, length);
    const double scale = range / digitisation;
    std::vector<float> scaled(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) scaled[i] = static_cast<float>((raw[i] + offset) * scale);
    return scaled;
}

void ReadData::SetMetadata(const ReadMetadata& m) {
    if (!metadata.empty()) throw std::runtime_error("This API does not support modification of data already in a rawh5 file.");
    const AttributeMap& raw = m.at("raw_data");
    const AttributeMap& tracking = m.at("tracking_id");
    const AttributeMap& channel = m.at("channel_id");
    // Everything is taken before anything is stored, so a refused map leaves the read untouched.
    const std::uint64_t new_start_time = boost::any_cast<unsigned long>(raw.at("start_time"));
    const std::uint32_t new_duration = boost::any_cast<unsigned int>(raw.at("duration"));
    // The read number names the read group of a legacy file; it is optional here.
    auto number = raw.find("read_number");
    const std::uint32_t new_read_number = number == raw.end() ? 0 : boost::any_cast<unsigned int>(number->second);
    const std::string new_run_id = boost::any_cast<std::string>(tracking.at("run_id"));
    const std::string new_flow_cell_id = boost::any_cast<std::string>(tracking.at("flow_cell_id"));
    const std::string new_sample_id = boost::any_cast<std::string>(tracking.at("sample_id"));
    const double new_digitisation = boost::any_cast<double>(channel.at("digitisation"));
    const double new_offset = boost::any_cast<double>(channel.at("offset"));
    const double new_range = boost::any_cast<double>(channel.at("range"));
    const double new_sampling_rate = boost::any_cast<double>(channel.at("sampling_rate"));

    metadata = m;
    start_time = new_start_time;
    duration = new_duration;
    read_number = new_read_number;
    run_id = new_run_id;
    flow_cell_id = new_flow_cell_id;
    sample_id = new_sample_id;
    digitisation = new_digitisation;
    offset = new_offset;
    range = new_range;
    sampling_rate = new_sampling_rate;

    H5Wrapper::H5Group* parent = metadataGroup();
    for (const auto& entry : metadata) {
        if (entry.first == "raw_data") continue;
        if (!parent->CreateGroup(entry.first, entry.second))
            throw std::runtime_error("Failed to create group 'UniqueGlobalKey/" + entry.first + "'.");
    }
}

H5Wrapper::H5Group* ReadData::metadataGroup() { return read_group; }

H5Wrapper::H5Group* ReadData::createRawGroup() {
    H5Wrapper::H5Group* group = read_group->CreateGroup("Raw", metadata["raw_data"]);
    if (!group) throw std::runtime_error("Could not create 'Raw' group.");
    return group;
}

void ReadData::SetRawData(const std::vector<std::int16_t>& samples) {
    if (metadata.empty()) throw std::runtime_error("Cannot set data for a read until after metadata has been set.");
    if (raw_group) throw std::runtime_error("Raw data cannot be set if it is already present.");
    // The reader insists on exactly "duration" samples; refuse to write a file it could not read.
    if (samples.size() != duration)
        throw std::runtime_error("Raw data has " + std::to_string(samples.size()) +
                                 " samples but the read's duration is " + std::to_string(duration) + ".");
    raw_group = createRawGroup();
    const CompressedDataView view(DataView::Of(samples), kSignalChunkBytes, kSignalCompressionLevel);
    H5Wrapper::H5Dataset* signal = raw_group->CreateDataset("Signal", view);
    if (!signal) throw std::runtime_error("Could not create raw dataset.");
    signal->Close();
}

void ReadData::SetScaledData(const std::vector<float>& values) {
    if (metadata.empty()) throw std::runtime_error("Cannot set data for a read until after metadata has been set.");
    const float factor = static_cast<float>(digitisation / range);
    std::vector<std::int16_t> samples(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        const double raw = std::trunc(static_cast<double>(values[i] * factor) - offset);
        // Values beyond what the converter can express are held at its limits.
        samples[i] = static_cast<std::int16_t>(std::clamp<double>(raw, std::numeric_limits<std::int16_t>::min(),
                                                                  std::numeric_limits<std::int16_t>::max()));
    }
    SetRawData(samples);
}

std::shared_ptr<DataAPI::AnalysisData> ReadData::CreateAnalysis(const std::string& name, const AttributeMap& attributes) {
    std::string group_name = name + "_000";
    bool found = false;
    int largest = 0;
    for (const NamePath& analysis : analyses) {
        if (analysis.name.compare(0, name.size(), name) != 0) continue;
        // One separator character, then three digits.
        const int index = std::stoi(analysis.name.substr(name.size() + 1, 3));
        largest = found ? std::max(largest, index) : index;
        found = true;
    }
    if (found) {
        std::string digits = std::to_string(largest + 1);
        if (digits.size() > 3) throw std::runtime_error("Could not produce valid analysis group index.");
        digits.insert(0, 3 - digits.size(), '0');
        group_name = name + "_" + digits;
    }
    if (!analysis_group) {
        analysis_group = read_group->CreateGroup("Analyses");
        if (!analysis_group) throw std::runtime_error("Could not create 'Analyses' group.");
    }
    H5Wrapper::H5Group* group = analysis_group->CreateGroup(group_name, attributes);
    if (!group) throw std::runtime_error("Could not create analysis group.");
    analyses.push_back(NamePath{group_name, group_name});
    return makeAnalysis(group_name, group, false, attributes);
}

}  // namespace Rawh5
}  // namespace DataAPI
