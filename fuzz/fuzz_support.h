#pragma once
// Pieces shared by the fuzz targets: a scratch directory for the parsers that only read from a path,
// a reader that cuts one input into the fields a target needs, and the two ways a target reports:
// Check for an invariant that no input may break, Refused for an input the code turned down.
//
// A target's contract: the code under test either succeeds or throws a std::exception. The targets
// catch std::exception and nothing else, so any other exception, a crash, a sanitizer report or a
// hang is a finding.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace fuzz {

// An invariant of the code under test that a bad input must not break: reported as a crash.
inline void Check(bool condition, const char* what) {
    if (!condition) {
        std::cerr << "Invariant broken: " << what << std::endl;
        std::abort();
    }
}

// Called with what the code under test threw for an input. Silent unless KVX_FUZZ_VERBOSE is set:
// then it prints the message, which shows how far each seed of a corpus gets.
inline void Refused(const std::exception& e) {
    static const bool verbose = std::getenv("KVX_FUZZ_VERBOSE") != nullptr;
    if (verbose) {
        std::cerr << "  refused: " << e.what() << std::endl;
    }
}

// A directory of this process, on a memory file system when there is one, removed at exit. Every
// file a target writes goes here, under a fixed name, so a long run does not fill the disk.
inline const std::string& ScratchDir() {
    static const std::string dir = [] {
        namespace fs = std::filesystem;
        fs::path base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
        std::string pattern = (base / "kvx_fuzz.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("Cannot make a scratch directory under " + base.string());
        }
        static std::string made = pattern;
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(made, ignored);
        });
        return pattern;
    }();
    return dir;
}

// Writes the bytes to ScratchDir()/name, replacing what was there, and returns the path.
inline std::string WriteScratchFile(const std::string& name, const std::uint8_t* data, std::size_t size) {
    const std::string path = ScratchDir() + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
        throw std::logic_error("Cannot write the scratch file " + path);
    }
    return path;
}
inline std::string WriteScratchFile(const std::string& name, const std::string& text) {
    return WriteScratchFile(name, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// Takes fields from the front of an input. Past the end every field reads as zero and every byte
// run as empty, so that any input, however short, is a valid one.
class ByteReader {
public:
    ByteReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    template <typename T>
    T Take() {
        T value{};
        if (size_ - pos_ >= sizeof(T)) {
            std::memcpy(&value, data_ + pos_, sizeof(T));
            pos_ += sizeof(T);
        } else {
            pos_ = size_;
        }
        return value;
    }
    // Up to n bytes.
    std::string TakeBytes(std::size_t n) {
        n = std::min(n, size_ - pos_);
        std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
        pos_ += n;
        return out;
    }
    // The bytes up to the next occurrence of `separator` (which is consumed), or all that is left.
    std::string TakeUntil(const std::string& separator) {
        const std::string rest(reinterpret_cast<const char*>(data_ + pos_), size_ - pos_);
        const std::size_t at = rest.find(separator);
        if (at == std::string::npos) {
            pos_ = size_;
            return rest;
        }
        pos_ += at + separator.size();
        return rest.substr(0, at);
    }
    std::string Rest() { return TakeBytes(size_ - pos_); }
    std::size_t Remaining() const { return size_ - pos_; }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace fuzz
