#include "data_api/rawh5_analysis_data.h"

#include <algorithm>
#include <stdexcept>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "data_api/h5_wrapper.h"

namespace DataAPI {
namespace Rawh5 {

namespace {
std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> parts;
    boost::split(parts, path, boost::is_any_of("/"));
    return parts;
}
}  // namespace

DataSet::DataSet(const std::string& name_, H5Wrapper::H5Dataset* dataset_) : dataset(dataset_) {
    format = dataset->Format();
    name = name_;
    attributes = dataset->GetAttributes();
}

DataSet::~DataSet() {
    if (dataset) dataset->Close();
}

void DataSet::ReadData(DataView& view) {
    if (!dataset || !dataset->Read(view)) throw std::runtime_error("Could not read data from dataset.");
    if (view.format.type == DataType::String && view.string) {
        const std::size_t zero = view.string->find('\0');
        if (zero != std::string::npos) view.string->resize(zero);
        view.data = &(*view.string)[0];
        view.format.item_size = view.string->size();
    }
}

AnalysisData::AnalysisData(const std::string& name_, H5Wrapper::H5Group* group, bool load_,
                           const AttributeMap& attributes_)
    : AnalysisData(name_, group, load_, attributes_, false) {}

AnalysisData::AnalysisData(const std::string& name_, H5Wrapper::H5Group* group, bool load_,
                           const AttributeMap& attributes_, bool legacy)
    : analysis_group(group) {
    name = NamePath{name_, name_};
    attributes = attributes_;
    if (load_) load(legacy);
}

void AnalysisData::load(bool legacy) {
    attributes = analysis_group->GetAttributes();
    std::set<std::pair<std::uint64_t, std::uint64_t>> visited;
    if (legacy) {
        listDatasets(analysis_group, "", visited);
        if (analysis_group->Exists("Summary")) loadSummary(legacy);
    } else {
        if (analysis_group->Exists("Summary")) loadSummary(legacy);
        listDatasets(analysis_group, "", visited);
    }
}

void AnalysisData::loadSummary(bool legacy) {
    H5Wrapper::H5Group* group = analysis_group->OpenGroup("Summary");
    if (!group) {
        // Legacy files are taken as they come: a "Summary" that is not a group leaves the
        // analysis without a summary instead of failing the read.
        if (legacy) return;
        throw std::runtime_error("Failed to open 'Summary' group for analysis '" + name.name + "'.");
    }
    const AttributeMap summary_attributes = group->GetAttributes();
    return_status = ParseReturnStatus(boost::any_cast<std::string>(summary_attributes.at("return_status")));
    for (const std::string& sub : group->ListGroups()) {
        H5Wrapper::H5Group* subgroup = group->OpenGroup(sub);
        if (!subgroup) continue;
        summary[sub] = subgroup->GetAttributes();
        subgroup->Close();
    }
    group->Close();
}

void AnalysisData::listDatasets(H5Wrapper::H5Group* group, const std::string& prefix,
                                std::set<std::pair<std::uint64_t, std::uint64_t>>& visited) {
    std::pair<std::uint64_t, std::uint64_t> location;
    // A group whose location cannot be told is walked anyway; a cycle needs a location to close.
    if (group->Location(location.first, location.second) && !visited.insert(location).second) return;
    auto join = [&prefix](const std::string& n) { return prefix.empty() ? n : prefix + "/" + n; };
    for (const std::string& n : group->ListDatasets()) datasets.push_back(NamePath{n, join(n)});
    for (const std::string& n : group->ListGroups()) {
        H5Wrapper::H5Group* sub = group->OpenGroup(n);
        if (!sub) continue;
        listDatasets(sub, join(n), visited);
        sub->Close();
    }
}

std::shared_ptr<DataAPI::DataSet> AnalysisData::makeDataSet(const std::string& ds_name,
                                                            H5Wrapper::H5Dataset* dataset) {
    return std::make_shared<DataSet>(ds_name, dataset);
}

std::shared_ptr<DataAPI::DataSet> AnalysisData::GetDataSet(const NamePath& data_set) {
    const std::string& path = data_set.path;
    auto listed = std::find_if(datasets.begin(), datasets.end(), [&](const NamePath& d) { return d.path == path; });
    if (listed == datasets.end()) throw std::runtime_error("Specified data set not found in analysis data.");
    const std::vector<std::string> parts = splitPath(path);
    H5Wrapper::H5Group* group = analysis_group;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        group = group->OpenGroup(parts[i]);
        if (!group) throw std::runtime_error("Could not navigate to dataset '" + path + "'.");
    }
    H5Wrapper::H5Dataset* dataset = group->OpenDataset(parts.back());
    if (!dataset) throw std::runtime_error("Could not open dataset '" + path + "'.");
    return makeDataSet(parts.back(), dataset);
}

void AnalysisData::SetSummary(ReturnStatus status, const ReadMetadata& new_summary) {
    if (return_status != ReturnStatus::Unknown || !summary.empty())
        throw std::runtime_error("Cannot set the summary data for an analysis if it is already set.");
    return_status = status;
    summary = new_summary;
    H5Wrapper::H5Group* group = analysis_group->CreateGroup("Summary");
    if (!group) throw std::runtime_error("Could not create 'Summary' group.");
    group->AddAttribute("return_status", ReturnStatusText(status));
    for (const auto& entry : summary) {
        if (!group->CreateGroup(entry.first, entry.second))
            throw std::runtime_error("Could not create summary subfolder.");
    }
    group->Close();
}

std::shared_ptr<DataAPI::DataSet> AnalysisData::CreateDataSet(const std::string& path, const DataView& view,
                                                              const AttributeMap& ds_attributes) {
    const std::vector<std::string> parts = splitPath(path);
    H5Wrapper::H5Group* group = analysis_group;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        const std::string& part = parts[i];
        if (group->Exists(part)) {
            group = group->OpenGroup(part);
            if (!group) throw std::runtime_error("Could not open intermediate group '" + part + "'.");
        } else {
            group = group->CreateGroup(part);
            if (!group) throw std::runtime_error("Could not create intermediate group '" + part + "'.");
        }
    }
    H5Wrapper::H5Dataset* dataset = group->CreateDataset(parts.back(), view);
    if (!dataset) throw std::runtime_error("Could not create dataset '" + path + "'.");
    if (!ds_attributes.empty()) dataset->SetAttributes(ds_attributes);
    return makeDataSet(parts.back(), dataset);
}

namespace Legacy {

AnalysisData::AnalysisData(const std::string& name_, H5Wrapper::H5Group* group, bool load_,
                           const AttributeMap& attributes_)
    : Rawh5::AnalysisData(name_, group, load_, attributes_, true) {}

std::shared_ptr<DataAPI::DataSet> AnalysisData::makeDataSet(const std::string& ds_name,
                                                            H5Wrapper::H5Dataset* dataset) {
    return std::make_shared<DataSet>(ds_name, dataset);
}

}  // namespace Legacy
}  // namespace Rawh5
}  // namespace DataAPI
