#include "common/logger.h"

#include <istream>
#include <stdexcept>

#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/keywords/channel.hpp>
#include <boost/log/keywords/severity.hpp>

namespace Common {
namespace logging {

namespace attributes {
namespace {
constexpr const char* kSeverityNames[] = {"trace", "verbose", "message", "info", "warning", "error"};
}

const char* SeverityName(SeverityLevel level) {
    const auto index = static_cast<unsigned>(level);
    if (index < sizeof(kSeverityNames) / sizeof(kSeverityNames[0])) {
        return kSeverityNames[index];
    }
    return "unknown";
}

SeverityLevel ParseSeverity(const std::string& name) {
    for (unsigned i = 0; i < sizeof(kSeverityNames) / sizeof(kSeverityNames[0]); ++i) {
        if (name == kSeverityNames[i]) {
            return static_cast<SeverityLevel>(i);
        }
    }
    throw std::runtime_error("unable to find severity for string: " + name);
}

std::ostream& operator<<(std::ostream& os, SeverityLevel level) { return os << SeverityName(level); }

std::istream& operator>>(std::istream& is, SeverityLevel& level) {
    std::string name;
    if (is >> name) {
        level = ParseSeverity(name);
    }
    return is;
}
}  // namespace attributes

BOOST_LOG_GLOBAL_LOGGER_INIT(BoostLoggerWrapper, BoostLogger) {
    // With no sink registered, Boost.Log would print through its default console sink. Records are to
    // go nowhere until a LoggerGroup exists, so the core starts closed; the group opens it.
    boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return false; });
    return BoostLogger();
}

namespace detail {

namespace {
thread_local const char* t_openingChannel = nullptr;

class RecordChannelImpl : public boost::log::attribute::impl {
public:
    // Asked for while the record is being opened (by the filters, and when its values are fixed
    // before it is handed back), on the opening thread: the value is the record's own, never shared.
    boost::log::attribute_value get_value() override {
        return boost::log::attributes::make_attribute_value(
            std::string(t_openingChannel ? t_openingChannel : kDefaultChannel));
    }
};
}  // namespace

OpeningChannel::OpeningChannel(const char* channel) : m_previous(t_openingChannel) {
    t_openingChannel = channel;
}

OpeningChannel::~OpeningChannel() { t_openingChannel = m_previous; }

boost::log::attribute MakeRecordChannelAttribute() { return boost::log::attribute(new RecordChannelImpl()); }

RecordPump::RecordPump(attributes::SeverityLevel level, const char* channel, const char* function) {
    auto& logger = BoostLoggerWrapper::get();
    m_record =
        logger.open_record((boost::log::keywords::severity = level, boost::log::keywords::channel = channel));
    if (m_record) {
        m_record.attribute_values().insert(
            "Function", boost::log::attributes::make_constant(std::string(function)).get_value());
        m_stream.attach_record(m_record);
    }
}

void RecordPump::Finish() {
    if (m_done) {
        return;
    }
    m_done = true;
    if (m_record) {
        m_stream.flush();
        m_stream.detach_from_record();
        BoostLoggerWrapper::get().push_record(std::move(m_record));
    }
}

RecordPump::~RecordPump() {
    // A record whose streaming threw is dropped rather than half-written.
    if (m_stream) {
        m_stream.detach_from_record();
    }
}

}  // namespace detail
}  // namespace logging
}  // namespace Common
