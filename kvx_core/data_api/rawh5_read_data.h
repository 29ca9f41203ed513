#pragma once
// A read of a multi-read ".rawh5" file: the group "read_<id>" with "Raw" (read attributes and the
// "Signal" data set), "channel_id", "tracking_id", optional "context_tags" and "Analyses".
// The object points into groups owned by the file: it must not be used after its source closes.

#include <memory>
#include <string>
#include <vector>

#include "data_api/read_data.h"

namespace DataAPI {

namespace H5Wrapper {
class H5Group;
}  // namespace H5Wrapper

namespace Rawh5 {

class ReadData : public DataAPI::ReadData {
public:
    // A read on its open "read_<id>" group; nothing is loaded until Load.
    ReadData(H5Wrapper::H5Group* read_group, const std::string& id);

    // Loads attributes, metadata and the list of analyses of an existing read.
    void Load();

    std::vector<NamePath> GetAnalyses() override { return analyses; }
    std::shared_ptr<DataAPI::AnalysisData> GetAnalysis(const NamePath& analysis) override;
    std::vector<std::int16_t> GetRawData(unsigned start = 0, unsigned length = 0) override;
    std::vector<float> GetScaledData(unsigned start = 0, unsigned length = 0) override;

    void SetMetadata(const ReadMetadata& metadata) override;
    void SetRawData(const std::vector<std::int16_t>& samples) override;
    void SetScaledData(const std::vector<float>& values) override;
    std::shared_ptr<DataAPI::AnalysisData> CreateAnalysis(const std::string& name, const AttributeMap& attributes) override;

    double Offset() const { return offset; }
    double Digitisation() const { return digitisation; }
    double Range() const { return range; }

protected:
    ReadData() = default;

    // The six read attributes, converted and kept in `metadata["raw_data"]`. A missing one fails
    // with map::at, or with the legacy reader's own message when `legacy`.
    void takeReadAttributes(const AttributeMap& read_attributes, bool legacy);
    // Calibration and run fields out of the "channel_id" and "tracking_id" metadata.
    void takeChannelAndTracking();
    // Opens "Analyses" under `parent` when it exists and lists its groups.
    void loadAnalyses(H5Wrapper::H5Group* parent);

    // Where the metadata groups of a written read go.
    virtual H5Wrapper::H5Group* metadataGroup();
    // Creates the group that receives the read attributes and "Signal".
    virtual H5Wrapper::H5Group* createRawGroup();
    virtual std::shared_ptr<DataAPI::AnalysisData> makeAnalysis(const std::string& name, H5Wrapper::H5Group* group, bool load,
                                                       const AttributeMap& attributes);

    H5Wrapper::H5Group* read_group = nullptr;
    double offset = 0.0;
    double digitisation = 0.0;
    double range = 0.0;
    std::vector<NamePath> analyses;
    H5Wrapper::H5Group* raw_group = nullptr;
    H5Wrapper::H5Group* analysis_group = nullptr;
};

}  // namespace Rawh5
}  // namespace DataAPI
