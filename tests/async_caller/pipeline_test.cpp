// The whole read pipeline on read files: pair loading, buffering, the threads of the callers and the
// parallel caller, with the network replaced by a fake computation.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "async_caller/buffered_caller.h"
#include "async_caller/file_data_handler_md.h"
#include "async_caller/parallel_caller.h"
#include "async_caller/read_holder_md.h"
#include "fake_engines.h"
#include "read_files.h"

using AsyncCaller::BufferedCaller;
using AsyncCaller::FileDataHandlerMD;
using AsyncCaller::ParallelCaller;
using AsyncCaller::ReadCaller;
using AsyncCaller::ReadHolderMD;

namespace {

constexpr std::uint64_t kStride = 5;
constexpr std::uint64_t kChunkSize = 60;
constexpr std::uint64_t kOverlap = 6;

// `files` files of `perFile` pairs each, of 150 to 250 bases.
std::vector<AsyncCaller::ReadPair> writeDataset(const std::string& stem, int files, int perFile) {
    std::vector<AsyncCaller::ReadPair> pairs;
    std::mt19937 random(2024);
    std::uniform_int_distribution<int> length(150, 250);
    for (int f = 0; f < files; ++f) {
        const std::string path = TestSupport::Scratch().File(stem + std::to_string(f) + ".rawh5");
        DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
        for (int i = 0; i < perFile; ++i) {
            TestSupport::ReadRecipe one, two;
            const std::string id = "f" + std::to_string(f) + "p" + std::to_string(i);
            TestSupport::pairSpecs(id, TestSupport::randomBases(static_cast<std::size_t>(length(random)), random),
                                   random, one, two);
            TestSupport::writeRead(source, one);
            TestSupport::writeRead(source, two);
            pairs.push_back({path, path, one.id, two.id});
        }
    }
    return pairs;
}

const std::vector<AsyncCaller::ReadPair>& dataset() {
    static const std::vector<AsyncCaller::ReadPair> pairs = writeDataset("pipeline", 10, 30);
    return pairs;
}

struct RunResult {
    std::map<std::string, std::vector<std::string>> calls;  // read_id1 -> sequences returned
    std::uint64_t maxLoaded = 0;
    std::uint64_t maxChunks = 0;
    std::uint64_t readsDone = 0;
};

RunResult runPipeline(const std::vector<AsyncCaller::ReadPair>& pairs, std::size_t callerCount, std::uint64_t threads,
                std::uint64_t limit, int delayMs) {
    std::vector<int> scores(64 * 64, -100);
    for (int i = 0; i < 64; ++i) {
        scores[i * 64 + i] = 100;
    }
    const AsyncCaller::PriorAligner aligner(Common::MatView<const int>(scores.data(), 64, 64, 64, 1), 500, 300, 1000);
    FileDataHandlerMD handler(kStride, aligner, static_cast<int>(callerCount), nullptr, 0);
    std::vector<std::shared_ptr<ReadCaller>> callers;
    for (std::size_t i = 0; i < callerCount; ++i) {
        callers.push_back(std::make_shared<BufferedCaller>(
            std::make_unique<TestSupport::ThreadedFakeCaller>(threads, -1, delayMs), 1, kChunkSize, kStride, kOverlap,
            limit));
    }
    for (const auto& p : pairs) {
        handler.SubmitFilePair(p);
    }
    handler.NoMoreData();

    RunResult run;
    {
        ParallelCaller pc(&handler, nullptr, callers);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (pc.IsRunning()) {
            run.maxLoaded = std::max(run.maxLoaded, handler.LoadedCount());
            for (auto& c : callers) {
                run.maxChunks = std::max(run.maxChunks, static_cast<BufferedCaller&>(*c).ChunkCount(0));
            }
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "the pipeline did not finish";
                pc.Stop();
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
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

TEST(Pipeline, EveryPairComesBackOnceThroughFourCallersUnderBackPressure) {
    const auto& pairs = dataset();
    ASSERT_EQ(pairs.size(), 300u);
    const std::uint64_t limit = 8;
    // Slowed chunks, so that the callers' queues fill and refuse reads.
    const RunResult run = runPipeline(pairs, 4, 2, limit, 1);
    ASSERT_EQ(run.calls.size(), pairs.size());
    std::size_t called = 0;
    for (const auto& p : pairs) {
        const auto found = run.calls.find(p.read_id1);
        ASSERT_NE(found, run.calls.end()) << p.read_id1;
        ASSERT_EQ(found->second.size(), 1u) << p.read_id1;
        called += found->second.front().empty() ? 0 : 1;
    }
    EXPECT_EQ(run.readsDone, pairs.size());
    // Chunks of the fake call are joined like real ones; a rare pair may fail to join, and it comes
    // back all the same, with an empty sequence.
    EXPECT_GE(called, pairs.size() * 9 / 10);
    EXPECT_LE(run.maxLoaded, FileDataHandlerMD::kMaxLoaded);
    // A caller takes a read only below its limit. One read of these (at most 2600 samples, 520
    // intervals of 54 new ones per chunk) brings at most 10 chunks, one more if the chunker adds one,
    // and one more for a split.
    EXPECT_LE(run.maxChunks, limit - 1 + 12);
}

TEST(Pipeline, CallsDoNotDependOnTheNumberOfCallersOrThreads) {
    const std::vector<AsyncCaller::ReadPair> pairs(dataset().begin(), dataset().begin() + 60);
    const RunResult single = runPipeline(pairs, 1, 0, 4, 0);
    const RunResult many = runPipeline(pairs, 4, 2, 4, 0);
    ASSERT_EQ(single.calls.size(), pairs.size());
    EXPECT_EQ(single.calls, many.calls);
}

TEST(Pipeline, ZeroPairsEndTheRunAtOnce) {
    const RunResult run = runPipeline({}, 2, 1, 4, 0);
    EXPECT_TRUE(run.calls.empty());
    EXPECT_EQ(run.readsDone, 0u);

    std::vector<int> scores(64 * 64, 0);
    const AsyncCaller::PriorAligner aligner(Common::MatView<const int>(scores.data(), 64, 64, 64, 1), 500, 300, 1000);
    FileDataHandlerMD handler(kStride, aligner, 1, nullptr, 0);
    EXPECT_TRUE(handler.IsActive());
    handler.NoMoreData();
    EXPECT_FALSE(handler.loadRead());
    EXPECT_FALSE(handler.IsActive());
}
