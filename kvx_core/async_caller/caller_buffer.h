#pragma once
// The queueing half of a read caller. Reads come in whole and are cut into chunks at once; the
// chunks wait in two priority queues under a soft limit, a worker thread of the buffer (the Caller
// worker) feeds them to an engine and takes them back, and a read whose last chunk has returned is
// aggregated and waits for collection.
//
// Polling, not condition variables: the Caller worker sleeps 1 ms between rounds while it works,
// 20 ms while nothing has arrived yet, and Finish looks every 50 ms. Chunks travel by splicing list
// nodes, so moving one costs no allocation and no copy.
//
// A failure on the Caller worker never unwinds that thread's owner: it is stored, and the next
// public call rethrows it as "Exception thrown in Caller worker thread: " and its text.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "async_caller/chunk_caller.h"
#include "async_caller/read_caller.h"

namespace AsyncCaller {

class CallerBuffer : public ReadCaller {
public:
    // `soft_limit` caps the normal-priority chunks; the high-priority queue holds at most 100.
    CallerBuffer(std::int32_t dimension, std::uint64_t chunk_size, std::uint64_t stride, std::uint64_t overlap,
                 std::uint64_t soft_limit);
    ~CallerBuffer() override;

    bool CanAcceptRead(std::uint64_t length, std::int32_t priority) override;
    bool PassRead(ReadHolder& read) override;
    std::uint64_t NumCompletedReads(std::int32_t priority) override;
    void GetCompletedReads(ReadList& out, std::int32_t priority) override;
    void Finish() override;

    // Work of the Caller worker.
    virtual void OnWorkerExit() {}
    // Gives pending chunks to the engine; true when nothing was given.
    virtual bool FeedChunks() = 0;
    // Takes finished chunks back from the engine.
    virtual void CollectChunks(bool wait) = 0;

    // Chunks of one priority held now (queued, in the engine, or waiting for their siblings).
    std::uint64_t ChunkCount(std::int32_t priority);
    // Chunks per read of n whole stride intervals.
    std::uint64_t ChunksForRead(std::uint64_t intervals) const;

    const std::uint64_t chunk_size;
    const std::uint64_t min_read_length = 20;  // stride intervals
    const std::uint64_t stride;
    const std::uint64_t overlap;

protected:
    struct PriorityQueue {
        ChunkList pending;  // not yet given to the engine
        ChunkList working;  // held by the engine
        ReadList reads;     // reads with chunks in flight
        ReadList completed;
        std::multimap<std::uint64_t, ReadList::iterator> by_id;
    };

    // Starts the Caller worker; the most derived constructor calls it once it is fully built.
    void startWorker(std::function<void()> startup = {});
    // Stops and joins the Caller worker. Every derived destructor calls it first, so that the
    // worker is gone before the members it uses are destroyed.
    void stopWorker();
    // If the worker failed: joins it, and throws its stored text once.
    void rethrowStoredFailure();
    // Whether any chunk is queued or in the engine.
    bool chunksInFlight();

    // The queue moves of FeedChunks and CollectChunks against a given engine.
    bool feedChunks(ChunkCaller& engine);
    void collectChunks(ChunkCaller& engine, bool wait);

    // Quality calibration written into each read as it completes.
    float qscore_offset = 0.0f;
    float qscore_scale = 1.0f;

    std::atomic<bool> finishing{false};
    std::atomic<bool> terminate{false};
    std::atomic<bool> accepting{true};
    std::atomic<bool> failed{false};

private:
    void workerMain(std::function<void()> startup);
    // Hands the read over to a new holder of this caller's kind.
    std::unique_ptr<ReadHolder> takeRead(ReadHolder& read) const;
    // Reports a read complete without calling it. Needs queue_mutex.
    void finishUncalled(std::unique_ptr<ReadHolder> holder, std::int32_t priority);
    PriorityQueue& queueOf(std::int32_t priority);

    int next_queue = 1;
    std::unique_ptr<std::thread> worker_thread;
    std::mutex thread_mutex;  // guards worker_thread: it may be joined from the feeding thread or the destructor
    PriorityQueue queues[2];
    std::uint64_t soft_limit[2];
    std::uint64_t chunk_count[2] = {0, 0};
    std::mutex queue_mutex;
    std::string error_message;
    std::mutex error_mutex;
};

}  // namespace AsyncCaller
