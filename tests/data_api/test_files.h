#pragma once
// Shared by the data_api tests: a scratch directory per test program, the read-file fixtures
// written by rawh5_fixtures.py into it on first use, and helpers for exact failure texts and for
// attribute values.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <boost/any.hpp>

#include "data_api/attribute_map.h"

namespace kvx_test {

// A directory under the system's temporary directory, removed with everything in it at exit.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kvx_data_api_XXXXXX").string();
        if (!mkdtemp(&pattern[0])) throw std::runtime_error("cannot make a scratch directory");
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string File(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

inline ScratchDir& Scratch() {
    static ScratchDir dir;
    return dir;
}

inline std::string FixtureScript() { return std::string(KVX_SOURCE_DIR) + "/tests/data_api/rawh5_fixtures.py"; }

// Path of a fixture written by the script with the system's h5py; the script runs once per program.
inline std::string Fixture(const std::string& name) {
    static const std::string dir = [] {
        const std::string target = Scratch().File("fixtures");
        std::filesystem::create_directories(target);
        const std::string command = "/usr/bin/python3 " + FixtureScript() + " make " + target;
        if (std::system(command.c_str()) != 0) throw std::runtime_error("fixture script failed: " + command);
        return target;
    }();
    return dir + "/" + name;
}

// The what() text of the exception of type E thrown by f, or a note that none (or another) was.
template <typename E, typename F>
std::string Thrown(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    } catch (const std::exception& e) {
        return std::string("<other exception: ") + e.what() + ">";
    }
    return "<no exception>";
}

// Metadata of a read with every group the reader requires, and an attribute of every kind the layer
// stores in "context_tags".
inline DataAPI::ReadMetadata MetadataFor(const std::string& id, unsigned int duration, unsigned int read_number) {
    return {
        {"raw_data",
         {{"read_id", id},
          {"duration", duration},
          {"read_number", read_number},
          {"start_time", 987654ul},
          {"start_mux", 3u},
          {"median_before", 215.25}}},
        {"channel_id",
         {{"digitisation", 8192.0},
          {"offset", -12.0},
          {"range", 1500.0},
          {"sampling_rate", 4000.0},
          {"channel_number", std::string("77")}}},
        {"tracking_id",
         {{"run_id", std::string("run-xyz")},
          {"flow_cell_id", std::string("FC-9")},
          {"sample_id", std::string("sample-7")},
          {"exp_start_time", std::string("2017-06-01T10:00:00Z")}}},
        {"context_tags",
         {{"sc", (signed char)-1},
          {"uc", (unsigned char)1},
          {"s", (short)-2},
          {"us", (unsigned short)2},
          {"i", -3},
          {"ui", 3u},
          {"l", -4l},
          {"ul", 4ul},
          {"f", 0.5f},
          {"d", 0.25},
          {"text", std::string("kit")}}},
    };
}

// An attribute value as "kind:value", so that a stored kind and value are compared in one step and a
// mismatch prints readably. Kinds the layer does not store show as "?".
inline std::string AnyText(const boost::any& value) {
    std::ostringstream out;
    auto as = [&](auto sample, const char* kind) {
        using T = decltype(sample);
        const T* p = boost::any_cast<T>(&value);
        if (p) {
            out << kind << ":";
            if constexpr (sizeof(T) == 1 && !std::is_same_v<T, bool>) {
                out << static_cast<int>(*p);
            } else {
                out << *p;
            }
        }
        return p != nullptr;
    };
    out.precision(17);
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
