#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_kernels.h"
#include "basecall_nn/nn_runner_cblas.h"
#include "decoders/flipflop_decoder.h"
#include "decoders/hmm_caller.h"
#include "decoders/state_moves.h"
#include "decoders/transducer_decoder.h"
#include "allocation_counter.h"
#include "nn_test_util.h"

namespace {

using BasecallNN::NNCallerCblas;
using BasecallNN::NNRunnerCblas;
using BasecallNN::TransProbs;
using Common::Deep;
using Common::EventData;

using nn_test::ErrorOf;

// Random parameters that stay alive while a model is built; the layers copy them.
struct Params {
    std::mt19937 rng{42};
    std::vector<std::vector<float>> arrays;
    const float* make(std::size_t n, float scale) {
        std::normal_distribution<float> normal(0.0f, scale);
        arrays.emplace_back(n);
        for (auto& x : arrays.back()) x = normal(rng);
        return arrays.back().data();
    }
    Common::MatView<const float> matrix(int rows, int cols, float scale) {
        return Common::MatView<const float>(make(static_cast<std::size_t>(rows * cols), scale),
                                            static_cast<std::uint64_t>(rows), static_cast<std::uint64_t>(cols), cols,
                                            1);
    }
    Common::VecView<const float> vector(int n, float scale) {
        return Common::VecView<const float>(make(static_cast<std::size_t>(n), scale), static_cast<std::uint64_t>(n),
                                            1);
    }
    BasecallNN::GruParams gru(int in, int size) {
        BasecallNN::GruParams p;
        for (BasecallNN::GateParams* g : {&p.update, &p.reset, &p.candidate}) {
            g->iW = matrix(in, size, 0.5f);
            g->sW = matrix(size, size, 0.5f);
            g->bias = vector(size, 0.1f);
        }
        return p;
    }
};

// A small raw model: convolution (window 5, stride 2) to 8 features, a GRU of 8, a softmax over
// `states` k-mer states plus the stay/bucket column.
std::shared_ptr<NNCallerCblas> rawModel(int decodeType, int states = 64, float lastBias = 0.0f) {
    Params p;
    auto model = std::make_shared<NNCallerCblas>();
    model->AddConvolution(BasecallNN::v_tanh, 1, 5, 8, 2, 2, 2, p.matrix(5, 8, 1.0f), p.vector(8, 0.1f));
    model->AddGru(8, 8, p.gru(8, 8), false, false, false);
    std::vector<float> bias(static_cast<std::size_t>(states + 1));
    for (auto& b : bias) b = p.make(1, 1.0f)[0];
    bias.back() += lastBias;
    model->AddSoftmax(8, states + 1, p.matrix(8, states + 1, 2.0f),
                      Common::VecView<const float>(bias.data(), bias.size(), 1));
    model->num_states = states + 1;
    model->label_state = states;
    model->feature_kind = BasecallNN::kFeaturesRaw;
    model->decode_type = decodeType;
    model->window = {0};
    return model;
}

std::vector<float> signal(std::size_t n, unsigned seed = 1) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(100.0f, 15.0f);
    std::vector<float> s(n);
    for (auto& x : s) x = normal(rng);
    return s;
}

std::shared_ptr<NNRunnerCblas> runnerFor(const std::shared_ptr<NNCallerCblas>& model, int rows) {
    auto runner = std::dynamic_pointer_cast<NNRunnerCblas>(model->CreateRunner(model, rows));
    EXPECT_TRUE(runner);
    return runner;
}

struct CallResult {
    EventData<Deep> events;
    TransProbs trans;
};

CallResult call(NNRunnerCblas& runner, std::vector<float>& raw, std::size_t events, bool extractPath = true,
                bool shrink = true) {
    CallResult r;
    r.events.resize(events);
    runner.Call(r.events, Common::VecView<float>(raw.data(), raw.size(), 1), 4000.0f, r.trans, 1e-5f, -1, -1,
                extractPath, shrink, false);
    return r;
}

struct Reference : nn_test::Matrix {
    std::vector<float> input;  // the normalised samples
};

// The network's own posteriors for the samples, through the layers one by one.
Reference referencePosteriors(const NNCallerCblas& model, const std::vector<float>& samples) {
    // Median and MAD scaling, as the runner does it.
    std::vector<float> work(samples);
    std::nth_element(work.begin(), work.begin() + work.size() / 2, work.end());
    const float median = work[work.size() / 2];
    for (auto& x : work) x = std::fabs(x - median);
    std::nth_element(work.begin(), work.begin() + work.size() / 2, work.end());
    const float mad = work[work.size() / 2] * 1.4826f;
    nn_test::Matrix input(samples.size(), 1);
    for (std::size_t i = 0; i < samples.size(); ++i) input(i, 0) = (samples[i] - median) / mad;
    std::vector<const BasecallNN::CblasLayer*> layers;
    for (const auto& l : model.Layers()) layers.push_back(l.get());
    Reference out;
    static_cast<nn_test::Matrix&>(out) = nn_test::RunLayers(layers, input);
    for (std::size_t i = 0; i < samples.size(); ++i) out.input.push_back(input(i, 0));
    return out;
}

}  // namespace

TEST(NNRunnerCblas, RunMatchesTheLayersOneByOne) {
    auto model = rawModel(BasecallNN::kTransducer);
    auto runner = runnerFor(model, 100);
    EXPECT_EQ(runner->PreparedRows(), 100);
    EXPECT_EQ(runner->GetCaller(), model);
    auto samples = signal(81);
    const auto expected = referencePosteriors(*model, samples);

    // Odd layers write the first buffer, so the input is filled afresh before a run.
    Common::MatView<float> input = runner->InputView();
    for (std::size_t i = 0; i < samples.size(); ++i) input(i, 0) = expected.input[i];
    const Common::MatView<float> out = runner->Run(81);
    ASSERT_EQ(out.rows, 41u);  // (2 + 2 - (5 - 81)) / 2 + 1
    ASSERT_EQ(out.cols, 65u);
    EXPECT_EQ(out.rowStride, 72);
    for (std::size_t r = 0; r < out.rows; ++r) {
        for (std::size_t c = 0; c < out.cols; ++c) {
            ASSERT_EQ(out(r, c), expected(r, c)) << r << "," << c;
        }
    }
    // Reserve only grows.
    runner->Reserve(10);
    EXPECT_EQ(runner->PreparedRows(), 100);
    EXPECT_EQ(runner->InputView().rows, 100u);
    EXPECT_EQ(runner->InputView().cols, 1u);
    EXPECT_EQ(runner->InputView().rowStride, 1);
    runner->Reserve(300);
    EXPECT_EQ(runner->PreparedRows(), 300);
}

TEST(NNRunnerCblas, SizeAndStateCountMessages) {
    auto model = rawModel(BasecallNN::kTransducer);
    auto runner = runnerFor(model, 1000);
    std::vector<float> none;
    EXPECT_EQ(ErrorOf([&] { call(*runner, none, 10); }),
              "Trying to basecall with raw model, but no raw data provided.");
    auto s400 = signal(400), s401 = signal(401);
    EXPECT_EQ(ErrorOf([&] { call(*runner, s401, 200); }),
              "Mismatch between size of raw data and event data: rawSamples.size() = 401, events.size() = 200, "
              "eventStride = 2");
    EXPECT_NO_THROW(call(*runner, s400, 200));
    EXPECT_NO_THROW(call(*runner, s401, 201));
    EXPECT_EQ(ErrorOf([&] { call(*runner, s400, 200, true, false); }),
              "Can only extract path from NN posteriors after bucket state removal.");

    for (int bad : {1000, 1, 0}) {
        auto wrong = rawModel(BasecallNN::kTransducer);
        wrong->label_state = bad;
        auto r = runnerFor(wrong, 100);
        EXPECT_EQ(ErrorOf([&] { call(*r, s400, 200); }),
                  "Unsupported number of states: " + std::to_string(bad) +
                      ". State count should be a positive power of 4.");
    }
}

TEST(NNRunnerCblas, TransducerCallGivesPathStaysAndQuality) {
    auto model = rawModel(BasecallNN::kTransducer);
    auto runner = runnerFor(model, 400);
    auto samples = signal(400, 7);
    const auto net = referencePosteriors(*model, samples);
    CallResult r = call(*runner, samples, 200);
    ASSERT_TRUE(std::isfinite(runner->score));
    const std::size_t n = 200;
    ASSERT_EQ(r.events.size(), n);

    // The path is TransducerDecode's on the network output.
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0;
    nn_test::Matrix copy = net;
    ASSERT_TRUE(BasecallHMM::TransducerDecode(copy.view(), states, moves, score, 1.0f, false));
    EXPECT_EQ(runner->states, states);
    EXPECT_EQ(runner->moves, moves);
    EXPECT_EQ(runner->score, score);

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
        for (int s = 0; s < 64; ++s) {
            carried[s] = net(i, s) + (i > 0 ? prev[s] * b : 0.0);
            sum += carried[s];
        }
        for (int s = 0; s < 64; ++s) {
            EXPECT_NEAR(runner->posteriors(i, s), (carried[s] + 1e-5) / (sum + 64 * 1e-5), 1e-5);
        }
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
        for (int p = 0; p < 3; ++p) {
            float sum = 0;
            for (int b = 0; b < 4; ++b) sum += runner->qualityData[i * 12 + 4 * p + b];
            EXPECT_NEAR(sum, 1.0f, 1e-5f);
        }
    }
    EXPECT_EQ(runner->pathStates, runner->states);
    EXPECT_EQ(runner->pathViews.size(), n);
}

TEST(NNRunnerCblas, NontransducerCallDecodesWithEstimatedTransitions) {
    auto model = rawModel(BasecallNN::kNontransducer);
    auto runner = runnerFor(model, 400);
    EXPECT_TRUE(runner->useSimpleDecode);
    auto samples = signal(400, 5);
    const auto net = referencePosteriors(*model, samples);
    CallResult r = call(*runner, samples, 200);
    ASSERT_TRUE(std::isfinite(runner->score));
    ASSERT_EQ(r.events.size(), 200u);  // firstEvent -1: no row is dropped
    EXPECT_NEAR(r.trans.stay + r.trans.step + r.trans.skip, 1.0, 1e-5);
    EXPECT_GT(r.trans.stay, 0.0f);

    // Weights are the mass of the first 64 columns; the path is the decoder's on the shrunk rows.
    for (std::size_t i = 0; i < 200; ++i) {
        double mass = 0;
        for (int s = 0; s < 64; ++s) mass += net(i, s);
        EXPECT_NEAR(runner->weights[i], mass, 1e-5);
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
    auto model = rawModel(BasecallNN::kNontransducer, 4);  // 4 states + bucket
    auto runner = runnerFor(model, 10);
    // Rows: bucket largest; tie between column 0 and bucket; all zero; plain.
    std::vector<float> rows = {0.1f, 0.1f, 0.1f, 0.1f, 0.6f,  //
                               0.3f, 0.1f, 0.0f, 0.0f, 0.3f,  //
                               0.0f, 0.0f, 0.0f, 0.0f, 0.0f,  //
                               0.4f, 0.3f, 0.2f, 0.1f, 0.0f};
    auto reset = [&](std::vector<float>& m) {
        m = rows;
        runner->posteriors = Common::MatView<float>(m.data(), 4, 5, 5);
        runner->states.clear();
    };
    std::vector<float> m;
    EventData<Deep> ev(4);
    for (int i = 0; i < 4; ++i) ev.mean[i] = static_cast<float>(i);

    // firstEvent -1 keeps every row, even one whose largest entry is the bucket.
    reset(m);
    EXPECT_EQ(runner->ShrinkPosteriors(ev, -1, 4, true, 1e-5f), 4u);
    EXPECT_EQ(ev.size(), 4u);
    EXPECT_EQ(runner->posteriors.cols, 4u);
    EXPECT_EQ(runner->posteriors.rowStride, 4);
    // A zero row becomes 1/n everywhere.
    for (int c = 0; c < 4; ++c) EXPECT_FLOAT_EQ(runner->posteriors(2, c), 0.25f);
    EXPECT_NEAR(runner->posteriors(0, 0), (0.1 + 1e-5) / (0.4 + 4e-5), 1e-6);
    EXPECT_FLOAT_EQ(runner->weights[3], 1.0f);

    // In range, the bucket row goes; the tie keeps its row.
    reset(m);
    EXPECT_EQ(runner->ShrinkPosteriors(ev, 0, 4, true, 1e-5f), 3u);
    EXPECT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev.mean, (std::vector<float>{1, 2, 3}));
    EXPECT_EQ(runner->weights.size(), 3u);
    EXPECT_NEAR(runner->posteriors(0, 0), (0.3 + 1e-5) / (0.4 + 4e-5), 1e-6);
    // Without renormalising all columns move up as they were.
    EventData<Deep> ev2(4);
    reset(m);
    EXPECT_EQ(runner->ShrinkPosteriors(ev2, 0, 1, false, 1e-5f), 3u);
    EXPECT_EQ(runner->posteriors.cols, 5u);
    EXPECT_EQ(runner->posteriors(0, 4), 0.3f);
    EXPECT_EQ(runner->posteriors(2, 0), 0.4f);

    // Events that do not match the rows cannot be kept consistent.
    EventData<Deep> wrong(3);
    reset(m);
    EXPECT_EQ(ErrorOf([&] { runner->ShrinkPosteriors(wrong, -1, -1, true, 1e-5f); }), "Weight vector corrupted.");

    // The viewing form removes through to the viewed record.
    EventData<Deep> owner(4);
    for (int i = 0; i < 4; ++i) owner.mean[i] = static_cast<float>(10 + i);
    EventData<Common::Shallow> view(owner);
    reset(m);
    EXPECT_EQ(runner->ShrinkPosteriors(view, 0, 4, true, 1e-5f), 3u);
    EXPECT_EQ(view.size(), 3u);
    EXPECT_EQ(view.mean[0], 11.0f);
}

TEST(NNRunnerCblas, TransducerShrinkDropsRowsWithoutState) {
    auto model = rawModel(BasecallNN::kTransducer, 4);
    auto runner = runnerFor(model, 10);
    std::vector<float> m = {0.5f, 0.1f, 0.1f, 0.1f, 0.2f,  //
                            0.1f, 0.5f, 0.1f, 0.1f, 0.2f,  //
                            0.1f, 0.1f, 0.5f, 0.1f, 0.2f};
    runner->posteriors = Common::MatView<float>(m.data(), 3, 5, 5);
    runner->states = {0, -1, 2};
    runner->weights = {0.8f, 0.7f, 0.6f};
    EventData<Deep> ev(3);
    EXPECT_EQ(runner->ShrinkPosteriors(ev, 0, 3, true, 0.0f), 2u);
    EXPECT_EQ(runner->states, (std::vector<int>{0, 2}));
    EXPECT_EQ(runner->weights, (std::vector<float>{0.8f, 0.6f}));
    EXPECT_FLOAT_EQ(runner->posteriors(1, 2), 0.5f / 0.8f);
}

TEST(NNRunnerCblas, FlipflopSizeCheckAndDecode) {
    Params p;
    // Flip-flop output is 40 columns for four bases; 41 is refused.
    const auto flipflop = [&p](int columns) {
        auto model = std::make_shared<NNCallerCblas>();
        model->AddConvolution(BasecallNN::v_tanh, 1, 5, 8, 2, 2, 2, p.matrix(5, 8, 1.0f), p.vector(8, 0.1f));
        model->AddGlobalNormTwoState(8, columns, p.matrix(8, columns, 1.0f), p.vector(columns, 0.1f));
        model->num_states = columns;
        model->label_state = 4;
        model->feature_kind = BasecallNN::kFeaturesRaw;
        model->decode_type = BasecallNN::kFlipflop;
        return runnerFor(model, 100);
    };
    auto runner = flipflop(40);
    auto samples = signal(100);
    CallResult r = call(*runner, samples, 50, true, false);
    ASSERT_TRUE(std::isfinite(runner->score));
    EXPECT_LE(runner->score, 0.0f);
    EXPECT_EQ(runner->states.size(), 50u);
    EXPECT_EQ(runner->qualityData.size(), 50u * 4);
    EXPECT_EQ(r.events.size(), 50u);
    EXPECT_EQ(ErrorOf([&] { call(*flipflop(41), samples, 50, true, false); }), "Unexpected size of posterior matrix.");
}

TEST(NNRunnerCblas, EventModelReadsWindowedFeatures) {
    Params p;
    auto model = std::make_shared<NNCallerCblas>();
    model->AddFeedforward(BasecallNN::v_tanh, 9, 16, p.matrix(9, 16, 1.0f), p.vector(16, 0.1f));
    model->AddSoftmax(16, 65, p.matrix(16, 65, 1.0f), p.vector(65, 0.1f));
    model->num_states = 65;
    model->label_state = 64;
    model->feature_kind = BasecallNN::kFeaturesStudentise;
    model->decode_type = BasecallNN::kNontransducer;
    model->window = {-1, 0, 1};
    auto runner = runnerFor(model, 50);
    EventData<Deep> ev(30);
    for (std::size_t i = 0; i < 30; ++i) {
        ev.mean[i] = 80.0f + static_cast<float>(i % 7);
        ev.stdv[i] = 1.0f + static_cast<float>(i % 3);
        ev.length[i] = 10 + i % 5;
        ev.start[i] = 12 * i;
    }
    // Expected input: level, spread and dwell of each event, each studentised over the strand, at
    // offsets -1, 0, 1, with zeros beyond the ends.
    nn_test::Matrix input(30, 9);
    double feature[30][3];
    for (int f = 0; f < 3; ++f) {
        double sum = 0, sumSq = 0;
        for (std::size_t i = 0; i < 30; ++i) {
            const double x = f == 0 ? ev.mean[i] : f == 1 ? ev.stdv[i] : ev.length[i] / 4000.0;
            feature[i][f] = x;
            sum += x;
            sumSq += x * x;
        }
        const double mean = sum / 30, sd = std::sqrt(sumSq / 30 - mean * mean);
        for (auto& row : feature) row[f] = (row[f] - mean) / sd;
    }
    for (int i = 0; i < 30; ++i)
        for (int w = 0; w < 3; ++w)
            for (int f = 0; f < 3; ++f)
                input(i, 3 * w + f) = i + w - 1 >= 0 && i + w - 1 < 30 ? static_cast<float>(feature[i + w - 1][f]) : 0.0f;
    std::vector<const BasecallNN::CblasLayer*> layers;
    for (const auto& l : model->Layers()) layers.push_back(l.get());
    const nn_test::Matrix expected = nn_test::RunLayers(layers, input);

    // Without path or shrinking, the posteriors are the network's output as it is.
    TransProbs trans;
    runner->Call(ev, Common::VecView<float>(), 4000.0f, trans, 1e-5f, -1, -1, false, false, false);
    ASSERT_EQ(runner->posteriors.rows, 30u);
    ASSERT_EQ(runner->posteriors.cols, 65u);
    for (std::size_t r = 0; r < 30; ++r)
        for (std::size_t c = 0; c < 65; ++c) EXPECT_NEAR(runner->posteriors(r, c), expected(r, c), 1e-5) << r << "," << c;

    runner->Call(ev, Common::VecView<float>(), 4000.0f, trans, 1e-5f, -1, -1, true, true, false);
    ASSERT_TRUE(std::isfinite(runner->score));
    EXPECT_EQ(runner->states.size(), 30u);
}

// Steady state: a second call of the same size allocates nothing at all, layer buffers included.
TEST(NNRunnerCblas, SteadyCallsDoNotAllocate) {
    // The counter sees the aligned allocator too.
    ASSERT_EQ(alloc_test::AllocationsDuring([] { Common::AlignedVector32<float> probe(100); }), 1);

    for (int type : {BasecallNN::kTransducer, BasecallNN::kNontransducer}) {
        auto model = rawModel(type);
        auto runner = runnerFor(model, 400);
        auto samples = signal(400, 11), longer = signal(600, 11);
        EventData<Deep> events;
        TransProbs trans;
        const auto callOn = [&](std::vector<float>& raw) {
            events.resize(raw.size() / 2);
            runner->Call(events, Common::VecView<float>(raw.data(), raw.size(), 1), 4000.0f, trans, 1e-5f, -1, -1,
                         true, true, false);
        };
        callOn(samples);
        ASSERT_TRUE(std::isfinite(runner->score));
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
    Params p;
    auto model = std::make_shared<NNCallerCblas>();
    model->AddConvolution(BasecallNN::v_tanh, 1, 5, 12, 2, 2, 2, p.matrix(5, 12, 1.0f), p.vector(12, 0.1f));
    model->AddGru(12, 20, p.gru(12, 20), false, false, false);
    model->AddGru(20, 20, p.gru(20, 20), true, true, true);
    model->AddBGru(20, 17, p.gru(20, 17), p.gru(20, 17), true, false);
    model->AddSoftmax(34, 65, p.matrix(34, 65, 2.0f), p.vector(65, 1.0f));
    model->num_states = 65;
    model->label_state = 64;
    model->feature_kind = BasecallNN::kFeaturesRaw;
    model->decode_type = BasecallNN::kTransducer;
    model->window = {0};

    const auto* const active = &BasecallNN::kernels::Active();
    auto first = runnerFor(model, 20), second = runnerFor(model, 20), alone = runnerFor(model, 20);
    std::mt19937 rng(77);
    std::uniform_int_distribution<std::size_t> length(1, 700);
    for (const auto* set : BasecallNN::kernels::Available()) {
        BasecallNN::kernels::Use(*set);
        for (int trial = 0; trial < 6; ++trial) {
            const std::size_t n1 = trial == 0 ? 1 : length(rng), n2 = trial == 1 ? 2 : length(rng);
            auto raw1 = signal(n1, static_cast<unsigned>(3 * trial + 1));
            auto raw2 = signal(n2, static_cast<unsigned>(3 * trial + 2));
            CallResult one, two;
            one.events.resize((n1 + 1) / 2);
            two.events.resize((n2 + 1) / 2);
            first->CallPair(*second, BasecallNN::StrandCall{one.events, Common::VecView<float>(raw1), one.trans},
                            BasecallNN::StrandCall{two.events, Common::VecView<float>(raw2), two.trans}, 4000.0f,
                            1e-5f, true, true, false);
            const CallResult* pairs[2] = {&one, &two};
            const NNRunnerCblas* runners[2] = {first.get(), second.get()};
            std::vector<float>* raws[2] = {&raw1, &raw2};
            for (int s = 0; s < 2; ++s) {
                SCOPED_TRACE(std::string(set->name) + " trial " + std::to_string(trial) + " strand " +
                             std::to_string(s + 1) + " of " + std::to_string(n1) + " and " + std::to_string(n2));
                const CallResult want = call(*alone, *raws[s], (raws[s]->size() + 1) / 2);
                const NNRunnerCblas& got = *runners[s];
                ASSERT_EQ(got.posteriors.rows, alone->posteriors.rows);
                ASSERT_EQ(got.posteriors.cols, alone->posteriors.cols);
                for (std::size_t r = 0; r < got.posteriors.rows; ++r)
                    for (std::size_t c = 0; c < got.posteriors.cols; ++c)
                        ASSERT_EQ(got.posteriors(r, c), alone->posteriors(r, c)) << r << "," << c;
                EXPECT_EQ(got.score, alone->score);
                EXPECT_EQ(got.states, alone->states);
                EXPECT_EQ(got.moves, alone->moves);
                EXPECT_EQ(got.weights, alone->weights);
                EXPECT_EQ(got.qualityData, alone->qualityData);
                EXPECT_EQ(pairs[s]->events.size(), want.events.size());
                EXPECT_EQ(pairs[s]->trans.stay, want.trans.stay);
                EXPECT_EQ(pairs[s]->trans.skip, want.trans.skip);
            }
        }
    }
    BasecallNN::kernels::Use(*active);
}
