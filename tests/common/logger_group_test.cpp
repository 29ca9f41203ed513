#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
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
using TestSupport::TempDir;

namespace {

// Contents of the one file in dir whose name starts with prefix; empty if there is none.
std::string FileStartingWith(const TempDir& dir, const std::string& prefix, std::string* name = nullptr) {
    for (fs::directory_iterator it(dir.path), end; it != end; ++it) {
        const auto file = it->path().filename().string();
        if (file.rfind(prefix, 0) != 0) continue;
        if (name) *name = file;
        return TestSupport::ReadText(it->path().string());
    }
    return {};
}

// The lines of a log file without their leading date and time.
std::vector<std::string> Undated(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    const std::regex dated(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} (.*))");
    std::smatch m;
    for (std::string line; std::getline(in, line);) lines.push_back(std::regex_match(line, m, dated) ? m[1].str() : "undated " + line);
    return lines;
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
    for (const char* channel : {"foo", "bar", "baz"}) KVX_LOG_CH(trace, channel) << "trace " << channel;
}

// Every sink of the program's options: standard output and error, the core file, and the verbose
// file with the trace channels asked for. Quiet empties standard output only. Before and after a
// group nothing is written and no record text is even made.
TEST(LoggerGroup, SinksSplitRecordsBySeverityAndChannel) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    g_evaluations = 0;
    KVX_LOG(error) << Counted("before any group");
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
    const std::vector<std::string> core = {"[marlo/core] message core", "[marlo/core] info core",
                                           "[marlo/core] warning core", "[marlo/core] error core"};
    const struct {
        bool quiet, verbose;
        const char* trace;
        std::vector<std::string> verbose_lines;
    } cases[] = {
        {false, false, "", {}},
        {true, false, "foo,bar", {"[marlo/foo] {trace} EmitSample: trace foo", "[marlo/bar] {trace} EmitSample: trace bar"}},
        {true, true, "baz",
         {"[marlo/core] {verbose} EmitSample: verbose core", "[marlo/core] {message} EmitSample: message core",
          "[marlo/core] {info} EmitSample: info core", "[marlo/core] {warning} EmitSample: warning core",
          "[marlo/core] {error} EmitSample: error core", "[marlo/baz] {trace} EmitSample: trace baz"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.trace);
        TempDir dir;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        g_evaluations = 0;
        {
            LoggerGroup group(MarloOptions(dir, c.quiet, c.verbose, c.trace));
            EmitSample();
            KVX_LOG(trace) << Counted("nobody takes core traces");
        }
        KVX_LOG(error) << Counted("after the group");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.quiet ? "" : "message core\n");
        // Standard error prints channel and short function name.
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "[marlo/core] EmitSample: warning core\n[marlo/core] EmitSample: error core\n");
        EXPECT_EQ(g_evaluations, 0);
        EXPECT_EQ(Undated(FileStartingWith(dir, "core_test_log-")), core);
        std::string name;
        EXPECT_EQ(Undated(FileStartingWith(dir, "verbose_test_log-", &name)), c.verbose_lines);
        if (!c.verbose_lines.empty()) {
            EXPECT_TRUE(std::regex_match(name, std::regex(R"(verbose_test_log-\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.log)"))) << name;
        }
    }
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
        for (auto& thread : threads) thread.join();
        KVX_LOG_CH(trace, "foo") << "outer " << WithNestedRecord("foo");
    }
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    std::map<std::string, int> lines_per_channel;
    const std::regex line(R"(\[marlo/(\w+)\] \{trace\} \S+: (from (\w+)|outer (\w+)|nested))");
    std::smatch m;
    for (const std::string& text : Undated(FileStartingWith(dir, "verbose_test_log-"))) {
        ASSERT_TRUE(std::regex_match(text, m, line)) << text;
        EXPECT_EQ(m[1].str(), m[3].matched ? m[3].str() : m[4].matched ? m[4].str() : "bar") << text;
        ++lines_per_channel[m[1].str()];
    }
    EXPECT_EQ(lines_per_channel, (std::map<std::string, int>{
                                     {"foo", kPerThread + 1}, {"bar", kPerThread + 1}, {"baz", kPerThread}, {"qux", kPerThread}}));
    const auto core = Undated(FileStartingWith(dir, "core_test_log-"));
    EXPECT_EQ(core, std::vector<std::string>(kPerThread * channels.size(), "[marlo/core] from core"));
}

// The default-built options write standard output with the function and thread.
TEST(LoggerGroup, DefaultOptionsFormat) {
    testing::internal::CaptureStdout();
    {
        LoggerGroup group{LoggerOptions()};
        KVX_LOG(info) << "to stdout";
    }
    const auto out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[marlo/core\] \S*::TestBody: \(thread:\S+\) to stdout\n)"))) << out;
}

TEST(LoggerFormat, FunctionNamesFilePatternAndSeverityNames) {
    EXPECT_EQ(ShortFunctionName("void Ns::Holder<T>::Get(int) const [with T = float]"), "Ns::Holder::Get");
    EXPECT_EQ(ShortFunctionName("Ns::Out<A<B> > Ns::Make(Ns::Out<A<B> >)"), "Ns::Make");
    EXPECT_EQ(ShortFunctionName("int main(int, char**)"), "main");
    EXPECT_EQ(ShortFunctionName("plain"), "plain");
    EXPECT_EQ(LogFileNamePattern("run%1"), "run%%1_log-%Y-%m-%d_%H-%M-%S.log");
    EXPECT_STREQ(attributes::SeverityName(SeverityLevel::error), "error");
    EXPECT_STREQ(attributes::SeverityName(static_cast<SeverityLevel>(6)), "unknown");
    EXPECT_EQ(attributes::ParseSeverity("warning"), SeverityLevel::warning);
    EXPECT_EQ(TestSupport::ErrorOf([] { attributes::ParseSeverity("Error"); }), "unable to find severity for string: Error");
}
