#pragma once
// The program's log facility: one global severity-and-channel logger that every call site uses
// through KVX_LOG / KVX_LOG_CH. Sinks are owned by Common::logging::LoggerGroup (logger_group.h);
// until a group exists, records go nowhere.

#include <cstdint>
#include <ostream>
#include <string>

#include <boost/current_function.hpp>
#include <boost/log/attributes/attribute.hpp>
#include <boost/log/core/record.hpp>
#include <boost/log/detail/light_rw_mutex.hpp>
#include <boost/log/keywords/channel.hpp>
#include <boost/log/sources/basic_logger.hpp>
#include <boost/log/sources/features.hpp>
#include <boost/log/sources/global_logger_storage.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_feature.hpp>
#include <boost/log/sources/threading_models.hpp>

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

// Channel used by call sites that do not name one.
constexpr const char* kDefaultChannel = "core";

namespace detail {
// Names the channel of the record this thread is opening, for as long as it lives. Only the calling
// thread's own slot is written, so records opened at once on several threads never touch shared state.
class OpeningChannel {
public:
    explicit OpeningChannel(const char* channel);
    ~OpeningChannel();
    OpeningChannel(const OpeningChannel&) = delete;
    OpeningChannel& operator=(const OpeningChannel&) = delete;

private:
    const char* m_previous;
};

// The "Channel" attribute: each record gets a value of its own, a copy of the channel that its thread
// is opening it on (kDefaultChannel when none is named).
boost::log::attribute MakeRecordChannelAttribute();
}  // namespace detail

// Logger feature that gives every record the channel named in its own open_record call (the
// `channel` keyword). Boost.Log's own channel feature keeps the channel in the logger and rewrites it
// on every call: in a logger shared by all threads that is a write to shared state per record, under an
// exclusive lock that serialises every log statement of the program, filtered out or not. It also
// shows in the ThreadSanitizer build as a race on every record: the replaced value is freed by the
// next thread that logs, while the last reader let go of it inside the prebuilt Boost.Log library,
// where the sanitizer sees no synchronisation. Here the logger holds one stateless attribute, each
// record's channel value is made and dropped on the thread that logs, and opening a record takes only
// the logger's shared lock.
template <typename BaseT>
class RecordChannelLogger : public BaseT {
    using base_type = BaseT;

public:
    RecordChannelLogger() : base_type() { addChannelAttribute(); }
    // A copied logger's attribute set already holds the (stateless) channel attribute.
    RecordChannelLogger(const RecordChannelLogger& that) : base_type(static_cast<const base_type&>(that)) {}
    RecordChannelLogger(RecordChannelLogger&& that) : base_type(std::move(static_cast<base_type&>(that))) {}
    template <typename ArgsT>
    explicit RecordChannelLogger(const ArgsT& args) : base_type(args) {
        addChannelAttribute();
    }

protected:
    template <typename ArgsT>
    boost::log::record open_record_unlocked(const ArgsT& args) {
        const detail::OpeningChannel opening(args[boost::log::keywords::channel | kDefaultChannel]);
        return base_type::open_record_unlocked(args);
    }

private:
    void addChannelAttribute() {
        base_type::add_attribute_unlocked("Channel", detail::MakeRecordChannelAttribute());
    }
};

// The feature as Boost.Log's composite logger takes it.
struct RecordChannel {
    template <typename BaseT>
    struct apply {
        using type = RecordChannelLogger<BaseT>;
    };
};

// The multi-threaded severity and channel logger that serves every call site: severity and channel are
// both given per record, and neither is stored in the logger.
class BoostLogger : public boost::log::sources::basic_composite_logger<
                        char, BoostLogger,
                        boost::log::sources::multi_thread_model<boost::log::aux::light_rw_mutex>,
                        boost::log::sources::features<boost::log::sources::severity<attributes::SeverityLevel>,
                                                      RecordChannel>> {
    BOOST_LOG_FORWARD_LOGGER_MEMBERS(BoostLogger)
};

// The process-wide logger, built lazily once under Boost.Log's once-block.
BOOST_LOG_GLOBAL_LOGGER(BoostLoggerWrapper, BoostLogger)

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
