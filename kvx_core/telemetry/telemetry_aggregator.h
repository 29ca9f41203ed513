#pragma once
// Statistics of a basecalling run, gathered while it goes on, per experiment run and per time segment
// of it, and delivered at the end as a list of JSON documents: written to "sequencing_telemetry.js"
// in the save path and, unless pings are disabled or no endpoint is configured, posted one by one to
// the telemetry endpoint.
//
// The pair list reports every candidate pair, the data handler every loaded pair and the
// post-processor every finished one; Finish runs once, after the callers have stopped. Every public
// operation holds one coarse mutex from entry to exit: reports are rare against the work per read.
// Failures at the end (file, network) are printed on standard error and never reach the caller; a
// finished read of a run or segment that was never opened is a programming fault and throws.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <curl/curl.h>
#include <rapidjson/document.h>

#include "common/parameters.h"
#include "data_api/attribute_map.h"
#include "telemetry/segment_stats.h"

namespace AsyncCaller {
class ReadHolder;
}  // namespace AsyncCaller

class TelemetryAggregator {
public:
    // What the statistics take from a finished read. AddCalledRead of a read holder fills it from
    // the holder's first strand.
    struct CalledRead {
        std::string run_id;
        std::uint64_t start_time = 0;  // samples
        std::uint64_t duration = 0;    // samples
        float sampling_rate = 0.0f;
        std::uint64_t sequence_length = 0;
        float mean_qscore = 0.0f;
        bool passes_filtering = false;
    };

    // `params` gives "disable_pings", "ping_url", "ping_segment_duration" (defaults false, empty, 60
    // where a set does not declare them), the data path of "certs-bundle.crt" and every option for
    // the "opts" of the documents. `two_strand` is true for pair calling. Throws std::runtime_error
    // for a zero segment duration and std::system_error when the transfer handle cannot be set up.
    TelemetryAggregator(const std::string& version, const Common::Parameters& params, const std::string& save_path,
                        bool two_strand);
    ~TelemetryAggregator();
    TelemetryAggregator(const TelemetryAggregator&) = delete;
    TelemetryAggregator& operator=(const TelemetryAggregator&) = delete;

    // A read (strand 1 of a pair) has been loaded: opens its run and segment if they are new and
    // counts it on its channel. `metadata` needs "tracking_id" (with "run_id") and "channel_id" (with
    // "channel_number"); what is missing is taken as empty, run "" or channel 0, rather than losing
    // the read.
    void AddRead(float sampling_rate, const DataAPI::ReadMetadata& metadata, std::uint64_t duration,
                 std::uint64_t start_time);
    // Two neighbouring reads of one pore were looked at by the pair list. Opens the run and the
    // segment of `end_time` (seconds) when needed: candidates are listed before any read is loaded.
    void AddPairCandidate(double end_time, float length_ratio, double gap, const std::string& run_id);
    // A read has been called and filtered. Throws std::runtime_error when its run or its segment was
    // never opened by AddRead.
    void AddCalledRead(const AsyncCaller::ReadHolder& read);
    void AddCalledRead(const CalledRead& read);
    // Builds the documents, writes the file and sends the pings. Never throws.
    void Finish();

    // Throws std::system_error in CurlEasyCategory for any code but CURLE_OK, with the handle's error
    // text, ": " and the library's message for the code.
    void CheckCurl(CURLcode code) const;
    // Posts each document of the array to the ping URL; stops at the first failure and reports it on
    // standard error. Never throws.
    void SendPings(const rapidjson::Value& documents);

    // Segment of a time in seconds: whole minutes, then whole segments of `segment_minutes`, from 1.
    // A time exactly on a boundary opens the next segment.
    static std::int32_t SegmentNumber(double seconds, std::uint64_t segment_minutes);

    const std::string& TelemetryFile() const { return telemetry_file; }

private:
    // Starts libcurl for the process with the first aggregator and stops it with the last one.
    class CurlLibrary {
    public:
        CurlLibrary();
        ~CurlLibrary();
        CurlLibrary(const CurlLibrary&) = delete;
        CurlLibrary& operator=(const CurlLibrary&) = delete;
    };
    struct CurlHandleDeleter {
        void operator()(CURL* handle) const;
    };

    void setupHandle();
    void buildOpts(const Common::Parameters& params);
    void sendPings(const rapidjson::Value& documents);
    void addCalledRead(const CalledRead& read);
    void buildDocuments(rapidjson::Document& documents);
    rapidjson::Value document(const std::string& run_id, const Telemetry::RunTelemetry& run,
                              const Telemetry::SegmentStats& stats, std::int32_t segment_number,
                              std::int64_t segment_duration, const char* aggregation, float latest_run_time,
                              rapidjson::Document::AllocatorType& allocator);

    CurlLibrary curl_library;  // first member: the library outlives the handle
    bool pings_disabled = false;
    bool two_strand = true;
    std::string url;
    std::string cert_path;
    std::string version;
    std::string user_agent;
    std::vector<std::string> headers;
    std::uint64_t segment_minutes = 60;
    std::unique_ptr<CURL, CurlHandleDeleter> curl;
    char error_buffer[CURL_ERROR_SIZE];
    rapidjson::Document software;
    rapidjson::Document opts;
    std::map<std::string, Telemetry::RunTelemetry> runs;
    boost::uuids::random_generator uuid_generator;
    boost::uuids::uuid analysis_id;
    std::string telemetry_file;
    std::mutex mutex;
};
