#include "async_caller/chunk_caller_pool.h"

#include <chrono>
#include <stdexcept>

#include "common/logger.h"

namespace AsyncCaller {

namespace {
constexpr int kIdle = 0;
constexpr int kSubmitted = 1;
constexpr int kFinished = 2;
constexpr int kStop = 3;
// About ten seconds of 1 ms polls before the destructor says that a worker is stuck.
constexpr int kStopPolls = 10000;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
}  // namespace

template <class Interface>
ChunkCallerPool<Interface>::ChunkCallerPool(std::string name, std::uint64_t threads_)
    : className(std::move(name)), threads(threads_) {
    const std::uint64_t count = threads == 0 ? 1 : threads;
    for (std::uint64_t i = 0; i < count; ++i) {
        workers.push_back(std::make_unique<Worker>());
        workers.back()->threaded = threads != 0;
    }
}

template <class Interface>
ChunkCallerPool<Interface>::~ChunkCallerPool() {
    stopWorkers();
}

template <class Interface>
void ChunkCallerPool<Interface>::startWorkers() {
    for (std::size_t i = 0; i < workers.size(); ++i) {
        Worker& w = *workers[i];
        if (w.threaded) {
            w.thread = std::thread(&ChunkCallerPool::workerLoop, this, std::ref(w), static_cast<int>(i));
        }
    }
}

template <class Interface>
void ChunkCallerPool<Interface>::joinAll() {
    std::lock_guard<std::mutex> lock(joinMutex);
    for (auto& w : workers) {
        if (w->thread.joinable()) {
            w->thread.join();
        }
    }
}

template <class Interface>
void ChunkCallerPool<Interface>::stopWorkers() {
    {
        std::lock_guard<std::mutex> lock(joinMutex);
        if (stopped) {
            return;
        }
        stopped = true;
    }
    if (errorSet) {
        joinAll();
        std::lock_guard<std::mutex> lock(errorMutex);
        if (!errorText.empty()) {
            KVX_LOG(warning) << className << " destructor detected an error: " << errorText;
        }
        return;
    }
    // Idle and finished workers stop at once; a worker still busy finishes its chunk first.
    std::vector<bool> stopping(workers.size(), false);
    std::size_t count = 0;
    for (int polls = 0; count < workers.size(); ++polls) {
        for (std::size_t i = 0; i < workers.size(); ++i) {
            if (stopping[i]) {
                continue;
            }
            int state = workers[i]->state.load();
            if ((state == kIdle || state == kFinished) && workers[i]->state.compare_exchange_strong(state, kStop)) {
                stopping[i] = true;
                ++count;
            }
        }
        if (count == workers.size()) {
            break;
        }
        if (polls == kStopPolls) {
            KVX_LOG(warning) << className << " destructor timed out waiting for worker threads to finish.";
            break;
        }
        sleepMs(1);
    }
    joinAll();
}

template <class Interface>
void ChunkCallerPool<Interface>::workerLoop(Worker& worker, int index) {
    for (;;) {
        const int state = worker.state.load();
        if (state == kStop) {
            return;
        }
        if (errorSet) {
            worker.state = kFinished;
            return;
        }
        if (state == kSubmitted) {
            runChunk(worker, index);
        } else {
            sleepMs(1);
        }
    }
}

template <class Interface>
void ChunkCallerPool<Interface>::runChunk(Worker& worker, int index) {
    try {
        processChunk(*worker.chunk, index);
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(errorMutex);
        errorText = "Exception thrown in " + className + " worker thread: " + e.what();
        errorSet = true;
    } catch (...) {
        std::lock_guard<std::mutex> lock(errorMutex);
        errorText = "Unknown exception thrown in " + className + " worker thread.";
        errorSet = true;
    }
    worker.state = kFinished;
}

template <class Interface>
void ChunkCallerPool<Interface>::throwIfFailed() {
    if (!errorSet) {
        return;
    }
    joinAll();
    std::lock_guard<std::mutex> lock(errorMutex);
    throw std::runtime_error(errorText);
}

template <class Interface>
bool ChunkCallerPool<Interface>::HasFreeRunner() {
    throwIfFailed();
    for (const auto& w : workers) {
        if (w->state == kIdle) {
            return true;
        }
    }
    return false;
}

template <class Interface>
bool ChunkCallerPool<Interface>::IsWorking() {
    throwIfFailed();
    for (const auto& w : workers) {
        if (w->state == kSubmitted) {
            return true;
        }
    }
    return false;
}

template <class Interface>
void ChunkCallerPool<Interface>::SubmitChunk(ChunkData* chunk) {
    throwIfFailed();
    int index = -1;
    if (threads == 0) {
        if (workers[0]->state != kIdle) {
            throw std::runtime_error(
                "Tried to submit a chunk in single threading mode before retrieving last chunk's results.");
        }
        index = 0;
    } else {
        for (std::size_t i = 0; i < workers.size(); ++i) {
            if (workers[i]->state == kIdle) {
                index = static_cast<int>(i);
                break;
            }
        }
        if (index < 0) {
            throw std::runtime_error("Tried to submit a chunk when no runners were available.");
        }
    }
    Worker& w = *workers[static_cast<std::size_t>(index)];
    w.number = nextChunk++;
    w.chunk = chunk;
    chunk->assigned_to = index;
    order.push_back(w.number);
    w.state = kSubmitted;
    if (!w.threaded) {
        runChunk(w, index);
    }
}

template <class Interface>
ChunkData* ChunkCallerPool<Interface>::GetCompletedChunk(bool) {
    throwIfFailed();
    for (auto& w : workers) {
        if (w->state == kFinished) {
            completed[w->number] = w->chunk;
            w->chunk = nullptr;
            w->state = kIdle;
        }
    }
    // A chunk that finished early waits for the ones submitted before it.
    if (order.empty()) {
        return nullptr;
    }
    const auto found = completed.find(order.front());
    if (found == completed.end()) {
        return nullptr;
    }
    ChunkData* chunk = found->second;
    completed.erase(found);
    order.pop_front();
    return chunk;
}

template class ChunkCallerPool<ChunkCaller>;
template class ChunkCallerPool<ChunkCallerMD>;

}  // namespace AsyncCaller
