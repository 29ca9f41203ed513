#pragma once
// Chunks of a read: the pieces of bounded size that the chunk callers work on. A chunk borrows its
// signal from the holder that made it and is owned by a list node; the node moves by splicing
// between the holder's list and the caller's queues, so a chunk is never copied or reallocated
// while it travels.

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "common/views.h"

namespace AsyncCaller {

class ChunkData;
using ChunkList = std::list<std::unique_ptr<ChunkData>>;

class ChunkData {
public:
    explicit ChunkData(std::int32_t dimension_) : dimension(dimension_) {}
    ChunkData(const ChunkData&) = delete;
    ChunkData& operator=(const ChunkData&) = delete;

    // Drops the signal views and the results.
    virtual void Clear() = 0;
    virtual ~ChunkData();

    std::int32_t dimension;           // 0 single read, 1 strand pair
    std::uint64_t read_index = 0;     // of the holder
    std::int32_t assigned_to = -1;    // worker of the chunk caller, -1 until taken
    std::int32_t priority = 0;        // of the holder
    std::uint64_t chunk_index = 0;    // 0-based
    std::uint64_t chunk_count = 0;    // chunks of the read
    ChunkList::iterator list_node;    // the node that owns this chunk
    std::uint64_t kmerLength = 0;     // k of the model, written by the chunk caller
    std::string sequence;             // empty: the chunk could not be called
    std::string qualities;
};

// A chunk of a strand pair. Both windows are in each strand's own time order; the prior map is
// rebased so that its first entry is 0 and counts strand-2 samples from the end of this chunk's
// strand-2 window.
class ChunkDataMD : public ChunkData {
public:
    ChunkDataMD() : ChunkData(1) {}
    void Clear() override;

    std::uint64_t events1 = 0;  // samples of the strand-1 window divided by the stride
    std::uint64_t events2 = 0;
    Common::VecView<float> raw1;
    Common::VecView<float> raw2;
    std::vector<std::uint64_t> priorSamples;
    std::uint64_t priorStep = 0;
    float score = 0.0f;  // decoder score per alignment step
};

// A chunk of a single read, with the per-event results of the one-dimensional decode.
class ChunkData1D : public ChunkData {
public:
    ChunkData1D() : ChunkData(0) {}
    void Clear() override;

    std::uint64_t events = 0;
    Common::VecView<float> raw;
    std::vector<int> states;           // one per kept event
    std::vector<signed char> moves;    // one per kept event: 0 stay, 1 step, 2 skip
    std::vector<float> weights;        // one per kept event
    std::vector<float> posteriors;     // per-position base probabilities, events by 4 k, row-major
    std::uint64_t posterior_cols = 0;  // 4 k
    float score = 0.0f;
};

}  // namespace AsyncCaller
