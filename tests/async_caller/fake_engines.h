#pragma once
// Stand-ins for the network-driven chunk callers, and pair holders over synthetic signal, for testing
// the buffering and the threads above them without a model.

#include "test_util.h"

#include "async_caller/chunk_caller.h"
#include "async_caller/chunk_caller_pool.h"
#include "async_caller/read_holder_md.h"

namespace TestSupport {

// A pair holder that owns `samples` samples on each strand, with an identity prior map. The signal is
// pseudo-random per sample but fixed by position, so neighbouring chunks see the same samples in
// their overlap.
inline std::unique_ptr<AsyncCaller::ReadHolderMD> makePair(std::uint64_t samples, std::uint64_t stride,
                                                            std::uint64_t index, std::int32_t priority = 0) {
    auto holder = std::make_unique<AsyncCaller::ReadHolderMD>();
    float* s1 = new float[samples];
    float* s2 = new float[samples];
    for (std::uint64_t i = 0; i < samples; ++i) {
        s1[i] = static_cast<float>((i * 7919 + index * 104729) % 1000) / 250.0f - 2.0f;
    }
    for (std::uint64_t i = 0; i < samples; ++i) s2[i] = s1[samples - 1 - i];
    holder->SetRawData(s1, samples, s2, samples, true);
    holder->priorStep = 10;
    holder->priorSamples.resize(samples / 10);
    for (std::uint64_t e = 0; e < holder->priorSamples.size(); ++e) holder->priorSamples[e] = 10 * e;
    holder->stride = stride;
    holder->read1.read_id = "a" + std::to_string(index);
    holder->read2.read_id = "b" + std::to_string(index);
    holder->read1.trimmed_duration = samples;
    holder->read2.trimmed_duration = samples;
    holder->SetReadIndex(index);
    holder->SetPriority(priority);
    return holder;
}

// A pair holder that cuts itself into exactly the number of chunks asked for, with no signal.
class CountingHolder : public AsyncCaller::ReadHolderMD {
public:
    CountingHolder(std::uint64_t duration, std::uint64_t index, std::int32_t priority = 0) {
        read1.trimmed_duration = duration;
        SetReadIndex(index);
        SetPriority(priority);
    }
    AsyncCaller::ChunkList MakeChunks(std::uint64_t, std::uint64_t count) override {
        AsyncCaller::ChunkList out;
        for (std::uint64_t k = 0; k < count; ++k) {
            auto chunk = std::make_unique<AsyncCaller::ChunkDataMD>();
            chunk->read_index = GetReadIndex();
            chunk->priority = GetPriority();
            chunk->chunk_index = k;
            chunk->chunk_count = count;
            out.push_back(std::move(chunk));
            out.back()->list_node = std::prev(out.end());
        }
        return out;
    }
};


// Bases of a pair chunk derived from its strand-1 signal, one per event: the same chunk always gets
// the same call, and the overlapping part of two neighbouring chunks gets the same bases.
inline void fakeCall(AsyncCaller::ChunkDataMD& c) {
    c.sequence.clear();
    const std::uint64_t events = c.events1;
    const std::uint64_t stride = events > 0 ? c.raw1.size / events : 1;
    for (std::uint64_t e = 0; e < events; ++e) {
        const float x = c.raw1[e * stride];
        const long level = std::lround(std::floor(x * 8.0f));
        c.sequence.push_back("ACGT"[static_cast<unsigned long>(level) & 3u]);
    }
    c.qualities.assign(c.sequence.size(), '5');
    c.score = 1.0f;
    c.kmerLength = 5;
}

// A synchronous engine of `capacity` runners: a submitted chunk is called when it is collected. The
// flags script its faults: chunks held back, collection throwing, the last chunk handed back twice,
// a read's chunks handed back last first.
class FakeEngine : public AsyncCaller::ChunkCallerMD {
public:
    explicit FakeEngine(std::size_t capacity_ = 2) : capacity(capacity_) {}

    template <typename F>
    auto locked(F f) {
        std::lock_guard<std::mutex> lock(mutex);
        return f();
    }

    bool HasFreeRunner() override { return locked([&] { return !paused && queue.size() < capacity; }); }
    bool IsWorking() override { return locked([&] { return !queue.empty(); }); }
    void SubmitChunk(AsyncCaller::ChunkData* chunk) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (queue.size() >= capacity) throw std::runtime_error("fake engine is full");
        queue.push_back(chunk);
        priorities.push_back(chunk->priority);
    }
    AsyncCaller::ChunkData* GetCompletedChunk(bool) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (throwOnCollect) throw std::runtime_error("injected engine failure");
        AsyncCaller::ChunkData* chunk = repeatLast ? std::exchange(last, nullptr) : nullptr;
        if (chunk != nullptr || queue.empty() || (reverse && queue.size() < queue.back()->chunk_count)) return chunk;
        chunk = reverse ? queue.back() : queue.front();
        reverse ? queue.pop_back() : queue.pop_front();
        if (chunk->dimension == 1) fakeCall(static_cast<AsyncCaller::ChunkDataMD&>(*chunk));
        return last = chunk;
    }
    void SetEventDetection(std::uint64_t, std::uint64_t, float, float, float) override { eventDetectionSet = true; }

    std::mutex mutex;
    std::size_t capacity;
    std::deque<AsyncCaller::ChunkData*> queue;
    std::vector<int> priorities;  // of the chunks submitted, in order
    AsyncCaller::ChunkData* last = nullptr;
    bool paused = false, throwOnCollect = false, repeatLast = false, reverse = false, eventDetectionSet = false;
};

// The processor callers' worker machinery with a fake computation: real threads, real ordering and
// real failure handling. Chunk number `failAt` (in submission order over the caller's life) throws;
// while `hold` is set, a chunk of index 0 waits.
class ThreadedFakeCaller : public AsyncCaller::ChunkCallerPool<AsyncCaller::ChunkCallerMD> {
public:
    explicit ThreadedFakeCaller(std::uint64_t threads, long failAt_ = -1, int delayMs_ = 0)
        : ChunkCallerPool("ChunkCallerMDCpu", threads), failAt(failAt_), delayMs(delayMs_) {
        startWorkers();
    }
    ~ThreadedFakeCaller() override {
        hold = false;  // a failed check must not leave a worker held
        stopWorkers();
    }
    void SetEventDetection(std::uint64_t, std::uint64_t, float, float, float) override {}

    std::atomic<long> calls{0}, done{0};
    std::atomic<bool> hold{false};

protected:
    void processChunk(AsyncCaller::ChunkData& chunk, int) override {
        const long n = calls++;
        while (chunk.chunk_index == 0 && hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (n == failAt) throw std::runtime_error("injected chunk failure");
        if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        fakeCall(static_cast<AsyncCaller::ChunkDataMD&>(chunk));
        ++done;
    }

private:
    long failAt;
    int delayMs;
};

}  // namespace TestSupport
