#pragma once
// Runs the program itself in a shell, as a user would, and reads back what it left behind.

#include <sys/wait.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "../common/test_support.h"

namespace TestSupport {

namespace fs = boost::filesystem;

inline const std::string kProgram = std::string(KVX_BINARY_DIR) + "/bin/basecaller_1d2";
inline const std::string kDataPath = std::string(KVX_BINARY_DIR) + "/data";

struct RunResult {
    int code = 0;
    std::string out;
    std::string err;
    std::string log;  // the core log file of the save path, if one is given as "-s"
};

// Runs the program with `args`, its standard output and error going to files in `scratch`.
inline RunResult RunProgram(const std::vector<std::string>& args, const fs::path& scratch) {
    const auto quote = [](const std::string& arg) {
        std::string quoted = "'";
        for (const char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return quoted + "'";
    };
    std::string command = quote(kProgram);
    for (const auto& arg : args) command += " " + quote(arg);
    const auto out = (scratch / "stdout.txt").string(), err = (scratch / "stderr.txt").string();
    command += " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1000, ReadText(out), ReadText(err), {}};
}

// The log file of `base` in the save path, empty if there is none.
inline std::string LogFile(const fs::path& save, const std::string& base) {
    if (!fs::exists(save)) return {};
    const std::regex name(base + "_log-\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.log");
    for (fs::directory_iterator it(save), end; it != end; ++it) {
        if (std::regex_match(it->path().filename().string(), name)) {
            return ReadText(it->path().string());
        }
    }
    return {};
}

}  // namespace TestSupport
