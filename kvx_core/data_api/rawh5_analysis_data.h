#pragma once
// Analyses and data sets of ".rawh5" read files, for the multi-read layout and the legacy
// single-read layout. The two differ only in how a damaged "Summary" is met on loading.
// Both point into groups owned by the read's file: an analysis or data set must not outlive the
// source of a multi-read file, nor the last pointer to a legacy read.

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "data_api/analysis_data.h"

namespace DataAPI {

namespace H5Wrapper {
class H5Dataset;
class H5Group;
}  // namespace H5Wrapper

namespace Rawh5 {

class DataSet : public DataAPI::DataSet {
public:
    // Copies the format and reads the attributes of an open data set.
    DataSet(const std::string& name, H5Wrapper::H5Dataset* dataset);
    // Closes the data set; its group still owns the object.
    ~DataSet() override;
    void ReadData(DataView& view) override;

protected:
    H5Wrapper::H5Dataset* dataset;
};

class AnalysisData : public DataAPI::AnalysisData {
public:
    // With `load`, reads attributes, "Summary" and the list of data sets from the group; without,
    // the analysis is new and only keeps `attributes`.
    AnalysisData(const std::string& name, H5Wrapper::H5Group* group, bool load,
                 const AttributeMap& attributes = AttributeMap());

    std::shared_ptr<DataAPI::DataSet> GetDataSet(const NamePath& data_set) override;
    void SetSummary(ReturnStatus status, const ReadMetadata& summary) override;
    std::shared_ptr<DataAPI::DataSet> CreateDataSet(const std::string& path, const DataView& view,
                                                    const AttributeMap& attributes) override;

protected:
    // Legacy analyses list their data sets before the summary and tolerate a "Summary" that
    // cannot be opened as a group.
    AnalysisData(const std::string& name, H5Wrapper::H5Group* group, bool load, const AttributeMap& attributes,
                 bool legacy);
    void load(bool legacy);
    void loadSummary(bool legacy);
    // Adds the data sets below `group` to `datasets`. `visited` holds the locations of the groups
    // walked so far: links can make a group its own descendant, and such a group is walked once.
    void listDatasets(H5Wrapper::H5Group* group, const std::string& prefix,
                      std::set<std::pair<std::uint64_t, std::uint64_t>>& visited);
    virtual std::shared_ptr<DataAPI::DataSet> makeDataSet(const std::string& name, H5Wrapper::H5Dataset* dataset);

    H5Wrapper::H5Group* analysis_group;
};

namespace Legacy {

class DataSet : public Rawh5::DataSet {
public:
    using Rawh5::DataSet::DataSet;
};

class AnalysisData : public Rawh5::AnalysisData {
public:
    AnalysisData(const std::string& name, H5Wrapper::H5Group* group, bool load,
                 const AttributeMap& attributes = AttributeMap());

protected:
    std::shared_ptr<DataAPI::DataSet> makeDataSet(const std::string& name, H5Wrapper::H5Dataset* dataset) override;
};

}  // namespace Legacy
}  // namespace Rawh5
}  // namespace DataAPI
