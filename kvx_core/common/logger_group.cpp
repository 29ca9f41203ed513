#include "common/logger_group.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/log/attributes/current_thread_id.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions/formatters/date_time.hpp>
#include <boost/log/expressions/keyword.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/expressions/formatters/stream.hpp>
#include <boost/log/keywords/auto_flush.hpp>
#include <boost/log/keywords/file_name.hpp>
#include <boost/log/keywords/open_mode.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/utility/setup/common_attributes.hpp>
#include <boost/make_shared.hpp>

namespace Common {
namespace logging {

namespace {

namespace expr = boost::log::expressions;
namespace sinks = boost::log::sinks;
using attributes::SeverityLevel;

// A record passes a sink when its severity is one the sink takes, or its channel is one of the
// sink's channels.
struct SinkFilter {
    std::vector<SeverityLevel> severities;
    std::unordered_set<std::string> channels;

    bool operator()(const boost::log::attribute_value_set& values) const {
        if (!severities.empty()) {
            const auto level = boost::log::extract<SeverityLevel>("Severity", values);
            if (level && std::find(severities.begin(), severities.end(), *level) != severities.end()) {
                return true;
            }
        }
        if (!channels.empty()) {
            const auto channel = boost::log::extract<std::string>("Channel", values);
            if (channel && channels.count(*channel)) {
                return true;
            }
        }
        return false;
    }
};

SinkFilter makeFilter(const SinkOptions& options) { return SinkFilter{options.severities, options.channels}; }

struct LineFormatter {
    unsigned index;
    boost::log::formatter time_format;

    void operator()(const boost::log::record_view& record, boost::log::formatting_ostream& out) const {
        if (index & 16) {
            time_format(record, out);
        }
        if (index & 8) {
            out << "[marlo/";
            if (const auto channel = boost::log::extract<std::string>("Channel", record)) {
                out << *channel;
            }
            out << "] ";
        }
        if (index & 4) {
            out << "{";
            if (const auto level = boost::log::extract<SeverityLevel>("Severity", record)) {
                out << attributes::SeverityName(*level);
            }
            out << "} ";
        }
        if (index & 2) {
            if (const auto function = boost::log::extract<std::string>("Function", record)) {
                out << ShortFunctionName(*function) << ": ";
            }
        }
        if (index & 1) {
            out << "(thread:";
            if (const auto thread = boost::log::extract<boost::log::attributes::current_thread_id::value_type>(
                    "ThreadID", record)) {
                out << *thread;
            }
            out << ") ";
        }
        if (const auto message = boost::log::extract<std::string>("Message", record)) {
            out << *message;
        }
    }
};

bool isStreamSink(Loggers which) { return which == Loggers::StdErr || which == Loggers::StdOut; }
bool isFileSink(Loggers which) { return which == Loggers::CoreFile || which == Loggers::VerboseFile; }

}  // namespace

LoggerOptions::LoggerOptions() : core_file_name("core"), verbose_file_name("core_verbose") {
    for (auto& sink : sinks) {
        sink.channel = true;
        sink.function = true;
        sink.thread_id = true;
    }
    Sink(Loggers::CoreFile).timestamp = true;
    Sink(Loggers::VerboseFile).timestamp = true;
    Sink(Loggers::StdErr).severities = {SeverityLevel::error, SeverityLevel::warning};
    Sink(Loggers::StdErr).enabled = true;
    Sink(Loggers::StdOut).severities = {SeverityLevel::info, SeverityLevel::message};
    Sink(Loggers::StdOut).enabled = true;
}

LoggerOptions LoggerOptionsUtils::GetDefaultMarloLogOptions(bool quiet, bool verbose_logs,
                                                            const std::string& trace_categories) {
    LoggerOptions options;

    SinkOptions core;
    core.severities = {SeverityLevel::message, SeverityLevel::info, SeverityLevel::warning, SeverityLevel::error};
    core.timestamp = true;
    core.channel = true;
    core.enabled = true;
    options.Sink(Loggers::CoreFile) = core;

    SinkOptions err;
    err.severities = {SeverityLevel::warning, SeverityLevel::error};
    err.channel = true;
    err.function = true;
    err.enabled = true;
    options.Sink(Loggers::StdErr) = err;

    SinkOptions out;
    out.severities = {SeverityLevel::message};
    out.enabled = !quiet;
    options.Sink(Loggers::StdOut) = out;

    SinkOptions verbose;
    if (verbose_logs) {
        verbose.severities = {SeverityLevel::verbose, SeverityLevel::message, SeverityLevel::info,
                              SeverityLevel::warning, SeverityLevel::error};
    }
    if (!trace_categories.empty()) {
        std::vector<std::string> names;
        boost::split(names, trace_categories, boost::is_any_of(","));
        for (const auto& name : names) {
            if (!name.empty()) {
                verbose.channels.insert(name);
            }
        }
    }
    verbose.timestamp = true;
    verbose.channel = true;
    verbose.severity = true;
    verbose.function = true;
    verbose.enabled = verbose_logs || !trace_categories.empty();
    options.Sink(Loggers::VerboseFile) = verbose;
    return options;
}

unsigned FormatIndex(const SinkOptions& options) {
    return (options.timestamp ? 16u : 0u) + (options.channel ? 8u : 0u) + (options.severity ? 4u : 0u) +
           (options.function ? 2u : 0u) + (options.thread_id ? 1u : 0u);
}

boost::log::formatter MakeFormatter(unsigned index) {
    if (index > 31) {
        throw std::runtime_error("Invalid index for log formatting " + std::to_string(index));
    }
    boost::log::formatter time_format =
        expr::stream << expr::format_date_time<boost::posix_time::ptime>("TimeStamp", "%Y-%m-%d %H:%M:%S.%f ");
    return boost::log::formatter(LineFormatter{index, std::move(time_format)});
}

std::string ShortFunctionName(const std::string& signature) {
    std::string name = signature.substr(0, signature.find('('));
    const auto open = name.find('<');
    const auto close = name.rfind('>');
    if (open != std::string::npos) {
        name.erase(open, close != std::string::npos && close > open ? close - open + 1 : std::string::npos);
    }
    const auto blank = name.rfind(' ');
    if (blank != std::string::npos) {
        name.erase(0, blank + 1);
    }
    return name;
}

std::string LogFileNamePattern(const std::string& base_name) {
    std::string escaped;
    for (const char c : base_name) {
        escaped += c;
        if (c == '%') {
            escaped += '%';
        }
    }
    return escaped + "_log-%Y-%m-%d_%H-%M-%S.log";
}

LoggerGroup::LoggerGroup(const LoggerOptions& options) {
    // Build the global logger first: its set-up closes the core until a group exists, and that must
    // not happen after this group has opened it.
    BoostLoggerWrapper::get();
    boost::log::add_common_attributes();

    updateFileSink(Loggers::CoreFile, options.log_path, options.core_file_name,
                   SinkOptions(options.Sink(Loggers::CoreFile)));
    updateStreamSink(Loggers::StdErr, SinkOptions(options.Sink(Loggers::StdErr)));
    updateStreamSink(Loggers::StdOut, SinkOptions(options.Sink(Loggers::StdOut)));
    updateFileSink(Loggers::VerboseFile, options.log_path, options.verbose_file_name,
                   SinkOptions(options.Sink(Loggers::VerboseFile)));
}

LoggerGroup::~LoggerGroup() {
    for (int i = 0; i < 4; ++i) {
        removeSink(static_cast<Loggers>(i));
    }
    boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return false; });
}

void LoggerGroup::removeSink(Loggers which) {
    auto& sink = m_sinks[static_cast<int>(which)];
    if (sink) {
        boost::log::core::get()->remove_sink(sink);
        sink->flush();
        sink.reset();
    }
    m_options[static_cast<int>(which)] = SinkOptions();
}

void LoggerGroup::updateStreamSink(Loggers which, SinkOptions&& options) {
    if (!isStreamSink(which)) {
        KVX_LOG(error) << "Failed to update file sink - received wrong logger type";
        return;
    }
    removeSink(which);
    if (options.enabled) {
        auto backend = boost::make_shared<sinks::text_ostream_backend>();
        std::ostream& stream = which == Loggers::StdErr ? std::cerr : std::cout;
        backend->add_stream(boost::shared_ptr<std::ostream>(&stream, null_deleter()));
        backend->auto_flush(true);
        auto sink = boost::make_shared<sinks::synchronous_sink<sinks::text_ostream_backend>>(backend);
        sink->set_filter(makeFilter(options));
        sink->set_formatter(MakeFormatter(FormatIndex(options)));
        boost::log::core::get()->add_sink(sink);
        m_sinks[static_cast<int>(which)] = sink;
    }
    m_options[static_cast<int>(which)] = std::move(options);
    updateGlobalFilter();
}

void LoggerGroup::updateFileSink(Loggers which, const boost::filesystem::path& log_path,
                                 const std::string& file_name, SinkOptions&& options) {
    if (!isFileSink(which)) {
        KVX_LOG(error) << "Failed to update file sink - received wrong logger type";
        return;
    }
    removeSink(which);
    if (options.enabled) {
        // The file opens with its first record; the time in its name is the time of that opening.
        auto backend = boost::make_shared<sinks::text_file_backend>(
            boost::log::keywords::file_name = (log_path / LogFileNamePattern(file_name)).string(),
            boost::log::keywords::open_mode = std::ios_base::out | std::ios_base::app,
            boost::log::keywords::auto_flush = true);
        auto sink = boost::make_shared<sinks::synchronous_sink<sinks::text_file_backend>>(backend);
        sink->set_filter(makeFilter(options));
        sink->set_formatter(MakeFormatter(FormatIndex(options)));
        boost::log::core::get()->add_sink(sink);
        m_sinks[static_cast<int>(which)] = sink;
    }
    m_options[static_cast<int>(which)] = std::move(options);
    updateGlobalFilter();
}

void LoggerGroup::updateGlobalFilter() {
    // Records that no sink wants are never opened, so the macros skip their stream expressions.
    std::vector<SinkFilter> filters;
    for (int i = 0; i < 4; ++i) {
        if (m_sinks[i]) {
            filters.push_back(makeFilter(m_options[i]));
        }
    }
    boost::log::core::get()->set_filter([filters](const boost::log::attribute_value_set& values) {
        for (const auto& filter : filters) {
            if (filter(values)) {
                return true;
            }
        }
        return false;
    });
}

}  // namespace logging
}  // namespace Common
