#pragma once
// Collects the program's log records while it lives, so that tests can check the messages a piece
// of the pipeline writes. Only one capture at a time.

#include "test_util.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include "common/logger.h"

namespace TestSupport {

class LogCapture {
public:
    using Severity = Common::logging::attributes::SeverityLevel;

    LogCapture() : backend(boost::make_shared<Backend>()), sink(boost::make_shared<Sink>(backend)) {
        // The logger's first use closes the core; make that happen before opening it here.
        Common::logging::BoostLoggerWrapper::get();
        boost::log::core::get()->add_sink(sink);
        boost::log::core::get()->reset_filter();
    }
    ~LogCapture() {
        boost::log::core::get()->remove_sink(sink);
        boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return false; });
    }

    // Messages of the given severity, in order.
    std::vector<std::string> Messages(Severity severity) const {
        return filtered([&](const Record& r) { return r.first == severity; });
    }
    std::vector<std::string> Info() const { return Messages(Severity::info); }
    // Number of records (any severity) that contain `text`.
    std::size_t Count(const std::string& text) const {
        return filtered([&](const Record& r) { return r.second.find(text) != std::string::npos; }).size();
    }

private:
    using Record = std::pair<Severity, std::string>;
    struct Backend : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& rec) {
            std::lock_guard<std::mutex> lock(mutex);
            records.emplace_back(boost::log::extract_or_default<Severity>("Severity", rec, Severity::trace),
                                 boost::log::extract_or_default<std::string>("Message", rec, std::string()));
        }
        std::mutex mutex;
        std::vector<Record> records;
    };
    using Sink = boost::log::sinks::synchronous_sink<Backend>;

    template <typename Keep>
    std::vector<std::string> filtered(Keep keep) const {
        std::lock_guard<std::mutex> lock(backend->mutex);
        std::vector<std::string> out;
        for (const Record& r : backend->records) {
            if (keep(r)) out.push_back(r.second);
        }
        return out;
    }

    boost::shared_ptr<Backend> backend;
    boost::shared_ptr<Sink> sink;
};

}  // namespace TestSupport
