#pragma once
// Internal to the HDF5 layer: the mapping between DataFormat and HDF5 types and spaces. Only the
// wrapper's own sources include this header, so HDF5 stays out of every public interface. Every
// function here expects the caller to hold h5Mutex.

#include <hdf5.h>

#include "data_api/data_view.h"

namespace DataAPI {
namespace H5Wrapper {
namespace detail {

// A fresh copy of the memory type of one element of `type`; FixedString gets `size` bytes.
// Anything without a type of its own falls back to unsigned bytes. The caller closes it.
hid_t ElementType(DataType type, std::uint64_t size);

// Type and space describing the memory of a view: two dimensions when rows and cols are both set,
// otherwise one of `count` elements; a String is a scalar of `item_size` characters; a Table a
// compound of its fields at their in-memory offsets. On failure one or both are negative; the
// caller closes whatever is not.
void BuildTypeAndSpace(const DataFormat& format, hid_t& type, hid_t& space);

// Works out the format of an open data set from its type and space (Unknown when the layer
// cannot represent it).
DataFormat WorkOutFormat(hid_t dataset);

}  // namespace detail
}  // namespace H5Wrapper
}  // namespace DataAPI
