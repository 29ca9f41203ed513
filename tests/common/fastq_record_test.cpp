#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <regex>
#include <sstream>
#include <vector>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include "common/fastq_record.h"
#include "common/logger.h"

using Common::FastQHeaderFields;
using Common::FastQIterable;
using Common::FastQRecord;
using Common::logging::attributes::SeverityLevel;

namespace {

struct Captured {
    SeverityLevel severity;
    std::string channel;
    std::string text;
};

// Keeps every record that reaches the core, for the duration of one test.
class CaptureBackend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
public:
    void consume(const boost::log::record_view& record) {
        Captured c;
        c.severity = boost::log::extract<SeverityLevel>("Severity", record).get();
        c.channel = boost::log::extract<std::string>("Channel", record).get();
        c.text = boost::log::extract<std::string>("Message", record).get();
        records.push_back(c);
    }
    std::vector<Captured> records;
};

class LogCapture {
public:
    LogCapture() : backend_(boost::make_shared<CaptureBackend>()) {
        // The logger closes the core when it is first built; build it before opening the core.
        Common::logging::BoostLoggerWrapper::get();
        sink_ = boost::make_shared<Sink>(backend_);
        boost::log::core::get()->add_sink(sink_);
        boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return true; });
    }
    ~LogCapture() {
        boost::log::core::get()->remove_sink(sink_);
        boost::log::core::get()->set_filter([](const boost::log::attribute_value_set&) { return false; });
    }
    // Texts logged at `severity`, in order.
    std::vector<std::string> Texts(SeverityLevel severity) const {
        std::vector<std::string> out;
        for (const Captured& c : backend_->records)
            if (c.severity == severity) out.push_back(c.text);
        return out;
    }
    const std::vector<Captured>& Records() const { return backend_->records; }

private:
    using Sink = boost::log::sinks::synchronous_sink<CaptureBackend>;
    boost::shared_ptr<CaptureBackend> backend_;
    boost::shared_ptr<Sink> sink_;
};

std::string failure(const std::string& header, const std::string& sequence, const std::string& qstring) {
    try {
        FastQRecord record(header, sequence, qstring);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<valid>";
}

}  // namespace

TEST(FastQRecord, ValidationMessages) {
    EXPECT_EQ(failure("@r", "ACG", "!!"),
              "Sequence is not the same length as the qstring\nHeader: @r\nSequence: ACG\nQstring: !!\n");
    EXPECT_EQ(failure("@r", "ACGTN", "!!!!!"),
              "Sequence contained an unexpected character 'N' at position 4\nHeader: @r\nSequence: ACGTN\nQstring: !!!!!\n");
    EXPECT_EQ(failure("@r", "ACgT", "!!!!"),
              "Sequence contained an unexpected character 'g' at position 2\nHeader: @r\nSequence: ACgT\nQstring: !!!!\n");
    EXPECT_EQ(failure("@r", "ACGU", "!~ ~"), "Unsupported character in the Qstring:  ");
    EXPECT_EQ(failure("@r", "A", "\x7f"), "Unsupported character in the Qstring: \x7f");
    EXPECT_EQ(failure("@r", "ACGU", "!~!~"), "<valid>");
    EXPECT_EQ(failure("", "", ""), "<valid>");

    // Set stores, then validates.
    FastQRecord record;
    EXPECT_THROW(record.Set("@x", "AC", "!"), std::runtime_error);
    EXPECT_EQ(record.Header(), "@x");
}

TEST(FastQRecord, TextsAndHeaderBuilding) {
    const FastQRecord record("@id runid=r", "ACGT", "!#%'");
    EXPECT_EQ(record.ToString(), "@id runid=r\nACGT\n+\n!#%'\n");
    EXPECT_EQ(record.Print(), "Header: @id runid=r\nSequence: ACGT\nQstring: !#%'\n");
    EXPECT_EQ(FastQRecord("@e", "", "").ToString(), "@e\n\n+\n\n");
    EXPECT_EQ(record.AddHeaderField("barcode", "bc01"), "@id runid=r barcode=bc01");
    EXPECT_EQ(record.Header(), "@id runid=r");

    FastQHeaderFields fields;
    fields.read_id = "abc-123";
    fields.run_id = "run9";
    fields.sample_id = "s1";
    fields.read_number = 4017;
    fields.channel = 12;
    fields.start_time = "2017-06-01T10:00:01Z";
    EXPECT_EQ(FastQRecord::MakeHeader(fields),
              "@abc-123 runid=run9 sampleid=s1 read=4017 ch=12 start_time=2017-06-01T10:00:01Z");
}

TEST(FastQRecord, ReadAndRunIdsOfDamagedTitles) {
    LogCapture log;
    EXPECT_EQ(FastQRecord("@abc", "", "").GetReadId(), "abc");
    const FastQRecord full("@abc runid=xyz sampleid=s", "", "");
    EXPECT_EQ(full.GetReadId(), "abc");
    EXPECT_EQ(full.GetRunId(), "xyz");
    EXPECT_EQ(FastQRecord("@a\truntime runid=r1\tch=3", "", "").GetRunId(), "r1");
    EXPECT_EQ(FastQRecord("@runid=first", "", "").GetRunId(), "first");
    EXPECT_EQ(FastQRecord("@x runid=", "", "").GetRunId(), "");
    EXPECT_EQ(FastQRecord("@ starts-with-blank", "", "").GetReadId(), "");
    EXPECT_TRUE(log.Texts(SeverityLevel::warning).empty());

    EXPECT_EQ(FastQRecord("@", "", "").GetReadId(), "[invalid read id]");
    EXPECT_EQ(FastQRecord("@abc", "", "").GetRunId(), "[invalid run id]");
    EXPECT_EQ(log.Texts(SeverityLevel::warning),
              (std::vector<std::string>{
                  "Read title '@' does not have any space. Continuing with next read.",
                  "Could not extract read id from fastq title. Continuing with next read.",
                  "Could not find 'runid=' in the title: @abc",
                  "Could not extract run id from fastq title. Continuing with next read."}));
    for (const auto& r : log.Records()) EXPECT_EQ(r.channel, "core");

    const FastQRecord empty;
    try {
        empty.GetReadId();
        FAIL() << "an empty header has no read id";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot get the read ID from an empty FastQ record.");
    }
    try {
        empty.GetRunId();
        FAIL() << "an empty header has no run id";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot get the run ID from an empty FastQ record.");
    }
}

TEST(FastQIterable, WalksRecordsAndStopsAtTheEnd) {
    LogCapture log;
    std::istringstream text("@r1 runid=a\nACGT\n+\n!!!!\n@r2 runid=a\nGG\n+ anything\n##\n@r3\nT\n+\n~");
    FastQIterable records(text);
    std::vector<std::string> ids;
    for (records.begin(); !records.AtEnd(); records.Increment()) ids.push_back(records.GetReadId());
    EXPECT_EQ(ids, (std::vector<std::string>{"r1", "r2", "r3"}));
    EXPECT_EQ(records.State(), FastQIterable::kEnd);
    EXPECT_EQ(log.Texts(SeverityLevel::trace).front(), "FastQIterable::Increment()");
    EXPECT_EQ(log.Texts(SeverityLevel::trace)[1], "title:  @r1 runid=a");
    EXPECT_EQ(log.Texts(SeverityLevel::trace)[4], "qstring:!!!!");
    try {
        records.begin();
        FAIL() << "a finished walk cannot start again";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot start FastQ iteration twice");
    }

    // A bad record ends the walk with a message instead of an exception.
    std::istringstream damaged("@ok\nAC\n+\n!!\n@bad\nACN\n+\n!!!\n@never\nA\n+\n!\n");
    FastQIterable walk(damaged);
    ids.clear();
    for (walk.begin(); !walk.AtEnd(); walk.Increment()) ids.push_back(walk.GetReadId());
    EXPECT_EQ(ids, std::vector<std::string>{"ok"});
    const std::vector<std::string> messages = log.Texts(SeverityLevel::message);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].rfind("Caught exception, so setting END flag. Sequence contained an unexpected character 'N' at position 2", 0),
              0u);

    std::istringstream nothing("");
    FastQIterable none(nothing);
    EXPECT_TRUE(none.begin().AtEnd());
}

TEST(FastQRecord, WallClockStampText) {
    const char* old = std::getenv("TZ");
    const std::string saved = old ? old : "";
    setenv("TZ", "UTC", 1);
    tzset();
    // 2017-06-01 10:00:00 UTC and 123 ms.
    const auto when = std::chrono::system_clock::from_time_t(1496311200) + std::chrono::milliseconds(123);
    EXPECT_EQ(Common::TimeStampText(when), "2017-06-01 10:00:00.123");
    EXPECT_TRUE(std::regex_match(Common::TimeStampText(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})")));
    if (old)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}
