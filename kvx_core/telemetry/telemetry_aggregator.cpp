#include "telemetry/telemetry_aggregator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <iostream>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>

#include <boost/filesystem/path.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"
#include "telemetry/json_text.h"

namespace {

// Options that say where things are on this machine, or list what a workflow file is good for; they
// tell nothing about how the run was called.
const std::set<std::string> kOptionsLeftOut = {"compatible_flowcells", "compatible_kits",
                                               "compatible_kits_with_barcoding", "input_path", "save_path"};
// Options naming files: only the file name is kept, the directories may hold user names.
const std::set<std::string> kFileOptions = {"model_file", "config_file", "index_file", "score_matrix"};

// The printed value of an option, or `fallback` when the parameter set does not declare it.
std::string optionText(const Common::Parameters& params, const std::string& name, const std::string& fallback) {
    const auto& names = params.OptionNames();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        return fallback;
    }
    return params.PrintOption(name);
}

std::string fileNameOnly(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

const DataAPI::AttributeMap* findGroup(const DataAPI::ReadMetadata& metadata, const char* name) {
    const auto group = metadata.find(name);
    return group == metadata.end() ? nullptr : &group->second;
}

std::string stringAttribute(const DataAPI::AttributeMap* group, const char* name) {
    if (group == nullptr) {
        return std::string();
    }
    const auto value = group->find(name);
    if (value == group->end()) {
        return std::string();
    }
    const auto* text = boost::any_cast<std::string>(&value->second);
    return text != nullptr ? *text : std::string();
}

template <typename T, typename Json>
bool integerJson(const boost::any& value, rapidjson::Value& out) {
    if (const T* number = boost::any_cast<T>(&value)) {
        out = rapidjson::Value(static_cast<Json>(*number));
        return true;
    }
    return false;
}

// An attribute as JSON: text stays text, numbers stay numbers of their kind. Kinds the storage layer
// does not produce are written as null rather than guessed at.
rapidjson::Value attributeJson(const boost::any& value, rapidjson::Document::AllocatorType& allocator) {
    if (const auto* text = boost::any_cast<std::string>(&value)) {
        return rapidjson::Value(text->c_str(), static_cast<rapidjson::SizeType>(text->size()), allocator);
    }
    if (const auto* number = boost::any_cast<double>(&value)) {
        return rapidjson::Value(*number);
    }
    if (const auto* number = boost::any_cast<float>(&value)) {
        return rapidjson::Value(Telemetry::JsonFloat(*number));
    }
    if (const auto* flag = boost::any_cast<bool>(&value)) {
        return rapidjson::Value(*flag);
    }
    rapidjson::Value out;
    const bool integer =
        integerJson<signed char, std::int64_t>(value, out) || integerJson<short, std::int64_t>(value, out) ||
        integerJson<int, std::int64_t>(value, out) || integerJson<long, std::int64_t>(value, out) ||
        integerJson<long long, std::int64_t>(value, out) || integerJson<unsigned char, std::uint64_t>(value, out) ||
        integerJson<unsigned short, std::uint64_t>(value, out) ||
        integerJson<unsigned int, std::uint64_t>(value, out) ||
        integerJson<unsigned long, std::uint64_t>(value, out) ||
        integerJson<unsigned long long, std::uint64_t>(value, out);
    if (!integer) {
        out.SetNull();
    }
    return out;
}

void copyAttributes(const DataAPI::AttributeMap* group, const char* left_out, rapidjson::Document& target) {
    target.SetObject();
    if (group == nullptr) {
        return;
    }
    auto& allocator = target.GetAllocator();
    for (const auto& attribute : *group) {
        if (left_out != nullptr && attribute.first == left_out) {
            continue;
        }
        target.AddMember(rapidjson::Value(attribute.first.c_str(), allocator),
                         attributeJson(attribute.second, allocator), allocator);
    }
}

// Sets a member, replacing one of the same name so that a key never appears twice.
void setMember(rapidjson::Value& object, const char* name, rapidjson::Value value,
               rapidjson::Document::AllocatorType& allocator) {
    const auto existing = object.FindMember(name);
    if (existing != object.MemberEnd()) {
        existing->value = value;
    } else {
        object.AddMember(rapidjson::Value(name, allocator), value, allocator);
    }
}

std::string utcTimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    if (gmtime_r(&now, &utc) == nullptr) {
        throw std::runtime_error("could not convert calendar time to UTC time");
    }
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

void countCalledRead(Telemetry::SegmentStats& stats, const TelemetryAggregator::CalledRead& read) {
    if (!std::isfinite(read.mean_qscore)) {
        ++stats.exit_status["fail:basecall_failed"];
    } else {
        ++stats.exit_status[read.passes_filtering ? "pass" : "fail:qscore_filter"];
    }
    stats.seq_len_bases += read.sequence_length;
    stats.qscore_hist.Add(read.mean_qscore);
    stats.qscore_mean.Add(read.mean_qscore);
    ++stats.pairs_called;
}

void countCandidate(Telemetry::SegmentStats& stats, float length_ratio, double gap) {
    ++stats.pair_candidates;
    stats.ratio_hist.Add(length_ratio);
    stats.gap_hist.Add(static_cast<float>(gap));
}

// End of a read in seconds, in single precision as the sampling rate is.
float readEndSeconds(std::uint64_t start_time, std::uint64_t duration, float sampling_rate) {
    return static_cast<float>(start_time + duration) / sampling_rate;
}

}  // namespace

TelemetryAggregator::TelemetryAggregator(const std::string& version_, const Common::Parameters& params,
                                         const std::string& save_path, bool two_strand_)
    : two_strand(two_strand_), version(version_), software(rapidjson::kObjectType), opts(rapidjson::kObjectType) {
    pings_disabled = optionText(params, "disable_pings", "0") == "1";
    url = optionText(params, "ping_url", "");
    segment_minutes = std::stoull(optionText(params, "ping_segment_duration", "60"));
    if (segment_minutes == 0) {
        throw std::runtime_error(
            "Invalid ping_segment_duration: 0. The duration of a ping segment must be at least one minute.");
    }
    cert_path = (boost::filesystem::path(params.data_path) / "certs-bundle.crt").string();
    user_agent = "Marlo/" + version;
    headers = {"Content-Type: application/json"};

    setupHandle();

    auto& allocator = software.GetAllocator();
    software.AddMember("name", "marlo-basecalling", allocator);
    software.AddMember("analysis", rapidjson::StringRef(two_strand ? "1dsq_basecalling" : "1d_basecalling"), allocator);
    software.AddMember("version", rapidjson::Value(version.c_str(), allocator), allocator);

    buildOpts(params);

    analysis_id = uuid_generator();
    telemetry_file = (boost::filesystem::path(save_path) / "sequencing_telemetry.js").string();
}

TelemetryAggregator::~TelemetryAggregator() = default;

void TelemetryAggregator::buildOpts(const Common::Parameters& params) {
    std::vector<std::string> names = params.OptionNames();
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    auto& allocator = opts.GetAllocator();
    for (const auto& name : names) {
        if (kOptionsLeftOut.count(name) != 0) {
            continue;
        }
        std::string value = params.PrintOption(name);
        if (kFileOptions.count(name) != 0) {
            value = fileNameOnly(value);
        }
        opts.AddMember(rapidjson::Value(name.c_str(), allocator), rapidjson::Value(value.c_str(), allocator),
                       allocator);
    }
}

std::int32_t TelemetryAggregator::SegmentNumber(double seconds, std::uint64_t segment_minutes) {
    // Clamped so that absurd times (a sampling rate of zero gives infinity) still give a segment
    // instead of undefined arithmetic.
    double minutes = std::trunc(seconds / 60.0);
    if (std::isnan(minutes)) {
        minutes = 0.0;
    }
    constexpr double kLowest = std::numeric_limits<std::int32_t>::min();
    constexpr double kHighest = std::numeric_limits<std::int32_t>::max() - 1;
    minutes = std::min(std::max(minutes, kLowest), kHighest);
    const auto per_segment = static_cast<std::int64_t>(
        std::min<std::uint64_t>(segment_minutes, std::numeric_limits<std::int32_t>::max()));
    return static_cast<std::int32_t>(static_cast<std::int64_t>(minutes) / per_segment + 1);
}

void TelemetryAggregator::AddRead(float sampling_rate, const DataAPI::ReadMetadata& metadata, std::uint64_t duration,
                                  std::uint64_t start_time) {
    std::lock_guard<std::mutex> lock(mutex);
    const DataAPI::AttributeMap* tracking = findGroup(metadata, "tracking_id");
    const std::string run_id = stringAttribute(tracking, "run_id");
    Telemetry::RunTelemetry& run = runs[run_id];
    if (!run.has_read_metadata) {
        // The launching script's name is a local path; it stays out of what is sent.
        copyAttributes(tracking, "exp_script_name", run.tracking_id);
        copyAttributes(findGroup(metadata, "context_tags"), nullptr, run.context_tags);
        run.sampling = sampling_rate;
        run.has_read_metadata = true;
    }

    std::uint32_t channel = 0;
    if (const DataAPI::AttributeMap* channel_id = findGroup(metadata, "channel_id")) {
        const auto number = channel_id->find("channel_number");
        if (number != channel_id->end()) {
            try {
                channel = DataAPI::GenericCastOrParse<std::uint32_t>(number->second);
            } catch (const std::exception&) {
                channel = 0;  // an unreadable channel must not cost the read its place in the counts
            }
        }
    }

    const float end_time = readEndSeconds(start_time, duration, sampling_rate);
    Telemetry::SegmentStats& segment = run.segments[SegmentNumber(end_time, segment_minutes)];
    if (end_time > segment.latest_run_time) {
        segment.latest_run_time = end_time;
    }
    ++segment.channel_reads[channel];
    ++run.total.channel_reads[channel];
}

void TelemetryAggregator::AddPairCandidate(double end_time, float length_ratio, double gap,
                                           const std::string& run_id) {
    std::lock_guard<std::mutex> lock(mutex);
    // The pair list runs before the first read is loaded, so the run is usually opened here; its
    // tracking data follows with the first read.
    Telemetry::RunTelemetry& run = runs[run_id];
    countCandidate(run.segments[SegmentNumber(end_time, segment_minutes)], length_ratio, gap);
    countCandidate(run.total, length_ratio, gap);
}

void TelemetryAggregator::AddCalledRead(const AsyncCaller::ReadHolder& read) {
    // A pair is counted by its first strand, which is the strand AddRead saw.
    const AsyncCaller::ReadMeta* meta = nullptr;
    if (read.dimension == 1) {
        meta = &static_cast<const AsyncCaller::ReadHolderMD&>(read).read1;
    } else if (read.dimension == 0) {
        meta = &static_cast<const AsyncCaller::ReadHolder1D&>(read).read;
    } else {
        throw std::runtime_error("Unrecognized dimensionality of read object.");
    }
    CalledRead called;
    called.run_id = meta->run_id;
    called.start_time = meta->start_time;
    called.duration = meta->duration;
    called.sampling_rate = meta->sampling_rate;
    called.sequence_length = read.sequence.size();
    called.mean_qscore = read.mean_qscore;
    called.passes_filtering = read.passes_filtering;
    AddCalledRead(called);
}

void TelemetryAggregator::AddCalledRead(const CalledRead& read) {
    std::lock_guard<std::mutex> lock(mutex);
    const auto run = runs.find(read.run_id);
    if (run == runs.end() || !run->second.has_read_metadata) {
        throw std::runtime_error("Basecall telemetry received for non-existent run ID " + read.run_id);
    }
    const std::int32_t number =
        SegmentNumber(readEndSeconds(read.start_time, read.duration, read.sampling_rate), segment_minutes);
    const auto segment = run->second.segments.find(number);
    if (segment == run->second.segments.end()) {
        throw std::runtime_error("Basecall telemetry received for non-existent run segment of run ID " + read.run_id);
    }
    countCalledRead(segment->second, read);
    countCalledRead(run->second.total, read);
}

rapidjson::Value TelemetryAggregator::document(const std::string& run_id, const Telemetry::RunTelemetry& run,
                                               const Telemetry::SegmentStats& stats, std::int32_t segment_number,
                                               std::int64_t segment_duration, const char* aggregation,
                                               float latest_run_time, rapidjson::Document::AllocatorType& allocator) {
    rapidjson::Value doc(rapidjson::kObjectType);
    doc.AddMember("segment_type", "marlo-acquisition", allocator);
    doc.AddMember("analysis_id", rapidjson::Value(boost::uuids::to_string(analysis_id).c_str(), allocator),
                  allocator);
    doc.AddMember("software", rapidjson::Value(software, allocator), allocator);
    doc.AddMember("opts", rapidjson::Value(opts, allocator), allocator);
    rapidjson::Value tracking(run.tracking_id, allocator);
    setMember(tracking, "msg_id", rapidjson::Value(boost::uuids::to_string(uuid_generator()).c_str(), allocator),
              allocator);
    setMember(tracking, "time_stamp", rapidjson::Value(utcTimeStamp().c_str(), allocator), allocator);
    doc.AddMember("tracking_id", tracking, allocator);
    doc.AddMember("context_tags", rapidjson::Value(run.context_tags, allocator), allocator);
    doc.AddMember("run_id", rapidjson::Value(run_id.c_str(), allocator), allocator);
    doc.AddMember("segment_number", segment_number, allocator);
    doc.AddMember("segment_duration", segment_duration, allocator);
    doc.AddMember("aggregation", rapidjson::StringRef(aggregation), allocator);
    doc.AddMember("latest_run_time", Telemetry::JsonFloat(latest_run_time), allocator);
    doc.AddMember("read_count", stats.ReadCount(), allocator);
    if (two_strand) {
        doc.AddMember("basecall_1d2", stats.Basecall1D2Json(allocator), allocator);
    } else {
        rapidjson::Value per_channel(rapidjson::kArrayType);
        for (const auto& channel : stats.channel_reads) {
            rapidjson::Value entry(rapidjson::kObjectType);
            entry.AddMember("channel", channel.first, allocator);
            entry.AddMember("count", channel.second, allocator);
            per_channel.PushBack(entry, allocator);
        }
        doc.AddMember("reads_per_channel_dist", per_channel, allocator);
        doc.AddMember("channel_count", static_cast<std::uint64_t>(stats.channel_reads.size()), allocator);
    }
    return doc;
}

void TelemetryAggregator::buildDocuments(rapidjson::Document& documents) {
    documents.SetArray();
    auto& allocator = documents.GetAllocator();
    const auto minutes = static_cast<std::int64_t>(segment_minutes);
    for (const auto& entry : runs) {
        const Telemetry::RunTelemetry& run = entry.second;
        float latest = 0.0f;
        std::int32_t highest = 0;
        for (const auto& segment : run.segments) {
            documents.PushBack(document(entry.first, run, segment.second, segment.first, minutes, "segment",
                                        segment.second.latest_run_time, allocator),
                               allocator);
            latest = std::max(latest, segment.second.latest_run_time);
            highest = std::max(highest, segment.first);
        }
        documents.PushBack(
            document(entry.first, run, run.total, 1, highest * minutes, "cumulative", latest, allocator), allocator);
    }
}

void TelemetryAggregator::Finish() {
    std::lock_guard<std::mutex> lock(mutex);
    try {
        rapidjson::Document documents(rapidjson::kArrayType);
        buildDocuments(documents);

        std::ofstream file(telemetry_file, std::ios::out | std::ios::trunc);
        if (!file) {
            std::cerr << "Could not open telemetry file '" << telemetry_file << "' for writing." << std::endl;
        } else {
            file << Telemetry::ToJsonText(documents, true) << '\n';
            file.close();
            if (!file) {
                std::cerr << "Could not write telemetry file '" << telemetry_file << "'." << std::endl;
            }
        }

        // Without an endpoint there is nowhere to send to; the file is the whole record then.
        if (!pings_disabled && !url.empty()) {
            sendPings(documents);
        }
    } catch (const std::exception& e) {
        std::cerr << "Could not produce the run telemetry: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "Could not produce the run telemetry: unknown error." << std::endl;
    }
}
