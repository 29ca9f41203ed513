#pragma once
// Helpers of the telemetry tests: a small parameter set, read metadata as the storage layer gives
// it, and a real HTTP(S) endpoint run by Python that records every POST it receives.

#include <signal.h>

#include <cstdio>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <rapidjson/document.h>

#include "../common/test_support.h"
#include "common/parameters.h"
#include "data_api/attribute_map.h"

namespace telemetry_test {

namespace fs = boost::filesystem;

using TestSupport::ReadText;
using TestSupport::TempDir;

// The options the telemetry reads.
class TestParams : public Common::Parameters {
public:
    void InitOptions() override {
        AddOption("disable_pings", "no pings", disable_pings, Flag);
        AddOption("ping_url", "endpoint", ping_url);
        AddOption("ping_segment_duration", "minutes per segment", ping_segment_duration);
    }
    bool ValidateParams() override { return true; }

    bool disable_pings = false;
    std::string ping_url;
    std::uint64_t ping_segment_duration = 60;
};

// Parses a command line (without the program name) with an empty configuration.
template <typename Params = TestParams>
std::unique_ptr<Params> MakeParams(std::vector<std::string> args) {
    args.insert(args.begin(), "prog");
    std::vector<const char*> argv;
    for (const auto& arg : args) argv.push_back(arg.c_str());
    auto params = std::make_unique<Params>();
    std::istringstream config("");
    const std::uint32_t flags =
        params->ParseArguments(&config, "", static_cast<int>(argv.size()), argv.data(), "");
    // A bare program name counts as a request for help; that is no failure here.
    if (flags != 0 && !(args.size() == 1 && flags == Common::Parameters::HelpRequested)) {
        throw std::runtime_error("test parameters did not parse: " + params->ErrorText());
    }
    return params;
}

// Metadata of one read as the storage layer hands it over.
inline DataAPI::ReadMetadata Metadata(const std::string& run_id, const std::string& channel) {
    DataAPI::ReadMetadata metadata;
    metadata["tracking_id"] = {{"run_id", run_id}, {"exp_script_name", std::string("/home/someone/run.py")},
                               {"protocol_version", 7u}, {"asic_temp", 31.5}};
    metadata["context_tags"] = {{"experiment_kit", std::string("ligation")}};
    metadata["channel_id"] = {{"channel_number", channel}, {"sampling_rate", 4000.0}};
    return metadata;
}

inline std::vector<std::string> MemberNames(const rapidjson::Value& object) {
    std::vector<std::string> names;
    for (const auto& member : object.GetObject()) names.emplace_back(member.name.GetString());
    return names;
}

// The documents of a telemetry file.
inline rapidjson::Document ParseFile(const std::string& path) {
    rapidjson::Document doc;
    doc.Parse(ReadText(path).c_str());
    if (doc.HasParseError() || !doc.IsArray())
        throw std::runtime_error("telemetry file is not a JSON array: " + path);
    return doc;
}

#ifdef KVX_PING_SERVER
// A Python endpoint on 127.0.0.1 with a port of the system's choosing. It writes each POST it
// receives, before answering, as one JSON line of the records file: path, headers and body.
class PingServer {
public:
    // With `tls`, the server speaks HTTPS with the test certificate of tests/data/telemetry.
    PingServer(const fs::path& dir, bool tls) : records((dir / "records.jsonl").string()) {
        const std::string data = std::string(KVX_TEST_DATA_DIR) + "/telemetry/";
        const std::string command =
            std::string(KVX_PYTHON3) + " " + KVX_PING_SERVER + " --records " + records +
            (tls ? " --cert " + data + "certs-bundle.crt --key " + data + "server.key" : "") + " 2>" +
            (dir / "server.log").string();
        // The server's first line is its port and process id.
        pipe = popen(command.c_str(), "r");
        if (pipe == nullptr || std::fscanf(pipe, "%d %d", &port, &pid) != 2) {
            throw std::runtime_error("ping server did not start: " + ReadText((dir / "server.log").string()));
        }
    }
    ~PingServer() {
        kill(pid, SIGTERM);
        pclose(pipe);
    }

    std::string Url(const std::string& scheme, const std::string& path) const {
        return scheme + "://127.0.0.1:" + std::to_string(port) + path;
    }

    std::vector<rapidjson::Document> Records() const {
        std::vector<rapidjson::Document> result;
        std::ifstream in(records);
        for (std::string line; std::getline(in, line);) {
            result.emplace_back();
            result.back().Parse(line.c_str());
        }
        return result;
    }

private:
    std::string records;
    FILE* pipe = nullptr;
    int port = 0, pid = 0;
};
#endif  // KVX_PING_SERVER

}  // namespace telemetry_test
