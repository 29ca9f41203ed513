#pragma once
// Shared by the data_api tests: a scratch directory per test program, the read-file fixtures
// written by rawh5_fixtures.py into it on first use, and a helper for exact failure texts.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

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

}  // namespace kvx_test
