#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>

#include "common/logger.h"
#include "common/logger_group.h"
#include "test_support.h"

namespace fs = boost::filesystem;
using namespace Common::logging;
using Common::logging::attributes::SeverityLevel;

namespace {

using TestSupport::TempDir;

// Contents of the one file in dir whose name starts with prefix; empty if there is none.
std::string FileStartingWith(const TempDir& dir, const std::string& prefix, std::string* name = nullptr) {
    for (fs::directory_iterator it(dir.path), end; it != end; ++it) {
        const auto file = it->path().filename().string();
        if (file.rfind(prefix, 0) == 0) {
            if (name) {
                *name = file;
            }
            return TestSupport::ReadText(it->path().string());
        }
    }
    return {};
}

int g_evaluations = 0;
std::string Counted(const std::string& text) {
    ++g_evaluations;
    return text;
}

LoggerOptions MarloOptions(const TempDir& dir, bool quiet, bool verbose, const std::string& trace) {
    auto options = LoggerOptionsUtils::GetDefaultMarloLogOptions(quiet, verbose, trace);
    options.log_path = dir.path.string();
    options.core_file_name = "core_test";
    options.verbose_file_name = "verbose_test";
    return options;
}

}  // namespace

// Outside the anonymous namespace, so its records carry the plain name "EmitSample".
static void EmitSample() {
    KVX_LOG(trace) << "trace core";
    KVX_LOG(verbose) << "verbose core";
    KVX_LOG(message) << "message core";
    KVX_LOG(info) << "info core";
    KVX_LOG(warning) << "warning core";
    KVX_LOG(error) << "error core";
    KVX_LOG_CH(trace, "foo") << "trace foo";
    KVX_LOG_CH(trace, "bar") << "trace bar";
    KVX_LOG_CH(trace, "baz") << "trace baz";
}

TEST(LoggerGroup, NothingIsMadeBeforeOrAfterAGroup) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    g_evaluations = 0;
    KVX_LOG(error) << Counted("before any group");
    {
        TempDir dir;
        LoggerGroup group(MarloOptions(dir, true, false, ""));
    }
    KVX_LOG(error) << Counted("after the group");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(g_evaluations, 0);
}

// Quiet empties standard output only: the other sinks are the same either way.
TEST(LoggerGroup, DefaultSinksSplitRecordsBySeverity) {
    for (const bool quiet : {false, true}) {
        SCOPED_TRACE(quiet ? "quiet" : "not quiet");
        TempDir dir;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        g_evaluations = 0;
        {
            LoggerGroup group(MarloOptions(dir, quiet, false, ""));
            EmitSample();
            KVX_LOG(verbose) << Counted("nobody takes verbose");
        }
        const auto out = testing::internal::GetCapturedStdout();
        const auto err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(g_evaluations, 0);
        EXPECT_EQ(out, quiet ? "" : "message core\n");
        // Standard error prints channel and short function name.
        EXPECT_EQ(err, "[marlo/core] EmitSample: warning core\n[marlo/core] EmitSample: error core\n");
        const auto core = FileStartingWith(dir, "core_test_log-");
        const std::regex core_lines(
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\[marlo/core\\] message core\n"
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\[marlo/core\\] info core\n"
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\[marlo/core\\] warning core\n"
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\[marlo/core\\] error core\n");
        EXPECT_TRUE(std::regex_match(core, core_lines)) << core;
        EXPECT_EQ(FileStartingWith(dir, "verbose_test"), "");
    }
}

TEST(LoggerGroup, TraceCategoriesReachOnlyTheVerboseFile) {
    TempDir dir;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        LoggerGroup group(MarloOptions(dir, false, false, "foo,bar"));
        EmitSample();
    }
    const auto out = testing::internal::GetCapturedStdout();
    const auto err = testing::internal::GetCapturedStderr();
    std::string name;
    const auto verbose = FileStartingWith(dir, "verbose_test_log-", &name);
    EXPECT_TRUE(std::regex_match(name, std::regex("verbose_test_log-\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.log")))
        << name;
    const std::regex lines(
        "\\S+ \\S+ \\[marlo/foo\\] \\{trace\\} EmitSample: trace foo\n"
        "\\S+ \\S+ \\[marlo/bar\\] \\{trace\\} EmitSample: trace bar\n");
    EXPECT_TRUE(std::regex_match(verbose, lines)) << verbose;
    for (const auto& other : {out, err, FileStartingWith(dir, "core_test_log-")}) {
        EXPECT_EQ(other.find("trace"), std::string::npos) << other;
    }
}

TEST(LoggerGroup, VerboseLogsTakeVerboseAndAboveWithChannels) {
    TempDir dir;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        LoggerGroup group(MarloOptions(dir, true, true, "baz"));
        EmitSample();
    }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    const auto verbose = FileStartingWith(dir, "verbose_test_log-");
    for (const char* wanted : {"{verbose} EmitSample: verbose core", "{message} EmitSample: message core",
                               "{error} EmitSample: error core", "[marlo/baz] {trace} EmitSample: trace baz"}) {
        EXPECT_NE(verbose.find(wanted), std::string::npos) << wanted << "\n" << verbose;
    }
    EXPECT_EQ(verbose.find("trace core"), std::string::npos);
    EXPECT_EQ(verbose.find("trace foo"), std::string::npos);
}

static std::string WithNestedRecord(const std::string& text) {
    KVX_LOG_CH(trace, "bar") << "nested";
    return text;
}

// The channel belongs to the record: records opened at once on several threads, and one opened while
// another's text is being streamed, each print the channel they were opened on. In the sanitizer
// build this is also the logger's own race check.
TEST(LoggerGroup, EveryRecordKeepsItsOwnChannel) {
    TempDir dir;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const std::vector<std::string> channels = {"foo", "bar", "baz", "qux"};
    constexpr int kPerThread = 200;
    {
        LoggerGroup group(MarloOptions(dir, true, false, "foo,bar,baz,qux"));
        std::vector<std::thread> threads;
        for (const auto& channel : channels) {
            threads.emplace_back([&channel] {
                for (int i = 0; i < kPerThread; ++i) {
                    KVX_LOG_CH(trace, channel.c_str()) << "from " << channel;
                    KVX_LOG(message) << "from core";
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        KVX_LOG_CH(trace, "foo") << "outer " << WithNestedRecord("foo");
    }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();

    std::map<std::string, int> lines_per_channel;
    std::istringstream verbose(FileStartingWith(dir, "verbose_test_log-"));
    const std::regex line("\\S+ \\S+ \\[marlo/(\\w+)\\] \\{trace\\} \\S+: (from (\\w+)|outer (\\w+)|nested)");
    std::smatch m;
    for (std::string text; std::getline(verbose, text);) {
        ASSERT_TRUE(std::regex_match(text, m, line)) << text;
        const std::string expected = m[3].matched ? m[3].str() : m[4].matched ? m[4].str() : "bar";
        EXPECT_EQ(m[1].str(), expected) << text;
        ++lines_per_channel[m[1].str()];
    }
    const std::map<std::string, int> expected_lines = {
        {"foo", kPerThread + 1}, {"bar", kPerThread + 1}, {"baz", kPerThread}, {"qux", kPerThread}};
    EXPECT_EQ(lines_per_channel, expected_lines);
    std::istringstream core(FileStartingWith(dir, "core_test_log-"));
    int core_lines = 0;
    for (std::string text; std::getline(core, text); ++core_lines) {
        EXPECT_NE(text.find(" [marlo/core] from core"), std::string::npos) << text;
    }
    EXPECT_EQ(core_lines, kPerThread * static_cast<int>(channels.size()));
}

TEST(LoggerGroup, DefaultBuiltOptionsAndSinkUpdates) {
    LoggerOptions options;
    EXPECT_EQ(options.core_file_name, "core");
    EXPECT_EQ(options.verbose_file_name, "core_verbose");
    EXPECT_FALSE(options.Sink(Loggers::CoreFile).enabled);
    EXPECT_EQ(FormatIndex(options.Sink(Loggers::StdOut)), 11u);
    EXPECT_EQ(FormatIndex(options.Sink(Loggers::VerboseFile)), 27u);

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    {
        LoggerGroup group(options);
        KVX_LOG(info) << "to stdout";
        SinkOptions only_error;
        only_error.severities = {SeverityLevel::error};
        only_error.severity = true;
        only_error.enabled = true;
        group.updateStreamSink(Loggers::StdOut, std::move(only_error));
        KVX_LOG(info) << "dropped now";
        group.updateStreamSink(Loggers::CoreFile, SinkOptions());
        group.updateFileSink(Loggers::StdErr, "", "x", SinkOptions());
    }
    const auto out = testing::internal::GetCapturedStdout();
    const auto err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(out, std::regex("\\[marlo/core\\] \\S*::TestBody: \\(thread:\\S+\\) to stdout\n"
                                                 "\\{error\\} Failed to update file sink - received wrong logger type\n"
                                                 "\\{error\\} Failed to update file sink - received wrong logger type\n")))
        << out;
    EXPECT_NE(err.find("Failed to update file sink - received wrong logger type"), std::string::npos);
}

TEST(LoggerFormat, ShortFunctionNames) {
    EXPECT_EQ(ShortFunctionName("void Common::FastQIterable::Increment()"), "Common::FastQIterable::Increment");
    EXPECT_EQ(ShortFunctionName("void Ns::Holder<T>::Get(int) const [with T = float]"), "Ns::Holder::Get");
    EXPECT_EQ(ShortFunctionName("Ns::Out<A<B> > Ns::Make(Ns::Out<A<B> >)"), "Ns::Make");
    EXPECT_EQ(ShortFunctionName("int main(int, char**)"), "main");
    EXPECT_EQ(ShortFunctionName("plain"), "plain");
}

TEST(LoggerFormat, FileNamePatternAndIndexRange) {
    EXPECT_EQ(LogFileNamePattern("run%1"), "run%%1_log-%Y-%m-%d_%H-%M-%S.log");
    EXPECT_NO_THROW(MakeFormatter(31));
    try {
        MakeFormatter(32);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid index for log formatting 32");
    }
    TempDir dir;
    SinkOptions core;
    core.severities = {SeverityLevel::message};
    core.enabled = true;
    LoggerOptions options;
    options.Sink(Loggers::StdErr).enabled = false;
    options.Sink(Loggers::StdOut).enabled = false;
    options.Sink(Loggers::CoreFile) = core;
    options.log_path = dir.path.string();
    options.core_file_name = "100%_core";
    {
        LoggerGroup group(options);
        KVX_LOG(message) << "percent";
    }
    std::string name;
    EXPECT_EQ(FileStartingWith(dir, "100%_core_log-", &name), "percent\n");
    EXPECT_TRUE(std::regex_match(name, std::regex("100%_core_log-\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d\\.log")))
        << name;
}
