// The processor runner against the network's own layers and the decoders it hands their output to.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_kernels.h"
#include "basecall_nn/nn_runner_cblas.h"
#include "decoders/hmm_caller.h"
#include "decoders/state_moves.h"
#include "decoders/transducer_decoder.h"
#include "allocation_counter.h"
#include "nn_test_util.h"

namespace {

using namespace BasecallNN;
using Common::Deep;
using Common::EventData;
using nn_test::ErrorOf;

// Random parameters that stay alive while a model is built; the layers copy them.
struct Params {
    std::mt19937 rng{42};
    std::vector<std::vector<float>> arrays;
    Common::MatView<const float> matrix(int rows, int cols, float scale) {
        std::normal_distribution<float> normal(0.0f, scale);
        arrays.emplace_back(static_cast<std::size_t>(rows * cols));
        for (auto& x : arrays.back()) x = normal(rng);
        return Common::MatView<const float>(arrays.back().data(), rows, cols, cols, 1);
    }
    Common::VecView<const float> vector(int n, float scale) { return matrix(1, n, scale).row(0); }
    GateParams gate(int in, int size) {
        return {matrix(in, size, 0.5f), matrix(size, size, 0.5f), vector(size, 0.1f)};
    }
    GruParams gru(int in, int size) { return {gate(in, size), gate(in, size), gate(in, size)}; }
};

// A model whose layers `add` appends to, with its output settings.
std::shared_ptr<NNCallerCblas> model(int decodeType, int numStates, int labelState,
                                     const std::function<void(NNCallerCblas&, Params&)>& add) {
    Params p;
    auto m = std::make_shared<NNCallerCblas>();
    add(*m, p);
    std::tie(m->num_states, m->label_state, m->feature_kind, m->decode_type) =
        std::make_tuple(numStates, labelState, int(kFeaturesRaw), decodeType);
    m->window = {0};
    return m;
}
// Convolution (window 5, stride 2) to 8 features, a GRU of 8, a softmax over `states` plus the stay.
std::shared_ptr<NNCallerCblas> rawModel(int decodeType, int states = 64) {
    return model(decodeType, states + 1, states, [states](NNCallerCblas& m, Params& p) {
        m.AddConvolution(v_tanh, 1, 5, 8, 2, 2, 2, p.matrix(5, 8, 1.0f), p.vector(8, 0.1f));
        m.AddGru(8, 8, p.gru(8, 8), false, false, false);
        m.AddSoftmax(8, states + 1, p.matrix(8, states + 1, 2.0f), p.vector(states + 1, 1.0f));
    });
}

std::vector<float> signal(std::size_t n, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::vector<float> s(n);
    for (auto& x : s) x = std::normal_distribution<float>(100.0f, 15.0f)(rng);
    return s;
}

std::shared_ptr<NNRunnerCblas> runnerFor(const std::shared_ptr<NNCallerCblas>& m, int rows) {
    return std::dynamic_pointer_cast<NNRunnerCblas>(m->CreateRunner(m, rows));
}

struct CallResult { EventData<Deep> events; TransProbs trans; };
CallResult call(NNRunnerCblas& runner, std::vector<float>& raw, std::size_t events, bool path = true,
                bool shrink = true) {
    CallResult r;
    r.events.resize(events);
    runner.Call(r.events, Common::VecView<float>(raw), 4000.0f, r.trans, 1e-5f, -1, -1, path, shrink, false);
    return r;
}

// The network's posteriors for the samples through its layers one by one, after median and MAD scaling.
nn_test::Matrix referencePosteriors(const NNCallerCblas& m, const std::vector<float>& samples) {
    std::vector<float> work(samples);
    const auto median = [&work] {
        std::nth_element(work.begin(), work.begin() + work.size() / 2, work.end());
        return work[work.size() / 2];
    };
    const float mid = median();
    for (auto& x : work) x = std::fabs(x - mid);
    const float mad = median() * 1.4826f;
    nn_test::Matrix in(samples.size(), 1);
    for (std::size_t i = 0; i < samples.size(); ++i) in(i, 0) = (samples[i] - mid) / mad;
    return nn_test::RunLayers(m.Layers(), in);
}

}  // namespace

TEST(NNRunnerCblas, EveryMessageOfACall) {
    auto runner = runnerFor(rawModel(kTransducer), 1000);
    std::vector<float> none, s400 = signal(400), s401 = signal(401);
    EXPECT_EQ(ErrorOf([&] { call(*runner, none, 10); }),
              "Trying to basecall with raw model, but no raw data provided.");
    EXPECT_EQ(ErrorOf([&] { call(*runner, s401, 200); }),
              "Mismatch between size of raw data and event data: rawSamples.size() = 401, events.size() = "
              "200, eventStride = 2");
    EXPECT_EQ(ErrorOf([&] { call(*runner, s401, 201); }), "(no exception)");
    EXPECT_EQ(ErrorOf([&] { call(*runner, s400, 200, true, false); }),
              "Can only extract path from NN posteriors after bucket state removal.");
    for (int bad : {1000, 1, 0}) {
        auto wrong = rawModel(kTransducer);
        wrong->label_state = bad;
        EXPECT_EQ(ErrorOf([&] { call(*runnerFor(wrong, 100), s400, 200); }),
                  "Unsupported number of states: " + std::to_string(bad) +
                      ". State count should be a positive power of 4.");
    }
    // Flip-flop output is 40 columns for four bases; 41 is refused.
    for (int columns : {40, 41}) {
        auto flipflop = runnerFor(model(kFlipflop, columns, 4, [columns](NNCallerCblas& m, Params& p) {
            m.AddConvolution(v_tanh, 1, 5, 8, 2, 2, 2, p.matrix(5, 8, 1.0f), p.vector(8, 0.1f));
            m.AddGlobalNormTwoState(8, columns, p.matrix(8, columns, 1.0f), p.vector(columns, 0.1f));
        }), 100);
        auto samples = signal(100);
        EXPECT_EQ(ErrorOf([&] { call(*flipflop, samples, 50, true, false); }),
                  columns == 40 ? "(no exception)" : "Unexpected size of posterior matrix.");
        EXPECT_EQ(flipflop->qualityData.size(), columns == 40 ? 50u * 4 : 0u);
    }
}

TEST(NNRunnerCblas, TransducerCallGivesPathStaysAndQuality) {
    auto m = rawModel(kTransducer);
    auto runner = runnerFor(m, 400);
    auto samples = signal(400, 7);
    const auto net = referencePosteriors(*m, samples);
    CallResult r = call(*runner, samples, 200);
    const std::size_t n = 200;
    ASSERT_EQ(r.events.size(), n);
    // The path is TransducerDecode's on the network output.
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    nn_test::Matrix copy = net;
    ASSERT_TRUE(BasecallHMM::TransducerDecode(copy.view(), states, moves, score, 1.0f, false));
    EXPECT_EQ(std::tie(runner->states, runner->moves, runner->score), std::tie(states, moves, score));
    // Weights and the stay estimate come from the stay column; stays carried forward, then the
    // bucket column dropped and each row renormalised with the 1e-5 floor.
    ASSERT_EQ(runner->weights.size(), n);
    double staySum = 0;
    std::vector<double> carried(64), prev(64);
    for (std::size_t i = 0; i < n; ++i) {
        const double b = net(i, 64);
        EXPECT_FLOAT_EQ(runner->weights[i], static_cast<float>(1.0 - b));
        if (i > 0) staySum += b;
        double sum = 0;
        for (int s = 0; s < 64; ++s) sum += (carried[s] = net(i, s) + (i > 0 ? prev[s] * b : 0.0));
        for (int s = 0; s < 64; ++s)
            EXPECT_NEAR(runner->posteriors(i, s), (carried[s] + 1e-5) / (sum + 64 * 1e-5), 1e-5);
        prev = carried;
    }
    EXPECT_NEAR(r.trans.stay, staySum / n, 1e-6);
    const double zeros = std::count(moves.begin(), moves.end(), 0);
    const double twos = std::count(moves.begin(), moves.end(), 2);
    // With no stay on the path the ratio stay / (stays / n) is taken as 1.
    EXPECT_NEAR(r.trans.skip, (twos / n) * (zeros > 0 ? r.trans.stay / (zeros / n) : 1.0), 1e-6);
    EXPECT_NEAR(r.trans.stay + r.trans.step + r.trans.skip, 1.0, 1e-6);
    ASSERT_EQ(runner->posteriors.cols, 64u);
    ASSERT_EQ(runner->qualityData.size(), n * 12);
    ASSERT_EQ(runner->statePosteriors.size(), n);
    for (std::size_t i = 0; i < n; ++i) {
        EXPECT_EQ(runner->statePosteriors[i], runner->posteriors(i, states[i]));
        // Each position's four base probabilities add up to the row's mass, 1.
        for (const float* p = &runner->qualityData[i * 12]; p < &runner->qualityData[i * 12 + 12]; p += 4)
            EXPECT_NEAR(std::accumulate(p, p + 4, 0.0f), 1.0f, 1e-5f);
    }
    EXPECT_EQ(runner->pathStates, runner->states);
    EXPECT_EQ(runner->pathViews.size(), n);
}

TEST(NNRunnerCblas, NontransducerCallDecodesWithEstimatedTransitions) {
    auto m = rawModel(kNontransducer);
    auto runner = runnerFor(m, 400);
    auto samples = signal(400, 5);
    const auto net = referencePosteriors(*m, samples);
    CallResult r = call(*runner, samples, 200);
    ASSERT_EQ(r.events.size(), 200u);  // firstEvent -1: no row is dropped
    EXPECT_NEAR(r.trans.stay + r.trans.step + r.trans.skip, 1.0, 1e-5);
    EXPECT_GT(r.trans.stay, 0.0f);
    // Weights are the mass of the first 64 columns; the path is the decoder's on the shrunk rows.
    for (std::size_t i = 0; i < 200; ++i) {
        const float* row = &net.data[i * net.stride];
        EXPECT_NEAR(runner->weights[i], std::accumulate(row, row + 64, 0.0), 1e-5);
    }
    BasecallHMM::Caller<64> hmm;
    hmm.SetTrans(r.trans.stay, r.trans.step, r.trans.skip, 0.0f);
    std::vector<int> path;
    ASSERT_TRUE(hmm.Decode(Common::EmissionBase<float>(runner->posteriors), path));
    EXPECT_EQ(runner->states, path);
    std::vector<signed char> moves;
    BasecallHMM::MovesFromStates(path, 3, moves);
    EXPECT_EQ(runner->moves, moves);
    EXPECT_EQ(runner->qualityData.size(), 200u * 12);
}

TEST(NNRunnerCblas, ShrinkPosteriorsRules) {
    auto runner = runnerFor(rawModel(kNontransducer, 4), 10);  // 4 states + bucket
    std::vector<float> m;
    const auto shrink = [&](auto& ev, int first, int last, bool renormalise) {
        // Rows: bucket largest; tie between column 0 and bucket; all zero; plain.
        m = {0.1f, 0.1f, 0.1f, 0.1f, 0.6f, 0.3f, 0.1f, 0, 0, 0.3f, 0, 0, 0, 0, 0, 0.4f, 0.3f, 0.2f, 0.1f, 0};
        runner->posteriors = Common::MatView<float>(m.data(), 4, 5, 5);
        runner->states.clear();
        return runner->ShrinkPosteriors(ev, first, last, renormalise, 1e-5f);
    };
    EventData<Deep> ev(4), ev2(4), wrong(3), owner(4);
    for (int i = 0; i < 4; ++i) ev.mean[i] = owner.mean[i] = static_cast<float>(i);

    // firstEvent -1 keeps every row, even one whose largest entry is the bucket; a zero row becomes 1/n.
    EXPECT_EQ(shrink(ev, -1, 4, true), 4u);
    EXPECT_EQ(runner->posteriors.rowStride, 4);
    for (int c = 0; c < 4; ++c) EXPECT_FLOAT_EQ(runner->posteriors(2, c), 0.25f);
    EXPECT_NEAR(runner->posteriors(0, 0), (0.1 + 1e-5) / (0.4 + 4e-5), 1e-6);
    EXPECT_FLOAT_EQ(runner->weights[3], 1.0f);
    // In range, the bucket row goes; the tie keeps its row.
    EXPECT_EQ(shrink(ev, 0, 4, true), 3u);
    EXPECT_EQ(ev.mean, (std::vector<float>{1, 2, 3}));
    EXPECT_EQ(runner->weights.size(), 3u);
    EXPECT_NEAR(runner->posteriors(0, 0), (0.3 + 1e-5) / (0.4 + 4e-5), 1e-6);
    // Without renormalising all columns move up as they were.
    EXPECT_EQ(shrink(ev2, 0, 1, false), 3u);
    EXPECT_EQ(runner->posteriors.cols, 5u);
    EXPECT_EQ(std::make_pair(runner->posteriors(0, 4), runner->posteriors(2, 0)),
              std::make_pair(0.3f, 0.4f));
    EXPECT_EQ(ErrorOf([&] { shrink(wrong, -1, -1, true); }), "Weight vector corrupted.");
    // The viewing form removes through to the viewed record.
    EventData<Common::Shallow> view(owner);
    EXPECT_EQ(shrink(view, 0, 4, true), 3u);
    EXPECT_EQ(std::make_pair(view.size(), view.mean[0]), std::make_pair(std::size_t{3}, 1.0f));
    // A transducer drops the rows its path gives no state.
    auto transducer = runnerFor(rawModel(kTransducer, 4), 10);
    m = {0.5f, 0.1f, 0.1f, 0.1f, 0.2f, 0.1f, 0.5f, 0.1f, 0.1f, 0.2f, 0.1f, 0.1f, 0.5f, 0.1f, 0.2f};
    transducer->posteriors = Common::MatView<float>(m.data(), 3, 5, 5);
    transducer->states = {0, -1, 2};
    transducer->weights = {0.8f, 0.7f, 0.6f};
    EXPECT_EQ(transducer->ShrinkPosteriors(wrong, 0, 3, true, 0.0f), 2u);
    EXPECT_EQ(transducer->states, (std::vector<int>{0, 2}));
    EXPECT_EQ(transducer->weights, (std::vector<float>{0.8f, 0.6f}));
    EXPECT_FLOAT_EQ(transducer->posteriors(1, 2), 0.5f / 0.8f);
}

TEST(NNRunnerCblas, EventModelReadsWindowedFeatures) {
    auto m = model(kNontransducer, 65, 64, [](NNCallerCblas& n, Params& p) {
        n.AddFeedforward(v_tanh, 9, 16, p.matrix(9, 16, 1.0f), p.vector(16, 0.1f));
        n.AddSoftmax(16, 65, p.matrix(16, 65, 1.0f), p.vector(65, 0.1f));
    });
    m->feature_kind = kFeaturesStudentise;
    m->window = {-1, 0, 1};
    auto runner = runnerFor(m, 50);
    EventData<Deep> ev(30);
    for (std::size_t i = 0; i < 30; ++i)
        std::tie(ev.mean[i], ev.stdv[i], ev.length[i], ev.start[i]) =
            std::make_tuple(80 + i % 7, 1 + i % 3, 10 + i % 5, 12 * i);
    // Level, spread and dwell of each event, each studentised over the strand, at offsets -1, 0, 1,
    // with zeros beyond the ends.
    nn_test::Matrix input(30, 9);
    double feature[30][3];
    for (int f = 0; f < 3; ++f) {
        double sum = 0, sumSq = 0;
        for (std::size_t i = 0; i < 30; ++i) {
            const double x = f == 0 ? ev.mean[i] : f == 1 ? ev.stdv[i] : ev.length[i] / 4000.0;
            sum += (feature[i][f] = x);
            sumSq += x * x;
        }
        const double mean = sum / 30, sd = std::sqrt(sumSq / 30 - mean * mean);
        for (auto& row : feature) row[f] = (row[f] - mean) / sd;
    }
    for (int i = 0; i < 30; ++i)
        for (int w = 0; w < 9; ++w)
            input(i, w) = i + w / 3 - 1 >= 0 && i + w / 3 - 1 < 30 ? feature[i + w / 3 - 1][w % 3] : 0.0;
    const nn_test::Matrix expected = nn_test::RunLayers(m->Layers(), input);
    // Without path or shrinking, the posteriors are the network's output as it is.
    TransProbs trans;
    runner->Call(ev, Common::VecView<float>(), 4000.0f, trans, 1e-5f, -1, -1, false, false, false);
    ASSERT_EQ(runner->posteriors.rows * runner->posteriors.cols, 30u * 65);
    for (std::size_t r = 0; r < 30; ++r)
        for (std::size_t c = 0; c < 65; ++c)
            EXPECT_NEAR(runner->posteriors(r, c), expected(r, c), 1e-5) << r << "," << c;
}

// Steady state: a second call of the same size allocates nothing at all, layer buffers included.
TEST(NNRunnerCblas, SteadyCallsDoNotAllocate) {
    // The counter sees the aligned allocator too.
    ASSERT_EQ(alloc_test::AllocationsDuring([] { Common::AlignedVector32<float> probe(100); }), 1);
    for (int type : {kTransducer, kNontransducer}) {
        auto runner = runnerFor(rawModel(type), 400);
        auto samples = signal(400, 11), longer = signal(600, 11);
        EventData<Deep> events;
        TransProbs trans;
        const auto callOn = [&](std::vector<float>& raw) {
            events.resize(raw.size() / 2);
            runner->Call(events, Common::VecView<float>(raw), 4000.0f, trans, 1e-5f, -1, -1, true, true,
                         false);
        };
        // Reserve only grows.
        runner->Reserve(10);
        EXPECT_EQ(runner->InputView().rows, 400u);
        callOn(samples);
        const float* bufferBefore = runner->InputView().data;
        EXPECT_EQ(alloc_test::AllocationsDuring([&] { callOn(samples); }), 0) << "decode type " << type;
        EXPECT_EQ(runner->InputView().data, bufferBefore);
        ASSERT_TRUE(std::isfinite(runner->score));
        // A larger chunk grows the buffers once; the counting itself is working.
        EXPECT_GT(alloc_test::AllocationsDuring([&] { callOn(longer); }), 0);
    }
}

// Both strands through the network together give each strand exactly what its own Call gives: every
// kernel set, random unequal lengths (either strand the longer, one at times a single row), GRU layers
// of both candidate forms and directions, a width that leaves column tails, and a bidirectional pair.
TEST(NNRunnerCblas, CallPairIsTwoCallsBitForBit) {
    auto m = model(kTransducer, 65, 64, [](NNCallerCblas& n, Params& p) {
        n.AddConvolution(v_tanh, 1, 5, 12, 2, 2, 2, p.matrix(5, 12, 1.0f), p.vector(12, 0.1f));
        n.AddGru(12, 20, p.gru(12, 20), false, false, false);
        n.AddGru(20, 20, p.gru(20, 20), true, true, true);
        n.AddBGru(20, 17, p.gru(20, 17), p.gru(20, 17), true, false);
        n.AddSoftmax(34, 65, p.matrix(34, 65, 2.0f), p.vector(65, 1.0f));
    });
    const auto* const active = &kernels::Active();
    auto first = runnerFor(m, 20), second = runnerFor(m, 20), alone = runnerFor(m, 20);
    std::mt19937 rng(77);
    std::uniform_int_distribution<std::size_t> length(1, 700);
    for (const auto* set : kernels::Available()) {
        kernels::Use(*set);
        for (int trial = 0; trial < 6; ++trial) {
            const std::size_t n[2] = {trial == 0 ? 1 : length(rng), trial == 1 ? 2 : length(rng)};
            std::vector<float> raw[2] = {signal(n[0], 3 * trial + 1), signal(n[1], 3 * trial + 2)};
            CallResult pair[2];
            for (int s = 0; s < 2; ++s) pair[s].events.resize((n[s] + 1) / 2);
            const auto strand = [&](int s) {
                return StrandCall{pair[s].events, Common::VecView<float>(raw[s]), pair[s].trans};
            };
            first->CallPair(*second, strand(0), strand(1), 4000.0f, 1e-5f, true, true, false);
            const NNRunnerCblas* runners[2] = {first.get(), second.get()};
            for (int s = 0; s < 2; ++s) {
                SCOPED_TRACE(std::string(set->name) + " trial " + std::to_string(trial) + " strand " +
                             std::to_string(s));
                const CallResult want = call(*alone, raw[s], (n[s] + 1) / 2);
                const NNRunnerCblas& got = *runners[s];
                ASSERT_EQ(std::make_pair(got.posteriors.rows, got.posteriors.cols),
                          std::make_pair(alone->posteriors.rows, alone->posteriors.cols));
                for (std::size_t r = 0; r < got.posteriors.rows; ++r)
                    for (std::size_t c = 0; c < got.posteriors.cols; ++c)
                        ASSERT_EQ(got.posteriors(r, c), alone->posteriors(r, c)) << r << "," << c;
                EXPECT_EQ(std::tie(got.score, got.states, got.moves, got.weights, got.qualityData),
                          std::tie(alone->score, alone->states, alone->moves, alone->weights,
                                   alone->qualityData));
                EXPECT_EQ(std::make_tuple(pair[s].events.size(), pair[s].trans.stay, pair[s].trans.skip),
                          std::make_tuple(want.events.size(), want.trans.stay, want.trans.skip));
            }
        }
    }
    kernels::Use(*active);
}
