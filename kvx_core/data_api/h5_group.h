#pragma once
// Groups and files. A group owns every group and data set opened or created through it: the
// pointers handed out stay valid until the parent closes, callers may Close them but never delete
// them. A closed child stays on the list until the parent closes, so a group that opens the same
// name repeatedly holds one closed child per open for its lifetime.

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "data_api/h5_object.h"

namespace DataAPI {

class DataView;

namespace H5Wrapper {

class H5Dataset;

class H5Group : public H5Object {
public:
    H5Group() = default;
    H5Group(std::int64_t id, H5Mode mode) : H5Object(id, mode) {}
    ~H5Group() override;

    // Whether a link of that name (a path with slashes too) exists. Never prints the HDF5 error
    // stack, whatever error handler is installed.
    bool Exists(const std::string& name);
    // Names of the member groups / data sets, in the library's native order.
    std::vector<std::string> ListGroups();
    std::vector<std::string> ListDatasets();

    // Null when the library cannot open or create the object.
    H5Group* OpenGroup(const std::string& name);
    H5Group* CreateGroup(const std::string& name, const AttributeMap& attributes = AttributeMap());
    H5Dataset* OpenDataset(const std::string& name);
    // Creates the data set and writes the view's data; a CompressedDataView is written chunk by
    // chunk without recompression.
    H5Dataset* CreateDataset(const std::string& name, const DataView& view);

    // Closes every child in list order, deletes them, then closes this group.
    void Close() override;

protected:
    void closeChildren();
    std::vector<std::string> listMembers(int wanted_type, const char* closed_message);

    std::list<std::unique_ptr<H5Object>> children;
};

}  // namespace H5Wrapper
}  // namespace DataAPI
