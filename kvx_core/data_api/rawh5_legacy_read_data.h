#pragma once
// The one read of a legacy single-read ".rawh5" file: "Raw/Reads/Read_###" (read attributes and
// "Signal"), "UniqueGlobalKey" (channel_id, tracking_id and any other metadata group), the root
// attribute "file_version" and an optional root "Analyses". The read owns its file, which stays
// open as long as any shared pointer to the read lives.

#include <memory>
#include <string>

#include "data_api/h5_object.h"
#include "data_api/rawh5_read_data.h"

namespace DataAPI {

namespace H5Wrapper {
class H5File;
}  // namespace H5Wrapper

namespace Rawh5 {
namespace Legacy {

class ReadData : public Rawh5::ReadData {
public:
    // Takes over an open file and loads its read.
    ReadData(std::unique_ptr<H5Wrapper::H5File> file, const std::string& path);
    // Opens or creates the file at `path`. A created file gets the read id and the root attribute
    // "file_version" = 1.0; an opened one is loaded.
    ReadData(const std::string& path, H5Wrapper::H5Mode mode, const std::string& id);
    ~ReadData() override;

    H5Wrapper::H5Mode Mode() const { return mode; }
    double FileVersion() const { return file_version; }
    const std::string& Path() const { return path; }

protected:
    void load();
    H5Wrapper::H5Group* metadataGroup() override;
    H5Wrapper::H5Group* createRawGroup() override;
    std::shared_ptr<DataAPI::AnalysisData> makeAnalysis(const std::string& name, H5Wrapper::H5Group* group, bool load,
                                               const AttributeMap& attributes) override;

    std::string path;
    H5Wrapper::H5Mode mode = H5Wrapper::H5Mode::Closed;
    std::unique_ptr<H5Wrapper::H5File> file;
    double file_version = 0.0;
};

}  // namespace Legacy
}  // namespace Rawh5
}  // namespace DataAPI
