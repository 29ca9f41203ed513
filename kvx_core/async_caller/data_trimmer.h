#pragma once
// The file processor of the output stage, named for the cut a processor may make at the start of a
// read before it is scaled. This program never cuts: its one strategy, "none", is the plain scaling
// of the base processor, and any other name is refused when a read is scaled.

#include <cstdint>
#include <string>

#include "async_caller/file_data_handler.h"

namespace AsyncCaller {

// The thresholds of a strategy that cuts. None does here, so they are carried unread; a run passes
// them all 0.
struct TrimSettings {
    std::uint64_t max_trim = 0;
    std::uint64_t search_param = 0;
    float threshold = 0.0f;
    std::uint64_t rna_events = 0;
    float rna_window = 0.0f;
    float rna_factor = 0.0f;
    bool use_feature = false;
    float feature_shift = 0.0f;
    float feature_scale = 0.0f;
    float feature_drop = 0.0f;
    std::uint64_t min_samples = 0;
};

class DataTrimmer : public FileDataHandler::FileProcessor {
public:
    using ScaleResult = FileDataHandler::ScaleResult;

    // The plain "none" processor with automatic scaling.
    DataTrimmer() = default;
    DataTrimmer(float scaling_med, float scaling_mad, bool auto_scale, const std::string& trim_strategy,
                const TrimSettings& settings = TrimSettings());

    // Scales as the base processor does; a strategy other than "none" throws
    // "trim_strategy not recognised: <name>".
    ScaleResult Process(float scale, const std::int16_t* raw, std::uint64_t stride, float* output,
                        std::uint64_t count, std::int16_t offset, int worker) override;

    std::string trim_strategy = "none";
};

}  // namespace AsyncCaller
