#pragma once
// A CallerBuffer with a chunk caller as its engine: the read caller the run driver makes, one per
// `num_callers`. The engine belongs to the Caller worker: it is fed and drained on that thread and
// destroyed there when the worker ends, so that its threads end on it too.

#include <cstdint>
#include <memory>
#include <mutex>

#include "async_caller/caller_buffer.h"
#include "async_caller/chunk_caller.h"

namespace BasecallNN {
class BasecallConfig;
}  // namespace BasecallNN

namespace AsyncCaller {

class BufferedCaller : public CallerBuffer {
public:
    // A processor caller for the configuration's model: ChunkCallerMDCpu when `band_size` is not 0
    // (strand pairs), else ChunkCallerCpu (single reads). `threads` 0 runs the engine on the Caller
    // worker itself.
    BufferedCaller(std::uint64_t threads, std::uint64_t chunk_size,
                   std::shared_ptr<const BasecallNN::BasecallConfig> config, std::uint64_t overlap,
                   std::uint64_t soft_limit, int band_size);
    // A caller over a ready-made engine: `dimension` 1 needs a ChunkCallerMD. `stride` is the samples
    // per stride interval of the reads it will see.
    BufferedCaller(std::unique_ptr<ChunkCaller> engine, std::int32_t dimension, std::uint64_t chunk_size,
                   std::uint64_t stride, std::uint64_t overlap, std::uint64_t soft_limit,
                   float qscore_offset = 0.0f, float qscore_scale = 1.0f);
    ~BufferedCaller() override;

    bool IsBusy() override;
    void OnWorkerExit() override;
    bool FeedChunks() override;
    void CollectChunks(bool wait) override;

    // Event detection settings of a two-dimensional caller; any other throws
    // "SetEventDetection() method not supported for 1d basecalling."
    void SetEventDetection(std::uint64_t winsize1, std::uint64_t winsize2, float threshold1, float threshold2,
                           float peak_height);

private:
    std::shared_ptr<const BasecallNN::BasecallConfig> config;
    std::unique_ptr<ChunkCaller> caller;
    // Guards `caller` against the feeding thread's look at it while the worker drops it.
    std::mutex engine_mutex;
};

}  // namespace AsyncCaller
