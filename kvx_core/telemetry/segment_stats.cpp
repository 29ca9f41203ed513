#include "telemetry/segment_stats.h"

#include <cmath>
#include <utility>

#include "telemetry/json_text.h"

namespace Telemetry {

Histogram::Histogram(float min_, float max_, float step_, std::string name_)
    : min(min_), max(max_), step(step_), name(std::move(name_)) {}

float Histogram::BinStart(float value) const {
    float clamped = value;
    if (!(value >= min)) {  // below the range, or NaN
        clamped = min;
    } else if (value > max) {
        clamped = max;
    }
    return min + step * std::floor((clamped - min) / step);
}

void Histogram::Add(float value) { ++bins[BinStart(value)]; }

rapidjson::Value Histogram::ToJson(rapidjson::Document::AllocatorType& allocator) const {
    rapidjson::Value array(rapidjson::kArrayType);
    for (const auto& bin : bins) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember(rapidjson::Value(name.c_str(), allocator), rapidjson::Value(JsonFloat(bin.first)), allocator);
        entry.AddMember("count", bin.second, allocator);
        array.PushBack(entry, allocator);
    }
    return array;
}

rapidjson::Value RunningMean::ToJson(rapidjson::Document::AllocatorType& allocator) const {
    rapidjson::Value object(rapidjson::kObjectType);
    object.AddMember("count", count, allocator);
    object.AddMember("mean", JsonFloat(sum / static_cast<float>(count)), allocator);
    object.AddMember("sum", JsonFloat(sum), allocator);
    return object;
}

SegmentStats::SegmentStats()
    : qscore_hist(0.0f, 100.0f, 0.5f, "mean_qscore"),
      speed_hist(1.0f, 1999.0f, 2.0f, "speed"),
      events_hist(0.0f, 1000000.0f, 1000.0f, "length"),
      bases_hist(0.0f, 1000000.0f, 1000.0f, "length"),
      ratio_hist(0.0f, 5.0f, 0.1f, "ratio"),
      gap_hist(0.0f, 5.0f, 0.05f, "length") {}

std::uint64_t SegmentStats::ReadCount() const {
    std::uint64_t count = 0;
    for (const auto& channel : channel_reads) {
        count += channel.second;
    }
    return count;
}

rapidjson::Value SegmentStats::Basecall1D2Json(rapidjson::Document::AllocatorType& allocator) const {
    rapidjson::Value object(rapidjson::kObjectType);
    object.AddMember("component_index", 2, allocator);
    rapidjson::Value statuses(rapidjson::kObjectType);
    for (const auto& status : exit_status) {
        statuses.AddMember(rapidjson::Value(status.first.c_str(), allocator), rapidjson::Value(status.second), allocator);
    }
    object.AddMember("exit_status_dist", statuses, allocator);
    object.AddMember("seq_len_bases_sum", seq_len_bases, allocator);
    object.AddMember("qscore_dist", qscore_hist.ToJson(allocator), allocator);
    object.AddMember("qscore_sum", qscore_mean.ToJson(allocator), allocator);
    object.AddMember("candidate_pairs_count", pairs_called, allocator);
    object.AddMember("seq_len_ratio_bases_dist", ratio_hist.ToJson(allocator), allocator);
    object.AddMember("open_pore_length_seconds_dist", gap_hist.ToJson(allocator), allocator);
    object.AddMember("potential_candidate_pairs_count", pair_candidates, allocator);
    return object;
}

}  // namespace Telemetry
