#include "data_api/rawh5_legacy_read_data.h"

#include <stdexcept>

#include "data_api/h5_wrapper.h"
#include "data_api/rawh5_analysis_data.h"

namespace DataAPI {
namespace Rawh5 {
namespace Legacy {

ReadData::ReadData(std::unique_ptr<H5Wrapper::H5File> file_, const std::string& path_)
    : path(path_), file(std::move(file_)) {
    mode = file->Mode();
    read_group = file.get();
    load();
}

ReadData::ReadData(const std::string& path_, H5Wrapper::H5Mode mode_, const std::string& id) : path(path_) {
    const bool create = mode_ == H5Wrapper::H5Mode::CreateExclusive || mode_ == H5Wrapper::H5Mode::CreateTruncate;
    file.reset(new H5Wrapper::H5File(path, mode_));
    mode = file->Mode();
    read_group = file.get();
    if (create) {
        read_id = id;
        file_version = 1.0;
        file->AddAttribute("file_version", file_version);
    } else {
        load();
    }
}

// Groups point into the file; drop them before the file closes.
ReadData::~ReadData() {
    raw_group = nullptr;
    analysis_group = nullptr;
    read_group = nullptr;
}

void ReadData::load() {
    H5Wrapper::H5Group* raw = file->OpenGroup("Raw");
    if (!raw) throw std::runtime_error("Rawh5 read file is invalid. 'Raw' group not found.");
    H5Wrapper::H5Group* reads = raw->OpenGroup("Reads");
    if (!reads) throw std::runtime_error("Rawh5 read file is invalid. 'Raw/Reads' group not found.");
    const std::vector<std::string> names = reads->ListGroups();
    if (names.size() != 1 || names[0].compare(0, 5, "Read_") != 0)
        throw std::runtime_error("Rawh5 read file is invalid. Read group could not be determined.");
    raw_group = reads->OpenGroup(names[0]);
    if (!raw_group) throw std::runtime_error("Rawh5 read file is invalid. 'Raw/Reads/Read_###' group not found.");
    takeReadAttributes(raw_group->GetAttributes(), true);

    H5Wrapper::H5Group* key = file->OpenGroup("UniqueGlobalKey");
    if (!key) throw std::runtime_error("Rawh5 read file is invalid. 'UniqueGlobalKey' group not found.");
    for (const std::string& name : key->ListGroups()) {
        H5Wrapper::H5Group* group = key->OpenGroup(name);
        if (!group) continue;
        metadata[name] = group->GetAttributes();
        group->Close();
    }
    key->Close();
    if (!metadata.count("channel_id"))
        throw std::runtime_error("Rawh5 read file is invalid. 'UniqueGlobalKey/channel_id' group not found.");
    if (!metadata.count("tracking_id"))
        throw std::runtime_error("Rawh5 read file is invalid. 'UniqueGlobalKey/tracking_id' group not found.");

    takeChannelAndTracking();
    file_version = GenericCast<double>(file->GetAttributes().at("file_version"));
    loadAnalyses(file.get());
}

H5Wrapper::H5Group* ReadData::metadataGroup() {
    H5Wrapper::H5Group* key = file->CreateGroup("UniqueGlobalKey");
    if (!key) throw std::runtime_error("Could not create 'UniqueGlobalKey' group.");
    return key;
}

H5Wrapper::H5Group* ReadData::createRawGroup() {
    H5Wrapper::H5Group* raw = file->CreateGroup("Raw");
    if (!raw) throw std::runtime_error("Could not create 'Raw' group.");
    H5Wrapper::H5Group* reads = raw->CreateGroup("Reads");
    if (!reads) throw std::runtime_error("Could not create 'Raw/Reads' group.");
    H5Wrapper::H5Group* read = reads->CreateGroup("Read_" + std::to_string(read_number), metadata["raw_data"]);
    if (!read) throw std::runtime_error("Could not create 'Raw/Reads/Read_###' group.");
    return read;
}

std::shared_ptr<DataAPI::AnalysisData> ReadData::makeAnalysis(const std::string& name, H5Wrapper::H5Group* group, bool load_,
                                                     const AttributeMap& attributes) {
    return std::make_shared<Legacy::AnalysisData>(name, group, load_, attributes);
}

}  // namespace Legacy
}  // namespace Rawh5
}  // namespace DataAPI
