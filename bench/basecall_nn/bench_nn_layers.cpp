// Time of the layer set on a representative raw network: a convolution of stride 5 (window 11,
// 96 features, tanh), three GRU layers of 96 (the middle one reversed) and a softmax of 1025.
// Figures are per 1000 output rows, on one thread (OpenBLAS is held to one thread here).
//
//   bench_nn_layers --benchmark_filter=Network

#include <benchmark/benchmark.h>
#include <cblas.h>

#include <memory>
#include <random>
#include <vector>

#include "basecall_nn/cblas_layers.h"
#include "basecall_nn/nn_kernels.h"
#include "common/allocator.h"

using namespace BasecallNN;

namespace {

constexpr int kRowsOut = 1000;
constexpr int kStride = 5;
constexpr int kWinlen = 11;
constexpr int kHidden = 96;
constexpr int kStates = 1025;

std::vector<float> randomWeights(std::mt19937& rng, std::size_t n, float scale) {
    std::uniform_real_distribution<float> d(-scale, scale);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

struct Network {
    std::vector<std::unique_ptr<CblasLayer>> layers;

    Network() {
        std::mt19937 rng(5);
        const auto W = randomWeights(rng, kWinlen * kHidden, 0.3f);
        const auto b = randomWeights(rng, kHidden, 0.1f);
        layers.push_back(std::make_unique<WindowLayer>(1, kWinlen, kStride, kWinlen / 2, kWinlen / 2));
        layers.push_back(MakeFeedforward(v_tanh, Common::MatView<const float>(W.data(), kWinlen, kHidden, kHidden, 1),
                                         Common::VecView<const float>(b.data(), kHidden, 1)));
        for (int i = 0; i < 3; ++i) {
            std::vector<std::vector<float>> store;
            GruParams p;
            for (GateParams* g : {&p.reset, &p.update, &p.candidate}) {
                store.push_back(randomWeights(rng, kHidden * kHidden, 0.15f));
                g->iW = Common::MatView<const float>(store.back().data(), kHidden, kHidden, kHidden, 1);
                store.push_back(randomWeights(rng, kHidden * kHidden, 0.15f));
                g->sW = Common::MatView<const float>(store.back().data(), kHidden, kHidden, kHidden, 1);
                store.push_back(randomWeights(rng, kHidden, 0.1f));
                g->bias = Common::VecView<const float>(store.back().data(), kHidden, 1);
            }
            layers.push_back(std::make_unique<Gru>(kHidden, kHidden, p, true, i == 1, false));
        }
        const auto sW = randomWeights(rng, kHidden * kStates, 0.2f);
        const auto sb = randomWeights(rng, kStates, 0.1f);
        layers.push_back(std::make_unique<Softmax>(Common::MatView<const float>(sW.data(), kHidden, kStates, kStates, 1),
                                                   Common::VecView<const float>(sb.data(), kStates, 1)));
    }
};

// Ping-pong buffers and scratch sized once for the largest layer, as a runner keeps them.
struct Buffers {
    Common::AlignedVector32<float> a, b, scratch;
    explicit Buffers(const Network& net, int rowsIn) {
        std::size_t big = 0, scratchSize = 0;
        int rows = rowsIn;
        for (const auto& l : net.layers) {
            big = std::max(big, static_cast<std::size_t>(rows) * Common::PaddedStride(l->inSize));
            scratchSize = std::max(scratchSize, static_cast<std::size_t>(l->ScratchSize(rows)));
            rows = l->OutputRows(rows);
            big = std::max(big, static_cast<std::size_t>(rows) * Common::PaddedStride(l->outSize));
        }
        a.assign(big, 0.1f);
        b.assign(big, 0.0f);
        scratch.assign(scratchSize + 1, 0.0f);
    }
};

void runLayers(const std::vector<const CblasLayer*>& layers, Buffers& buf, int rowsIn) {
    float* in = buf.a.data();
    float* out = buf.b.data();
    int rows = rowsIn;
    for (const CblasLayer* l : layers) {
        const int outRows = l->OutputRows(rows);
        const Common::MatView<float> inView(in, rows, l->inSize, Common::PaddedStride(l->inSize), 1);
        Common::MatView<float> outView(out, outRows, l->outSize, Common::PaddedStride(l->outSize), 1);
        l->Process(inView, outView, buf.scratch.data());
        std::swap(in, out);
        rows = outRows;
    }
}

const Network& network() {
    static const Network net;
    return net;
}

void setOneThread() { openblas_set_num_threads(1); }

// Arg: index into kernels::Available(), 0 the baseline.
void Network_1000Rows(benchmark::State& state) {
    setOneThread();
    const auto sets = kernels::Available();
    if (static_cast<std::size_t>(state.range(0)) >= sets.size()) {
        state.SkipWithError("kernel set not available on this processor");
        return;
    }
    kernels::Use(*sets[static_cast<std::size_t>(state.range(0))]);
    state.SetLabel(kernels::Active().name);
    const int rowsIn = kRowsOut * kStride;
    Buffers buf(network(), rowsIn);
    std::vector<const CblasLayer*> all;
    for (const auto& l : network().layers) all.push_back(l.get());
    for (auto _ : state) {
        runLayers(all, buf, rowsIn);
        benchmark::ClobberMemory();
    }
    state.counters["rows_out"] = kRowsOut;
    kernels::Use(kernels::Best());
}
BENCHMARK(Network_1000Rows)->Arg(0)->Arg(1)->ArgName("kernels")->Unit(benchmark::kMillisecond);

// One layer of the network on its own, over the rows it sees in the whole run.
void Layer(benchmark::State& state) {
    setOneThread();
    const auto index = static_cast<std::size_t>(state.range(0));
    const CblasLayer* layer = network().layers[index].get();
    const int rows = index == 0 ? kRowsOut * kStride : kRowsOut;
    Buffers buf(network(), kRowsOut * kStride);
    for (auto _ : state) {
        runLayers({layer}, buf, rows);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Layer)->Arg(0)->Arg(1)->Arg(2)->Arg(5)->ArgName("layer")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
