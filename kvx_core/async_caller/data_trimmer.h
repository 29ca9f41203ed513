#pragma once
// The file processor of the output stage, named for the cut a processor may make at the start of a
// read before it is scaled. This program never cuts: its one strategy, "none", is the plain scaling
// of the base processor, and any other name is refused when a read is scaled.

#include <cstdint>
#include <string>

#include "async_caller/file_data_handler.h"

namespace AsyncCaller {

class DataTrimmer : public FileDataHandler::FileProcessor {
public:
    using ScaleResult = FileDataHandler::ScaleResult;

    // The plain "none" processor with automatic scaling.
    DataTrimmer() = default;
    DataTrimmer(float scaling_med, float scaling_mad, bool auto_scale, const std::string& trim_strategy);

    // Scales as the base processor does; a strategy other than "none" throws
    // "trim_strategy not recognised: <name>".
    ScaleResult Process(float scale, const std::int16_t* raw, std::uint64_t stride, float* output,
                        std::uint64_t count, std::int16_t offset, int worker) override;

    std::string trim_strategy = "none";
};

}  // namespace AsyncCaller
