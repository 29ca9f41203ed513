#pragma once
// A data set and the format worked out from its HDF5 type and space.

#include <cstdint>

#include "data_api/data_view.h"
#include "data_api/h5_object.h"

namespace DataAPI {
namespace H5Wrapper {

class H5Group;

class H5Dataset : public H5Object {
public:
    ~H5Dataset() override;

    // Reads the whole data set into the view. The view's format must equal the data set's,
    // except that a String view adapts to the length of a string data set. True when the
    // library read succeeded.
    bool Read(DataView& view);
    void Close() override;

    const DataFormat& Format() const { return format; }

private:
    friend class H5Group;
    // Takes over an open handle; the format is worked out by the creator under the mutex.
    H5Dataset(std::int64_t id, H5Mode mode) : H5Object(id, mode) {}

    DataFormat format;
};

}  // namespace H5Wrapper
}  // namespace DataAPI
