#pragma once
// A file processor that can cut the start of a read before it is scaled.
//
// "none" is the plain scaling of the base processor and is what this program runs. "dna" cuts a
// leading stretch whose block means stand above the level of the read's tail; "rna" cuts at the
// first step up between detected events. Either may instead take the scaling from a feature found
// in the cut stretch (a drop and recovery of the current).

#include <cstdint>
#include <string>
#include <vector>

#include "async_caller/file_data_handler.h"

namespace AsyncCaller {

// The thresholds of the trim strategies; all 0 turns every kind of trimming off.
struct TrimSettings {
    std::uint64_t max_trim = 0;      // at most this much is cut ("dna": blocks, "rna": samples); 0: no "dna" trim
    std::uint64_t search_param = 0;  // "dna": shortest run of high blocks that counts
    float threshold = 0.0f;          // "dna": multiples of the tail's spread above its median
    std::uint64_t rna_events = 0;    // "rna": events looked at from the start; 0 for all
    float rna_window = 0.0f;         // "rna": samples per event
    float rna_factor = 0.0f;         // "rna": step up, as a fraction of the central event level
    bool use_feature = false;
    float feature_shift = 0.0f;
    float feature_scale = 0.0f;
    float feature_drop = 0.0f;
    std::uint64_t min_samples = 0;  // shortest read looked at for the feature
};

class DataTrimmer : public FileDataHandler::FileProcessor {
public:
    using ScaleResult = FileDataHandler::ScaleResult;

    // The plain "none" processor with automatic scaling.
    DataTrimmer() = default;
    DataTrimmer(float scaling_med, float scaling_mad, bool auto_scale, const std::string& trim_strategy,
                const TrimSettings& settings = TrimSettings());

    // Scales by `trim_strategy`; an unknown strategy throws "trim_strategy not recognised: <name>".
    // The kept samples start at output[0]; trim_start says how many were cut.
    ScaleResult Process(float scale, const std::int16_t* raw, std::uint64_t stride, float* output,
                        std::uint64_t count, std::int16_t offset, int worker) override;

    // Where the leading stretch ends: the sample position just behind the last run of at least
    // `search_param` (at least 1) consecutive blocks within the first `reach` whose means exceed
    // `limit`; -1 when there is none. `positions[b]` is the first sample of block b.
    static std::int64_t TrimSearch(const std::vector<float>& means, const std::vector<std::uint64_t>& positions,
                                   float limit, std::uint64_t search_param, std::uint64_t reach);

    // The feature in `n` picoampere samples: walking back from the end with the running peak of the
    // values below 200, the last position u where that peak stands more than `drop` above x[u] while
    // x[u + 1] is above x[u] by less than 2. It needs 10 samples on each side; fills the means and
    // spread of the two sides and returns whether it was found.
    static bool FindFeature(const float* x, std::uint64_t n, float drop, ScaleResult& result);

    std::uint64_t max_trim = 0;
    std::uint64_t search_param = 0;
    float threshold = 0.0f;
    std::string trim_strategy = "none";
    std::uint64_t rna_events = 0;
    float rna_window = 0.0f;
    float rna_factor = 0.0f;
    bool use_feature = false;
    float feature_shift = 0.0f;
    float feature_scale = 0.0f;
    float feature_drop = 0.0f;
    std::uint64_t min_samples = 0;

private:
    std::uint64_t dnaCut(const std::int16_t* raw, std::uint64_t stride, std::uint64_t count, std::int16_t offset,
                         float scale) const;
    std::uint64_t rnaCut(const float* scaled, std::uint64_t count) const;
};

}  // namespace AsyncCaller
