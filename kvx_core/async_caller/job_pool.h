#pragma once
// A small pool of asynchronous jobs, one thread each, in numbered slots. A slot is ready, working, or
// done; a job is assigned to a ready slot and runs at once.

#include <atomic>
#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace AsyncCaller {

class JobPool {
public:
    JobPool() = default;
    JobPool(const JobPool&) = delete;
    JobPool& operator=(const JobPool&) = delete;
    ~JobPool();

    // Makes `count` ready slots; the pool must be idle.
    void Resize(std::size_t count);
    std::size_t Size() const { return slots.size(); }

    // Runs `job` as job `job_number` in slot `slot`, or in the first ready slot when `slot` is
    // negative. Returns the slot, or -1 when no slot is ready. A named slot that is not ready throws
    // "Attempted to assign job to worker that is not ready."
    int Assign(std::function<int()> job, int job_number, int slot = -1);
    // Makes a done slot ready again; a working one throws "Cannot reset a worker that is still working."
    void Reset(int slot);
    // Waits for every job, then makes all slots ready again. A job's exception is not rethrown: jobs
    // report their own failures.
    void WaitAll();
    // Whether the job in `slot` is still running.
    bool IsWorking(int slot) const;

private:
    static constexpr int kWorking = 1;
    static constexpr int kReady = 0;
    static constexpr int kDone = 2;

    struct Slot {
        std::future<int> result;
        int job_number = -1;
        std::atomic<int> state{kReady};
        std::string text;
    };

    std::vector<std::unique_ptr<Slot>> slots;
    std::map<int, int> slot_of_job;
    std::list<int> ready, running, done;
};

}  // namespace AsyncCaller
