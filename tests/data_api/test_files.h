#pragma once
// Shared by the data_api tests: read-file fixtures that rawh5_fixtures.py writes with the system's
// h5py into one scratch folder per test program, read metadata to write, and attribute values as
// comparable text.

#include <cstdlib>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <boost/any.hpp>

#include "../common/test_support.h"
#include "data_api/attribute_map.h"

namespace kvx_test {

// A path in this program's scratch folder, which is removed at exit.
inline std::string Scratch(const std::string& name) {
    static const TestSupport::TempDir dir;
    return (dir.path / name).string();
}

inline std::string FixtureScript() { return std::string(KVX_SOURCE_DIR) + "/tests/data_api/rawh5_fixtures.py"; }

// Path of a fixture; the script runs once per program.
inline std::string Fixture(const std::string& name) {
    static const std::string dir = [] {
        const std::string target = Scratch("fixtures");
        boost::filesystem::create_directories(target);
        const std::string command = "/usr/bin/python3 " + FixtureScript() + " make " + target;
        if (std::system(command.c_str()) != 0) throw std::runtime_error("fixture script failed: " + command);
        return target;
    }();
    return dir + "/" + name;
}

// Metadata of a read with every group the reader requires, and an attribute of every kind the layer
// stores in "context_tags".
inline DataAPI::ReadMetadata MetadataFor(const std::string& id, unsigned int duration, unsigned int read_number) {
    using std::string;
    return {{"raw_data",
             {{"read_id", id}, {"duration", duration}, {"read_number", read_number}, {"start_time", 987654ul},
              {"start_mux", 3u}, {"median_before", 215.25}}},
            {"channel_id",
             {{"digitisation", 8192.0}, {"offset", -12.0}, {"range", 1500.0}, {"sampling_rate", 4000.0},
              {"channel_number", string("77")}}},
            {"tracking_id",
             {{"run_id", string("run-xyz")}, {"flow_cell_id", string("FC-9")}, {"sample_id", string("sample-7")},
              {"exp_start_time", string("2017-06-01T10:00:00Z")}}},
            {"context_tags",
             {{"sc", (signed char)-1}, {"uc", (unsigned char)1}, {"s", (short)-2}, {"us", (unsigned short)2},
              {"i", -3}, {"ui", 3u}, {"l", -4l}, {"ul", 4ul}, {"f", 0.5f}, {"d", 0.25}, {"text", string("kit")}}}};
}

// An attribute value as "kind:value", so that a stored kind and value are compared in one step and a
// mismatch prints readably. Kinds the layer does not store show as "?".
inline std::string AnyText(const boost::any& value) {
    std::ostringstream out;
    out.precision(17);
    auto as = [&](auto sample, const char* kind) {
        using T = decltype(sample);
        const T* p = boost::any_cast<T>(&value);
        if (p) {
            out << kind << ":";
            if constexpr (sizeof(T) == 1) out << static_cast<int>(*p); else out << *p;
        }
        return p != nullptr;
    };
    as((signed char)0, "i8") || as((unsigned char)0, "u8") || as(short(0), "i16") ||
        as((unsigned short)0, "u16") || as(0, "i32") || as(0u, "u32") || as(0l, "i64") || as(0ul, "u64") ||
        as(0.0f, "f32") || as(0.0, "f64") || as(std::string(), "text") || (out << "?", true);
    return out.str();
}

// The text of every attribute of a map, by name, as AnyText gives it.
inline std::map<std::string, std::string> AttributeTexts(const DataAPI::AttributeMap& attributes) {
    std::map<std::string, std::string> out;
    for (const auto& [name, value] : attributes) out[name] = AnyText(value);
    return out;
}

}  // namespace kvx_test
