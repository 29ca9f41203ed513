#pragma once
// Sinks of the program's log: two files (core and verbose), standard error and standard output. Each
// sink takes a set of severities and, besides, a set of channels, and prints a line made of the
// fields it asks for. Only one LoggerGroup is meant to exist at a time; before the first and after
// the last, records go nowhere.

#include <array>
#include <string>
#include <unordered_set>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <boost/log/expressions/formatter.hpp>
#include <boost/log/sinks/sink.hpp>
#include <boost/shared_ptr.hpp>

#include "common/logger.h"

namespace Common {
namespace logging {

enum class Loggers : int {
    CoreFile = 0,
    StdErr = 1,
    StdOut = 2,
    VerboseFile = 3,
};

struct SinkOptions {
    std::vector<attributes::SeverityLevel> severities;  // levels the sink takes
    std::unordered_set<std::string> channels;            // channels it takes whatever their severity
    bool timestamp = false;
    bool channel = false;
    bool severity = false;
    bool function = false;
    bool thread_id = false;
    bool enabled = false;  // whether the sink exists at all
};

struct LoggerOptions {
    // Two stream sinks (errors and warnings to standard error, info and message to standard output),
    // both file sinks off, and files named "core" and "core_verbose" should they be switched on.
    LoggerOptions();

    SinkOptions& Sink(Loggers which) { return sinks[static_cast<int>(which)]; }
    const SinkOptions& Sink(Loggers which) const { return sinks[static_cast<int>(which)]; }

    std::array<SinkOptions, 4> sinks;  // in the order of Loggers
    std::string log_path;
    std::string core_file_name;
    std::string verbose_file_name;
};

struct LoggerOptionsUtils {
    // The program's set-up: core file for message and above, warnings and errors on standard error,
    // message on standard output unless quiet, and a verbose file when verbose logs or trace
    // categories (comma-separated channel names) are asked for.
    static LoggerOptions GetDefaultMarloLogOptions(bool quiet, bool verbose_logs,
                                                   const std::string& trace_categories);
};

// No-op deleter that lets a shared pointer hold std::cout or std::cerr without ever closing them.
struct null_deleter {
    void operator()(const void*) const noexcept {}
};

// Format index of a sink: timestamp*16 + channel*8 + severity*4 + function*2 + thread_id.
unsigned FormatIndex(const SinkOptions& options);
// Line formatter for a format index; throws "Invalid index for log formatting <n>" above 31.
boost::log::formatter MakeFormatter(unsigned index);
// "void Common::FastQIterable::Increment()" -> "Common::FastQIterable::Increment": parameter list,
// template arguments and return type removed.
std::string ShortFunctionName(const std::string& signature);
// Base name as it stands in a log file name: "%" doubled, then the opening time pattern appended.
std::string LogFileNamePattern(const std::string& base_name);

class LoggerGroup {
public:
    explicit LoggerGroup(const LoggerOptions& options);
    ~LoggerGroup();
    LoggerGroup(const LoggerGroup&) = delete;
    LoggerGroup& operator=(const LoggerGroup&) = delete;

    // Rebuild one sink from new options: StdErr or StdOut here, CoreFile or VerboseFile below.
    void updateStreamSink(Loggers which, SinkOptions&& options);
    void updateFileSink(Loggers which, const boost::filesystem::path& log_path, const std::string& file_name,
                        SinkOptions&& options);

private:
    void removeSink(Loggers which);
    void updateGlobalFilter();

    std::array<boost::shared_ptr<boost::log::sinks::sink>, 4> m_sinks;
    std::array<SinkOptions, 4> m_options;
};

}  // namespace logging
}  // namespace Common
