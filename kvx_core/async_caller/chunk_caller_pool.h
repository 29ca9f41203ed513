#pragma once
// The worker machinery shared by the processor chunk callers: a fixed set of workers, each on its
// own thread, handed one chunk at a time through an atomic state, and results returned strictly in
// submission order.
//
// Worker states: 0 idle, 1 submitted, 2 finished, 3 stop. The state is the only handover: a worker
// that sees 1 owns the chunk, the owner that sees 2 owns it again. Workers poll every 1 ms. A failure
// on a worker is stored and every later operation on the owner's side throws it; the destructor never
// throws.
//
// Derived classes implement processChunk, build their per-worker resources, then call startWorkers;
// their destructor calls stopWorkers first, so no worker runs while those resources are destroyed.

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "async_caller/chunk_caller.h"

namespace AsyncCaller {

template <class Interface>
class ChunkCallerPool : public Interface {
public:
    bool HasFreeRunner() override;
    bool IsWorking() override;
    void SubmitChunk(ChunkData* chunk) override;
    // Never blocks, whatever `wait` says: the buffer above polls every millisecond anyway.
    ChunkData* GetCompletedChunk(bool wait) override;

    // Workers; 0 threads means one worker that runs on the submitting thread.
    std::uint64_t Threads() const { return threads; }
    std::size_t WorkerCount() const { return workers.size(); }

protected:
    // `name` is the class name used in the failure messages.
    ChunkCallerPool(std::string name, std::uint64_t threads);
    ~ChunkCallerPool() override;

    void startWorkers();
    void stopWorkers();
    // Calls the chunk on worker `worker`'s resources. Runs on that worker's thread.
    virtual void processChunk(ChunkData& chunk, int worker) = 0;

private:
    struct Worker {
        std::thread thread;
        ChunkData* chunk = nullptr;
        int number = 0;  // submission number of the chunk
        std::atomic<int> state{0};
        bool threaded = true;
    };

    void workerLoop(Worker& worker, int index);
    void runChunk(Worker& worker, int index);
    void throwIfFailed();
    void joinAll();

    std::string className;
    std::uint64_t threads;
    std::vector<std::unique_ptr<Worker>> workers;
    int nextChunk = 0;
    std::map<int, ChunkData*> completed;
    std::list<int> order;
    std::string errorText;
    std::mutex errorMutex;
    std::atomic<bool> errorSet{false};
    std::mutex joinMutex;  // threads may be joined from the owner and from a thread asking IsWorking
    bool stopped = false;
};

extern template class ChunkCallerPool<ChunkCaller>;
extern template class ChunkCallerPool<ChunkCallerMD>;

}  // namespace AsyncCaller
