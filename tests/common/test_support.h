#pragma once
// Small pieces the tests of several folders share: a scratch folder per test, whole-file reads, and
// the message of a failure.

#include <fstream>
#include <iterator>
#include <exception>
#include <stdexcept>
#include <string>

#include <boost/filesystem.hpp>

namespace TestSupport {

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class TempDir {
public:
    TempDir() : path(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("kvx-%%%%-%%%%-%%%%")) {
        boost::filesystem::create_directories(path);
    }
    ~TempDir() {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Str() const { return path.string(); }
    // Writes `content` to the file `name` in this folder and returns its path.
    std::string File(const std::string& name, const std::string& content) const {
        const std::string file = (path / name).string();
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

    boost::filesystem::path path;
};

// The whole content of a file; empty when it cannot be read.
inline std::string ReadText(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The what() text of the exception that f throws, or `none` when it throws nothing.
template <typename F>
std::string ErrorOf(F&& f, const std::string& none = "<no error>") {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return none;
}

}  // namespace TestSupport
