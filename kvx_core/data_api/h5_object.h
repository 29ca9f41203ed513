#pragma once
// Root of the thin object layer over HDF5. The library is not assumed to be thread-safe, so every
// call into it, from every object of this layer, is made while holding the one process-wide
// mutex h5Mutex; each public operation takes it once and releases it on every path.

#include <cstdint>
#include <mutex>
#include <string>

#include <boost/any.hpp>

#include "data_api/attribute_map.h"

namespace DataAPI {
namespace H5Wrapper {

extern std::mutex h5Mutex;

enum class H5Mode : std::int32_t {
    Closed = 0,
    ReadOnly = 1,
    ReadWrite = 2,
    CreateExclusive = 3,  // fails if the file exists; the object is ReadWrite once created
    CreateTruncate = 4,   // replaces any file; the object is ReadWrite once created
};

class H5Object {
public:
    H5Object() = default;
    H5Object(std::int64_t id, H5Mode mode) : id(id), mode(mode) {}
    H5Object(const H5Object&) = delete;
    H5Object& operator=(const H5Object&) = delete;
    virtual ~H5Object() = default;
    // Releases the handle. Does nothing here; groups, files and data sets close their handles.
    virtual void Close() {}

    // All attributes of the object, by name. Undecodable values come back as warning strings.
    AttributeMap GetAttributes();
    // Writes every entry in map order; names that already exist are left as they are.
    void SetAttributes(const AttributeMap& attributes);
    void AddAttribute(const std::string& name, const boost::any& value);

    // Where the object is stored: a number of its file and its address there. Handles of one
    // object give the same pair whatever path or link opened them, which is what lets a walk
    // notice a group it has already been through. False on a closed object or a library failure.
    bool Location(std::uint64_t& file, std::uint64_t& address);

    bool IsOpen() const { return id >= 0; }
    std::int64_t Id() const { return id; }
    H5Mode Mode() const { return mode; }

protected:
    // Writes one attribute; the caller holds h5Mutex.
    void writeAttributeLocked(const std::string& name, const boost::any& value);
    // Writes a map of attributes; the caller holds h5Mutex.
    void writeAttributesLocked(const AttributeMap& attributes);

    std::int64_t id = -1;
    H5Mode mode = H5Mode::Closed;
};

}  // namespace H5Wrapper
}  // namespace DataAPI
