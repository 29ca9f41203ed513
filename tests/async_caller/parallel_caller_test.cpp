#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "async_caller/buffered_caller.h"
#include "async_caller/parallel_caller.h"
#include "fake_engines.h"
#include "pipeline_fixtures.h"

using AsyncCaller::BufferedCaller;
using AsyncCaller::ParallelCaller;
using AsyncCaller::ReadCaller;

namespace {

constexpr std::uint64_t kStride = 10;
constexpr std::uint64_t kChunkSize = 50;  // stride intervals
constexpr std::uint64_t kOverlap = 5;

// Hands out `count` synthetic pairs of 300 to 1900 samples (one to five chunks) and collects them.
class FakeHandler : public AsyncCaller::DataHandler {
public:
    explicit FakeHandler(std::uint64_t count_, long failAt_ = -1) : DataHandler(1), count(count_), failAt(failAt_) {}

    bool IsActive() override { return next < count; }

    bool GetRead(int priority, AsyncCaller::ReadHolder& holder, int) override {
        if (priority != 0) {
            return false;
        }
        std::uint64_t index = next;
        do {
            if (index >= count) {
                return false;
            }
        } while (!next.compare_exchange_weak(index, index + 1));
        if (static_cast<long>(index) == failAt) {
            throw std::runtime_error("injected GetRead failure");
        }
        TestSupport::fillPair(static_cast<AsyncCaller::ReadHolderMD&>(holder), Samples(index), kStride, index);
        const long inFlight = ++outstanding;
        long seen = maxOutstanding;
        while (inFlight > seen && !maxOutstanding.compare_exchange_weak(seen, inFlight)) {
        }
        return true;
    }

    void PassCalledRead(AsyncCaller::ReadHolder& holder, int) override {
        auto& pair = static_cast<AsyncCaller::ReadHolderMD&>(holder);
        std::lock_guard<std::mutex> lock(mutex);
        returned[pair.GetReadIndex()].push_back(pair.sequence);
        --outstanding;
    }

    static std::uint64_t Samples(std::uint64_t index) { return 300 + (index * 37 % 5) * 400; }

    std::atomic<std::uint64_t> next{0};
    std::uint64_t count;
    long failAt;
    std::atomic<long> outstanding{0};
    std::atomic<long> maxOutstanding{0};
    std::mutex mutex;
    std::map<std::uint64_t, std::vector<std::string>> returned;
};

std::vector<std::shared_ptr<ReadCaller>> threadedCallers(std::size_t callers, std::uint64_t threads,
                                                         std::uint64_t limit, long failAt = -1) {
    std::vector<std::shared_ptr<ReadCaller>> out;
    for (std::size_t i = 0; i < callers; ++i) {
        auto engine = std::make_unique<TestSupport::ThreadedFakeCaller>(threads, i == 0 ? failAt : -1);
        out.push_back(std::make_shared<BufferedCaller>(std::move(engine), 1, kChunkSize, kStride, kOverlap, limit));
    }
    return out;
}

// Polls IsRunning until it is false, for at most `seconds`; rethrows what it throws.
bool runToEnd(ParallelCaller& pc, int seconds, const std::function<void()>& onPoll = {}) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (!pc.IsRunning()) {
            return true;
        }
        if (onPoll) {
            onPoll();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

std::string runToFailure(ParallelCaller& pc) {
    try {
        runToEnd(pc, 30);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(ParallelCaller, ZeroPairsEndAtOnce) {
    FakeHandler handler(0);
    ParallelCaller pc(&handler, nullptr, threadedCallers(2, 1, 8));
    EXPECT_TRUE(runToEnd(pc, 5));
    EXPECT_TRUE(handler.returned.empty());
    EXPECT_EQ(pc.State(), 2);
}

TEST(ParallelCaller, RefusesACallerOfTheOtherDimension) {
    FakeHandler handler(10);
    std::vector<std::shared_ptr<ReadCaller>> callers;
    callers.push_back(std::make_shared<BufferedCaller>(std::make_unique<TestSupport::FakeEngine>(), 0, kChunkSize,
                                                       kStride, kOverlap, 8));
    try {
        ParallelCaller pc(&handler, nullptr, callers);
        FAIL() << "dimensions differ";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Caller dimensionality does not match data handler dimensionality.");
    }
    EXPECT_EQ(handler.next, 0u);  // no worker ever asked for a read
}

TEST(ParallelCaller, EveryPairComesBackExactlyOnceUnderBackPressure) {
    const std::uint64_t pairs = 400;
    const std::uint64_t limit = 6;
    FakeHandler handler(pairs);
    auto callers = threadedCallers(4, 2, limit);
    std::uint64_t maxChunks = 0;
    {
        ParallelCaller pc(&handler, nullptr, callers);
        ASSERT_TRUE(runToEnd(pc, 60, [&] {
            for (auto& c : callers) {
                maxChunks = std::max(maxChunks, static_cast<BufferedCaller&>(*c).ChunkCount(0));
            }
        }));
    }
    ASSERT_EQ(handler.returned.size(), pairs);
    for (const auto& entry : handler.returned) {
        ASSERT_EQ(entry.second.size(), 1u) << "pair " << entry.first;
        EXPECT_FALSE(entry.second.front().empty()) << "pair " << entry.first;
    }
    EXPECT_EQ(handler.outstanding, 0);
    // A caller takes reads only below its limit, and one read brings at most five chunks.
    EXPECT_LE(maxChunks, limit - 1 + 5);
    // Per caller: the reads behind those chunks, one held in the worker's slot and a few completed
    // ones on their way back. Far below the 400 an unchecked loader would hand out.
    EXPECT_LE(handler.maxOutstanding, 4 * (static_cast<long>(limit) + 5 + 1) + 8);
}

TEST(ParallelCaller, GetReadFailureSurfacesOnceOnTheOwner) {
    FakeHandler handler(200, 30);
    ParallelCaller pc(&handler, nullptr, threadedCallers(4, 2, 6));
    EXPECT_EQ(runToFailure(pc), "Exception thrown in ParallelCaller worker thread: injected GetRead failure");
    EXPECT_FALSE(pc.IsRunning());
    EXPECT_EQ(pc.State(), 2);
}

TEST(ParallelCaller, ChunkWorkerFailureCarriesAllThreePrefixes) {
    FakeHandler handler(200);
    ParallelCaller pc(&handler, nullptr, threadedCallers(4, 2, 6, /*failAt=*/5));
    EXPECT_EQ(runToFailure(pc),
              "Exception thrown in ParallelCaller worker thread: Exception thrown in Caller worker thread: "
              "Exception thrown in ChunkCallerMDCpu worker thread: injected chunk failure");
    EXPECT_FALSE(pc.IsRunning());
}

TEST(ParallelCaller, CallerWorkerFailureSurfacesThroughTheBuffer) {
    FakeHandler handler(200);
    auto callers = threadedCallers(3, 2, 6);
    auto engine = std::make_unique<TestSupport::FakeEngine>(2);
    engine->throwOnCollect = true;
    callers.push_back(std::make_shared<BufferedCaller>(std::move(engine), 1, kChunkSize, kStride, kOverlap, 6));
    ParallelCaller pc(&handler, nullptr, callers);
    EXPECT_EQ(runToFailure(pc),
              "Exception thrown in ParallelCaller worker thread: Exception thrown in Caller worker thread: "
              "injected engine failure");
    EXPECT_FALSE(pc.IsRunning());
}
