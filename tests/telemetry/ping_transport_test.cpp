// Pings against a real endpoint on 127.0.0.1: a small Python server that records every POST.

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "telemetry/json_text.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;

namespace {

class PingTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The endpoint is local: a proxy of the environment must not stand in between.
        setenv("no_proxy", "127.0.0.1,localhost", 1);
        setenv("NO_PROXY", "127.0.0.1,localhost", 1);
    }

    // Two runs with a called read each: four documents.
    static void Feed(TelemetryAggregator& telemetry) {
        TelemetryAggregator::CalledRead read;
        read.sampling_rate = 4000.0f;
        read.duration = 4000;
        read.sequence_length = 77;
        read.mean_qscore = 11.0f;
        read.passes_filtering = true;
        for (const std::string run : {"run_1", "run_2"}) {
            telemetry.AddPairCandidate(0.5, 1.1f, 0.2, run);
            telemetry.AddRead(4000.0f, Metadata(run, "4"), 4000, 0);
            read.run_id = run;
            telemetry.AddCalledRead(read);
        }
    }

    // The documents as the file has them, each in the compact form a ping carries.
    static std::vector<std::string> FileDocuments(const TelemetryAggregator& telemetry) {
        rapidjson::Document docs;
        docs.Parse(ReadText(telemetry.TelemetryFile()).c_str());
        std::vector<std::string> bodies;
        for (const auto& doc : docs.GetArray()) {
            bodies.push_back(Telemetry::ToJsonText(doc, false));
        }
        return bodies;
    }

    // Finishes the aggregator and returns what it printed on standard error.
    static std::string FinishCapturingStderr(TelemetryAggregator& telemetry) {
        testing::internal::CaptureStderr();
        telemetry.Finish();
        return testing::internal::GetCapturedStderr();
    }

    TempDir dir;
};

// A port on which nothing listens: bound by the system, then released.
int ClosedPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

}  // namespace

TEST_F(PingTest, EachDocumentOfTheFileIsPostedWithItsHeadersUnlessDisabled) {
    PingServer server(dir.path, false);
    const std::string url = server.Url("http", "/telemetry/ping");
    auto params = MakeParams({"--ping_url", url});
    TelemetryAggregator telemetry("4.5.6", *params, dir.Str(), true);
    Feed(telemetry);
    EXPECT_EQ(FinishCapturingStderr(telemetry), "");

    const auto documents = FileDocuments(telemetry);
    const auto records = server.Records();
    ASSERT_EQ(documents.size(), 4u);
    ASSERT_EQ(records.size(), documents.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].path, "/telemetry/ping");
        EXPECT_EQ(records[i].Header("Content-Type"), "application/json");
        EXPECT_EQ(records[i].Header("User-Agent"), "Marlo/4.5.6");
        EXPECT_EQ(records[i].Header("Content-Length"), std::to_string(documents[i].size()));
        EXPECT_NE(records[i].Header("Accept-Encoding"), "");  // every encoding the library knows
        EXPECT_EQ(records[i].body, documents[i]) << "ping " << i;
    }

    // With pings disabled the file is still written, and nothing is sent.
    TempDir quiet;
    auto disabled = MakeParams({"--ping_url", url, "--disable_pings"});
    TelemetryAggregator silent("4.5.6", *disabled, quiet.Str(), true);
    Feed(silent);
    EXPECT_EQ(FinishCapturingStderr(silent), "");
    EXPECT_EQ(FileDocuments(silent).size(), 4u);
    EXPECT_EQ(server.Records().size(), records.size());
}

TEST_F(PingTest, RedirectsAreFollowedAndErrorStatusesIgnored) {
    PingServer server(dir.path, false);
    {
        auto params = MakeParams({"--ping_url", server.Url("http", "/redirect")});
        TelemetryAggregator telemetry("v", *params, dir.Str(), true);
        Feed(telemetry);
        EXPECT_EQ(FinishCapturingStderr(telemetry), "");
        const auto documents = FileDocuments(telemetry);
        const auto records = server.Records();
        ASSERT_EQ(records.size(), 2 * documents.size());
        for (std::size_t i = 0; i < documents.size(); ++i) {
            EXPECT_EQ(records[2 * i].path, "/redirect");
            EXPECT_EQ(records[2 * i + 1].path, "/sink");
            EXPECT_EQ(records[2 * i + 1].body, documents[i]);
        }
    }
    {
        // A 500 answer is the endpoint's business: nothing printed, and every ping still goes.
        auto params = MakeParams({"--ping_url", server.Url("http", "/error")});
        TelemetryAggregator telemetry("v", *params, dir.Str(), true);
        Feed(telemetry);
        const std::size_t before = server.Records().size();
        EXPECT_EQ(FinishCapturingStderr(telemetry), "");
        EXPECT_EQ(server.Records().size() - before, 4u);
    }
}

TEST_F(PingTest, HttpsWithTheBundleOfTheDataPath) {
    PingServer server(dir.path, true);
    const std::string url = server.Url("https", "/secure");
    {
        auto params = MakeParams({"--ping_url", url, "--data_path", std::string(KVX_TEST_DATA_DIR) + "/telemetry"});
        TelemetryAggregator telemetry("v", *params, dir.Str(), true);
        Feed(telemetry);
        EXPECT_EQ(FinishCapturingStderr(telemetry), "");
        const auto documents = FileDocuments(telemetry);
        const auto records = server.Records();
        ASSERT_EQ(records.size(), documents.size());
        EXPECT_EQ(records.back().body, documents.back());
    }
    {
        // No certs-bundle.crt in this data path: the request fails, one line says so, the file stays.
        TempDir empty_data;
        TempDir save;
        auto params = MakeParams({"--ping_url", url, "--data_path", empty_data.Str()});
        TelemetryAggregator telemetry("v", *params, save.Str(), true);
        Feed(telemetry);
        const std::size_t before = server.Records().size();
        const std::string error = FinishCapturingStderr(telemetry);
        EXPECT_EQ(error.rfind("Failed to send ping to " + url + ": ", 0), 0u) << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
        EXPECT_EQ(server.Records().size(), before);
        EXPECT_EQ(FileDocuments(telemetry).size(), 4u);
    }
}

TEST_F(PingTest, NothingListeningGivesOneLineAndTheFileStays) {
    const std::string url = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/";
    auto params = MakeParams({"--ping_url", url});
    TelemetryAggregator telemetry("v", *params, dir.Str(), true);
    Feed(telemetry);
    const std::string error = FinishCapturingStderr(telemetry);
    EXPECT_EQ(error.rfind("Failed to send ping to " + url + ": ", 0), 0u) << error;
    EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    EXPECT_EQ(FileDocuments(telemetry).size(), 4u);
}
