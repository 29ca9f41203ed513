#include "async_caller/caller_buffer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "async_caller/read_holder_1d.h"
#include "async_caller/read_holder_md.h"

namespace AsyncCaller {

namespace {
constexpr std::uint64_t kHighPriorityLimit = 100;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
}  // namespace

CallerBuffer::CallerBuffer(std::int32_t dimension_, std::uint64_t chunk_size_, std::uint64_t stride_,
                           std::uint64_t overlap_, std::uint64_t soft_limit_)
    : ReadCaller(dimension_), chunk_size(chunk_size_), stride(stride_), overlap(overlap_) {
    if (overlap >= chunk_size) {
        throw std::runtime_error("Chunk overlap (" + std::to_string(overlap) + ") must be smaller than the chunk size (" +
                                 std::to_string(chunk_size) + ").");
    }
    if (stride == 0) {
        throw std::runtime_error("Caller stride must be at least 1.");
    }
    soft_limit[0] = soft_limit_;
    soft_limit[1] = kHighPriorityLimit;
}

CallerBuffer::~CallerBuffer() { stopWorker(); }

void CallerBuffer::startWorker(std::function<void()> startup) {
    std::lock_guard<std::mutex> lock(thread_mutex);
    worker_thread = std::make_unique<std::thread>(&CallerBuffer::workerMain, this, std::move(startup));
}

void CallerBuffer::stopWorker() {
    accepting = false;
    terminate = true;
    std::lock_guard<std::mutex> lock(thread_mutex);
    if (worker_thread && worker_thread->joinable()) {
        worker_thread->join();
    }
    worker_thread.reset();
}

void CallerBuffer::workerMain(std::function<void()> startup) {
    try {
        if (startup) {
            startup();
        }
        // `terminate` is not reset here: a buffer dropped right after construction must not have its
        // stop request undone by a worker that started late.
        while (!terminate) {
            {
                std::lock_guard<std::mutex> lock(queue_mutex);
                if (!queues[0].pending.empty() || !queues[1].pending.empty()) {
                    break;
                }
            }
            sleepMs(20);
        }
        while (!terminate) {
            const bool idle = FeedChunks();
            CollectChunks(idle);
            sleepMs(1);
        }
        CollectChunks(false);
        accepting = false;
        OnWorkerExit();
    } catch (const std::exception& e) {
        failed = true;
        accepting = false;
        try {
            OnWorkerExit();
        } catch (...) {
            // The first failure is the one worth reporting.
        }
        std::lock_guard<std::mutex> lock(error_mutex);
        error_message = std::string("Exception thrown in Caller worker thread: ") + e.what();
    } catch (...) {
        failed = true;
        accepting = false;
        try {
            OnWorkerExit();
        } catch (...) {
        }
        std::lock_guard<std::mutex> lock(error_mutex);
        error_message = "Unknown exception thrown in Caller worker thread.";
    }
}

void CallerBuffer::rethrowStoredFailure() {
    if (!failed) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(thread_mutex);
        if (worker_thread && worker_thread->joinable()) {
            worker_thread->join();
        }
        worker_thread.reset();
    }
    std::lock_guard<std::mutex> lock(error_mutex);
    if (!error_message.empty()) {
        std::runtime_error error(error_message);
        error_message.clear();
        throw error;
    }
}

CallerBuffer::PriorityQueue& CallerBuffer::queueOf(std::int32_t priority) {
    if (priority < 0 || priority > 1) {
        throw std::runtime_error("Invalid read priority " + std::to_string(priority) + ": must be 0 or 1.");
    }
    return queues[priority];
}

std::uint64_t CallerBuffer::ChunksForRead(std::uint64_t intervals) const {
    if (intervals <= chunk_size) {
        return 1;
    }
    return static_cast<std::uint64_t>(
        std::ceil(static_cast<double>(intervals) / static_cast<double>(chunk_size - overlap)));
}

bool CallerBuffer::CanAcceptRead(std::uint64_t, std::int32_t) {
    rethrowStoredFailure();
    return accepting;
}

std::unique_ptr<ReadHolder> CallerBuffer::takeRead(ReadHolder& read) const {
    switch (dimension) {
        case 0:
            return std::make_unique<ReadHolder1D>(std::move(dynamic_cast<ReadHolder1D&>(read)));
        case 1:
            return std::make_unique<ReadHolderMD>(std::move(dynamic_cast<ReadHolderMD&>(read)));
        default:
            throw std::runtime_error("Unrecognized value of dimension parameter.");
    }
}

void CallerBuffer::finishUncalled(std::unique_ptr<ReadHolder> holder, std::int32_t priority) {
    PriorityQueue& q = queues[priority];
    const std::uint64_t index = holder->GetReadIndex();
    q.completed.push_back(std::move(holder));
    q.by_id.emplace(index, std::prev(q.completed.end()));
}

bool CallerBuffer::PassRead(ReadHolder& read) {
    if (failed) {
        rethrowStoredFailure();
        return false;
    }
    if (!accepting) {
        return false;
    }
    const std::int32_t p = read.GetPriority();
    PriorityQueue& q = queueOf(p);
    const std::uint64_t length = read.GetDuration();
    const std::uint64_t count = ChunksForRead(length / stride);

    if (length < min_read_length * stride) {
        auto holder = takeRead(read);
        std::lock_guard<std::mutex> lock(queue_mutex);
        finishUncalled(std::move(holder), p);
        return true;
    }
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        // Soft: only the count before this read is looked at, so one long read may overshoot.
        if (chunk_count[p] >= soft_limit[p]) {
            return false;
        }
        chunk_count[p] += count;
    }

    ChunkList chunks;
    try {
        read.overlap = overlap;
        chunks = read.MakeChunks(chunk_size, count);
    } catch (...) {
        std::lock_guard<std::mutex> lock(queue_mutex);
        chunk_count[p] -= count;
        throw;
    }
    if (chunks.size() != count) {
        std::lock_guard<std::mutex> lock(queue_mutex);
        chunk_count[p] = chunk_count[p] - count + chunks.size();
    }
    auto holder = takeRead(read);
    std::lock_guard<std::mutex> lock(queue_mutex);
    if (chunks.empty()) {
        finishUncalled(std::move(holder), p);
        return true;
    }
    q.pending.splice(q.pending.end(), chunks);
    q.reads.push_front(std::move(holder));
    q.by_id.emplace(q.reads.front()->GetReadIndex(), q.reads.begin());
    return true;
}

bool CallerBuffer::feedChunks(ChunkCaller& engine) {
    if (!engine.HasFreeRunner()) {
        return finishing;
    }
    // The lock is held while chunks are submitted, so that a chunk is always visibly somewhere:
    // queued, or in `working` (see chunksInFlight).
    std::lock_guard<std::mutex> lock(queue_mutex);
    bool empty[2] = {queues[0].pending.empty(), queues[1].pending.empty()};
    std::uint64_t fed = 0;
    // The two priorities take turns chunk by chunk while both have work.
    while (engine.HasFreeRunner() && !(empty[0] && empty[1])) {
        const int i = next_queue;
        PriorityQueue& q = queues[i];
        if (q.pending.empty()) {
            empty[i] = true;
            next_queue = 1 - i;
            continue;
        }
        const auto node = q.pending.begin();
        q.working.splice(q.working.end(), q.pending, node);
        engine.SubmitChunk(node->get());
        if (!empty[1 - i]) {
            next_queue = 1 - i;
        }
        ++fed;
    }
    return fed == 0;
}

void CallerBuffer::collectChunks(ChunkCaller& engine, bool wait) {
    while (ChunkData* chunk = engine.GetCompletedChunk(wait)) {
        wait = false;
        std::lock_guard<std::mutex> lock(queue_mutex);
        const std::int32_t p = chunk->priority;
        PriorityQueue& q = queueOf(p);
        const auto entry = q.by_id.find(chunk->read_index);
        if (entry == q.by_id.end()) {
            throw std::out_of_range("map::at");
        }
        const ReadList::iterator readNode = entry->second;
        ReadHolder& read = **readNode;
        const auto node = std::find_if(q.working.begin(), q.working.end(),
                                       [chunk](const std::unique_ptr<ChunkData>& c) { return c.get() == chunk; });
        if (node == q.working.end()) {
            throw std::runtime_error("Could not find returned chunk in working queue.");
        }
        read.chunks.splice(read.chunks.end(), q.working, node);
        if (read.chunks.size() != chunk->chunk_index + 1) {
            throw std::runtime_error("Chunk received out of order.");
        }
        chunk_count[p] -= 1;
        if (chunk->chunk_index + 1 == chunk->chunk_count) {
            if (read.chunks.size() != chunk->chunk_count) {
                throw std::runtime_error("Received the last chunk out of order.");
            }
            read.kmerLength = static_cast<std::uint16_t>(chunk->kmerLength);
            read.qscore_offset = qscore_offset;
            read.qscore_scale = qscore_scale;
            q.completed.splice(q.completed.end(), q.reads, readNode);
            // Under the lock by design: aggregation must not call back into the buffer.
            read.Aggregate();
        }
    }
}

bool CallerBuffer::chunksInFlight() {
    std::lock_guard<std::mutex> lock(queue_mutex);
    for (const PriorityQueue& q : queues) {
        if (!q.pending.empty() || !q.working.empty()) {
            return true;
        }
    }
    return false;
}

std::uint64_t CallerBuffer::NumCompletedReads(std::int32_t priority) {
    rethrowStoredFailure();
    std::lock_guard<std::mutex> lock(queue_mutex);
    return queueOf(priority).completed.size();
}

void CallerBuffer::GetCompletedReads(ReadList& out, std::int32_t priority) {
    rethrowStoredFailure();
    std::lock_guard<std::mutex> lock(queue_mutex);
    PriorityQueue& q = queueOf(priority);
    for (const auto& read : q.completed) {
        q.by_id.erase(read->GetReadIndex());
    }
    out.splice(out.end(), q.completed);
}

std::uint64_t CallerBuffer::ChunkCount(std::int32_t priority) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    queueOf(priority);
    return chunk_count[priority];
}

void CallerBuffer::Finish() {
    rethrowStoredFailure();
    accepting = false;
    finishing = true;
    while (IsBusy()) {
        sleepMs(50);
    }
    stopWorker();
}

}  // namespace AsyncCaller
