#include "async_caller/parallel_caller.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"

namespace AsyncCaller {

namespace {
constexpr int kRunning = 0;
constexpr int kDraining = 1;
constexpr int kShutDown = 2;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::unique_ptr<ReadHolder> makeHolder(std::int32_t dimension) {
    switch (dimension) {
        case 0:
            return std::make_unique<ReadHolder1D>();
        case 1:
            return std::make_unique<ReadHolderMD>();
        default:
            throw std::runtime_error("Unrecognized value of dimension parameter.");
    }
}
}  // namespace

ParallelCaller::Worker::Worker(ParallelCaller* parent_, int index_)
    : parent(parent_), mutex(std::make_unique<std::mutex>()), index(index_) {}

ParallelCaller::ParallelCaller(DataHandler* data_handler_, void* owner_,
                               const std::vector<std::shared_ptr<ReadCaller>>& callers)
    : data_handler(data_handler_), owner(owner_) {
    if (data_handler == nullptr) {
        throw std::runtime_error("ParallelCaller needs a data handler.");
    }
    workers.reserve(callers.size());
    for (std::size_t i = 0; i < callers.size(); ++i) {
        workers.emplace_back(this, static_cast<int>(i));
    }
    pool.Resize(workers.size());
    if (callers.size() != workers.size()) {
        throw std::runtime_error("Caller array of size " + std::to_string(callers.size()) +
                                 " passed to ParallelCaller with " + std::to_string(workers.size()) +
                                 " worker threads");
    }
    for (std::size_t i = 0; i < callers.size(); ++i) {
        if (!callers[i] || callers[i]->dimension != data_handler->dimension) {
            throw std::runtime_error("Caller dimensionality does not match data handler dimensionality.");
        }
        std::lock_guard<std::mutex> lock(*workers[i].mutex);
        workers[i].callers.push_back(callers[i]);
    }
    if (workers.empty()) {
        // Nothing to run: the work is over before it began.
        state = kShutDown;
        return;
    }
    try {
        for (std::size_t i = 0; i < workers.size(); ++i) {
            Worker* worker = &workers[i];
            if (pool.Assign([worker]() { return worker->Run(); }, static_cast<int>(i)) < 0) {
                throw std::runtime_error("Could not start worker thread " + std::to_string(i));
            }
        }
    } catch (...) {
        // Workers already started see the failure at their next pass and leave.
        failed = true;
        pool.WaitAll();
        throw;
    }
}

ParallelCaller::~ParallelCaller() {
    try {
        Stop();
    } catch (...) {
        // A failure nobody collected is dropped with the object.
    }
}

void ParallelCaller::waitForPool() { pool.WaitAll(); }

void ParallelCaller::recordFailure(const std::string& message) {
    std::lock_guard<std::mutex> lock(error_mutex);
    failed = true;
    const int done = ++finished_workers;
    state = kDraining;
    if (done == static_cast<int>(workers.size())) {
        state = kShutDown;
    }
    error_message = message;
}

bool ParallelCaller::IsRunning() {
    if (failed) {
        // The pool is waited for before the error mutex is taken: a second worker failing at the
        // same moment needs that mutex to leave.
        waitForPool();
        std::lock_guard<std::mutex> lock(error_mutex);
        if (!error_message.empty()) {
            std::runtime_error error(error_message);
            error_message.clear();
            throw error;
        }
        return false;
    }
    if (state != kShutDown) {
        return true;
    }
    waitForPool();
    return false;
}

int ParallelCaller::Stop() {
    if (failed) {
        waitForPool();
        std::lock_guard<std::mutex> lock(error_mutex);
        if (!error_message.empty()) {
            std::runtime_error error(error_message);
            error_message.clear();
            throw error;
        }
    }
    const int previous = state;
    if (previous != kShutDown) {
        int expected = kRunning;
        state.compare_exchange_strong(expected, kDraining);
        waitForPool();
        state = kShutDown;
    }
    return previous;
}

int ParallelCaller::Worker::Run() {
    try {
        loop();
    } catch (const std::exception& e) {
        parent->recordFailure(std::string("Exception thrown in ParallelCaller worker thread: ") + e.what());
    } catch (...) {
        parent->recordFailure("Unknown exception thrown in ParallelCaller worker thread.");
    }
    return 0;
}

void ParallelCaller::Worker::loop() {
    DataHandler& handler = *parent->data_handler;
    const int workerCount = static_cast<int>(parent->workers.size());
    for (;;) {
        if (parent->state == kShutDown) {
            throw std::runtime_error("ParallelCaller is shut down, but worker thread is still running.");
        }
        if (parent->failed) {
            // Another worker failed: leave at once, without finishing the callers; their own
            // destructors end their threads.
            if (++parent->finished_workers == workerCount) {
                parent->state = kShutDown;
            }
            return;
        }
        if (parent->state == kDraining && !have_high && !have_normal) {
            break;
        }
        bool passed = tryPassRead(1);
        passed = tryPassRead(0) || passed;
        bool carried = false;
        if (!handler.IsActive()) {
            int expected = kRunning;
            parent->state.compare_exchange_strong(expected, kDraining);
        } else {
            carried = carryCompletedReads();
        }
        if (!passed && !carried) {
            sleepMs(10);
        }
    }
    finishCallers();
    if (++parent->finished_workers == workerCount) {
        int expected = kDraining;
        parent->state.compare_exchange_strong(expected, kShutDown);
    }
}

bool ParallelCaller::Worker::tryPassRead(int priority) {
    bool& have = priority == 1 ? have_high : have_normal;
    std::unique_ptr<ReadHolder>& slot = priority == 1 ? high_slot : normal_slot;
    if (!have) {
        if (!slot) {
            slot = makeHolder(callers.front()->dimension);
        }
        have = parent->data_handler->GetRead(priority, *slot, index);
        if (!have) {
            return false;
        }
    }
    ReadCaller& caller = *callers.at(static_cast<std::size_t>(slot->GetConfigId()));
    if (caller.CanAcceptRead(slot->GetDuration(), priority) && caller.PassRead(*slot)) {
        slot.reset();
        have = false;
        return true;
    }
    // Refused: the read stays in the slot and is offered again on the next pass.
    return false;
}

bool ParallelCaller::Worker::carryCompletedReads() {
    std::lock_guard<std::mutex> lock(*mutex);
    bool any = false;
    for (auto& caller : callers) {
        for (const int priority : {1, 0}) {
            ReadList reads;
            caller->GetCompletedReads(reads, priority);
            for (auto& read : reads) {
                parent->data_handler->PassCalledRead(*read, index);
                any = true;
            }
        }
    }
    return any;
}

void ParallelCaller::Worker::finishCallers() {
    std::vector<bool> finished(callers.size(), false);
    for (;;) {
        bool busy = false;
        {
            std::lock_guard<std::mutex> lock(*mutex);
            for (std::size_t i = 0; i < callers.size(); ++i) {
                const bool isBusy = callers[i]->IsBusy();
                if (!isBusy && !finished[i]) {
                    callers[i]->Finish();
                    finished[i] = true;
                }
                busy = busy || isBusy;
            }
        }
        const bool carried = carryCompletedReads();
        if (!busy) {
            break;
        }
        if (!carried) {
            sleepMs(10);
        }
    }
}

}  // namespace AsyncCaller
