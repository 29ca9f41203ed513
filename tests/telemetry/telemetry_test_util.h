#pragma once
// Helpers of the telemetry tests: a small parameter set, read metadata as the storage layer gives
// it, the telemetry file as a parsed document, and a real HTTP(S) endpoint run by Python that records
// every POST it receives.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
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

// The options the telemetry reads, plus a few of each kind for the "opts" object.
class TestParams : public Common::Parameters {
public:
    void InitOptions() override {
        AddOption("model_file,m", "model", model_file);
        AddOption("chunk_size", "chunk size", chunk_size);
        AddOption("min_qscore", "minimum qscore", min_qscore);
        AddOption("compatible_kits", "kits", compatible_kits);
        AddOption("input_path,i", "input", input_path);
        AddOption("save_path,s", "output", save_path, CmdLine);
        AddOption("index_file,f", "index", index_file, CmdLine);
        AddOption("score_matrix", "matrix", score_matrix);
        AddOption("disable_pings", "no pings", disable_pings, Flag);
        AddOption("ping_url", "endpoint", ping_url);
        AddOption("ping_segment_duration", "minutes per segment", ping_segment_duration);
    }
    bool ValidateParams() override { return true; }

    // Parses a command line (program name first) with an empty configuration.
    void Parse(const std::vector<std::string>& args) {
        std::vector<const char*> argv{"prog"};
        for (const auto& arg : args) {
            argv.push_back(arg.c_str());
        }
        std::istringstream config("");
        const std::uint32_t flags =
            ParseArguments(&config, "", static_cast<int>(argv.size()), argv.data(), "");
        // A bare program name counts as a request for help; that is no failure here.
        const bool bare = args.empty() && flags == HelpRequested;
        if (flags != 0 && !bare) {
            throw std::runtime_error("test parameters did not parse: " + ErrorText());
        }
    }

    std::string model_file;
    std::uint64_t chunk_size = 1000;
    float min_qscore = 7.0f;
    std::string compatible_kits;
    std::string input_path;
    std::string save_path;
    std::string index_file;
    std::string score_matrix;
    bool disable_pings = false;
    std::string ping_url;
    std::uint64_t ping_segment_duration = 60;
};

inline std::unique_ptr<TestParams> MakeParams(const std::vector<std::string>& args) {
    auto params = std::make_unique<TestParams>();
    params->Parse(args);
    return params;
}

// Metadata of one read as the storage layer hands it over.
inline DataAPI::ReadMetadata Metadata(const std::string& run_id, const std::string& channel) {
    DataAPI::ReadMetadata metadata;
    metadata["tracking_id"] = {
        {"run_id", run_id},
        {"flow_cell_id", std::string("FAB12345")},
        {"exp_script_name", std::string("/home/someone/scripts/sequencing.py")},
        {"exp_start_time", std::string("2019-05-01T10:00:00Z")},
        {"protocol_version", 7u},
        {"asic_temp", 31.5},
    };
    metadata["context_tags"] = {
        {"experiment_kit", std::string("ligation")},
        {"sample_frequency", std::string("4000")},
    };
    metadata["channel_id"] = {
        {"channel_number", channel},
        {"sampling_rate", 4000.0},
        {"digitisation", 8192.0},
        {"offset", 6.0},
        {"range", 1400.0},
    };
    metadata["raw_data"] = {{"median_before", 220.5}};
    return metadata;
}

inline std::vector<std::string> MemberNames(const rapidjson::Value& object) {
    std::vector<std::string> names;
    for (const auto& member : object.GetObject()) {
        names.emplace_back(member.name.GetString());
    }
    return names;
}

#ifdef KVX_PING_SERVER
// A Python endpoint on 127.0.0.1 with a port of the system's choosing. It writes each POST it
// receives, before answering, as one line of the records file.
class PingServer {
public:
    struct Record {
        std::string path;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;

        std::string Header(const std::string& name) const {
            for (const auto& header : headers) {
                if (header.first == name) {
                    return header.second;
                }
            }
            return std::string();
        }
    };

    // With `tls`, the server speaks HTTPS with the test certificate of tests/data/telemetry.
    PingServer(const fs::path& dir, bool tls) : records((dir / "records.jsonl").string()) {
        const std::string log = (dir / "server.log").string();
        std::vector<std::string> args{KVX_PYTHON3, KVX_PING_SERVER, "--records", records};
        if (tls) {
            const std::string data = std::string(KVX_TEST_DATA_DIR) + "/telemetry/";
            args.insert(args.end(), {"--cert", data + "certs-bundle.crt", "--key", data + "server.key"});
        }
        int out[2];
        if (pipe(out) != 0) {
            throw std::runtime_error("pipe failed");
        }
        pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            const int err = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (err >= 0) {
                dup2(err, STDERR_FILENO);
            }
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            for (auto& arg : args) {
                argv.push_back(&arg[0]);
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        // The first line is the port; a server that does not start within 10 s has failed.
        std::string line;
        pollfd wait{out[0], POLLIN, 0};
        char c = 0;
        while (line.find('\n') == std::string::npos && poll(&wait, 1, 10000) > 0 && read(out[0], &c, 1) == 1) {
            line += c;
        }
        close(out[0]);
        port = std::atoi(line.c_str());
        if (port <= 0) {
            Stop();
            throw std::runtime_error("ping server did not start: " + ReadText(log));
        }
    }
    ~PingServer() { Stop(); }
    PingServer(const PingServer&) = delete;
    PingServer& operator=(const PingServer&) = delete;

    std::string Url(const std::string& scheme, const std::string& path) const {
        return scheme + "://127.0.0.1:" + std::to_string(port) + path;
    }

    std::vector<Record> Records() const {
        std::vector<Record> result;
        std::ifstream in(records);
        std::string line;
        while (std::getline(in, line)) {
            rapidjson::Document doc;
            doc.Parse(line.c_str());
            Record record;
            record.path = doc["path"].GetString();
            for (const auto& header : doc["headers"].GetArray()) {
                record.headers.emplace_back(header[0].GetString(), header[1].GetString());
            }
            record.body = doc["body"].GetString();
            result.push_back(std::move(record));
        }
        return result;
    }

    int port = 0;

private:
    void Stop() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }

    std::string records;
    pid_t pid = -1;
};
#endif  // KVX_PING_SERVER

}  // namespace telemetry_test
