#pragma once
// Pair holders over synthetic signal, for the buffering and threading tests.

#include "test_util.h"

#include "async_caller/read_holder_md.h"

namespace TestSupport {

// Fills a pair holder with `samples` samples on each strand and an identity prior map; the holder
// owns the signal. The signal is pseudo-random per sample but fixed by position, so neighbouring
// chunks see the same samples in their overlap.
inline void fillPair(AsyncCaller::ReadHolderMD& holder, std::uint64_t samples, std::uint64_t stride,
                     std::uint64_t index, std::int32_t priority = 0) {
    float* s1 = new float[samples];
    float* s2 = new float[samples];
    for (std::uint64_t i = 0; i < samples; ++i) {
        s1[i] = static_cast<float>((i * 7919 + index * 104729) % 1000) / 250.0f - 2.0f;
    }
    for (std::uint64_t i = 0; i < samples; ++i) s2[i] = s1[samples - 1 - i];
    holder.SetRawData(s1, samples, s2, samples, true);
    holder.priorStep = 10;
    holder.priorSamples.resize(samples / 10);
    for (std::uint64_t e = 0; e < holder.priorSamples.size(); ++e) holder.priorSamples[e] = 10 * e;
    holder.stride = stride;
    holder.sequence.clear();
    holder.qualities.clear();
    holder.read1.read_id = "a" + std::to_string(index);
    holder.read2.read_id = "b" + std::to_string(index);
    holder.read1.trimmed_duration = samples;
    holder.read2.trimmed_duration = samples;
    holder.SetReadIndex(index);
    holder.SetPriority(priority);
}

inline std::unique_ptr<AsyncCaller::ReadHolderMD> makePair(std::uint64_t samples, std::uint64_t stride,
                                                            std::uint64_t index, std::int32_t priority = 0) {
    auto holder = std::make_unique<AsyncCaller::ReadHolderMD>();
    fillPair(*holder, samples, stride, index, priority);
    return holder;
}

// A pair holder that cuts itself into exactly the number of chunks asked for, with no signal.
class CountingHolder : public AsyncCaller::ReadHolderMD {
public:
    CountingHolder(std::uint64_t duration, std::uint64_t index, std::int32_t priority = 0) {
        read1.trimmed_duration = duration;
        SetReadIndex(index);
        SetPriority(priority);
    }
    AsyncCaller::ChunkList MakeChunks(std::uint64_t, std::uint64_t count) override {
        AsyncCaller::ChunkList out;
        for (std::uint64_t k = 0; k < count; ++k) {
            auto chunk = std::make_unique<AsyncCaller::ChunkDataMD>();
            chunk->read_index = GetReadIndex();
            chunk->priority = GetPriority();
            chunk->chunk_index = k;
            chunk->chunk_count = count;
            out.push_back(std::move(chunk));
            out.back()->list_node = std::prev(out.end());
        }
        return out;
    }
};

}  // namespace TestSupport
