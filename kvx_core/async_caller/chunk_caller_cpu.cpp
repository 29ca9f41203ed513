#include "async_caller/chunk_caller_cpu.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "basecall_nn/nn_caller_cblas.h"
#include "common/event_data.h"

namespace AsyncCaller {

namespace {
std::shared_ptr<const BasecallNN::NNCaller> loadNetwork(const BasecallNN::NNLoader& model) {
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    model.LoadInto(*network);
    return network;
}
}  // namespace

ChunkCallerCpu::ChunkCallerCpu(std::uint64_t threads, std::uint64_t chunk_size_, float stay_penalty_,
                               const BasecallNN::NNLoader& model, bool homopolymer_)
    : ChunkCallerCpu(threads, chunk_size_, stay_penalty_, loadNetwork(model), homopolymer_) {}

ChunkCallerCpu::ChunkCallerCpu(std::uint64_t threads, std::uint64_t chunk_size_, float stay_penalty_,
                               std::shared_ptr<const BasecallNN::NNCaller> network, bool homopolymer_)
    : ChunkCallerPool("ChunkCallerCpu", threads),
      chunk_size(chunk_size_),
      stay_penalty(stay_penalty_),
      homopolymer(homopolymer_),
      stride(static_cast<std::uint64_t>(std::max(network->event_stride, 1))),
      caller(std::move(network)) {
    if (caller->feature_kind != BasecallNN::kFeaturesRaw) {
        throw std::runtime_error("Event based models not supported.");
    }
    for (std::size_t i = 0; i < WorkerCount(); ++i) {
        // Input rows of a raw model are samples.
        auto runner = caller->CreateRunner(caller, static_cast<int>(chunk_size * stride));
        runner->stayPenalty = stay_penalty;
        runner->normaliseRaw = false;
        runner->useSimpleDecode = caller->decode_type == BasecallNN::kNontransducer;
        runners.push_back(std::move(runner));
    }
    startWorkers();
}

ChunkCallerCpu::~ChunkCallerCpu() { stopWorkers(); }

void ChunkCallerCpu::processChunk(ChunkData& chunk, int worker) {
    auto& c = static_cast<ChunkData1D&>(chunk);
    BasecallNN::NNRunner& runner = *runners[static_cast<std::size_t>(worker)];
    c.states.clear();
    c.moves.clear();
    c.weights.clear();
    c.posteriors.clear();
    c.score = 0.0f;
    const int k = Common::KmerLengthFromStates(caller->label_state);
    c.kmerLength = static_cast<std::uint64_t>(k);
    c.posterior_cols = static_cast<std::uint64_t>(4 * k);

    const std::uint64_t events = c.raw.size / stride;
    if (events == 0) {
        return;
    }
    Common::EventData<Common::Deep> record(events);
    const Common::VecView<float> samples(c.raw.data, events * stride, c.raw.stride);
    BasecallNN::TransProbs trans;
    runner.Call(record, samples, 4000.0f, trans, 1e-5f, -1, -1, true, true, homopolymer);
    c.score = runner.score;
    if (runner.score == -std::numeric_limits<float>::infinity()) {
        return;
    }
    c.states = runner.states;
    c.moves = runner.moves;
    c.weights = runner.weights;
    c.posteriors = runner.qualityData;
    c.events = c.states.size();
}

}  // namespace AsyncCaller
