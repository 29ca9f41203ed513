#pragma once
// The processor chunk caller of single reads: each worker runs the network and the one-dimensional
// decode of its runner on one chunk, and the chunk keeps the per-event path for aggregation.
// Memory: one runner per worker, sized for chunk_size events of input.

#include <cstdint>
#include <memory>
#include <vector>

#include "async_caller/chunk_caller_pool.h"
#include "basecall_nn/nn_caller.h"
#include "basecall_nn/nn_loader.h"
#include "basecall_nn/nn_runner.h"

namespace AsyncCaller {

class ChunkCallerCpu : public ChunkCallerPool<ChunkCaller> {
public:
    // Throws "Event based models not supported." for a model that does not read raw signal.
    ChunkCallerCpu(std::uint64_t threads, std::uint64_t chunk_size, float stay_penalty,
                   const BasecallNN::NNLoader& model, bool homopolymer);
    ChunkCallerCpu(std::uint64_t threads, std::uint64_t chunk_size, float stay_penalty,
                   std::shared_ptr<const BasecallNN::NNCaller> network, bool homopolymer);
    ~ChunkCallerCpu() override;

    const std::uint64_t chunk_size;
    const float stay_penalty;
    const bool homopolymer;
    const std::uint64_t stride;

protected:
    void processChunk(ChunkData& chunk, int worker) override;

private:
    std::shared_ptr<const BasecallNN::NNCaller> caller;
    std::vector<std::shared_ptr<BasecallNN::NNRunner>> runners;
};

}  // namespace AsyncCaller
