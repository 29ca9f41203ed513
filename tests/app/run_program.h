#pragma once
// Runs the program itself in a shell, as a user would, and reads back what it left behind.

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

namespace TestSupport {

namespace fs = boost::filesystem;

inline const std::string kProgram = std::string(KVX_BINARY_DIR) + "/bin/basecaller_1d2";
inline const std::string kDataPath = std::string(KVX_BINARY_DIR) + "/data";

inline std::string Slurp(const fs::path& path) {
    std::ifstream in(path.string());
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

struct RunResult {
    int code = 0;
    std::string out;
    std::string err;
};

// Runs the program with `args`, its standard output and error going to files in `scratch`.
inline RunResult RunProgram(const std::vector<std::string>& args, const fs::path& scratch) {
    const auto quote = [](const std::string& arg) {
        std::string quoted = "'";
        for (const char c : arg) {
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        return quoted + "'";
    };
    std::string command = quote(kProgram);
    for (const auto& arg : args) {
        command += " " + quote(arg);
    }
    const auto out = scratch / "stdout.txt";
    const auto err = scratch / "stderr.txt";
    command += " >" + quote(out.string()) + " 2>" + quote(err.string()) + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1000, Slurp(out), Slurp(err)};
}

// The log file of `base` in the save path, empty if there is none.
inline std::string LogFile(const fs::path& save, const std::string& base) {
    if (!fs::exists(save)) {
        return {};
    }
    const std::regex name(base + "_log-\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.log");
    for (fs::directory_iterator it(save), end; it != end; ++it) {
        if (std::regex_match(it->path().filename().string(), name)) {
            return Slurp(it->path());
        }
    }
    return {};
}

// A directory that goes away with the test.
struct TempDir {
    TempDir() : path(fs::temp_directory_path() / fs::unique_path("kvx-app-%%%%-%%%%")) { fs::create_directories(path); }
    ~TempDir() { fs::remove_all(path); }
    fs::path path;
};

}  // namespace TestSupport
