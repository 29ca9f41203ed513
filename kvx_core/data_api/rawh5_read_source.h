#pragma once
// A ".rawh5" read file of either layout. A root group "Raw" marks a legacy single-read file;
// without it the file holds any number of "read_<id>" groups.
//
// Writing, in brief:
//   Rawh5::ReadSource source(path, H5Mode::CreateTruncate, /*single_read=*/false);
//   auto read = source.AddRead(id);
//   read->SetMetadata(metadata);   // "raw_data", "channel_id", "tracking_id", ...
//   read->SetRawData(samples);     // exactly "duration" samples
//   auto analysis = read->CreateAnalysis("Basecall_1D", attributes);
//   analysis->CreateDataSet("BaseCalled_template/Move", DataView::Of(moves), {});
//   analysis->SetSummary(ReturnStatus::Successful, {{"basecall_1d_template", {...}}});
// With single_read set, the create modes make a legacy file instead, holding the one read added.
//
// Reads of a multi-read file point into the source's file: they must not be used after the
// source is closed. A legacy read owns its file.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "data_api/h5_object.h"
#include "data_api/read_source.h"

namespace DataAPI {

namespace H5Wrapper {
class H5File;
}  // namespace H5Wrapper

namespace Rawh5 {

class ReadData;
namespace Legacy {
class ReadData;
}  // namespace Legacy

class ReadSource : public DataAPI::ReadSource {
public:
    // ReadOnly and ReadWrite open the file and tell its layout. The create modes make a
    // multi-read file, or with `single_read` defer the file to AddRead, which makes it legacy.
    ReadSource(const std::string& path, H5Wrapper::H5Mode mode, bool single_read = false);
    ~ReadSource() override;

    // Read ids of the file; for a multi-read file listed on first use and then cached.
    const std::vector<std::string>& GetReadIds() override;
    std::shared_ptr<DataAPI::ReadData> GetRead(const std::string& id) override;
    std::shared_ptr<DataAPI::ReadData> AddRead(const std::string& id) override;
    void Close() override;

    bool IsOpen() const { return open; }
    bool IsMultiRead() const { return multi_read; }
    H5Wrapper::H5Mode Mode() const { return mode; }

private:
    std::atomic<bool> open{false};
    bool multi_read = false;
    std::shared_ptr<Legacy::ReadData> legacy_read;
    std::unique_ptr<H5Wrapper::H5File> file;
    H5Wrapper::H5Mode mode;
};

}  // namespace Rawh5
}  // namespace DataAPI
