#include "async_caller/data_trimmer.h"

#include <stdexcept>

namespace AsyncCaller {

DataTrimmer::DataTrimmer(float scaling_med_, float scaling_mad_, bool auto_scale_, const std::string& trim_strategy_)
    : FileProcessor(scaling_med_, scaling_mad_, auto_scale_), trim_strategy(trim_strategy_) {}

DataTrimmer::ScaleResult DataTrimmer::Process(float scale, const std::int16_t* raw, std::uint64_t stride,
                                              float* output, std::uint64_t count, std::int16_t offset, int worker) {
    if (trim_strategy != "none") {
        throw std::runtime_error("trim_strategy not recognised: " + trim_strategy);
    }
    return FileProcessor::Process(scale, raw, stride, output, count, offset, worker);
}

}  // namespace AsyncCaller
