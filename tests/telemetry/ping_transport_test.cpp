// Pings against a real endpoint on 127.0.0.1: a small Python server that records every POST.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "telemetry/json_text.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;

namespace {

std::string header(const rapidjson::Value& record, const std::string& name) {
    for (const auto& pair : record["headers"].GetArray()) {
        if (name == pair[0].GetString()) return pair[1].GetString();
    }
    return "";
}

// Two runs with a called read each (four documents); returns what Finish printed on standard error
// and the file's documents in the compact form a ping carries.
std::string PingRun(const std::vector<std::string>& args, const std::string& save,
                    std::vector<std::string>& documents) {
    // The endpoint is local: a proxy of the environment must not stand in between.
    setenv("no_proxy", "127.0.0.1,localhost", 1);
    setenv("NO_PROXY", "127.0.0.1,localhost", 1);
    auto params = MakeParams(args);
    TelemetryAggregator telemetry("4.5.6", *params, save, true);
    for (const std::string run : {"run_1", "run_2"}) {
        telemetry.AddPairCandidate(0.5, 1.1f, 0.2, run);
        telemetry.AddRead(4000.0f, Metadata(run, "4"), 4000, 0);
        telemetry.AddCalledRead({run, 0, 4000, 4000.0f, 77, 11.0f, true});
    }
    testing::internal::CaptureStderr();
    telemetry.Finish();
    documents.clear();
    const rapidjson::Document docs = ParseFile(telemetry.TelemetryFile());
    for (const auto& doc : docs.GetArray()) documents.push_back(Telemetry::ToJsonText(doc, false));
    return testing::internal::GetCapturedStderr();
}

}  // namespace

// Each document of the file is posted with its headers; a 307 is followed with the body, a 500 is
// the endpoint's business; disabled pings send nothing. The file is written in every case.
TEST(Pings, EachDocumentIsPostedUnlessDisabled) {
    TempDir dir;
    PingServer server(dir.path, false);
    // `recorded`: the paths the server records for each document.
    const struct { const char* path; bool disabled; std::vector<std::string> recorded; } cases[] = {
        {"/telemetry/ping", false, {"/telemetry/ping"}}, {"/redirect", false, {"/redirect", "/sink"}},
        {"/error", false, {"/error"}}, {"/telemetry/ping", true, {}}};
    std::size_t seen = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::vector<std::string> args{"--ping_url", server.Url("http", c.path)}, documents;
        if (c.disabled) args.push_back("--disable_pings");
        EXPECT_EQ(PingRun(args, dir.Str(), documents), "");
        ASSERT_EQ(documents.size(), 4u);
        const auto records = server.Records();
        ASSERT_EQ(records.size(), seen + documents.size() * c.recorded.size());
        for (std::size_t r = seen; r < records.size(); ++r) {
            const std::string& body = documents[(r - seen) / c.recorded.size()];
            EXPECT_EQ(records[r]["path"].GetString(), c.recorded[(r - seen) % c.recorded.size()]);
            EXPECT_EQ(records[r]["body"].GetString(), body);
            EXPECT_EQ(header(records[r], "Content-Type"), "application/json");
            EXPECT_EQ(header(records[r], "User-Agent"), "Marlo/4.5.6");
        }
        seen = records.size();
    }
}

// HTTPS with the bundle of the data path; a data path without it, or nothing listening, is one line
// on standard error and the file stays.
TEST(Pings, HttpsAndFailures) {
    TempDir dir, empty_data;
    PingServer server(dir.path, true);
    const std::string url = server.Url("https", "/secure");
    std::vector<std::string> documents;
    EXPECT_EQ(PingRun({"--ping_url", url, "--data_path", std::string(KVX_TEST_DATA_DIR) + "/telemetry"},
                      dir.Str(), documents),
              "");
    ASSERT_EQ(server.Records().size(), 4u);
    EXPECT_EQ(server.Records().back()["body"].GetString(), documents.back());
    // Port 9 of 127.0.0.1 (discard) has no listener on a test machine.
    for (const std::string& failing : {url, std::string("http://127.0.0.1:9/")}) {
        const std::string error =
            PingRun({"--ping_url", failing, "--data_path", empty_data.Str()}, dir.Str(), documents);
        EXPECT_EQ(error.rfind("Failed to send ping to " + failing + ": ", 0), 0u) << error;
        EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
        EXPECT_EQ(documents.size(), 4u);
    }
    EXPECT_EQ(server.Records().size(), 4u);
}
