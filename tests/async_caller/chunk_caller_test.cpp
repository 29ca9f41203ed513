#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <cmath>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "async_caller/buffered_caller.h"
#include "async_caller/chunk_caller_cpu.h"
#include "async_caller/chunk_caller_md_cpu.h"
#include "async_caller/chunk_caller_pool.h"
#include "async_caller/read_holder_1d.h"
#include "basecall_nn/basecall_config.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "log_capture.h"
#include "test_util.h"
#include "model_files.h"
#include "pipeline_fixtures.h"

using AsyncCaller::ChunkCallerMDCpu;
using AsyncCaller::ChunkData;
using AsyncCaller::ChunkDataMD;

namespace {

// The worker machinery with a scripted computation: chunk `holdIndex` waits until Release(), and
// chunk `failAt` throws.
class ScriptedCaller : public AsyncCaller::ChunkCallerPool<AsyncCaller::ChunkCallerMD> {
public:
    ScriptedCaller(std::uint64_t threads, long holdIndex_ = -1, long failAt_ = -1)
        : ChunkCallerPool("ChunkCallerMDCpu", threads), holdIndex(holdIndex_), failAt(failAt_) {
        startWorkers();
    }
    ~ScriptedCaller() override {
        Release();  // a failed check must not leave a worker held
        stopWorkers();
    }
    void SetEventDetection(std::uint64_t, std::uint64_t, float, float, float) override {}
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        gate.notify_all();
    }
    std::atomic<int> done{0};

protected:
    void processChunk(ChunkData& chunk, int) override {
        const auto i = static_cast<long>(chunk.chunk_index);
        if (i == holdIndex) {
            std::unique_lock<std::mutex> lock(mutex);
            gate.wait(lock, [this] { return released; });
        }
        if (i == failAt) {
            throw std::runtime_error("scripted failure");
        }
        chunk.sequence = "chunk" + std::to_string(i);
        ++done;
    }

private:
    long holdIndex, failAt;
    std::mutex mutex;
    std::condition_variable gate;
    bool released = false;
};

std::vector<std::unique_ptr<ChunkDataMD>> bareChunks(std::size_t n) {
    std::vector<std::unique_ptr<ChunkDataMD>> out;
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(std::make_unique<ChunkDataMD>());
        out.back()->chunk_index = i;
    }
    return out;
}

using TestSupport::ErrorOf;
using TestSupport::Eventually;

}  // namespace

TEST(ChunkCallerPool, ChunksComeBackInSubmissionOrder) {
    ScriptedCaller caller(2, /*holdIndex=*/0);
    auto chunks = bareChunks(2);
    ASSERT_TRUE(caller.HasFreeRunner());
    caller.SubmitChunk(chunks[0].get());
    caller.SubmitChunk(chunks[1].get());
    EXPECT_FALSE(caller.HasFreeRunner());
    EXPECT_EQ(ErrorOf([&] { caller.SubmitChunk(chunks[0].get()); }),
              "Tried to submit a chunk when no runners were available.");
    // The second chunk finishes while the first is held, and waits for it.
    ASSERT_TRUE(Eventually([&] { return caller.done == 1; }));
    for (int poll = 0; poll < 1000; ++poll) {
        ASSERT_EQ(caller.GetCompletedChunk(false), nullptr);
    }
    EXPECT_TRUE(caller.IsWorking());
    caller.Release();
    ChunkData* first = nullptr;
    ASSERT_TRUE(Eventually([&] { return (first = caller.GetCompletedChunk(false)) != nullptr; }));
    EXPECT_EQ(first, chunks[0].get());
    EXPECT_EQ(caller.GetCompletedChunk(false), chunks[1].get());
    EXPECT_EQ(chunks[1]->sequence, "chunk1");
    EXPECT_EQ(caller.GetCompletedChunk(false), nullptr);
    EXPECT_FALSE(caller.IsWorking());
}

TEST(ChunkCallerPool, SingleThreadingModeRunsOnTheSubmittingThread) {
    ScriptedCaller caller(0);
    EXPECT_EQ(caller.WorkerCount(), 1u);
    auto chunks = bareChunks(2);
    caller.SubmitChunk(chunks[0].get());
    EXPECT_FALSE(caller.IsWorking());
    EXPECT_EQ(chunks[0]->sequence, "chunk0");
    EXPECT_EQ(ErrorOf([&] { caller.SubmitChunk(chunks[1].get()); }),
              "Tried to submit a chunk in single threading mode before retrieving last chunk's results.");
    EXPECT_EQ(caller.GetCompletedChunk(false), chunks[0].get());
    caller.SubmitChunk(chunks[1].get());
    EXPECT_EQ(caller.GetCompletedChunk(false), chunks[1].get());
}

TEST(ChunkCallerPool, AWorkerFailureIsThrownByEveryLaterCall) {
    TestSupport::LogCapture log;
    const std::string text = "Exception thrown in ChunkCallerMDCpu worker thread: scripted failure";
    {
        ScriptedCaller caller(2, -1, /*failAt=*/0);
        auto chunks = bareChunks(1);
        caller.SubmitChunk(chunks[0].get());
        EXPECT_EQ(TestSupport::AwaitError([&] { caller.HasFreeRunner(); }), text);
        EXPECT_EQ(ErrorOf([&] { caller.IsWorking(); }), text);
        EXPECT_EQ(ErrorOf([&] { caller.GetCompletedChunk(false); }), text);
    }
    // The destructor reports instead of throwing.
    EXPECT_EQ(log.Count("ChunkCallerMDCpu destructor detected an error: " + text), 1u);
}

namespace {

// The bases of a k-mer state, first base in the highest bits, and back.
std::string kmerOf(std::uint64_t state, std::uint64_t k) {
    std::string kmer(k, 'A');
    for (std::uint64_t i = k; i-- > 0; state >>= 2) {
        kmer[i] = "ACGT"[state & 3];
    }
    return kmer;
}
std::uint64_t stateOf(const std::string& kmer) {
    std::uint64_t state = 0;
    for (const char base : kmer) {
        state = state * 4 + std::string("ACGT").find(base);
    }
    return state;
}

}  // namespace

TEST(ChunkCallerMDCpu, Strand2PosteriorsAreReadBackwardAndComplemented) {
    // Row i of the turned matrix is row rows-1-i of the runner's, and its state of k-mer K holds the
    // runner's value for the reverse complement of K. All values differ, so a wrong order of rows,
    // of bases or a wrong complement shows.
    std::mt19937 random(17);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    for (std::uint64_t k = 1; k <= 4; ++k) {
        SCOPED_TRACE(k);
        const std::uint64_t states = 1ull << (2 * k);
        const std::uint64_t rows = 7;
        const std::uint64_t rowStride = states + 1;  // the runner's rows end in the stay column
        std::vector<float> from(rows * rowStride);
        for (float& x : from) {
            x = value(random);
        }
        std::vector<float> out(rows * states);
        AsyncCaller::ReverseComplementRows(Common::MatView<const float>(from.data(), rows, states, rowStride, 1),
                                           AsyncCaller::ReverseComplementStates(k), out.data());
        for (std::uint64_t i = 0; i < rows; ++i) {
            for (std::uint64_t s = 0; s < states; ++s) {
                const std::uint64_t rc = stateOf(TestSupport::reverseComplement(kmerOf(s, k)));
                ASSERT_EQ(out[i * states + s], from[(rows - 1 - i) * rowStride + rc]) << i << " " << kmerOf(s, k);
            }
        }
    }
}

namespace {

std::shared_ptr<const BasecallNN::NNCaller> loadModel(int k, bool transducer) {
    BasecallNN::NNLoader loader(TestSupport::tinyModelFile(k, transducer));
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    loader.LoadInto(*network);
    return network;
}

// A pair chunk over the holder's whole signal with the holder's map.
std::unique_ptr<ChunkDataMD> wholeChunk(const AsyncCaller::ReadHolderMD& holder, std::uint64_t stride) {
    auto chunk = std::make_unique<ChunkDataMD>();
    chunk->raw1 = holder.raw1;
    chunk->raw2 = holder.raw2;
    chunk->events1 = holder.raw1.size / stride;
    chunk->events2 = holder.raw2.size / stride;
    chunk->priorSamples = holder.priorSamples;
    chunk->priorStep = holder.priorStep;
    chunk->chunk_count = 1;
    return chunk;
}

ChunkDataMD* callOne(ChunkCallerMDCpu& caller, ChunkDataMD& chunk) {
    caller.SubmitChunk(&chunk);
    ChunkData* done = nullptr;
    EXPECT_TRUE(Eventually([&] { return (done = caller.GetCompletedChunk(false)) != nullptr; }));
    return static_cast<ChunkDataMD*>(done);
}

}  // namespace

TEST(ChunkCallerMDCpu, CallsAPairChunkTheSameWhateverTheThreads) {
    for (const bool transducer : {true, false}) {
        SCOPED_TRACE(transducer);
        auto network = loadModel(4, transducer);
        ChunkCallerMDCpu threaded(2, 100, 4, network);
        ChunkCallerMDCpu inline_(0, 100, 4, network);
        EXPECT_EQ(threaded.stride, 5u);
        EXPECT_EQ(threaded.kmerLength, 4u);
        EXPECT_EQ(threaded.maxEvents, 100u);
        EXPECT_EQ(threaded.isTransducer, transducer);

        auto holder = TestSupport::makePair(400, 5, 3);
        auto a = wholeChunk(*holder, 5);
        auto b = wholeChunk(*holder, 5);
        ASSERT_EQ(callOne(threaded, *a), a.get());
        ASSERT_EQ(callOne(inline_, *b), b.get());
        EXPECT_FALSE(a->sequence.empty());
        EXPECT_EQ(a->sequence.find_first_not_of("ACGT"), std::string::npos);
        EXPECT_EQ(a->qualities.size(), a->sequence.size());
        EXPECT_TRUE(std::isfinite(a->score));
        EXPECT_EQ(a->kmerLength, 4u);
        EXPECT_EQ(a->sequence, b->sequence);
        EXPECT_EQ(a->qualities, b->qualities);
        EXPECT_EQ(a->score, b->score);
    }
}

TEST(ChunkCallerMDCpu, TooShortChunksComeBackEmpty) {
    ChunkCallerMDCpu caller(0, 100, 4, loadModel(4, true));
    auto holder = TestSupport::makePair(400, 5, 3);
    struct Case {
        std::uint64_t samples1, samples2;
        bool called;
    };
    // Fewer samples than one stride, or one event on either strand: empty. Two events each: decoded.
    for (const Case& c : {Case{4, 400, false}, Case{400, 4, false}, Case{5, 400, false}, Case{400, 9, false},
                          Case{10, 10, true}}) {
        auto chunk = wholeChunk(*holder, 5);
        chunk->raw1 = holder->raw1.slice(0, c.samples1, 1);
        chunk->raw2 = holder->raw2.slice(0, c.samples2, 1);
        chunk->priorSamples = {0};
        chunk->sequence = "stale";
        callOne(caller, *chunk);
        EXPECT_EQ(!chunk->sequence.empty(), c.called) << c.samples1 << " " << c.samples2;
        EXPECT_EQ(chunk->qualities.size(), chunk->sequence.size());
        if (!c.called) {
            EXPECT_EQ(chunk->score, 0.0f);
        }
    }
}

TEST(ChunkCallerMDCpu, EventModelsCallTheDetectedEvents) {
    // A studentised-event model: one feed-forward layer over (level, spread, dwell) and a softmax over
    // 256 states plus the stay column.
    std::mt19937 random(9);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> w1(3 * 8), b1(8), w2(8 * 257), b2(257);
    for (auto* v : {&w1, &b1, &w2, &b2}) {
        for (float& x : *v) {
            x = normal(random);
        }
    }
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    network->AddFeedforward(BasecallNN::v_tanh, 3, 8, Common::MatView<const float>(w1.data(), 3, 8, 8, 1),
                            Common::VecView<const float>(b1.data(), 8, 1));
    network->AddSoftmax(8, 257, Common::MatView<const float>(w2.data(), 8, 257, 257, 1),
                        Common::VecView<const float>(b2.data(), 257, 1));
    network->num_states = 257;
    network->label_state = 256;
    network->feature_kind = BasecallNN::kFeaturesStudentise;
    network->decode_type = BasecallNN::kTransducer;
    network->window = {0};

    // Levels of 20 samples on both strands, strand 2 the same levels in the other order.
    std::vector<float> s1, s2;
    std::normal_distribution<float> noise(0.0f, 0.1f);
    for (int level = 0; level < 40; ++level) {
        const float value = static_cast<float>((level * 7) % 5) - 2.0f;
        for (int i = 0; i < 20; ++i) {
            s1.push_back(value + noise(random));
        }
    }
    s2.assign(s1.rbegin(), s1.rend());
    ChunkDataMD chunk;
    chunk.raw1 = Common::VecView<float>(s1);
    chunk.raw2 = Common::VecView<float>(s2);
    chunk.priorStep = 10;
    for (std::uint64_t p = 0; p < s1.size(); p += 10) {
        chunk.priorSamples.push_back(p);
    }

    {
        // Without detection settings the worker fails, and says so on the next call.
        ChunkCallerMDCpu caller(1, 100, 4, network);
        EXPECT_FALSE(caller.isRaw);
        EXPECT_EQ(caller.maxEvents, 200u);
        caller.SubmitChunk(&chunk);
        EXPECT_EQ(TestSupport::AwaitError([&] { caller.GetCompletedChunk(false); }),
                  "Exception thrown in ChunkCallerMDCpu worker thread: Event detection settings are not valid.");
    }
    ChunkCallerMDCpu caller(0, 100, 4, network);
    caller.SetEventDetection(6, 12, 5.0f, 8.0f, 0.5f);
    ASSERT_EQ(callOne(caller, chunk), &chunk);
    EXPECT_FALSE(chunk.sequence.empty());
    EXPECT_EQ(chunk.qualities.size(), chunk.sequence.size());
    // The 40 levels of each strand, give or take a stray cut in the noise.
    EXPECT_GE(caller.Timings().events, 80u);
    EXPECT_LE(caller.Timings().events, 88u);
}

TEST(ChunkCallerMDCpu, RefusesFlipflopModels) {
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    network->decode_type = BasecallNN::kFlipflop;
    network->label_state = 4;
    network->feature_kind = BasecallNN::kFeaturesRaw;
    EXPECT_EQ(ErrorOf([&] { ChunkCallerMDCpu caller(1, 100, 4, network); }),
              "Cannot use Flipflop model for Md basecall.");
}

TEST(BufferedCaller, MadeFromTheRunConfiguration) {
    BasecallNN::BasecallSettings settings;
    settings.model_file = TestSupport::tinyModelFile(4, true);
    settings.qscore_offset = 1.5f;
    auto config = std::make_shared<BasecallNN::BasecallConfig>("", settings);

    // A pair caller: the read comes back called chunk by chunk and aggregated.
    {
        AsyncCaller::BufferedCaller caller(2, 60, config, 6, 10, 4);
        EXPECT_EQ(caller.dimension, 1);
        EXPECT_EQ(caller.stride, 5u);
        caller.SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f);
        auto read = TestSupport::makePair(600, 5, 1);
        ASSERT_TRUE(caller.PassRead(*read));
        caller.Finish();
        AsyncCaller::ReadList out;
        caller.GetCompletedReads(out, 0);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out.front()->kmerLength, 4u);
        EXPECT_EQ(out.front()->qscore_offset, 1.5f);
    }
    // A single-read caller.
    {
        AsyncCaller::BufferedCaller caller(1, 60, config, 6, 10, 0);
        EXPECT_EQ(caller.dimension, 0);
        AsyncCaller::ReadHolder1D read;
        float* samples = new float[1000];
        for (int i = 0; i < 1000; ++i) {
            samples[i] = std::sin(static_cast<float>(i) * 0.37f) * 1.5f;
        }
        read.SetRawData(samples, 1000, true);
        read.read.trimmed_duration = 1000;
        read.stride = 5;
        ASSERT_TRUE(caller.PassRead(read));
        caller.Finish();
        AsyncCaller::ReadList out;
        caller.GetCompletedReads(out, 0);
        ASSERT_EQ(out.size(), 1u);
        const AsyncCaller::ReadHolder& called = *out.front();
        EXPECT_FALSE(called.sequence.empty());
        EXPECT_EQ(called.qualities.size(), called.sequence.size());
        EXPECT_EQ(called.kmerLength, 4u);
    }
}
