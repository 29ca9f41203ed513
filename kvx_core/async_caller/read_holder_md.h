#pragma once
// The holder of a strand pair: the normalised signal of the aligned stretch of both strands, the
// prior map between them, and the metadata of both reads.

#include <cstdint>
#include <vector>

#include "async_caller/read_holder.h"
#include "async_caller/read_meta.h"
#include "common/views.h"

namespace AsyncCaller {

class ReadHolderMD : public ReadHolder {
public:
    ReadHolderMD() : ReadHolder(1) {}
    ReadHolderMD(const ReadHolderMD& other);      // results and metadata only
    ReadHolderMD(ReadHolderMD&& other) noexcept;  // everything, signal ownership included
    ~ReadHolderMD() override;

    void ResetMetadata() override;
    std::int32_t GetPriority() const override { return read1.priority; }
    void SetPriority(std::int32_t priority) override;
    std::uint64_t GetReadIndex() const override { return read1.read_index; }
    void SetReadIndex(std::uint64_t index) override;
    // The longer of the two strands' trimmed durations.
    std::uint64_t GetDuration() const override;
    std::int32_t GetConfigId() const override { return read1.config_id; }
    void ClearRawData() override;
    // Joins the chunks at the longest run of agreeing bases in each overlap. Failures are logged and
    // leave `sequence` and `qualities` empty; nothing is thrown.
    void Aggregate() override;
    // Always throws: a pair's length is only known once its chunks have been joined.
    std::uint64_t GetSequenceLength() const override;
    // Cuts strand 1 into `count` (or count + 1) stretches in samples and carries each to strand 2
    // through the prior map; a chunk too long on strand 2 is split once, and if a half is still too
    // long the read gives up (empty list).
    ChunkList MakeChunks(std::uint64_t max_events, std::uint64_t count) override;

    // Replaces the signal. With `owns` the arrays must come from new float[] and are freed by the
    // holder. A null pointer with a non-zero count throws "Cannot view nullptr with size > 0".
    void SetRawData(float* raw1_, std::uint64_t count1, float* raw2_, std::uint64_t count2, bool owns);

    Common::VecView<float> raw1;  // strand 1, aligned stretch, normalised
    Common::VecView<float> raw2;  // strand 2, likewise, in its own time order
    // Entry e: the strand-2 position of strand-1 sample priorStep * e, counted from the end of the
    // strand-2 stretch.
    std::vector<std::uint64_t> priorSamples;
    std::uint64_t priorStep = 10;
    // Set by Aggregate. The buffer joins a pair's chunks as soon as the last one is back, and the
    // handler joins only a pair that was never joined (one that came back without chunks), so that a
    // failed join is tried and logged once.
    bool aggregated = false;
    ReadMeta read1;
    ReadMeta read2;
};

}  // namespace AsyncCaller
