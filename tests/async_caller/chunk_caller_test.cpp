#include "async_caller/buffered_caller.h"
#include "async_caller/chunk_caller_md_cpu.h"
#include "basecall_nn/basecall_config.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "fake_engines.h"
#include "log_capture.h"
#include "read_files.h"
#include "test_util.h"

using AsyncCaller::ChunkCallerMDCpu;
using AsyncCaller::ChunkData;
using AsyncCaller::ChunkDataMD;
using TestSupport::ErrorOf;
using TestSupport::Eventually;
using TestSupport::Fields;

namespace {

// Submits the chunk and waits for the caller to hand a chunk back.
ChunkData* call(AsyncCaller::ChunkCallerMD& caller, ChunkDataMD& chunk) {
    caller.SubmitChunk(&chunk);
    ChunkData* done = nullptr;
    EXPECT_TRUE(Eventually([&] { return (done = caller.GetCompletedChunk(false)) != nullptr; }));
    return done;
}

}  // namespace

TEST(ChunkCallerPool, ChunksComeBackInSubmissionOrder) {
    TestSupport::ThreadedFakeCaller caller(2);
    caller.hold = true;
    ChunkDataMD chunks[2];
    chunks[1].chunk_index = 1;
    ASSERT_TRUE(caller.HasFreeRunner());
    caller.SubmitChunk(&chunks[0]);
    caller.SubmitChunk(&chunks[1]);
    EXPECT_FALSE(caller.HasFreeRunner());
    // The second chunk finishes while the first is held, and waits for it.
    ASSERT_TRUE(Eventually([&] { return caller.done == 1; }));
    EXPECT_EQ(caller.GetCompletedChunk(false), nullptr);
    EXPECT_TRUE(caller.IsWorking());
    caller.hold = false;
    ChunkData* first = nullptr;
    ASSERT_TRUE(Eventually([&] { return (first = caller.GetCompletedChunk(false)) != nullptr; }));
    EXPECT_EQ(first, &chunks[0]);
    EXPECT_EQ(caller.GetCompletedChunk(false), &chunks[1]);
    EXPECT_EQ(chunks[1].kmerLength, 5u);
    EXPECT_EQ(caller.GetCompletedChunk(false), nullptr);
    EXPECT_FALSE(caller.IsWorking());

    // With no threads the chunk is called on the submitting thread, one at a time.
    TestSupport::ThreadedFakeCaller inline_(0);
    EXPECT_EQ(inline_.WorkerCount(), 1u);
    inline_.SubmitChunk(&chunks[0]);
    EXPECT_FALSE(inline_.IsWorking());
    EXPECT_EQ(inline_.done, 1);
    EXPECT_FALSE(inline_.HasFreeRunner());  // until its chunk is taken
    EXPECT_EQ(inline_.GetCompletedChunk(false), &chunks[0]);
}

TEST(ChunkCallerPool, AWorkerFailureIsThrownByEveryLaterCall) {
    TestSupport::LogCapture log;
    const std::string text = "Exception thrown in ChunkCallerMDCpu worker thread: injected chunk failure";
    {
        TestSupport::ThreadedFakeCaller caller(2, /*failAt=*/0);
        ChunkDataMD chunk;
        caller.SubmitChunk(&chunk);
        EXPECT_EQ(TestSupport::AwaitError([&] { caller.HasFreeRunner(); }), text);
        EXPECT_EQ(ErrorOf([&] { caller.IsWorking(); }), text);
        EXPECT_EQ(ErrorOf([&] { caller.GetCompletedChunk(false); }), text);
    }
    // The destructor reports instead of throwing.
    EXPECT_EQ(log.Count("ChunkCallerMDCpu destructor detected an error: " + text), 1u);
}

TEST(ChunkCallerMDCpu, Strand2PosteriorsAreReadBackwardAndComplemented) {
    // Row i of the turned matrix is row rows-1-i of the runner's, and its state of k-mer K holds the
    // runner's value for the reverse complement of K. All values differ, so a wrong order of rows,
    // of bases or a wrong complement shows.
    const auto stateOf = [](const std::string& kmer) {
        std::uint64_t state = 0;
        for (const char base : kmer) state = state * 4 + std::string("ACGT").find(base);
        return state;
    };
    std::mt19937 random(17);
    std::uniform_real_distribution<float> value(0.0f, 1.0f);
    for (std::uint64_t k = 1; k <= 4; ++k) {
        const std::uint64_t states = 1ull << (2 * k), rows = 7;
        const std::uint64_t rowStride = states + 1;  // the runner's rows end in the stay column
        std::vector<float> from(rows * rowStride), out(rows * states);
        for (float& x : from) x = value(random);
        AsyncCaller::ReverseComplementRows(Common::MatView<const float>(from.data(), rows, states, rowStride, 1),
                                           AsyncCaller::ReverseComplementStates(k), out.data());
        for (std::uint64_t s = 0; s < states; ++s) {
            std::string kmer(k, 'A');  // first base in the highest bits
            for (std::uint64_t i = k, rest = s; i-- > 0; rest >>= 2) kmer[i] = "ACGT"[rest & 3];
            const std::uint64_t rc = stateOf(TestSupport::reverseComplement(kmer));
            for (std::uint64_t i = 0; i < rows; ++i) {
                ASSERT_EQ(out[i * states + s], from[(rows - 1 - i) * rowStride + rc]) << i << " " << kmer;
            }
        }
    }
}

namespace {

// A tiny raw-signal model written as a model file: a strided convolution to a few features and a
// softmax over 4^k k-mer states plus the stay column. Random weights: the calls mean nothing, but
// they run the whole way.
std::string tinyModelFile(int k, bool transducer, int stride = 5, unsigned seed = 7) {
    const int states = 1 << (2 * k);
    const int features = 8;
    std::mt19937 random(seed);
    std::normal_distribution<float> weight(0.0f, 1.0f);
    const auto numbers = [&](int count, float scale) {
        std::ostringstream os;
        os << "[";
        for (int i = 0; i < count; ++i) os << (i ? "," : "") << weight(random) * scale;
        os << "]";
        return os.str();
    };
    std::ostringstream json;
    json << "{\"meta\":{\"feature_function\":\"raw\",\"window\":[0],\"transducer\":" << (transducer ? "true" : "false")
         << "},\"layers\":[{\"type\":\"input\",\"name\":\"in\",\"size\":1},"
         << "{\"type\":\"convolution\",\"name\":\"conv\",\"size\":" << features << ",\"insize\":1,\"winlen\":" << stride
         << ",\"stride\":" << stride << ",\"padding\":[" << stride / 2 << "," << stride - 1 - stride / 2
         << "],\"activation\":\"tanh\"},"
         << "{\"type\":\"softmax\",\"name\":\"out\",\"size\":" << states + 1 << "}],"
         << "\"weights\":{\"conv\":{\"input\":" << numbers(stride * features, 1.0f)
         << ",\"bias\":" << numbers(features, 0.1f) << "},"
         << "\"out\":{\"input\":" << numbers(features * (states + 1), 2.0f)
         << ",\"bias\":" << numbers(states + 1, 0.5f) << "}}}";
    const std::string path =
        TestSupport::Scratch().File("model_k" + std::to_string(k) + (transducer ? "_t" : "_n") + std::to_string(seed) + ".json");
    std::ofstream(path) << json.str();
    return path;
}

std::shared_ptr<const BasecallNN::NNCaller> loadModel(int k, bool transducer) {
    BasecallNN::NNLoader loader(tinyModelFile(k, transducer));
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    loader.LoadInto(*network);
    return network;
}

// A pair chunk over the first samples of each strand of the holder, with the holder's map.
std::unique_ptr<ChunkDataMD> chunkOf(const AsyncCaller::ReadHolderMD& holder, std::uint64_t samples1,
                                     std::uint64_t samples2) {
    auto chunk = std::make_unique<ChunkDataMD>();
    chunk->raw1 = holder.raw1.slice(0, samples1, 1);
    chunk->raw2 = holder.raw2.slice(0, samples2, 1);
    chunk->events1 = samples1 / 5;
    chunk->events2 = samples2 / 5;
    chunk->priorSamples = holder.priorSamples;
    chunk->priorStep = holder.priorStep;
    chunk->chunk_count = 1;
    return chunk;
}

}  // namespace

TEST(ChunkCallerMDCpu, CallsAPairChunkTheSameWhateverTheThreads) {
    const auto holder = TestSupport::makePair(400, 5, 3);
    for (const bool transducer : {true, false}) {
        SCOPED_TRACE(transducer);
        auto network = loadModel(4, transducer);
        ChunkCallerMDCpu threaded(2, 100, 4, network), inline_(0, 100, 4, network);
        EXPECT_EQ(threaded.stride, 5u);
        auto a = chunkOf(*holder, 400, 400), b = chunkOf(*holder, 400, 400);
        ASSERT_EQ(call(threaded, *a), a.get());
        ASSERT_EQ(call(inline_, *b), b.get());
        EXPECT_EQ(a->sequence.find_first_not_of("ACGT"), std::string::npos);
        EXPECT_TRUE(!a->sequence.empty() && std::isfinite(a->score) && a->kmerLength == 4u);
        EXPECT_EQ(a->qualities.size(), a->sequence.size());
        EXPECT_EQ(Fields(a->sequence, a->qualities, a->score), Fields(b->sequence, b->qualities, b->score));
    }
    // Fewer samples than one stride, or one event on either strand: empty. Two events each: decoded.
    ChunkCallerMDCpu caller(0, 100, 4, loadModel(4, true));
    for (const auto& c : std::vector<std::vector<std::uint64_t>>{{4, 400, 0}, {400, 4, 0}, {5, 400, 0},
                                                                 {400, 9, 0}, {10, 10, 1}}) {
        auto chunk = chunkOf(*holder, c[0], c[1]);
        chunk->priorSamples = {0};
        chunk->sequence = "stale";
        chunk->score = 7.0f;
        call(caller, *chunk);
        EXPECT_EQ(chunk->sequence.empty(), c[2] == 0) << c[0] << " " << c[1];
        EXPECT_EQ(chunk->qualities.size(), chunk->sequence.size());
        EXPECT_NE(chunk->score == 0.0f, c[2] == 1);
    }
}

TEST(ChunkCallerMDCpu, EventModelsCallTheDetectedEvents) {
    // A studentised-event model: one feed-forward layer over (level, spread, dwell) and a softmax over
    // 256 states plus the stay column.
    std::mt19937 random(9);
    std::normal_distribution<float> normal(0.0f, 1.0f), noise(0.0f, 0.1f);
    std::vector<float> w1(3 * 8), b1(8), w2(8 * 257), b2(257);
    for (auto* v : {&w1, &b1, &w2, &b2}) {
        for (float& x : *v) x = normal(random);
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

    // 40 levels of 20 samples on both strands, strand 2 the same levels in the other order.
    std::vector<float> s1;
    for (int i = 0; i < 800; ++i) s1.push_back(static_cast<float>((i / 20 * 7) % 5) - 2.0f + noise(random));
    std::vector<float> s2(s1.rbegin(), s1.rend());
    ChunkDataMD chunk;
    chunk.raw1 = Common::VecView<float>(s1);
    chunk.raw2 = Common::VecView<float>(s2);
    chunk.priorStep = 10;
    for (std::uint64_t p = 0; p < s1.size(); p += 10) chunk.priorSamples.push_back(p);
    {
        // Without detection settings the worker fails, and says so on the next call.
        ChunkCallerMDCpu caller(1, 100, 4, network);
        EXPECT_EQ(caller.maxEvents, 200u);
        caller.SubmitChunk(&chunk);
        EXPECT_EQ(TestSupport::AwaitError([&] { caller.GetCompletedChunk(false); }),
                  "Exception thrown in ChunkCallerMDCpu worker thread: Event detection settings are not valid.");
    }
    ChunkCallerMDCpu caller(0, 100, 4, network);
    caller.SetEventDetection(6, 12, 5.0f, 8.0f, 0.5f);
    ASSERT_EQ(call(caller, chunk), &chunk);
    EXPECT_FALSE(chunk.sequence.empty());
    EXPECT_EQ(chunk.qualities.size(), chunk.sequence.size());
    // The 40 levels of each strand, give or take a stray cut in the noise.
    EXPECT_GE(caller.Timings().events, 80u);
    EXPECT_LE(caller.Timings().events, 88u);

    auto flipflop = std::make_shared<BasecallNN::NNCallerCblas>();
    flipflop->decode_type = BasecallNN::kFlipflop;
    flipflop->label_state = 4;
    flipflop->feature_kind = BasecallNN::kFeaturesRaw;
    EXPECT_EQ(ErrorOf([&] { ChunkCallerMDCpu refused(1, 100, 4, flipflop); }),
              "Cannot use Flipflop model for Md basecall.");
}

TEST(BufferedCaller, MadeFromTheRunConfiguration) {
    BasecallNN::BasecallSettings settings;
    settings.model_file = tinyModelFile(4, true);
    settings.qscore_offset = 1.5f;
    // A band makes a pair caller: the read comes back called chunk by chunk and joined.
    AsyncCaller::BufferedCaller caller(2, 60, std::make_shared<BasecallNN::BasecallConfig>("", settings), 6, 10, 4);
    EXPECT_EQ(caller.dimension, 1);
    EXPECT_EQ(caller.stride, 5u);
    caller.SetEventDetection(3, 6, 1.4f, 9.0f, 0.2f);
    ASSERT_TRUE(caller.PassRead(*TestSupport::makePair(600, 5, 1)));
    caller.Finish();
    AsyncCaller::ReadList out;
    caller.GetCompletedReads(out, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front()->kmerLength, 4u);
    EXPECT_EQ(out.front()->qscore_offset, 1.5f);
    EXPECT_EQ(out.front()->qualities.size(), out.front()->sequence.size());
}
