#pragma once
// Internal to the HDF5 layer: the mapping between DataFormat and HDF5 types and spaces. Only the
// wrapper's own sources include this header, so HDF5 stays out of every public interface. Every
// function here expects the caller to hold h5Mutex.

#include <hdf5.h>

#include "data_api/data_view.h"

namespace DataAPI {
namespace H5Wrapper {
namespace detail {

// Owns one HDF5 handle and closes it with the matching H5?close on every way out of a scope,
// exceptions included. A handle left open keeps its object alive, with the names the library
// copied for it, until the process ends, and a file with open objects is never really closed.
class Handle {
public:
    Handle(hid_t id, herr_t (*close)(hid_t)) : id_(id), close_(close) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() {
        if (id_ >= 0) close_(id_);
    }
    hid_t get() const { return id_; }
    bool valid() const { return id_ >= 0; }

private:
    hid_t id_;
    herr_t (*close_)(hid_t);
};

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
