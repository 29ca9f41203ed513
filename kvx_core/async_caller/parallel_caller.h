#pragma once
// Connects a data handler to an array of read callers: one Worker per caller, each on a thread of the
// job pool, pulls reads from the handler, offers them to its caller and carries completed reads back.
// A worker holds at most one read per priority; a caller that refuses a read leaves it in the
// worker's slot, and the handler's own limit then stops loading: that is all the back-pressure there
// is. The owner only asks IsRunning.
//
// States: 0 running, 1 draining (no new reads; workers empty their slots and finish their callers),
// 2 shut down. One failing worker stops the run; the owner gets its text, prefixed
// "Exception thrown in ParallelCaller worker thread: ", from its next IsRunning.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "async_caller/data_handler.h"
#include "async_caller/job_pool.h"
#include "async_caller/read_caller.h"

namespace AsyncCaller {

class ParallelCaller {
public:
    // Builds the workers and starts them at once. Throws if a caller's dimension differs from the
    // handler's, before any thread is started.
    ParallelCaller(DataHandler* data_handler, void* owner, const std::vector<std::shared_ptr<ReadCaller>>& callers);
    ~ParallelCaller();
    ParallelCaller(const ParallelCaller&) = delete;
    ParallelCaller& operator=(const ParallelCaller&) = delete;

    // True while work goes on; rethrows a worker's failure.
    bool IsRunning();
    // Drains and shuts down; returns the previous state.
    int Stop();

    int State() const { return state; }

private:
    class Worker {
    public:
        Worker(ParallelCaller* parent, int index);
        int Run();

        ParallelCaller* parent;
        std::unique_ptr<std::mutex> mutex;
        std::vector<std::shared_ptr<ReadCaller>> callers;
        std::unique_ptr<ReadHolder> normal_slot;
        std::unique_ptr<ReadHolder> high_slot;
        bool have_normal = false;
        bool have_high = false;
        int index;

    private:
        bool tryPassRead(int priority);
        bool carryCompletedReads();
        void finishCallers();
        void loop();
    };

    void waitForPool();
    void recordFailure(const std::string& message);

    DataHandler* data_handler;
    std::vector<Worker> workers;
    std::atomic<int> state{0};
    std::atomic<int> finished_workers{0};
    std::atomic<bool> failed{false};
    std::mutex error_mutex;
    std::string error_message;
    JobPool pool;
    void* owner;
};

}  // namespace AsyncCaller
