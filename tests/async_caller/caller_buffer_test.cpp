#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "async_caller/buffered_caller.h"
#include "fake_engines.h"
#include "pipeline_fixtures.h"
#include "test_util.h"

using AsyncCaller::BufferedCaller;
using AsyncCaller::ReadList;
using TestSupport::FakeEngine;

namespace {

struct Buffer {
    FakeEngine* engine;
    std::unique_ptr<BufferedCaller> caller;

    Buffer(std::uint64_t chunk_size, std::uint64_t stride, std::uint64_t overlap, std::uint64_t limit,
           std::size_t capacity = 2, bool paused = false, std::int32_t dimension = 1) {
        auto e = std::make_unique<FakeEngine>(capacity);
        e->paused = paused;
        engine = e.get();
        caller = std::make_unique<BufferedCaller>(std::move(e), dimension, chunk_size, stride, overlap, limit, 0.0f,
                                                  1.0f);
    }
    void setEngine(const std::function<void(FakeEngine&)>& change) {
        std::lock_guard<std::mutex> lock(engine->mutex);
        change(*engine);
    }
};

using TestSupport::Eventually;

// The stored failure of a buffer's worker, as the first public call rethrows it.
std::string awaitFailure(BufferedCaller& caller) {
    return TestSupport::AwaitError([&] { caller.CanAcceptRead(0, 0); });
}

}  // namespace

TEST(CallerBuffer, ChunkCountForAReadLength) {
    Buffer b(1000, 1, 50, 100);
    EXPECT_EQ(b.caller->ChunksForRead(1000), 1u);
    EXPECT_EQ(b.caller->ChunksForRead(1001), 2u);
    EXPECT_EQ(b.caller->ChunksForRead(1900), 2u);
    EXPECT_EQ(b.caller->ChunksForRead(1901), 3u);
    EXPECT_EQ(b.caller->ChunksForRead(20), 1u);
}

TEST(CallerBuffer, ShortReadsCompleteAtOnceAndTwentyIntervalsMakeOneChunk) {
    Buffer b(100, 10, 10, 1000);
    auto shortRead = TestSupport::makePair(190, 10, 1);
    ASSERT_TRUE(b.caller->PassRead(*shortRead));
    EXPECT_EQ(b.caller->NumCompletedReads(0), 1u);
    ReadList out;
    b.caller->GetCompletedReads(out, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(out.front()->sequence.empty());
    EXPECT_TRUE(out.front()->chunks.empty());
    EXPECT_EQ(b.engine->Submitted(), 0u);
    // The holder handed over its signal with the read.
    EXPECT_FALSE(shortRead->owns_raw);

    auto read = TestSupport::makePair(200, 10, 2);
    ASSERT_TRUE(b.caller->PassRead(*read));
    ASSERT_TRUE(Eventually([&] { return b.caller->NumCompletedReads(0) == 1; }));
    EXPECT_EQ(b.engine->Submitted(), 1u);
    out.clear();
    b.caller->GetCompletedReads(out, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front()->sequence.size(), 20u);
    EXPECT_EQ(out.front()->kmerLength, 5u);
    EXPECT_EQ(b.caller->ChunkCount(0), 0u);
    b.caller->Finish();
    EXPECT_FALSE(b.caller->IsBusy());
}

TEST(CallerBuffer, SoftLimitLooksOnlyAtTheCountBeforeTheRead) {
    Buffer b(10, 1, 0, 10000, 2, /*paused=*/true);
    TestSupport::CountingHolder first(99990, 1);  // 9999 chunks
    ASSERT_TRUE(b.caller->PassRead(first));
    EXPECT_EQ(b.caller->ChunkCount(0), 9999u);
    TestSupport::CountingHolder second(5000, 2);  // 500 chunks, accepted at 9999
    ASSERT_TRUE(b.caller->PassRead(second));
    EXPECT_EQ(b.caller->ChunkCount(0), 10499u);
    TestSupport::CountingHolder third(200, 3);
    EXPECT_FALSE(b.caller->PassRead(third));
    EXPECT_EQ(third.GetReadIndex(), 3u);  // refused reads are left as they were
    EXPECT_EQ(third.read1.trimmed_duration, 200u);

    // The high-priority queue has its own limit of 100.
    TestSupport::CountingHolder high1(990, 4, 1);  // 99 chunks
    ASSERT_TRUE(b.caller->PassRead(high1));
    TestSupport::CountingHolder high2(25, 5, 1);  // 3 more, taken at 99
    ASSERT_TRUE(b.caller->PassRead(high2));
    TestSupport::CountingHolder high3(25, 6, 1);
    EXPECT_FALSE(b.caller->PassRead(high3));
    EXPECT_EQ(b.caller->ChunkCount(1), 102u);
    EXPECT_EQ(b.caller->ChunkCount(0), 10499u);
}

TEST(CallerBuffer, PrioritiesTakeTurnsStartingWithHigh) {
    Buffer b(100, 10, 10, 1000, 1, /*paused=*/true);
    for (int i = 0; i < 3; ++i) {
        auto normal = TestSupport::makePair(200, 10, 10 + i, 0);
        auto high = TestSupport::makePair(200, 10, 20 + i, 1);
        ASSERT_TRUE(b.caller->PassRead(*normal));
        ASSERT_TRUE(b.caller->PassRead(*high));
    }
    b.setEngine([](FakeEngine& e) { e.paused = false; });
    ASSERT_TRUE(Eventually(
        [&] { return b.caller->NumCompletedReads(0) == 3 && b.caller->NumCompletedReads(1) == 3; }));
    EXPECT_EQ(b.engine->Priorities(), (std::vector<int>{1, 0, 1, 0, 1, 0}));
}

TEST(CallerBuffer, FinishDrainsEverything) {
    Buffer b(100, 10, 10, 1000);
    for (int i = 0; i < 5; ++i) {
        auto read = TestSupport::makePair(2000, 10, i);
        ASSERT_TRUE(b.caller->PassRead(*read));
    }
    b.caller->Finish();
    EXPECT_EQ(b.caller->NumCompletedReads(0), 5u);
    EXPECT_FALSE(b.caller->IsBusy());
    EXPECT_FALSE(b.caller->CanAcceptRead(0, 0));
    auto late = TestSupport::makePair(200, 10, 9);
    EXPECT_FALSE(b.caller->PassRead(*late));

    Buffer idle(100, 10, 10, 1000);
    idle.caller->Finish();  // returns, with nothing to wait for
    EXPECT_FALSE(idle.caller->IsBusy());
}

TEST(CallerBuffer, AChunkReturnedTwiceFailsTheWorkerOnce) {
    Buffer b(100, 10, 10, 1000);
    b.setEngine([](FakeEngine& e) { e.repeatLast = true; });
    // The first of three chunks comes back twice; its read is still in flight, so the chunk is alive.
    auto read = TestSupport::makePair(2000, 10, 1);
    ASSERT_TRUE(b.caller->PassRead(*read));
    EXPECT_EQ(awaitFailure(*b.caller),
              "Exception thrown in Caller worker thread: Could not find returned chunk in working queue.");
    EXPECT_FALSE(b.caller->CanAcceptRead(0, 0));
    EXPECT_FALSE(b.caller->IsBusy());
}

TEST(CallerBuffer, ChunksMustComeBackInOrder) {
    Buffer b(200, 1, 10, 1000, 8);
    b.setEngine([](FakeEngine& e) { e.reverse = true; });
    auto read = TestSupport::makePair(600, 1, 1);
    ASSERT_TRUE(b.caller->PassRead(*read));
    EXPECT_EQ(awaitFailure(*b.caller), "Exception thrown in Caller worker thread: Chunk received out of order.");
}

TEST(CallerBuffer, EngineFailureSurfacesThroughEveryPublicCall) {
    Buffer b(100, 10, 10, 1000);
    b.setEngine([](FakeEngine& e) { e.throwOnCollect = true; });
    auto read = TestSupport::makePair(200, 10, 1);
    ASSERT_TRUE(b.caller->PassRead(*read));
    EXPECT_EQ(TestSupport::AwaitError([&] { b.caller->IsBusy(); }),
              "Exception thrown in Caller worker thread: injected engine failure");
    EXPECT_NO_THROW(b.caller->Finish());  // the text was taken once
}

TEST(BufferedCaller, EventDetectionOnlyForPairs) {
    Buffer pair(100, 10, 10, 1000);
    pair.caller->SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f);
    EXPECT_TRUE(pair.engine->eventDetectionSet);

    Buffer single(100, 10, 10, 1000, 2, false, 0);
    EXPECT_EQ(TestSupport::ErrorOf([&] { single.caller->SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f); }),
              "SetEventDetection() method not supported for 1d basecalling.");
}

TEST(BufferedCaller, CanBeDroppedWithWorkQueued) {
    Buffer b(100, 10, 10, 1000, 2, /*paused=*/true);
    for (int i = 0; i < 3; ++i) {
        auto read = TestSupport::makePair(2000, 10, i);
        ASSERT_TRUE(b.caller->PassRead(*read));
    }
    b.caller.reset();  // must neither hang nor leak
}
