#pragma once
// An HDF5 file: the root group of the tree, opened or created on construction.

#include <string>

#include "data_api/h5_group.h"

namespace DataAPI {
namespace H5Wrapper {

class H5File : public H5Group {
public:
    // Opens (ReadOnly, ReadWrite) or creates (CreateExclusive, CreateTruncate) the file; fails with
    // "Could not open file \"<path>\"." or "Could not create file \"<path>\".". A created file is
    // in ReadWrite mode afterwards.
    H5File(const std::string& path, H5Mode mode);
    ~H5File() override;
    // Closes all children, then the file.
    void Close() override;
};

}  // namespace H5Wrapper
}  // namespace DataAPI
