#pragma once
// The program's log facility: one global severity-and-channel logger that every call site uses
// through KVX_LOG / KVX_LOG_CH. Sinks are owned by Common::logging::LoggerGroup (logger_group.h);
// until a group exists, records go nowhere.

#include <cstdint>
#include <ostream>
#include <string>

#include <boost/current_function.hpp>
#include <boost/log/core/record.hpp>
#include <boost/log/sources/global_logger_storage.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

namespace Common {
namespace logging {

namespace attributes {
enum class SeverityLevel : std::uint8_t {
    trace = 0,
    verbose = 1,
    message = 2,
    info = 3,
    warning = 4,
    error = 5,
};

// Name printed for a level; any value outside the table prints as "unknown".
const char* SeverityName(SeverityLevel level);
// Exact, case-sensitive parse; throws "unable to find severity for string: <name>".
SeverityLevel ParseSeverity(const std::string& name);
std::ostream& operator<<(std::ostream& os, SeverityLevel level);
std::istream& operator>>(std::istream& is, SeverityLevel& level);
}  // namespace attributes

// Tag types for severity-specific attribute keywords at call sites.
struct error {};
struct warning {};
struct info {};
struct message {};
struct verbose {};

using BoostLogger = boost::log::sources::severity_channel_logger_mt<attributes::SeverityLevel, std::string>;

// The process-wide logger, built lazily once under Boost.Log's once-block.
BOOST_LOG_GLOBAL_LOGGER(BoostLoggerWrapper, BoostLogger)

// Channel used by call sites that do not name one.
constexpr const char* kDefaultChannel = "core";

namespace detail {
// Opens a record only when some sink takes the severity and channel; the streamed expressions of
// the macro are evaluated only when the record is open, and the record is pushed at the end of the
// statement.
class RecordPump {
public:
    RecordPump(attributes::SeverityLevel level, const char* channel, const char* function);
    ~RecordPump();
    RecordPump(const RecordPump&) = delete;
    RecordPump& operator=(const RecordPump&) = delete;

    bool Active() const { return !m_done && bool(m_record); }
    void Finish();
    boost::log::record_ostream& Stream() { return m_stream; }

private:
    boost::log::record m_record;
    boost::log::record_ostream m_stream;
    bool m_done = false;
};
}  // namespace detail

}  // namespace logging
}  // namespace Common

#define KVX_LOG_CH(sev, channel)                                                                      \
    for (::Common::logging::detail::RecordPump kvx_log_pump_(                                         \
             ::Common::logging::attributes::SeverityLevel::sev, (channel), BOOST_CURRENT_FUNCTION); \
         kvx_log_pump_.Active(); kvx_log_pump_.Finish())                                              \
    kvx_log_pump_.Stream()

#define KVX_LOG(sev) KVX_LOG_CH(sev, ::Common::logging::kDefaultChannel)
