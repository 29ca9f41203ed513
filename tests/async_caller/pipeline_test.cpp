// The whole read pipeline on read files: pair loading, buffering, the threads of the callers and the
// parallel caller, with the network replaced by a fake computation.

#include "async_caller/buffered_caller.h"
#include "async_caller/file_data_handler_md.h"
#include "async_caller/parallel_caller.h"
#include "async_caller/read_holder_md.h"
#include "fake_engines.h"
#include "read_files.h"
#include "test_util.h"

using namespace AsyncCaller;
using namespace TestSupport;
using Callers = std::vector<std::shared_ptr<ReadCaller>>;

namespace {

constexpr std::uint64_t kStride = 5;

const std::vector<ReadPair>& dataset() {
    static const std::vector<ReadPair> pairs = [] {
        std::vector<ReadPair> out;
        std::mt19937 random(2024);
        for (const std::string f : {"0", "1"}) {
            const auto file = writePairs(ScratchFile("pipeline" + f), "f" + f + "p",
                                         randomMolecules(30, 150, 250, random), random);
            out.insert(out.end(), file.begin(), file.end());
        }
        return out;
    }();
    return pairs;
}

BufferedCaller* buffered(std::unique_ptr<ChunkCallerMD> engine, std::uint64_t limit,
                         std::int32_t dimension = 1) {
    return new BufferedCaller(std::move(engine), dimension, 60, kStride, 6, limit);
}

// `count` callers of `threads` threads each; chunk number `failAt` of the first one throws.
Callers threaded(std::size_t count, std::uint64_t threads, std::uint64_t limit, int delayMs = 0, long failAt = -1) {
    Callers out;
    for (std::size_t i = 0; i < count; ++i) {
        out.emplace_back(buffered(
            std::make_unique<ThreadedFakeCaller>(threads, i == 0 ? failAt : -1, delayMs), limit));
    }
    return out;
}

struct RunResult {
    std::map<std::string, std::vector<std::string>> calls;  // read_id1 -> sequences returned
    std::uint64_t maxLoaded = 0, maxChunks = 0, readsDone = 0;
    std::string failure;  // what the parallel caller threw
};

RunResult runPipeline(const std::vector<ReadPair>& pairs, const Callers& callers) {
    const LabelAligner labels;
    FileDataHandlerMD handler(kStride, labels.aligner, static_cast<int>(callers.size()), nullptr, 0);
    for (const auto& p : pairs) handler.SubmitFilePair(p);
    handler.NoMoreData();
    RunResult run;
    {
        ParallelCaller pc(&handler, nullptr, callers);
        run.failure = ErrorOf([&] {
            const bool ended = Eventually([&] {
                run.maxLoaded = std::max(run.maxLoaded, handler.LoadedCount());
                for (auto& c : callers) {
                    run.maxChunks = std::max(run.maxChunks, static_cast<BufferedCaller&>(*c).ChunkCount(0));
                }
                return !pc.IsRunning();
            }, 120);
            if (!ended) pc.Stop();
            EXPECT_TRUE(ended) << "the pipeline did not finish";
        }, "");
        if (!run.failure.empty()) {
            EXPECT_FALSE(pc.IsRunning());  // the failure is thrown once
            return run;
        }
    }
    EXPECT_FALSE(handler.IsActive());
    EXPECT_EQ(handler.PendingCount(), 0u);
    run.readsDone = handler.ReadsDone();
    for (auto& read : handler.Processor().Results()) {
        const auto& pair = static_cast<const ReadHolderMD&>(*read);
        run.calls[pair.read1.read_id].push_back(pair.sequence);
    }
    return run;
}

}  // namespace

TEST(Pipeline, EveryPairComesBackOnceWhateverTheCallersAndThreads) {
    const auto& pairs = dataset();
    const RunResult single = runPipeline(pairs, threaded(1, 0, 4));
    ASSERT_EQ(single.calls.size(), pairs.size());
    EXPECT_EQ(single.readsDone, pairs.size());
    std::size_t called = 0;
    for (const auto& p : pairs) {
        const auto found = single.calls.find(p.read_id1);
        ASSERT_NE(found, single.calls.end()) << p.read_id1;
        ASSERT_EQ(found->second.size(), 1u) << p.read_id1;
        called += found->second.front().empty() ? 0 : 1;
    }
    // Chunks of the fake call are joined like real ones; a rare pair may fail to join, and it comes
    // back all the same, with an empty sequence.
    EXPECT_GE(called, pairs.size() * 9 / 10);
    // Four callers of two threads, slowed so that their queues fill and refuse reads.
    const std::uint64_t limit = 8;
    const RunResult many = runPipeline(pairs, threaded(4, 2, limit, 1));
    EXPECT_EQ(many.calls, single.calls);
    EXPECT_LE(many.maxLoaded, FileDataHandlerMD::kMaxLoaded);
    // A caller takes a read only below its limit. One read of these (at most 2600 samples, 520
    // intervals of 54 new ones per chunk) brings at most 10 chunks, one more if the chunker adds one,
    // and one more for a split.
    EXPECT_LE(many.maxChunks, limit - 1 + 12);
}

TEST(Pipeline, FailuresReachTheOwnerWithEveryLayersPrefix) {
    const std::vector<ReadPair> pairs(dataset().begin(), dataset().begin() + 20);
    const std::string prefix = "Exception thrown in ParallelCaller worker thread: Exception thrown in Caller worker "
                               "thread: ";
    // A failing chunk call surfaces on the owner, once, through every layer; the buffer's own
    // failures take the same way from the caller's worker.
    EXPECT_EQ(runPipeline(pairs, threaded(4, 2, 6, 0, /*failAt=*/5)).failure,
              prefix + "Exception thrown in ChunkCallerMDCpu worker thread: injected chunk failure");

    // A caller of single reads cannot serve a pair handler; no worker starts.
    const LabelAligner labels;
    FileDataHandlerMD handler(kStride, labels.aligner, 1, nullptr, 0);
    const Callers single{std::shared_ptr<ReadCaller>(buffered(std::make_unique<FakeEngine>(), 8, 0))};
    EXPECT_EQ(ErrorOf([&] { ParallelCaller(&handler, nullptr, single); }),
              "Caller dimensionality does not match data handler dimensionality.");
    EXPECT_TRUE(handler.IsActive());
    handler.NoMoreData();
    EXPECT_FALSE(handler.loadRead());
    EXPECT_FALSE(handler.IsActive());
}
