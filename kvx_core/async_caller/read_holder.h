#pragma once
// One unit of work of the read pipeline: a read (or a strand pair) with its signal going in and its
// aggregated sequence coming out. The holder owns its signal and its chunks; chunks borrow views of
// the signal, so a holder must outlive the chunks it made.
//
// Copying and moving mean different things here. A move hands over everything: signal ownership,
// views and chunks (the memory of the signal does not move, so the chunks' views stay valid). A copy
// takes the results and metadata only, never the signal or the chunks: that is the clone kept by a
// processor that collects finished reads.

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "async_caller/chunk_data.h"

namespace AsyncCaller {

class ReadHolder {
public:
    explicit ReadHolder(std::int32_t dimension_) : dimension(dimension_) {}
    ReadHolder& operator=(const ReadHolder&) = delete;
    ReadHolder& operator=(ReadHolder&&) = delete;

    // Clears the metadata records to empty strings and zeros.
    virtual void ResetMetadata() = 0;
    virtual ~ReadHolder();
    virtual std::int32_t GetPriority() const = 0;
    virtual void SetPriority(std::int32_t priority) = 0;
    virtual std::uint64_t GetReadIndex() const = 0;
    virtual void SetReadIndex(std::uint64_t index) = 0;
    // Length of the read in samples, as far as it is to be called.
    virtual std::uint64_t GetDuration() const = 0;
    virtual std::int32_t GetConfigId() const = 0;
    // Frees the signal if the holder owns it and empties the views.
    virtual void ClearRawData() = 0;
    // Joins the returned chunks into `sequence` and `qualities`.
    virtual void Aggregate() = 0;
    virtual std::uint64_t GetSequenceLength() const = 0;
    // Cuts the read into about `count` chunks of at most `max_events` events each. The list may be
    // shorter or longer than asked; an empty list means the read cannot be cut and passes uncalled.
    virtual ChunkList MakeChunks(std::uint64_t max_events, std::uint64_t count) = 0;

    std::int32_t dimension;        // 0 single read, 1 strand pair
    bool owns_raw = false;         // the signal arrays belong to the holder (allocated with new[])
    ChunkList chunks;              // this read's chunks, in order
    std::uint64_t overlap = 0;     // events shared by neighbouring chunks; set by the caller
    std::string sequence;
    std::string qualities;         // phred + 33
    float mean_qscore = 0.0f;
    bool passes_filtering = false;
    float strand_score = 0.0f;
    std::uint64_t stride = 0;      // samples per event
    std::uint16_t kmerLength = 0;  // k of the model, from the read's last chunk
    float qscore_offset = 0.0f;    // quality calibration of the caller; read by single-read aggregation
    float qscore_scale = 1.0f;

protected:
    // Results only: see the class comment.
    ReadHolder(const ReadHolder& other);
    ReadHolder(ReadHolder&& other) noexcept;
};

// Reads in a queue or handed between the callers and their users; each node owns its holder.
using ReadList = std::list<std::unique_ptr<ReadHolder>>;

}  // namespace AsyncCaller
