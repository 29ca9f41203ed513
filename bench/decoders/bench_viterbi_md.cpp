// Speed and memory of the two-dimensional Viterbi at chunk size: 1024 states (5-mers), 1000 events
// per strand, band_size 5, the band built from a diagonal prior map as a worker builds it. The rate
// is band cells times states per second; the memory is the trace one call writes, what the
// constructor reserves for that chunk size (maxNodes = 1000 * 5 * band_size) and the process's peak
// resident size.

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdint>
#include <random>
#include <vector>

#include "decoders/kernel_isa.h"
#include "decoders/prior_band.h"
#include "decoders/viterbi_md.h"

namespace {

using BasecallCommon::KernelIsa;

constexpr int kStates = 1024;
constexpr int kEvents = 1000;
constexpr int kBandSize = 5;

std::vector<float> randomPosteriors(int rows, unsigned seed) {
    std::mt19937 rng(seed);
    std::gamma_distribution<float> weight(0.3f, 1.0f);
    std::vector<float> post(static_cast<std::size_t>(rows) * kStates);
    for (int r = 0; r < rows; ++r) {
        float sum = 0.0f;
        for (int s = 0; s < kStates; ++s) {
            sum += post[r * kStates + s] = weight(rng);
        }
        for (int s = 0; s < kStates; ++s) {
            post[r * kStates + s] /= sum;
        }
    }
    return post;
}

void BM_ViterbiMD(benchmark::State& state) {
    const auto isa = static_cast<KernelIsa>(state.range(0));
    if (!BasecallCommon::IsaSupported(isa)) {
        state.SkipWithError("kernel not supported on this processor");
        return;
    }
    std::vector<float> post1 = randomPosteriors(kEvents, 1);
    std::vector<float> post2 = randomPosteriors(kEvents, 2);
    std::vector<float> stay1(kEvents, 0.3f);
    std::vector<float> stay2(kEvents, 0.3f);
    // Raw data of stride 10 and a prior map along the diagonal, every 10 samples.
    const std::uint64_t stride = 10;
    BasecallMD::StrandEventIndex index(stride, kEvents * stride, kEvents * stride);
    std::vector<std::uint64_t> prior;
    for (std::uint64_t s = 0; s < kEvents * stride; s += 10) {
        prior.push_back(s);
    }
    std::vector<int> bandStart;
    std::vector<int> bandEnd;
    BasecallMD::buildBand(BasecallMD::buildBandPath(prior, 10, index), kBandSize, bandStart, bandEnd);

    BasecallMD::ViterbiMD decoder(kEvents * 5 * kBandSize, kEvents, kStates, 0.0f, 0.0f);
    decoder.SetKernel(isa);
    const std::vector<int> startScores(kStates, 0);
    std::vector<std::pair<int, int>> alignment;
    std::vector<short> states;
    const Common::MatView<float> p1(post1.data(), kEvents, kStates, kStates);
    const Common::MatView<float> p2(post2.data(), kEvents, kStates, kStates);
    const Common::VecView<float> s1(stay1);
    const Common::VecView<float> s2(stay2);
    double work = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            decoder.Call(p1, p2, s1, s2, bandStart, bandEnd, startScores, alignment, states, 0.1f, 0.1f));
        work += static_cast<double>(decoder.LastCellCount()) * kStates;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.SetLabel(BasecallCommon::IsaName(isa));
    state.counters["cell_states_per_s"] = benchmark::Counter(work, benchmark::Counter::kIsRate);
    state.counters["band_cells"] = decoder.LastCellCount();
    state.counters["path_steps"] = static_cast<double>(alignment.size());
    state.counters["trace_MiB"] = static_cast<double>(decoder.LastTraceBytes()) / (1024.0 * 1024.0);
    state.counters["reserved_MiB"] = static_cast<double>(decoder.ReservedBytes()) / (1024.0 * 1024.0);
    state.counters["peak_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

BENCHMARK(BM_ViterbiMD)
    ->Arg(static_cast<int>(KernelIsa::Scalar))
    ->Arg(static_cast<int>(KernelIsa::Sse2))
    ->Arg(static_cast<int>(KernelIsa::Avx2))
    ->Arg(static_cast<int>(KernelIsa::Avx512))
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
