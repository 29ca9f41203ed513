#pragma once
// Analyses stored in a read: named groups under "Analyses" with attributes, an optional "Summary"
// group, and any tree of subgroups holding data sets (the results of an earlier basecall run).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "data_api/attribute_map.h"
#include "data_api/data_table.h"
#include "data_api/data_view.h"

namespace DataAPI {

// For an analysis both members are the group name under "Analyses" (e.g. "Basecall_1D_000"). For
// a data set `name` is the last component and `path` the path below the analysis group.
struct NamePath {
    std::string name;
    std::string path;

    bool operator==(const NamePath& o) const { return name == o.name && path == o.path; }
};

enum class ReturnStatus : std::int32_t {
    Unknown = 0,
    Successful = 1,
    NoData = 2,
    MissingFields = 3,
    ExceptionThrown = 4,
    BasecallFailed = 5,
    FailedQualityFilters = 6,
    MappingFailed = 7,
    BarcodeNotClassified = 8,
};

// Text stored in the file for a status; values outside the table give "Unknown error".
std::string ReturnStatusText(ReturnStatus status);
// Status of a stored text; a text outside the table gives ReturnStatus::Unknown.
ReturnStatus ParseReturnStatus(const std::string& text);

class DataSet {
public:
    virtual ~DataSet() = default;
    // Fills the view, whose format must match Format() (a String view adapts to the length).
    // Fails with "Could not read data from dataset.".
    virtual void ReadData(DataView& view) = 0;

    const DataFormat& Format() const { return format; }
    const std::string& Name() const { return name; }
    const AttributeMap& Attributes() const { return attributes; }

    // Conveniences over ReadData. ReadVector needs T to be the data set's element type exactly
    // (e.g. std::uint8_t for a "Move" data set).
    template <typename T>
    std::vector<T> ReadVector() {
        const bool matches = format.type == DataTypeOf<T>::value;
        if (matches) CheckReadSize(name, format.count, sizeof(T));
        std::vector<T> values(matches ? format.count : 0);
        DataView view = DataView::Of(values.data(), values.size());
        view.format.rows = format.rows;
        view.format.cols = format.cols;
        ReadData(view);
        return values;
    }
    std::string ReadString();
    DataTable ReadTable();

protected:
    DataFormat format;
    std::string name;
    AttributeMap attributes;
};

class AnalysisData {
public:
    virtual ~AnalysisData() = default;

    // Opens a data set listed in Datasets() by its path.
    virtual std::shared_ptr<DataSet> GetDataSet(const NamePath& data_set) = 0;
    // Writes the "Summary" group: "return_status" and one subgroup per entry of `summary`.
    virtual void SetSummary(ReturnStatus status, const ReadMetadata& summary) = 0;
    // Creates a data set at `path` (intermediate groups as needed) from the view and writes the
    // attributes to it. The new data set is listed only when the analysis is loaded again.
    virtual std::shared_ptr<DataSet> CreateDataSet(const std::string& path, const DataView& view,
                                                   const AttributeMap& attributes) = 0;

    const NamePath& Name() const { return name; }
    const std::vector<NamePath>& Datasets() const { return datasets; }
    ReturnStatus GetReturnStatus() const { return return_status; }
    const ReadMetadata& Summary() const { return summary; }
    const AttributeMap& Attributes() const { return attributes; }

protected:
    NamePath name;
    std::vector<NamePath> datasets;
    ReturnStatus return_status = ReturnStatus::Unknown;
    ReadMetadata summary;
    AttributeMap attributes;
};

}  // namespace DataAPI
