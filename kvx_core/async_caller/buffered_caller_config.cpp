// The run driver's form of a buffered caller: the engine is made from the run's configuration.

#include <stdexcept>

#include "async_caller/buffered_caller.h"
#include "async_caller/chunk_caller_cpu.h"
#include "async_caller/chunk_caller_md_cpu.h"
#include "basecall_nn/basecall_config.h"

namespace AsyncCaller {

namespace {
std::uint64_t strideOf(const BasecallNN::BasecallConfig& config) {
    return config.raw_model ? config.model_stride : config.event_stride;
}

const BasecallNN::BasecallConfig& checked(const std::shared_ptr<const BasecallNN::BasecallConfig>& config) {
    if (!config) {
        throw std::runtime_error("BufferedCaller needs a basecall configuration.");
    }
    return *config;
}
}  // namespace

BufferedCaller::BufferedCaller(std::uint64_t threads, std::uint64_t chunk_size_,
                               std::shared_ptr<const BasecallNN::BasecallConfig> config_, std::uint64_t overlap_,
                               std::uint64_t soft_limit_, int band_size)
    : CallerBuffer(band_size != 0 ? 1 : 0, chunk_size_, strideOf(checked(config_)), overlap_, soft_limit_),
      config(std::move(config_)) {
    if (dimension == 0) {
        caller = std::make_unique<ChunkCallerCpu>(threads, chunk_size, config->stay_penalty, config->loader,
                                                  config->hp_correct);
    } else {
        auto md = std::make_unique<ChunkCallerMDCpu>(threads, chunk_size, band_size, config->loader);
        md->qscore_offset = config->qscore_offset;
        md->qscore_scale = config->qscore_scale;
        caller = std::move(md);
    }
    qscore_offset = config->qscore_offset;
    qscore_scale = config->qscore_scale;
    startWorker();
}

}  // namespace AsyncCaller
