#include "async_caller/buffered_caller.h"
#include "fake_engines.h"
#include "test_util.h"

using namespace AsyncCaller;
using namespace TestSupport;

namespace {

struct Buffer {
    FakeEngine* engine;
    std::unique_ptr<BufferedCaller> caller;

    Buffer(std::uint64_t chunk_size, std::uint64_t stride, std::uint64_t overlap, std::uint64_t limit,
           std::size_t capacity = 2, bool paused = false, std::int32_t dimension = 1)
        : engine(new FakeEngine(capacity)) {
        engine->paused = paused;
        caller = std::make_unique<BufferedCaller>(std::unique_ptr<FakeEngine>(engine), dimension, chunk_size, stride,
                                                  overlap, limit, 0.0f, 1.0f);
    }
};

}  // namespace

TEST(CallerBuffer, ChunkCountForAReadLength) {
    Buffer b(1000, 1, 50, 100);
    for (const auto& c : std::vector<std::pair<std::uint64_t, std::uint64_t>>{{20, 1}, {1000, 1}, {1001, 2}, {1900, 2},
                                                                             {1901, 3}}) {
        EXPECT_EQ(b.caller->ChunksForRead(c.first), c.second) << c.first;
    }
}

TEST(CallerBuffer, ShortReadsCompleteAtOnceAndFinishDrainsTheRest) {
    Buffer b(100, 10, 10, 1000);
    // Under twenty stride intervals a read is passed back uncalled, at once; twenty make one chunk.
    auto shortRead = makePair(190, 10, 1);
    ASSERT_TRUE(b.caller->PassRead(*shortRead));
    EXPECT_EQ(b.caller->NumCompletedReads(0), 1u);
    EXPECT_FALSE(shortRead->owns_raw);  // the holder handed over its signal with the read
    EXPECT_TRUE(b.engine->locked([&] { return b.engine->priorities.empty(); }));
    for (std::uint64_t i = 2; i <= 5; ++i) {
        ASSERT_TRUE(b.caller->PassRead(*makePair(i == 2 ? 200 : 2000, 10, i)));
    }
    b.caller->Finish();
    EXPECT_EQ(b.caller->NumCompletedReads(0), 5u);
    EXPECT_EQ(b.caller->ChunkCount(0), 0u);
    EXPECT_FALSE(b.caller->IsBusy());
    EXPECT_FALSE(b.caller->CanAcceptRead(0, 0));
    EXPECT_FALSE(b.caller->PassRead(*makePair(200, 10, 9)));
    ReadList out;
    b.caller->GetCompletedReads(out, 0);
    std::map<std::uint64_t, std::string> sequences;
    for (const auto& read : out) {
        sequences[read->GetReadIndex()] = read->sequence;
        EXPECT_TRUE(read->chunks.empty());
    }
    EXPECT_EQ(sequences[1], "");
    EXPECT_EQ(sequences[2].size(), 20u);
}

TEST(CallerBuffer, SoftLimitLooksOnlyAtTheCountBeforeTheRead) {
    // Limits of 10000 chunks, and 100 of high priority: a read is taken while the count before it is
    // below the limit, however many chunks it brings. Refused reads are left as they were.
    Buffer b(10, 1, 0, 10000, 2, /*paused=*/true);
    const struct {
        std::uint64_t duration;
        int priority;
        bool taken;
        std::uint64_t chunks;
    } cases[] = {{99990, 0, true, 9999}, {5000, 0, true, 10499}, {200, 0, false, 10499},
                 {980, 1, true, 98},     {20, 1, true, 100},     {25, 1, false, 100}};
    std::uint64_t index = 0;
    for (const auto& c : cases) {
        CountingHolder read(c.duration, ++index, c.priority);
        EXPECT_EQ(b.caller->PassRead(read), c.taken) << index;
        EXPECT_EQ(b.caller->ChunkCount(c.priority), c.chunks) << index;
        EXPECT_TRUE(c.taken || (read.GetReadIndex() == index && read.read1.trimmed_duration == c.duration));
    }
    EXPECT_EQ(b.caller->ChunkCount(0), 10499u);
}

TEST(CallerBuffer, PrioritiesTakeTurnsStartingWithHigh) {
    Buffer b(100, 10, 10, 1000, 1, /*paused=*/true);
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(b.caller->PassRead(*makePair(200, 10, 10 + i, i % 2)));
    b.engine->locked([&] { b.engine->paused = false; });
    ASSERT_TRUE(Eventually(
        [&] { return b.caller->NumCompletedReads(0) == 3 && b.caller->NumCompletedReads(1) == 3; }));
    EXPECT_EQ(b.engine->locked([&] { return b.engine->priorities; }), (std::vector<int>{1, 0, 1, 0, 1, 0}));
}

TEST(CallerBuffer, EngineMisbehaviourFailsTheWorkerOnce) {
    const std::string prefix = "Exception thrown in Caller worker thread: ";
    const struct {
        std::function<void(FakeEngine&)> change;
        std::uint64_t chunkSize, stride;
        std::string text;
    } cases[] = {
        // The first of three chunks comes back twice; its read is still in flight, so the chunk is alive.
        {[](FakeEngine& e) { e.repeatLast = true; }, 100, 10, "Could not find returned chunk in working queue."},
        {[](FakeEngine& e) { e.reverse = true; }, 200, 1, "Chunk received out of order."},
        {[](FakeEngine& e) { e.throwOnCollect = true; }, 100, 10, "injected engine failure"},
    };
    for (const auto& c : cases) {
        Buffer b(c.chunkSize, c.stride, 10, 1000, 8);
        b.engine->locked([&] { c.change(*b.engine); });
        auto read = makePair(c.chunkSize * c.stride * 3 - 100, c.stride, 1);
        ASSERT_TRUE(b.caller->PassRead(*read));
        // The stored failure of the worker, as the first public call rethrows it.
        EXPECT_EQ(AwaitError([&] { b.caller->CanAcceptRead(0, 0); }), prefix + c.text);
        EXPECT_FALSE(b.caller->CanAcceptRead(0, 0));  // the text was taken once
        EXPECT_FALSE(b.caller->IsBusy());
        EXPECT_NO_THROW(b.caller->Finish());
    }
}

TEST(BufferedCaller, EventDetectionOnlyForPairs) {
    Buffer pair(100, 10, 10, 1000);
    pair.caller->SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f);
    EXPECT_TRUE(pair.engine->eventDetectionSet);

    Buffer single(100, 10, 10, 1000, 2, false, 0);
    EXPECT_EQ(ErrorOf([&] { single.caller->SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f); }),
              "SetEventDetection() method not supported for 1d basecalling.");
}
