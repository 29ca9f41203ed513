#include "strand_caller.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "async_caller/signal_scaling.h"
#include "basecall_nn/nn_types.h"
#include "common/event_data.h"
#include "common/logger.h"
#include "decoders/sequence_builder.h"

namespace TestBed {

float MeanQscore(const std::string& qualities) {
    if (qualities.empty()) {
        return 0.0f;
    }
    double sum = 0.0;
    for (char c : qualities) {
        sum += std::pow(10.0, (static_cast<int>(c) - 33) * -0.1);
    }
    return static_cast<float>(-10.0 * std::log10(sum / static_cast<double>(qualities.size())));
}

StrandCaller::StrandCaller(std::shared_ptr<const BasecallNN::NNCaller> network_, const SegmenterSettings& segmenter_,
                           const StrandCallSettings& settings_)
    : network(std::move(network_)), segmenter(segmenter_), settings(settings_) {
    if (network->feature_kind != BasecallNN::kFeaturesRaw) {
        throw std::runtime_error("The model reads events, not raw signal; basecaller_1d needs a raw model.");
    }
    if (network->decode_type == BasecallNN::kFlipflop) {
        throw std::runtime_error("Flip-flop models are not supported: the pair run reads k-mer moves.");
    }
    stride = static_cast<std::uint64_t>(std::max(1, network->event_stride));
    kmerLength = Common::KmerLengthFromStates(network->label_state);
    // The runner grows with the longest strand; start with room for a typical one.
    runner = network->CreateRunner(network, 60000);
    // The whole read is normalised here, before the strand is cut out, as the pair run does it.
    runner->normaliseRaw = false;
    runner->stayPenalty = settings.stay_penalty;
}

StrandCall StrandCaller::Call(const std::vector<std::int16_t>& raw, std::int16_t offset, float scale) {
    const std::uint64_t n = raw.size();
    if (n == 0) {
        throw std::runtime_error("The read has no samples.");
    }
    StrandCall call;
    picoamperes.resize(n);
    AsyncCaller::ScaleToPicoamps(raw.data(), n, offset, scale, picoamperes.data());
    call.segmentation = segmenter.Find(picoamperes.data(), n);

    normalised.resize(n);
    const auto scaled = processor.Process(scale, raw.data(), stride, normalised.data(), n, offset, 0);
    call.median = scaled.median;
    call.mad = scaled.mad;
    if (!(scaled.mad > 0.0f)) {
        throw std::runtime_error("The read's signal is flat (MAD 0); it cannot be normalised.");
    }

    // Whole blocks only: the pair run maps block e to samples [e, e + 1) * stride of the strand.
    const std::uint64_t blocks = call.segmentation.duration / stride;
    if (blocks == 0) {
        throw std::runtime_error("The strand is shorter than one block of the model.");
    }
    Common::EventData<Common::Deep> events(blocks);
    const Common::VecView<float> samples(normalised.data() + call.segmentation.first_sample, blocks * stride, 1);
    BasecallNN::TransProbs trans;
    runner->Call(events, samples, settings.sampling_rate, trans, 1e-5f, -1, -1, true, true,
                 settings.homopolymer_correct);
    if (runner->score == -std::numeric_limits<float>::infinity()) {
        throw std::runtime_error("Basecall failed: the decoder found no path through the posteriors.");
    }
    if (runner->moves.size() != blocks || runner->states.size() != blocks) {
        throw std::runtime_error("The decoder returned " + std::to_string(runner->moves.size()) + " moves for " +
                                 std::to_string(blocks) + " blocks.");
    }
    // The first block brings the whole first k-mer; the pair run's k = L + 1 - sum(moves) relies on
    // its move being 1.
    if (runner->moves[0] != 1) {
        throw std::runtime_error("The decoded path does not start with a move of 1.");
    }

    const std::uint64_t width = static_cast<std::uint64_t>(4 * kmerLength);
    const Common::MatView<const float> quality(runner->qualityData.data(), blocks, width,
                                               static_cast<std::int64_t>(width), 1);
    BasecallCommon::BuildSequence(settings.qscore_offset, settings.qscore_scale, quality,
                                  Common::VecView<const int>(runner->states.data(), blocks, 1),
                                  Common::VecView<const signed char>(runner->moves.data(), blocks, 1), call.sequence,
                                  call.qualities);
    call.moves.assign(runner->moves.begin(), runner->moves.end());
    call.block_stride = stride;
    call.kmer_length = static_cast<std::uint64_t>(kmerLength);
    call.score = runner->score;
    call.mean_qscore = MeanQscore(call.qualities);
    KVX_LOG(verbose) << "Called " << blocks << " blocks into " << call.sequence.size() << " bases";
    return call;
}

}  // namespace TestBed
