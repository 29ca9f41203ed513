// Decoding speed of the one-dimensional decoders over 1000 events of 1024 states (k = 5), the size a
// chunk of the pair pipeline hands them. The kernel build is an argument: 0 the scalar reference, then
// the builds this processor can run in order (baseline, AVX2).

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "decoders/hmm_caller.h"
#include "decoders/hmm_kernels.h"
#include "decoders/transducer_decoder.h"

namespace {

constexpr std::size_t kEvents = 1000;

std::vector<float> randomRows(std::size_t rows, std::size_t cols) {
    std::mt19937 rng(1);
    std::gamma_distribution<float> peaky(0.2f, 1.0f);  // a few large entries per row, like softmax output
    std::vector<float> out(rows * cols);
    for (std::size_t r = 0; r < rows; ++r) {
        float sum = 0.0f;
        for (std::size_t c = 0; c < cols; ++c) sum += out[r * cols + c] = peaky(rng) + 1e-6f;
        for (std::size_t c = 0; c < cols; ++c) out[r * cols + c] /= sum;
    }
    return out;
}

const BasecallHMM::kernels::KernelSet* kernelsFor(benchmark::State& state, int numStates) {
    const auto sets = BasecallHMM::kernels::AvailableKernels(numStates);
    if (static_cast<std::size_t>(state.range(0)) >= sets.size()) {
        return nullptr;
    }
    const auto* set = sets[static_cast<std::size_t>(state.range(0))];
    state.SetLabel(set->name);
    return set;
}

void BM_Caller1024Decode(benchmark::State& state) {
    const auto* set = kernelsFor(state, 1024);
    if (set == nullptr) {
        state.SkipWithError("kernel build not available on this processor");
        return;
    }
    auto em = randomRows(kEvents, 1024);
    Common::EmissionBase<float> emissions(em.data(), kEvents, 1024, 1024);
    BasecallHMM::Caller<1024> caller;
    caller.UseKernels(set);
    caller.SetTrans(0.3f, 0.6f, 0.1f, 0.0f);
    std::vector<int> path;
    std::vector<signed char> moves;
    for (auto _ : state) {
        bool ok = caller.Decode(emissions, path, moves);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(path.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kEvents));
}
BENCHMARK(BM_Caller1024Decode)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

void BM_TransducerDecode1025(benchmark::State& state) {
    const auto* set = kernelsFor(state, 1024);
    if (set == nullptr) {
        state.SkipWithError("kernel build not available on this processor");
        return;
    }
    auto post = randomRows(kEvents, 1025);
    Common::MatView<float> view(post.data(), kEvents, 1025, 1025);
    BasecallHMM::TransducerDecoder decoder;
    decoder.UseKernels(set);
    std::vector<int> states;
    std::vector<signed char> moves;
    float score = 0.0f;
    for (auto _ : state) {
        bool ok = decoder.Decode(view, states, moves, score, 1.0f, false);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(states.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kEvents));
}
BENCHMARK(BM_TransducerDecode1025)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
