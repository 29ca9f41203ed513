#pragma once
// The holder of a single read. In this program it is the base of the file handler's RawRead; its
// chunking and aggregation serve a single-strand caller.

#include <cstdint>

#include "async_caller/read_holder.h"
#include "async_caller/read_meta.h"
#include "common/views.h"

namespace AsyncCaller {

class ReadHolder1D : public ReadHolder {
public:
    ReadHolder1D() : ReadHolder(0) {}
    ReadHolder1D(const ReadHolder1D& other);      // results and metadata only
    ReadHolder1D(ReadHolder1D&& other) noexcept;  // everything, signal ownership included
    ~ReadHolder1D() override;

    void ResetMetadata() override { read.Reset(); }
    std::int32_t GetPriority() const override { return read.priority; }
    void SetPriority(std::int32_t priority) override { read.priority = priority; }
    std::uint64_t GetReadIndex() const override { return read.read_index; }
    void SetReadIndex(std::uint64_t index) override { read.read_index = index; }
    std::uint64_t GetDuration() const override { return read.trimmed_duration; }
    std::int32_t GetConfigId() const override { return read.config_id; }
    void ClearRawData() override;
    // Builds the read from the chunks' per-event results, dropping half the overlap at each inner
    // boundary. Throws when there are no events to build from.
    void Aggregate() override;
    // Bases the aggregated sequence will have: k for the first event, then the moves.
    std::uint64_t GetSequenceLength() const override;
    ChunkList MakeChunks(std::uint64_t max_events, std::uint64_t count) override;

    // Replaces the signal; with `owns` the array must come from new float[].
    void SetRawData(float* data, std::uint64_t count, bool owns);

    Common::VecView<float> raw;
    ReadMeta read;

private:
    // Calls visit(chunk, event, bases) for every event that contributes to the sequence, in order.
    template <typename Visit>
    void walkEvents(Visit&& visit) const;
};

}  // namespace AsyncCaller
