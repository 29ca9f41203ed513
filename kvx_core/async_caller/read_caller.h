#pragma once
// The interface through which reads are basecalled without the caller of it waiting: reads go in
// whole, and come back whole once all their chunks have been called. All operations are safe to call
// from the one thread that feeds the caller while the caller's own threads run.

#include <cstdint>

#include "async_caller/read_holder.h"

namespace AsyncCaller {

class ReadCaller {
public:
    explicit ReadCaller(std::int32_t dimension_) : dimension(dimension_) {}
    ReadCaller(const ReadCaller&) = delete;
    ReadCaller& operator=(const ReadCaller&) = delete;

    virtual ~ReadCaller();
    virtual bool CanAcceptRead(std::uint64_t length, std::int32_t priority) = 0;
    // True if the read was taken: its contents then belong to the caller and the holder may be
    // dropped. False leaves the holder untouched, to be offered again.
    virtual bool PassRead(ReadHolder& read) = 0;
    virtual std::uint64_t NumCompletedReads(std::int32_t priority) = 0;
    // Moves the completed reads of that priority to the end of `out`.
    virtual void GetCompletedReads(ReadList& out, std::int32_t priority) = 0;
    virtual bool IsBusy() = 0;
    // Blocks until all work is done and the caller's worker has ended.
    virtual void Finish() = 0;

    std::int32_t dimension;  // 0 one read per holder, 1 strand pairs
};

}  // namespace AsyncCaller
