#pragma once
// Collects the program's log records while it lives, so that tests can check the messages a piece
// of the pipeline writes. Only one capture at a time.

#include <mutex>
#include <string>
#include <vector>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "common/logger.h"

namespace TestSupport {

class LogCapture {
public:
    struct Record {
        Common::logging::attributes::SeverityLevel severity;
        std::string message;
    };

    LogCapture() : backend(boost::make_shared<Backend>()) {
        // The logger's first use closes the core; make that happen before opening it here.
        Common::logging::BoostLoggerWrapper::get();
        sink = boost::make_shared<Sink>(backend);
        boost::log::core::get()->add_sink(sink);
        boost::log::core::get()->reset_filter();
    }
    ~LogCapture() {
        boost::log::core::get()->remove_sink(sink);
        boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return false; });
    }

    std::vector<Record> Records() const {
        std::lock_guard<std::mutex> lock(backend->mutex);
        return backend->records;
    }
    // Messages of the given severity, in order.
    std::vector<std::string> Messages(Common::logging::attributes::SeverityLevel severity) const {
        std::vector<std::string> out;
        for (const Record& r : Records()) {
            if (r.severity == severity) {
                out.push_back(r.message);
            }
        }
        return out;
    }
    std::vector<std::string> Info() const { return Messages(Common::logging::attributes::SeverityLevel::info); }
    // Number of records (any severity) that contain `text`.
    std::size_t Count(const std::string& text) const {
        std::size_t n = 0;
        for (const Record& r : Records()) {
            n += r.message.find(text) != std::string::npos ? 1 : 0;
        }
        return n;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(backend->mutex);
        backend->records.clear();
    }

private:
    struct Backend : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
        void consume(const boost::log::record_view& rec) {
            Record r;
            r.severity = boost::log::extract_or_default<Common::logging::attributes::SeverityLevel>(
                "Severity", rec, Common::logging::attributes::SeverityLevel::trace);
            r.message = boost::log::extract_or_default<std::string>("Message", rec, std::string());
            std::lock_guard<std::mutex> lock(mutex);
            records.push_back(std::move(r));
        }
        mutable std::mutex mutex;
        std::vector<Record> records;
    };
    using Sink = boost::log::sinks::synchronous_sink<Backend>;

    boost::shared_ptr<Backend> backend;
    boost::shared_ptr<Sink> sink;
};

}  // namespace TestSupport
