#include "async_caller/chunk_caller_md_cpu.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "fake_engines.h"
#include "log_capture.h"
#include "read_files.h"
#include "test_util.h"

using namespace AsyncCaller;
using namespace BasecallNN;
using namespace TestSupport;

namespace {

ChunkData* call(ChunkCallerMD& caller, ChunkDataMD& chunk) {
    caller.SubmitChunk(&chunk);
    ChunkData* done = nullptr;
    EXPECT_TRUE(Eventually([&] { return (done = caller.GetCompletedChunk(false)) != nullptr; }));
    return done;
}

}  // namespace

TEST(ChunkCallerPool, ChunksComeBackInSubmissionOrder) {
    ThreadedFakeCaller caller(2);
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

}

TEST(ChunkCallerPool, AWorkerFailureIsThrownByEveryLaterCall) {
    LogCapture log;
    const std::string text = "Exception thrown in ChunkCallerMDCpu worker thread: injected chunk failure";
    {
        ThreadedFakeCaller caller(2, /*failAt=*/0);
        ChunkDataMD chunk;
        caller.SubmitChunk(&chunk);
        EXPECT_EQ(AwaitError([&] { caller.HasFreeRunner(); }), text);
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
        ReverseComplementRows(Common::MatView<const float>(from.data(), rows, states, rowStride, 1),
                                           ReverseComplementStates(k), out.data());
        for (std::uint64_t s = 0; s < states; ++s) {
            std::string kmer(k, 'A');  // first base in the highest bits
            for (std::uint64_t i = k, rest = s; i-- > 0; rest >>= 2) kmer[i] = "ACGT"[rest & 3];
            const std::uint64_t rc = stateOf(reverseComplement(kmer));
            for (std::uint64_t i = 0; i < rows; ++i) {
                ASSERT_EQ(out[i * states + s], from[(rows - 1 - i) * rowStride + rc]) << i << " " << kmer;
            }
        }
    }
}

namespace {

// A tiny network of random weights: the calls mean nothing, but they run the whole way. A raw model
// is a convolution of stride 5 to 8 features, an event model a feed-forward layer over (level,
// spread, dwell); both end in a softmax over 4^k k-mer states plus the stay column.
std::shared_ptr<NNCallerCblas> tinyNetwork(int k, bool raw, int decodeType) {
    const int in = raw ? 5 : 3, states = (1 << (2 * k)) + 1;
    std::mt19937 random(7);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> w1(in * 8), b1(8), w2(8 * states), b2(states);
    for (auto* v : {&w1, &b1, &w2, &b2}) {
        for (float& x : *v) x = normal(random) * (v == &w2 ? 2.0f : 1.0f);  // softmax: sharper posteriors
    }
    auto network = std::make_shared<NNCallerCblas>();
    const Common::MatView<const float> W1(w1.data(), in, 8, 8, 1);
    const Common::VecView<const float> B1(b1.data(), 8, 1);
    if (raw) network->AddConvolution(v_tanh, 1, 5, 8, 5, 2, 2, W1, B1);
    else network->AddFeedforward(v_tanh, 3, 8, W1, B1);
    network->AddSoftmax(8, states, Common::MatView<const float>(w2.data(), 8, states, states, 1),
                        Common::VecView<const float>(b2.data(), states, 1));
    network->num_states = states;
    network->label_state = states - 1;
    network->feature_kind = raw ? kFeaturesRaw : kFeaturesStudentise;
    network->decode_type = decodeType;
    network->window = {0};
    return network;
}

// A pair chunk over the first samples of each strand of the holder, with the holder's map.
std::unique_ptr<ChunkDataMD> chunkOf(const ReadHolderMD& holder, std::uint64_t samples1,
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
    const auto holder = makePair(400, 5, 3);
    for (const bool transducer : {true, false}) {
        SCOPED_TRACE(transducer);
        auto network = tinyNetwork(4, true, transducer ? kTransducer : kNontransducer);
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
    ChunkCallerMDCpu caller(0, 100, 4, tinyNetwork(4, true, kTransducer));
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
    const auto network = tinyNetwork(4, false, kTransducer);
    std::mt19937 random(9);
    std::normal_distribution<float> noise(0.0f, 0.1f);
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
        EXPECT_EQ(AwaitError([&] { caller.GetCompletedChunk(false); }),
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

    // k = 1 and the flip-flop decode: 5 states, like a flip-flop model's.
    EXPECT_EQ(ErrorOf([&] { ChunkCallerMDCpu(1, 100, 4, tinyNetwork(1, true, kFlipflop)); }),
              "Cannot use Flipflop model for Md basecall.");
}
