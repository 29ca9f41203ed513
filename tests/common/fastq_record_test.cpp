#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "../async_caller/log_capture.h"
#include "common/fastq_record.h"
#include "test_support.h"

using Common::FastQRecord;
using Common::logging::attributes::SeverityLevel;
using TestSupport::ErrorOf;

TEST(FastQRecord, ValidationMessages) {
    const struct {
        const char *sequence, *qstring, *error;
    } cases[] = {
        {"ACG", "!!", "Sequence is not the same length as the qstring\nHeader: @r\nSequence: ACG\nQstring: !!\n"},
        {"ACGTN", "!!!!!",
         "Sequence contained an unexpected character 'N' at position 4\nHeader: @r\nSequence: ACGTN\nQstring: !!!!!\n"},
        {"ACgT", "!!!!",
         "Sequence contained an unexpected character 'g' at position 2\nHeader: @r\nSequence: ACgT\nQstring: !!!!\n"},
        {"ACGU", "!~ ~", "Unsupported character in the Qstring:  "},  // both ends of the printable range
        {"A", "\x7f", "Unsupported character in the Qstring: \x7f"},
        {"ACGU", "!~!~", "<no error>"},
        {"", "", "<no error>"},
    };
    for (const auto& c : cases) EXPECT_EQ(ErrorOf([&] { FastQRecord("@r", c.sequence, c.qstring); }), c.error);
    // Set stores, then validates.
    FastQRecord record;
    EXPECT_THROW(record.Set("@x", "AC", "!"), std::runtime_error);
    EXPECT_EQ(record.Header(), "@x");
    EXPECT_EQ(FastQRecord("@id runid=r", "", "").AddHeaderField("barcode", "bc01"), "@id runid=r barcode=bc01");
}

TEST(FastQRecord, ReadAndRunIdsOfDamagedTitles) {
    TestSupport::LogCapture log;
    const FastQRecord full("@abc runid=xyz sampleid=s", "", "");
    EXPECT_EQ(full.GetReadId(), "abc");
    EXPECT_EQ(FastQRecord("@abc", "", "").GetReadId(), "abc");
    EXPECT_EQ(full.GetRunId(), "xyz");
    EXPECT_EQ(FastQRecord("@a\truntime runid=r1\tch=3", "", "").GetRunId(), "r1");
    EXPECT_EQ(FastQRecord("@runid=first", "", "").GetRunId(), "first");
    EXPECT_EQ(FastQRecord("@x runid=", "", "").GetRunId(), "");
    EXPECT_EQ(FastQRecord("@ starts-with-blank", "", "").GetReadId(), "");
    EXPECT_TRUE(log.Messages(SeverityLevel::warning).empty());
    EXPECT_EQ(FastQRecord("@", "", "").GetReadId(), "[invalid read id]");
    EXPECT_EQ(FastQRecord("@abc", "", "").GetRunId(), "[invalid run id]");
    EXPECT_EQ(log.Messages(SeverityLevel::warning),
              (std::vector<std::string>{"Read title '@' does not have any space. Continuing with next read.",
                                        "Could not extract read id from fastq title. Continuing with next read.",
                                        "Could not find 'runid=' in the title: @abc",
                                        "Could not extract run id from fastq title. Continuing with next read."}));
    EXPECT_EQ(ErrorOf([] { FastQRecord().GetReadId(); }), "Cannot get the read ID from an empty FastQ record.");
    EXPECT_EQ(ErrorOf([] { FastQRecord().GetRunId(); }), "Cannot get the run ID from an empty FastQ record.");
}

// A walk ends at the end of the text, or with a message at the first bad record.
TEST(FastQIterable, WalksRecordsAndStopsAtTheEnd) {
    TestSupport::LogCapture log;
    for (const auto& [text, ids] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"@r1 runid=a\nACGT\n+\n!!!!\n@r2 runid=a\nGG\n+ anything\n##\n@r3\nT\n+\n~", {"r1", "r2", "r3"}},
             {"", {}},
             {"@ok\nAC\n+\n!!\n@bad\nACN\n+\n!!!\n@never\nA\n+\n!\n", {"ok"}}}) {
        std::istringstream in(text);
        Common::FastQIterable records(in);
        std::vector<std::string> found;
        for (records.begin(); !records.AtEnd(); records.Increment()) found.push_back(records.GetReadId());
        EXPECT_EQ(found, ids);
        EXPECT_EQ(ErrorOf([&] { records.begin(); }), "Cannot start FastQ iteration twice");
    }
    const auto messages = log.Messages(SeverityLevel::message);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].rfind("Caught exception, so setting END flag. Sequence contained an unexpected character 'N' at position 2", 0), 0u);
}
