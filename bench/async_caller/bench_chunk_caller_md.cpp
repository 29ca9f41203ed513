// Throughput of the pair chunk caller on one thread: events per second over both strands, and the
// share of the network, of the two-dimensional decode and of the rest (posterior copies, band,
// merged posteriors, quality data and bases). The model is the file named by KVX_BENCH_MODEL, or
// else a synthetic raw model shaped like the workflow's: a strided convolution and three GRU layers
// of 96 units over 1024 5-mer states plus the stay column, transducer decoding.
//
//   KVX_BENCH_MODEL=data/model.json ./bin/bench_chunk_caller_md

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "async_caller/chunk_caller_md_cpu.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"

namespace {

struct Weights {
    std::mt19937 random{11};
    std::vector<std::unique_ptr<std::vector<float>>> arrays;

    const float* make(std::size_t n, float scale) {
        std::normal_distribution<float> normal(0.0f, scale);
        arrays.push_back(std::make_unique<std::vector<float>>(n));
        for (auto& x : *arrays.back()) {
            x = normal(random);
        }
        return arrays.back()->data();
    }
    Common::MatView<const float> matrix(int rows, int cols, float scale) {
        return Common::MatView<const float>(make(static_cast<std::size_t>(rows * cols), scale), rows, cols, cols, 1);
    }
    Common::VecView<const float> vector(int n, float scale) {
        return Common::VecView<const float>(make(static_cast<std::size_t>(n), scale), n, 1);
    }
    BasecallNN::GruParams gru(int in, int size) {
        BasecallNN::GruParams p;
        for (BasecallNN::GateParams* g : {&p.update, &p.reset, &p.candidate}) {
            g->iW = matrix(in, size, 1.0f / std::sqrt(static_cast<float>(in)));
            g->sW = matrix(size, size, 1.0f / std::sqrt(static_cast<float>(size)));
            g->bias = vector(size, 0.1f);
        }
        return p;
    }
};

std::shared_ptr<const BasecallNN::NNCaller> network() {
    static std::shared_ptr<const BasecallNN::NNCaller> loaded = [] {
        auto caller = std::make_shared<BasecallNN::NNCallerCblas>();
        if (const char* path = std::getenv("KVX_BENCH_MODEL")) {
            BasecallNN::NNLoader(path).LoadInto(*caller);
            return std::shared_ptr<const BasecallNN::NNCaller>(caller);
        }
        Weights w;
        const int states = 1024;
        caller->AddConvolution(BasecallNN::v_tanh, 1, 11, 96, 5, 5, 5, w.matrix(11, 96, 0.3f), w.vector(96, 0.1f));
        caller->AddGru(96, 96, w.gru(96, 96), false, true, false);
        caller->AddGru(96, 96, w.gru(96, 96), false, false, false);
        caller->AddGru(96, 96, w.gru(96, 96), false, true, false);
        caller->AddSoftmax(96, states + 1, w.matrix(96, states + 1, 0.5f), w.vector(states + 1, 0.5f));
        caller->num_states = states + 1;
        caller->label_state = states;
        caller->feature_kind = BasecallNN::kFeaturesRaw;
        caller->decode_type = BasecallNN::kTransducer;
        caller->window = {0};
        return std::shared_ptr<const BasecallNN::NNCaller>(caller);
    }();
    return loaded;
}

double peakResidentMegabytes() {
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key) {
        if (key == "VmHWM:") {
            double kb = 0.0;
            status >> kb;
            return kb / 1024.0;
        }
        status.ignore(1 << 20, '\n');
    }
    return 0.0;
}

// One chunk of `events` events on each strand, strand 2 a little longer, the prior map a straight line.
void BM_ChunkCallerMDCpu(benchmark::State& state) {
    const auto events = static_cast<std::uint64_t>(state.range(0));
    AsyncCaller::ChunkCallerMDCpu caller(0, 1000, 5, network());
    const std::uint64_t stride = caller.stride;
    const std::uint64_t n1 = events * stride;
    const std::uint64_t n2 = events * stride + events * stride / 20;
    std::vector<float> s1(n1), s2(n2);
    std::mt19937 random(5);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    for (auto& x : s1) x = normal(random);
    for (auto& x : s2) x = normal(random);
    AsyncCaller::ChunkDataMD chunk;
    chunk.raw1 = Common::VecView<float>(s1);
    chunk.raw2 = Common::VecView<float>(s2);
    chunk.events1 = events;
    chunk.events2 = n2 / stride;
    chunk.priorStep = 10;
    for (std::uint64_t p = 0; p < n1; p += 10) {
        chunk.priorSamples.push_back(p * n2 / n1);
    }
    for (auto _ : state) {
        caller.SubmitChunk(&chunk);
        benchmark::DoNotOptimize(caller.GetCompletedChunk(false));
    }
    const auto t = caller.Timings();
    const double total = static_cast<double>(t.total_ns);
    // Wall-clock rate from the caller's own clock, and the rate over the benchmark's CPU time (the
    // honest figure on a shared machine).
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(t.events) / (total * 1e-9));
    state.counters["events_per_cpu_s"] =
        benchmark::Counter(static_cast<double>(events + chunk.events2), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["network_share"] = static_cast<double>(t.network_ns) / total;
    state.counters["decode2d_share"] = static_cast<double>(t.decode_ns) / total;
    state.counters["other_share"] = (total - static_cast<double>(t.network_ns + t.decode_ns)) / total;
    state.counters["bases"] = static_cast<double>(chunk.sequence.size());
    state.counters["peak_rss_MB"] = peakResidentMegabytes();
}

BENCHMARK(BM_ChunkCallerMDCpu)->Arg(950)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();
