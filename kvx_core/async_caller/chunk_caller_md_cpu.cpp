#include "async_caller/chunk_caller_md_cpu.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "basecall_nn/nn_caller_cblas.h"
#include "async_caller/event_detector.h"
#include "decoders/prior_band.h"
#include "decoders/sequence_builder.h"

namespace AsyncCaller {

namespace {

std::shared_ptr<const BasecallNN::NNCaller> loadNetwork(const BasecallNN::NNLoader& model) {
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    model.LoadInto(*network);
    return network;
}

std::uint64_t checkedKmerLength(const BasecallNN::NNCaller& network) {
    if (network.decode_type == BasecallNN::kFlipflop) {
        throw std::runtime_error("Cannot use Flipflop model for Md basecall.");
    }
    return static_cast<std::uint64_t>(Common::KmerLengthFromStates(network.label_state));
}

std::uint64_t nanosSince(std::chrono::steady_clock::time_point start) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start).count());
}

}  // namespace

std::vector<int> ReverseComplementStates(std::uint64_t kmerLength) {
    std::vector<int> complement(std::size_t{1} << (2 * kmerLength));
    for (std::uint64_t s = 0; s < complement.size(); ++s) {
        std::uint64_t rc = 0;
        for (std::uint64_t t = 0; t < kmerLength; ++t) {
            const std::uint64_t base = (s >> (2 * t)) & 3;
            rc |= (3 - base) << (2 * (kmerLength - 1 - t));
        }
        complement[s] = static_cast<int>(rc);
    }
    return complement;
}

void ReverseComplementRows(const Common::MatView<const float>& from, const std::vector<int>& complement, float* out) {
    const std::uint64_t rows = from.rows;
    const std::uint64_t cols = from.cols;
    for (std::uint64_t i = 0; i < rows; ++i) {
        const float* row = from.data + static_cast<std::int64_t>(rows - 1 - i) * from.rowStride;
        float* to = out + i * cols;
        for (std::uint64_t c = 0; c < cols; ++c) {
            to[c] = row[complement[c]];
        }
    }
}

ChunkCallerMDCpu::ChunkCallerMDCpu(std::uint64_t threads, std::uint64_t chunk_size_, int band_size_,
                                   const BasecallNN::NNLoader& model)
    : ChunkCallerMDCpu(threads, chunk_size_, band_size_, loadNetwork(model)) {}

ChunkCallerMDCpu::ChunkCallerMDCpu(std::uint64_t threads, std::uint64_t chunk_size_, int band_size_,
                                   std::shared_ptr<const BasecallNN::NNCaller> network)
    : ChunkCallerPool("ChunkCallerMDCpu", threads),
      chunk_size(chunk_size_),
      isRaw(network->feature_kind == BasecallNN::kFeaturesRaw),
      isTransducer(network->decode_type == BasecallNN::kTransducer),
      stride(static_cast<std::uint64_t>(std::max(network->event_stride, 1))),
      kmerLength(checkedKmerLength(*network)),
      maxEvents(isRaw ? chunk_size_ : 2 * chunk_size_),
      band_size(band_size_),
      caller(std::move(network)),
      numStates(1ull << (2 * kmerLength)) {
    complementState = ReverseComplementStates(kmerLength);
    qualityMatrix = std::make_unique<BasecallHMM::QualityMatrix>(static_cast<std::int64_t>(numStates));

    // The runner's rows are input rows: samples for a raw model, events for an event model.
    const int inputRows = static_cast<int>(isRaw ? maxEvents * stride : maxEvents);
    const int maxNodes = static_cast<int>(maxEvents) * 5 * band_size;
    for (std::size_t i = 0; i < WorkerCount(); ++i) {
        resources.push_back(std::make_unique<Resources>());
        Resources& r = *resources.back();
        r.runner = caller->CreateRunner(caller, inputRows);
        r.runner2 = caller->CreateRunner(caller, inputRows);
        r.runner->normaliseRaw = false;  // chunks arrive already scaled
        r.runner2->normaliseRaw = false;
        r.decoder = std::make_shared<BasecallMD::ViterbiMD>(maxNodes, static_cast<int>(maxEvents),
                                                            static_cast<int>(numStates), 0.0f, 0.0f);
        r.post2.reserve(maxEvents * numStates);
        r.stay1.reserve(maxEvents);
        r.stay2.reserve(maxEvents);
        r.startScores.assign(numStates, 0);
    }
    startWorkers();
}

ChunkCallerMDCpu::~ChunkCallerMDCpu() {
    // No worker may run while the runners and decoders go.
    stopWorkers();
}

void ChunkCallerMDCpu::SetEventDetection(std::uint64_t winsize1_, std::uint64_t winsize2_, float threshold1_,
                                         float threshold2_, float peak_height) {
    winsize1 = winsize1_;
    winsize2 = winsize2_;
    threshold1 = threshold1_;
    threshold2 = threshold2_;
    peakHeight = peak_height;
}

void ChunkCallerMDCpu::processChunk(ChunkData& chunk, int worker) {
    Resources& r = *resources[static_cast<std::size_t>(worker)];
    const auto start = std::chrono::steady_clock::now();
    callPair(static_cast<ChunkDataMD&>(chunk), r);
    r.totalNs += nanosSince(start);
    r.chunks += 1;
}

ChunkCallerMDCpu::Timing ChunkCallerMDCpu::Timings() const {
    Timing t;
    for (const auto& r : resources) {
        t.chunks += r->chunks;
        t.events += r->events;
        t.network_ns += r->networkNs;
        t.decode_ns += r->decodeNs;
        t.total_ns += r->totalNs;
    }
    return t;
}

float* ChunkCallerMDCpu::takeStrand(const BasecallNN::NNRunner& runner, const BasecallNN::TransProbs& trans,
                                    bool second, std::vector<float>& post, std::vector<float>& stay,
                                    float& skip, std::uint64_t& rows) {
    if (runner.score == -std::numeric_limits<float>::infinity()) {
        return nullptr;
    }
    const Common::MatView<float>& p = runner.posteriors;
    rows = p.rows;
    const std::uint64_t cols = p.cols;
    if (cols != numStates || p.colStride != 1) {
        throw std::runtime_error("Unexpected size of posterior matrix.");
    }
    stay.resize(rows);
    for (std::uint64_t i = 0; i < rows; ++i) {
        if (isTransducer) {
            stay[i] = 1.0f - runner.weights[second ? rows - 1 - i : i];
        } else {
            stay[i] = trans.stay;
        }
    }
    skip = trans.skip / (trans.step + trans.skip);
    if (isTransducer) {
        skip *= 0.002f;
    }
    // Strand 1's rows are used where the runner left them (dense after the stay column went), with
    // no copy of a matrix larger than the cache.
    const bool dense = p.rowStride == static_cast<std::int64_t>(cols);
    if (!second && dense) {
        return p.data;
    }
    post.resize(rows * cols);
    if (second) {
        ReverseComplementRows(p, complementState, post.data());
        return post.data();
    }
    for (std::uint64_t i = 0; i < rows; ++i) {
        std::copy_n(p.data + static_cast<std::int64_t>(i) * p.rowStride, cols, post.data() + i * cols);
    }
    return post.data();
}

void ChunkCallerMDCpu::callPair(ChunkDataMD& c, Resources& r) {
    c.sequence.clear();
    c.qualities.clear();
    c.score = 0.0f;
    c.kmerLength = kmerLength;
    if (c.raw1.size < stride || c.raw2.size < stride) {
        return;
    }
    Common::VecView<float> samples1, samples2;
    if (isRaw) {
        r.events1.resize(c.raw1.size / stride);
        r.events2.resize(c.raw2.size / stride);
        // The network takes whole events: a trailing part of a stride is left out.
        samples1 = Common::VecView<float>(c.raw1.data, r.events1.size() * stride, c.raw1.stride);
        samples2 = Common::VecView<float>(c.raw2.data, r.events2.size() * stride, c.raw2.stride);
    } else {
        const EventDetectionSettings settings{winsize1, winsize2, threshold1, threshold2, peakHeight};
        DetectEvents(c.raw1, settings, r.events1);
        DetectEvents(c.raw2, settings, r.events2);
    }
    const std::uint64_t n1 = r.events1.size();
    const std::uint64_t n2 = r.events2.size();
    if (n1 > maxEvents || n2 > maxEvents || n1 < 2 || n2 < 2) {
        return;
    }
    // Strand 2 is decoded backward, so its events are located by their distance from the window's
    // end; the event starts are taken before the network may drop any event.
    std::vector<std::uint64_t> starts1, starts2;
    if (!isRaw) {
        starts1.assign(r.events1.start.begin(), r.events1.start.end());
        starts2.resize(n2);
        for (std::uint64_t j = 0; j < n2; ++j) {
            const std::uint64_t e = n2 - 1 - j;
            starts2[j] = c.raw2.size - (r.events2.start[e] + r.events2.length[e]);
        }
    }

    float skip1 = 0.0f, skip2 = 0.0f;
    std::uint64_t rows1 = 0, rows2 = 0;
    r.events += n1 + n2;
    const auto networkStart = std::chrono::steady_clock::now();
    BasecallNN::TransProbs trans1, trans2;
    r.runner->CallPair(*r.runner2, BasecallNN::StrandCall{r.events1, samples1, trans1},
                       BasecallNN::StrandCall{r.events2, samples2, trans2}, 4000.0f, 1e-5f, true, true, false);
    float* rows1Data = takeStrand(*r.runner, trans1, false, r.post1, r.stay1, skip1, rows1);
    float* rows2Data =
        rows1Data != nullptr ? takeStrand(*r.runner2, trans2, true, r.post2, r.stay2, skip2, rows2) : nullptr;
    const bool called = rows2Data != nullptr;
    r.networkNs += nanosSince(networkStart);
    if (!called) {
        return;
    }
    if (rows1 == 0 || rows2 == 0 || (!isRaw && (rows1 != n1 || rows2 != n2))) {
        return;
    }

    const BasecallMD::StrandEventIndex index =
        isRaw ? BasecallMD::StrandEventIndex(stride, rows1 * stride, rows2 * stride)
              : BasecallMD::StrandEventIndex(std::move(starts1), c.raw1.size, std::move(starts2), c.raw2.size);
    const BasecallMD::BandPath path = BasecallMD::buildBandPath(c.priorSamples, c.priorStep, index);
    BasecallMD::buildBand(path, band_size, r.bandStart, r.bandEnd);

    const auto cols = static_cast<std::int64_t>(numStates);
    Common::MatView<float> post1(rows1Data, rows1, numStates, cols, 1);
    Common::MatView<float> post2(rows2Data, rows2, numStates, cols, 1);
    const Common::VecView<float> stay1(r.stay1.data(), rows1, 1);
    const Common::VecView<float> stay2(r.stay2.data(), rows2, 1);
    const auto decodeStart = std::chrono::steady_clock::now();
    const float result = r.decoder->Call(post1, post2, stay1, stay2, r.bandStart, r.bandEnd, r.startScores,
                                         r.alignment, r.states, skip1, skip2);
    r.decodeNs += nanosSince(decodeStart);
    const std::uint64_t steps = r.alignment.size();
    if (steps == 0) {
        return;
    }

    // One row per step of the joint path: a step on both strands takes the normalised product of
    // their rows, a step on one strand that strand's row. Each product row's sum is one chain of
    // dependent adds in state order, so the rows go in blocks whose chains run side by side.
    r.merged.resize(steps * numStates);
    constexpr std::uint64_t kBlock = 8;
    for (std::uint64_t first = 0; first < steps; first += kBlock) {
        const std::uint64_t count = std::min(kBlock, steps - first);
        float* product[kBlock];
        std::uint64_t products = 0;
        for (std::uint64_t s = first; s < first + count; ++s) {
            const int a = r.alignment[s].first;
            const int b = r.alignment[s].second;
            float* out = r.merged.data() + s * numStates;
            if (a == -1) {
                std::copy_n(rows2Data + static_cast<std::uint64_t>(b) * numStates, numStates, out);
            } else if (b == -1) {
                std::copy_n(rows1Data + static_cast<std::uint64_t>(a) * numStates, numStates, out);
            } else {
                const float* x = rows1Data + static_cast<std::uint64_t>(a) * numStates;
                const float* y = rows2Data + static_cast<std::uint64_t>(b) * numStates;
                for (std::uint64_t k = 0; k < numStates; ++k) {
                    out[k] = x[k] * y[k];
                }
                product[products++] = out;
            }
        }
        float sum[kBlock] = {};
        if (products == kBlock) {
            for (std::uint64_t k = 0; k < numStates; ++k) {
                for (std::uint64_t j = 0; j < kBlock; ++j) {
                    sum[j] += product[j][k];
                }
            }
        } else {
            for (std::uint64_t j = 0; j < products; ++j) {
                for (std::uint64_t k = 0; k < numStates; ++k) {
                    sum[j] += product[j][k];
                }
            }
        }
        for (std::uint64_t j = 0; j < products; ++j) {
            const float inverse = 1.0f / sum[j];
            for (std::uint64_t k = 0; k < numStates; ++k) {
                product[j][k] *= inverse;
            }
        }
    }
    const std::uint64_t qualityCols = 4 * kmerLength;
    r.quality.resize(steps * qualityCols);
    const Common::MatView<float> merged(r.merged.data(), steps, numStates, cols, 1);
    Common::MatView<float> quality(r.quality.data(), steps, qualityCols, static_cast<std::int64_t>(qualityCols), 1);
    qualityMatrix->Apply(merged, quality);
    BasecallCommon::BuildSequence(*this, Common::MatView<const float>(quality), r.states, r.decoder->Moves(),
                                  c.sequence, c.qualities);
    c.score = result / static_cast<float>(steps);
}

}  // namespace AsyncCaller
