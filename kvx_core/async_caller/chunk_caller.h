#pragma once
// The engines behind a buffered caller: they run the compute on one chunk at a time per worker.
// Submission and retrieval never block, and chunks come back in the order they were submitted.

#include <cstdint>

#include "async_caller/chunk_data.h"

namespace AsyncCaller {

class ChunkCaller {
public:
    ChunkCaller() = default;
    ChunkCaller(const ChunkCaller&) = delete;
    ChunkCaller& operator=(const ChunkCaller&) = delete;
    virtual ~ChunkCaller();

    // Some worker is idle and can take a chunk.
    virtual bool HasFreeRunner() = 0;
    // Some worker is busy with a chunk.
    virtual bool IsWorking() = 0;
    // Ask HasFreeRunner first: a submission with no idle worker throws.
    virtual void SubmitChunk(ChunkData* chunk) = 0;
    // The next chunk in submission order if it is finished, else nullptr.
    virtual ChunkData* GetCompletedChunk(bool wait) = 0;
};

// The engine for chunks of a strand pair.
class ChunkCallerMD : public ChunkCaller {
public:
    // Settings of the event detector, used only by event-based models.
    virtual void SetEventDetection(std::uint64_t winsize1, std::uint64_t winsize2, float threshold1,
                                   float threshold2, float peak_height) = 0;
};

}  // namespace AsyncCaller
