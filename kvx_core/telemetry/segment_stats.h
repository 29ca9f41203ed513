#pragma once
// The statistics a run's telemetry keeps: per time segment of a run and for the whole run, the same
// record. Values are binned into fixed histograms as they arrive, so memory does not grow with the
// number of reads, only with the number of filled bins and channels.

#include <cstdint>
#include <map>
#include <string>

#include <rapidjson/document.h>

namespace Telemetry {

// Counts of values in bins of width `step` from `min`. Values are clamped to [min, max] first, so
// anything above the range lands in the last bin; `max` itself makes a bin of its own when the range
// divides evenly. NaN counts in the first bin, as it is below nothing and above nothing.
class Histogram {
public:
    Histogram(float min_, float max_, float step_, std::string name_);

    void Add(float value);
    float BinStart(float value) const;
    // An array with one object per filled bin, ascending: { <name>: bin start, "count": n }.
    rapidjson::Value ToJson(rapidjson::Document::AllocatorType& allocator) const;
    const std::map<float, std::int32_t>& Bins() const { return bins; }

    float min;
    float max;
    float step;
    std::string name;  // key of the bin start inside each JSON entry

private:
    std::map<float, std::int32_t> bins;
};

// Sum and count of values; the mean is only worked out when written.
struct RunningMean {
    void Add(float value) {
        sum += value;
        ++count;
    }
    // { "count", "mean", "sum" }; the mean of nothing is NaN and is written as null.
    rapidjson::Value ToJson(rapidjson::Document::AllocatorType& allocator) const;

    float sum = 0.0f;
    std::int32_t count = 0;
};

struct SegmentStats {
    SegmentStats();

    std::uint64_t ReadCount() const;
    // The pair-calling object of a document, keys in their published order.
    rapidjson::Value Basecall1D2Json(rapidjson::Document::AllocatorType& allocator) const;

    std::map<std::string, std::int32_t> exit_status;  // "pass", "fail:qscore_filter", "fail:basecall_failed"
    std::uint64_t seq_len_bases = 0;
    std::uint64_t pair_candidates = 0;  // neighbouring reads of one pore looked at by the pair list
    std::uint64_t pairs_called = 0;
    Histogram qscore_hist;
    RunningMean qscore_mean;
    // Single-strand statistics; kept so that both kinds of run share one record.
    Histogram speed_hist;
    Histogram events_hist;
    Histogram bases_hist;
    Histogram ratio_hist;  // length of the earlier read over the later one, of each candidate
    Histogram gap_hist;    // open-pore time between the two reads of each candidate, seconds
    std::map<std::uint32_t, std::uint64_t> channel_reads;  // reads loaded, per channel
    float latest_run_time = 0.0f;  // end of the latest read seen in the segment, seconds
};

// Everything known about one experiment run.
struct RunTelemetry {
    RunTelemetry() : tracking_id(rapidjson::kObjectType), context_tags(rapidjson::kObjectType) {}

    rapidjson::Document tracking_id;  // the run's attributes, without "exp_script_name"
    rapidjson::Document context_tags;
    bool has_read_metadata = false;  // set by the first read; candidates of the pair list come earlier
    float sampling = 0.0f;           // samples per second, from the first read
    std::map<std::int32_t, SegmentStats> segments;  // from 1
    SegmentStats total;
};

}  // namespace Telemetry
