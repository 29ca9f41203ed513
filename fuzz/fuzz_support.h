#pragma once
// Pieces shared by the fuzz targets. A target's contract: the code under test either succeeds or
// throws a std::exception. Try() catches std::exception and nothing else, so any other exception, a
// crash, a sanitizer report or a hang is a finding; Check() is an invariant no input may break.

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
#include <vector>

#include <unistd.h>

namespace fuzz {

inline void Check(bool condition, const char* what) {
    if (!condition) {
        std::cerr << "Invariant broken: " << what << std::endl;
        std::abort();
    }
}

// Runs `action`; what it throws is a refused input, printed only with KVX_FUZZ_VERBOSE set (which
// shows how far each seed of a corpus gets).
template <typename F>
void Try(F&& action) {
    try {
        action();
    } catch (const std::exception& e) {
        static const bool verbose = std::getenv("KVX_FUZZ_VERBOSE") != nullptr;
        if (verbose) {
            std::cerr << "  refused: " << e.what() << std::endl;
        }
    }
}

// Labels of a read as the pair loader makes them: one per block, each a 3-mer.
inline void CheckLabels(const std::vector<std::int32_t>& labels, std::size_t blocks) {
    Check(labels.size() == blocks, "one label per block");
    for (const std::int32_t label : labels) {
        Check(label >= 0 && label < 64, "labels are 3-mers");
    }
}

// A directory of this process, on a memory file system when there is one, removed at exit. Every
// file a target writes goes here, under a fixed name, so a long run does not fill the disk.
inline const std::string& ScratchDir() {
    namespace fs = std::filesystem;
    static const std::string dir =
        ((fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) /
         ("kvx_fuzz." + std::to_string(getpid())))
            .string();
    static const bool made = (fs::create_directories(dir), fs::is_directory(dir)) && std::atexit([] {
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }) == 0;
    Check(made, "a scratch directory of this process");
    return dir;
}

// Writes the bytes to ScratchDir()/name, replacing what was there, and returns the path.
inline std::string WriteScratchFile(const std::string& name, const std::uint8_t* data, std::size_t size) {
    const std::string path = ScratchDir() + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    Check(static_cast<bool>(out), "the scratch file is written");
    return path;
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
        }
        pos_ = std::min(size_, pos_ + sizeof(T));
        return value;
    }
    // Up to n bytes.
    std::string TakeBytes(std::size_t n) {
        n = std::min(n, size_ - pos_);
        pos_ += n;
        return std::string(reinterpret_cast<const char*>(data_ + pos_ - n), n);
    }
    std::string Rest() { return TakeBytes(size_ - pos_); }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

}  // namespace fuzz
