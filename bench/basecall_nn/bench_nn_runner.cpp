// Time of NNRunnerCblas::Call on a representative raw transducer network: a convolution of stride 5
// (window 11, 96 features, tanh), three GRU layers of 96 (the middle one reversed) and a softmax of
// 1025 (1024 k-mer states and the stay column). One call covers 5000 samples, that is 1000 output
// rows, so the time per iteration is the time per 1000 output rows. One thread: OpenBLAS is held to
// one thread here.
//
//   bench_nn_runner                         Call with path, quality data and stays (the pair pipeline's call)
//   bench_nn_runner --benchmark_filter=Run  the layers alone, through the runner's buffers
//   bench_nn_runner --benchmark_filter=Pair CallPair over two strands of 1000 output rows each, so
//                                           the time per iteration covers 2000 rows
//   bench_nn_runner --model=FILE            the same over a model file (a shipped model, or one to
//                                           compare it with), with as many samples as give 1000 rows

#include <benchmark/benchmark.h>
#include <cblas.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "basecall_nn/nn_runner_cblas.h"

namespace {

constexpr int kRowsOut = 1000;
constexpr int kStride = 5;
// Samples per call: 1000 rows at the model's stride (set from the model file when one is given).
int gSamples = kRowsOut * kStride;
std::string gModelFile;
constexpr int kWinlen = 11;
constexpr int kHidden = 96;
constexpr int kStates = 1025;

struct Weights {
    std::mt19937 rng{5};
    std::vector<std::vector<float>> keep;
    const float* make(std::size_t n, float scale) {
        std::uniform_real_distribution<float> d(-scale, scale);
        keep.emplace_back(n);
        for (float& x : keep.back()) x = d(rng);
        return keep.back().data();
    }
    Common::MatView<const float> matrix(int rows, int cols, float scale) {
        return Common::MatView<const float>(make(static_cast<std::size_t>(rows) * cols, scale),
                                            static_cast<std::uint64_t>(rows), static_cast<std::uint64_t>(cols), cols, 1);
    }
    Common::VecView<const float> vector(int n, float scale) {
        return Common::VecView<const float>(make(static_cast<std::size_t>(n), scale), static_cast<std::uint64_t>(n), 1);
    }
    BasecallNN::GruParams gru() {
        BasecallNN::GruParams p;
        for (BasecallNN::GateParams* g : {&p.update, &p.reset, &p.candidate}) {
            g->iW = matrix(kHidden, kHidden, 0.2f);
            g->sW = matrix(kHidden, kHidden, 0.2f);
            g->bias = vector(kHidden, 0.1f);
        }
        return p;
    }
};

std::shared_ptr<BasecallNN::NNCallerCblas> representativeModel() {
    if (!gModelFile.empty()) {
        auto model = std::make_shared<BasecallNN::NNCallerCblas>();
        BasecallNN::NNLoader(gModelFile).LoadInto(*model);
        return model;
    }
    Weights w;
    auto model = std::make_shared<BasecallNN::NNCallerCblas>();
    model->AddConvolution(BasecallNN::v_tanh, 1, kWinlen, kHidden, kStride, kWinlen / 2, kWinlen / 2,
                          w.matrix(kWinlen, kHidden, 0.3f), w.vector(kHidden, 0.1f));
    model->AddGru(kHidden, kHidden, w.gru(), true, false, false);
    model->AddGru(kHidden, kHidden, w.gru(), true, true, false);
    model->AddGru(kHidden, kHidden, w.gru(), true, false, false);
    model->AddSoftmax(kHidden, kStates, w.matrix(kHidden, kStates, 0.5f), w.vector(kStates, 0.5f));
    model->num_states = kStates;
    model->label_state = kStates - 1;
    model->feature_kind = BasecallNN::kFeaturesRaw;
    model->decode_type = BasecallNN::kTransducer;
    model->window = {0};
    return model;
}

std::vector<float> rawSignal() {
    std::mt19937 rng(9);
    std::normal_distribution<float> d(90.0f, 12.0f);
    std::vector<float> s(gSamples);
    for (float& x : s) x = d(rng);
    return s;
}

void BM_NNRunnerCblasCall(benchmark::State& state) {
    auto model = representativeModel();
    auto runner = model->CreateRunner(model, gSamples);
    auto samples = rawSignal();
    const Common::VecView<float> raw(samples.data(), samples.size(), 1);
    Common::EventData<Common::Deep> events;
    BasecallNN::TransProbs trans;
    for (auto _ : state) {
        events.resize(kRowsOut);
        runner->Call(events, raw, 4000.0f, trans, 1e-5f, -1, -1, true, true, false);
        benchmark::DoNotOptimize(runner->score);
    }
    if (!(runner->score > -1e30f)) {
        state.SkipWithError("the call failed");
    }
    state.counters["rows_per_second"] =
        benchmark::Counter(static_cast<double>(kRowsOut), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_NNRunnerCblasCall)->Unit(benchmark::kMillisecond);

void BM_NNRunnerCblasRun(benchmark::State& state) {
    auto model = representativeModel();
    auto runner = model->CreateRunner(model, gSamples);
    auto samples = rawSignal();
    for (auto _ : state) {
        Common::MatView<float> input = runner->InputView();
        for (int i = 0; i < gSamples; ++i) input(static_cast<std::uint64_t>(i), 0) = (samples[i] - 90.0f) / 12.0f;
        auto out = runner->Run(gSamples);
        benchmark::DoNotOptimize(out.data);
    }
    state.counters["rows_per_second"] =
        benchmark::Counter(static_cast<double>(kRowsOut), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_NNRunnerCblasRun)->Unit(benchmark::kMillisecond);

void BM_NNRunnerCblasCallPair(benchmark::State& state) {
    auto model = representativeModel();
    auto runner1 = model->CreateRunner(model, gSamples);
    auto runner2 = model->CreateRunner(model, gSamples);
    auto samples1 = rawSignal();
    auto samples2 = samples1;
    std::reverse(samples2.begin(), samples2.end());
    const Common::VecView<float> raw1(samples1.data(), samples1.size(), 1);
    const Common::VecView<float> raw2(samples2.data(), samples2.size(), 1);
    Common::EventData<Common::Deep> events1, events2;
    BasecallNN::TransProbs trans1, trans2;
    for (auto _ : state) {
        events1.resize(kRowsOut);
        events2.resize(kRowsOut);
        runner1->CallPair(*runner2, BasecallNN::StrandCall{events1, raw1, trans1},
                          BasecallNN::StrandCall{events2, raw2, trans2}, 4000.0f, 1e-5f, true, true, false);
        benchmark::DoNotOptimize(runner1->score);
        benchmark::DoNotOptimize(runner2->score);
    }
    if (!(runner1->score > -1e30f) || !(runner2->score > -1e30f)) {
        state.SkipWithError("the call failed");
    }
    state.counters["rows_per_second"] =
        benchmark::Counter(2.0 * kRowsOut, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_NNRunnerCblasCallPair)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    openblas_set_num_threads(1);
    const std::string modelFlag = "--model=";
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]).rfind(modelFlag, 0) == 0) {
            gModelFile = std::string(argv[i]).substr(modelFlag.size());
            std::copy(argv + i + 1, argv + argc, argv + i);
            --argc;
            auto model = std::make_shared<BasecallNN::NNCallerCblas>();
            BasecallNN::NNLoader(gModelFile).LoadInto(*model);
            gSamples = kRowsOut * model->event_stride;
            break;
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
