#include "basecall_nn/nn_runner_cblas.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "basecall_nn/blas_helpers.h"
#include "common/logger.h"
#include "decoders/state_moves.h"

namespace BasecallNN {

NNRunner::~NNRunner() = default;

void NNRunner::CallPair(NNRunner& second, const StrandCall& one, const StrandCall& two, float sampleRate,
                        float minProb, bool extractPath, bool shrink, bool homopolymerCorrect) {
    Call(one.events, one.rawSamples, sampleRate, one.transProbs, minProb, one.firstEvent, one.lastEvent, extractPath,
         shrink, homopolymerCorrect);
    second.Call(two.events, two.rawSamples, sampleRate, two.transProbs, minProb, two.firstEvent, two.lastEvent,
                extractPath, shrink, homopolymerCorrect);
}

std::shared_ptr<NNRunner> NNCallerCblas::CreateRunner(std::shared_ptr<const NNCaller> self, int maxRows) const {
    KVX_LOG(verbose) << "Creating NNRunerCblas";
    auto cblas = std::dynamic_pointer_cast<const NNCallerCblas>(self);
    if (!cblas || cblas.get() != this) {
        throw std::runtime_error("CreateRunner needs the shared pointer that owns this NNCallerCblas.");
    }
    return std::make_shared<NNRunnerCblas>(std::move(cblas), maxRows);
}

namespace {

int paddedWidth(int width) { return static_cast<int>(Common::PaddedStride(static_cast<std::size_t>(width))); }

// Rows of a layer's output for rows in, never negative (a window longer than a short chunk).
int outputRows(const CblasLayer& layer, int rows) { return std::max(0, layer.OutputRows(rows)); }

// Sums of rows [first, first + count) of m over their first cols entries, each added in column order.
// A row's sum is one chain of dependent adds, so up to kSumRows rows are summed side by side: their
// chains overlap, each in its own order.
constexpr std::size_t kSumRows = 8;
void sumRows(const Common::MatView<float>& m, std::size_t first, std::size_t count, std::size_t cols, float* sums) {
    if (count == kSumRows) {
        const float* row[kSumRows];
        float acc[kSumRows];
        for (std::size_t j = 0; j < kSumRows; ++j) {
            row[j] = m.data + static_cast<std::int64_t>(first + j) * m.rowStride;
            acc[j] = 0.0f;
        }
        for (std::size_t c = 0; c < cols; ++c) {
            for (std::size_t j = 0; j < kSumRows; ++j) {
                acc[j] += row[j][c];
            }
        }
        std::copy_n(acc, kSumRows, sums);
        return;
    }
    for (std::size_t j = 0; j < count; ++j) {
        const float* row = m.data + static_cast<std::int64_t>(first + j) * m.rowStride;
        float sum = 0.0f;
        for (std::size_t c = 0; c < cols; ++c) {
            sum += row[c];
        }
        sums[j] = sum;
    }
}

}  // namespace

NNRunnerCblas::NNRunnerCblas(std::shared_ptr<const NNCallerCblas> caller_, int maxRows) : caller(std::move(caller_)) {
    if (!caller || caller->Layers().empty()) {
        throw std::runtime_error("Cannot run a network with no layers.");
    }
    detail::useSingleThreadedBlas();
    useSimpleDecode = caller->decode_type == kNontransducer;
    Reserve(maxRows);
}

void NNRunnerCblas::Reserve(int rows) {
    if (rows <= preparedRows) {
        return;
    }
    const auto& layers = caller->Layers();
    std::size_t sizeA = static_cast<std::size_t>(paddedWidth(layers.front()->inSize)) * rows;
    std::size_t sizeB = 0;
    std::size_t scratchSize = 0;
    int r = rows;
    for (std::size_t i = 0; i < layers.size(); ++i) {
        scratchSize = std::max(scratchSize, static_cast<std::size_t>(std::max(0, layers[i]->ScratchSize(r))));
        r = outputRows(*layers[i], r);
        const std::size_t need = static_cast<std::size_t>(paddedWidth(layers[i]->outSize)) * r;
        // Layer i reads the buffer that layer i - 1 wrote: even layers write B, odd layers A.
        std::size_t& target = i % 2 == 0 ? sizeB : sizeA;
        target = std::max(target, need);
    }
    // At least one element each, so that views of empty results still have memory to point at.
    bufferA.resize(std::max(bufferA.size(), std::max<std::size_t>(sizeA, 8)));
    bufferB.resize(std::max(bufferB.size(), std::max<std::size_t>(sizeB, 8)));
    scratch.resize(std::max(scratch.size(), std::max<std::size_t>(scratchSize, 8)));
    preparedRows = rows;
    KVX_LOG(trace) << "NNRunnerCblas reserved " << rows << " rows: buffers of " << bufferA.size() << " and "
                   << bufferB.size() << " floats, scratch of " << scratch.size();
}

Common::MatView<float> NNRunnerCblas::InputView() {
    const int width = caller->Layers().front()->inSize;
    return Common::MatView<float>(bufferA.data(), static_cast<std::uint64_t>(preparedRows),
                                  static_cast<std::uint64_t>(width), paddedWidth(width), 1);
}

NNRunnerCblas::Pass NNRunnerCblas::startPass(int rows) {
    Reserve(rows);
    return Pass{bufferA.data(), bufferB.data(), rows};
}

void NNRunnerCblas::layerViews(const CblasLayer& layer, Pass& pass, Common::MatView<float>& in,
                               Common::MatView<float>& out) {
    const int outRows = outputRows(layer, pass.rows);
    in = Common::MatView<float>(pass.current, static_cast<std::uint64_t>(preparedRows),
                                static_cast<std::uint64_t>(layer.inSize), paddedWidth(layer.inSize), 1)
             .submatrix(0, 0, static_cast<std::uint64_t>(pass.rows), static_cast<std::uint64_t>(layer.inSize));
    const std::size_t otherSize = pass.other == bufferA.data() ? bufferA.size() : bufferB.size();
    const std::uint64_t capacity = otherSize / static_cast<std::size_t>(paddedWidth(layer.outSize));
    out = Common::MatView<float>(pass.other, capacity, static_cast<std::uint64_t>(layer.outSize),
                                 paddedWidth(layer.outSize), 1)
              .submatrix(0, 0, static_cast<std::uint64_t>(outRows), static_cast<std::uint64_t>(layer.outSize));
    std::swap(pass.current, pass.other);
    pass.rows = outRows;
}

Common::MatView<float> NNRunnerCblas::Run(int rows) {
    Pass pass = startPass(rows);
    Common::MatView<float> in, out;
    for (const auto& layer : caller->Layers()) {
        layerViews(*layer, pass, in, out);
        layer->Process(in, out, scratch.data());
    }
    return out;
}

std::pair<Common::MatView<float>, Common::MatView<float>> NNRunnerCblas::RunPair(NNRunnerCblas& second, int rows1,
                                                                                 int rows2) {
    if (&second == this || second.caller != caller) {
        throw std::runtime_error("RunPair needs a second runner of the same network.");
    }
    // Each layer's scratch covers two strands of up to the rows reserved for, in this runner.
    Reserve(std::max(rows1, rows2));
    Pass pass1 = startPass(rows1);
    Pass pass2 = second.startPass(rows2);
    Common::MatView<float> in1, out1, in2, out2;
    for (const auto& layer : caller->Layers()) {
        layerViews(*layer, pass1, in1, out1);
        second.layerViews(*layer, pass2, in2, out2);
        layer->ProcessPair(in1, out1, in2, out2, scratch.data());
    }
    return {out1, out2};
}

void NNRunnerCblas::computeFeaturesRaw(const Common::VecView<float>& rawSamples) {
    try {
        if (caller->feature_kind != kFeaturesRaw) {
            throw std::runtime_error("Trying to run event model with raw data.");
        }
        const std::size_t n = rawSamples.size;
        Reserve(static_cast<int>(n));
        Common::MatView<float> input = InputView();
        if (input.cols != 1) {
            throw std::runtime_error("A raw model must read one value per row, but its first layer reads " +
                                     std::to_string(input.cols) + ".");
        }
        if (!normaliseRaw) {
            for (std::size_t i = 0; i < n; ++i) {
                input(i, 0) = rawSamples[i];
            }
            return;
        }
        rawWork.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            rawWork[i] = rawSamples[i];
        }
        const auto middle = rawWork.begin() + static_cast<std::ptrdiff_t>(n / 2);
        std::nth_element(rawWork.begin(), middle, rawWork.end());
        const float median = *middle;
        for (float& x : rawWork) {
            x = std::fabs(x - median);
        }
        std::nth_element(rawWork.begin(), middle, rawWork.end());
        const float mad = *middle * 1.4826f;
        for (std::size_t i = 0; i < n; ++i) {
            input(i, 0) = (rawSamples[i] - median) / mad;
        }
    } catch (const std::exception& e) {
        KVX_LOG(error) << "Exception raised during computeFeaturesRaw: " << e.what();
        throw;
    }
}

// Event features: each event's level, spread and dwell (length / sampleRate), studentised over the
// strand for feature kind 1 ("studentise"), taken as they are otherwise; an input row holds the features
// of the events at the model's window offsets, zeros beyond the strand's ends.
void NNRunnerCblas::computeFeaturesEvents(const Common::EventData<Common::Deep>& events, float sampleRate) {
    if (caller->feature_kind == kFeaturesRaw) {
        throw std::runtime_error("Trying to run raw model with event data.");
    }
    constexpr int kFeatures = 3;
    const std::size_t n = events.size();
    const auto& window = caller->window;
    Reserve(static_cast<int>(n));
    Common::MatView<float> input = InputView();
    if (input.cols != kFeatures * window.size()) {
        throw std::runtime_error("The model reads " + std::to_string(input.cols) + " features per event, but its " +
                                 std::to_string(window.size()) + " window offsets give " +
                                 std::to_string(kFeatures * window.size()) + ".");
    }
    featureWork.resize(n * kFeatures);
    for (std::size_t i = 0; i < n; ++i) {
        featureWork[i * kFeatures + 0] = events.mean[i];
        featureWork[i * kFeatures + 1] = events.stdv[i];
        featureWork[i * kFeatures + 2] = static_cast<float>(events.length[i]) / sampleRate;
    }
    if (caller->feature_kind == kFeaturesStudentise && n > 0) {
        for (int f = 0; f < kFeatures; ++f) {
            double sum = 0.0, sumSq = 0.0;
            for (std::size_t i = 0; i < n; ++i) {
                const double x = featureWork[i * kFeatures + f];
                sum += x;
                sumSq += x * x;
            }
            const double mean = sum / n;
            const double sd = std::sqrt(std::max(0.0, sumSq / n - mean * mean));
            const double scale = sd > 0.0 ? 1.0 / sd : 1.0;
            for (std::size_t i = 0; i < n; ++i) {
                float& x = featureWork[i * kFeatures + f];
                x = static_cast<float>((x - mean) * scale);
            }
        }
    }
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t w = 0; w < window.size(); ++w) {
            const std::int64_t source = static_cast<std::int64_t>(i) + window[w];
            for (int f = 0; f < kFeatures; ++f) {
                input(i, w * kFeatures + f) = source >= 0 && source < static_cast<std::int64_t>(n)
                                                  ? featureWork[static_cast<std::size_t>(source) * kFeatures + f]
                                                  : 0.0f;
            }
        }
    }
}

template <typename Depth>
std::size_t NNRunnerCblas::ShrinkPosteriors(Common::EventData<Depth>& events, int first, int last, bool renormalise,
                                            float p) {
    const std::size_t cols = static_cast<std::size_t>(caller->num_states) - (renormalise ? 1 : 0);
    const bool isTransducer = caller->decode_type == kTransducer;
    if (posteriors.cols != static_cast<std::uint64_t>(caller->num_states) || posteriors.colStride != 1) {
        throw std::runtime_error("Unexpected size of posterior matrix.");
    }
    if (!isTransducer) {
        weights.clear();
    }
    if (first < 0) {
        last = first;
    }
    const bool moveWeights = isTransducer && weights.size() == posteriors.rows;
    const bool moveStates = !states.empty();
    const std::size_t width = posteriors.cols;
    removed.clear();
    float* data = posteriors.data;
    std::size_t kept = 0;
    float sums[kSumRows];
    for (std::size_t r = 0; r < posteriors.rows; ++r) {
        float* src = data + static_cast<std::int64_t>(r) * posteriors.rowStride;
        // The sums of the next block of rows, taken before any of them is written: kept <= r dense
        // rows of cols <= rowStride entries end at or before the start of row r.
        if (r % kSumRows == 0) {
            sumRows(posteriors, r, std::min(kSumRows, posteriors.rows - r), cols, sums);
        }
        bool drop = false;
        if (static_cast<std::int64_t>(r) >= first && static_cast<std::int64_t>(r) < last) {
            if (isTransducer) {
                drop = moveStates && states[r] < 0;
            } else {
                // Dropped when the bucket column is the largest; a tie with an earlier column keeps it.
                std::size_t best = 0;
                for (std::size_t c = 1; c < width; ++c) {
                    if (src[c] > src[best]) {
                        best = c;
                    }
                }
                drop = best == width - 1;
            }
        }
        if (drop) {
            removed.push_back(static_cast<int>(r));
            continue;
        }
        // Row `kept` of the dense result starts at or before row r of the source and may overlap it,
        // but ends before row r + 1: the row is renormalised where it is, then moved.
        float* dst = data + kept * cols;
        const float sum = sums[r % kSumRows];
        if (!isTransducer) {
            weights.push_back(sum);
        }
        if (renormalise) {
            const float denominator = sum + static_cast<float>(cols) * p;
#pragma omp simd
            for (std::size_t c = 0; c < cols; ++c) {
                src[c] = (src[c] + p) / denominator;
            }
        }
        if (dst != src) {
            std::memmove(dst, src, sizeof(float) * cols);
        }
        if (moveStates) {
            states[kept] = states[r];
        }
        if (moveWeights) {
            weights[kept] = weights[r];
        }
        ++kept;
    }
    if (moveStates) {
        states.resize(kept);
    }
    if (moveWeights) {
        weights.resize(kept);
    }
    KVX_LOG(trace) << "Removing events " << [&] {
        std::ostringstream os;
        for (std::size_t i = 0; i < removed.size(); ++i) {
            os << (i == 0 ? "" : " ") << removed[i];
        }
        return os.str();
    }();
    events = removed;
    if (events.size() != weights.size()) {
        throw std::runtime_error("Weight vector corrupted.");
    }
    posteriors = Common::MatView<float>(data, kept, cols, static_cast<std::int64_t>(std::max<std::size_t>(cols, 1)), 1);
    return kept;
}

template std::size_t NNRunnerCblas::ShrinkPosteriors<Common::Deep>(Common::EventData<Common::Deep>&, int, int, bool,
                                                                   float);
template std::size_t NNRunnerCblas::ShrinkPosteriors<Common::Shallow>(Common::EventData<Common::Shallow>&, int, int,
                                                                      bool, float);

// The transducer's path, then the stays carried forward: a row's chance of bringing no new base also
// carries its predecessor's state distribution into it.
bool NNRunnerCblas::decodeTransducer(TransProbs& transProbs, bool extractPath, bool homopolymerCorrect) {
    const std::size_t n = posteriors.rows;
    const std::size_t last = posteriors.cols - 1;
    if (extractPath) {
        KVX_LOG(trace) << "Extracting path via TransducerDecode()";
        if (!transducer.Decode(posteriors, states, moves, score, stayPenalty, homopolymerCorrect)) {
            return false;
        }
    }
    weights.resize(n);
    double staySum = 0.0;
    if (n > 0) {
        weights[0] = 1.0f - posteriors(0, last);
    }
    for (std::size_t i = 1; i < n; ++i) {
        const float b = posteriors(i, last);
        float* row = posteriors.data + static_cast<std::int64_t>(i) * posteriors.rowStride;
        const float* prev = row - posteriors.rowStride;
        // Two distinct rows: no entry of one is an entry of the other.
#pragma omp simd
        for (std::size_t s = 0; s < last; ++s) {
            row[s] += prev[s] * b;
        }
        weights[i] = 1.0f - b;
        staySum += b;
    }
    if (n > 0) {
        const double rows = static_cast<double>(n);
        transProbs.stay = static_cast<float>(staySum / rows);
        if (extractPath) {
            std::size_t zeros = 0, twos = 0;
            for (signed char m : moves) {
                zeros += m == 0;
                twos += m == 2;
            }
            // Skips in proportion to the path's moves, scaled by how the stay estimate compares with the
            // path's stays; a path with no stay leaves that ratio undefined, and it is taken as 1.
            const double stayRatio = zeros > 0 ? transProbs.stay / (zeros / rows) : 1.0;
            transProbs.skip = static_cast<float>((twos / rows) * stayRatio);
        } else {
            transProbs.skip = 0.0f;
        }
        transProbs.step = 1.0f - transProbs.stay - transProbs.skip;
    }
    return true;
}

// Flip-flop scores are decoded as they are (see FlipflopDecoder); their quality data has one column
// per base, the posterior probability of each base at the row's position.
bool NNRunnerCblas::decodeFlipflop(bool extractPath, int firstEvent, int lastEvent) {
    const std::size_t n = posteriors.rows;
    qualityData.resize(n * 4);
    Common::MatView<float> data(qualityData.data(), n, 4, 4, 1);
    if (!flipflop.Decode(posteriors, states, moves, weights, extractPath ? &data : nullptr, score)) {
        return false;
    }
    if (!extractPath) {
        states.clear();
        moves.clear();
        qualityData.clear();
        return true;
    }
    statePosteriors.resize(n);
    pathViews.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        statePosteriors[i] = data(i, static_cast<std::uint64_t>(states[i]));
        pathViews[i] = Common::VecView<float>(qualityData.data() + i * 4, 4, 1);
    }
    fillTrimmedPath(firstEvent, lastEvent);
    return true;
}

void NNRunnerCblas::fillTrimmedPath(int firstEvent, int lastEvent) {
    std::size_t begin = 0;
    std::size_t end = states.size();
    if (firstEvent >= 0) {
        begin = std::min(static_cast<std::size_t>(firstEvent), end);
        if (lastEvent >= 0) {
            end = std::max(begin, std::min(static_cast<std::size_t>(lastEvent), end));
        }
    }
    pathStates.assign(states.begin() + static_cast<std::ptrdiff_t>(begin),
                      states.begin() + static_cast<std::ptrdiff_t>(end));
    pathPosteriors.assign(statePosteriors.begin() + static_cast<std::ptrdiff_t>(begin),
                          statePosteriors.begin() + static_cast<std::ptrdiff_t>(end));
}

void NNRunnerCblas::fail(Common::EventData<Common::Deep>& events) {
    KVX_LOG(verbose) << "Basecall failed";
    events.resize(0);
    score = -std::numeric_limits<float>::infinity();
}

void NNRunnerCblas::Call(Common::EventData<Common::Deep>& events, const Common::VecView<float>& rawSamples,
                         float sampleRate, TransProbs& transProbs, float minProb, int firstEvent, int lastEvent,
                         bool extractPath, bool shrink, bool homopolymerCorrect) {
    const int inputRows = beginCall(events, rawSamples, sampleRate, extractPath, shrink);
    posteriors = Run(inputRows);
    finishCall(events, transProbs, minProb, firstEvent, lastEvent, extractPath, shrink, homopolymerCorrect);
}

void NNRunnerCblas::CallPair(NNRunner& secondBase, const StrandCall& one, const StrandCall& two, float sampleRate,
                             float minProb, bool extractPath, bool shrink, bool homopolymerCorrect) {
    auto* second = dynamic_cast<NNRunnerCblas*>(&secondBase);
    if (second == nullptr || second == this || second->caller != caller) {
        NNRunner::CallPair(secondBase, one, two, sampleRate, minProb, extractPath, shrink, homopolymerCorrect);
        return;
    }
    const int rows1 = beginCall(one.events, one.rawSamples, sampleRate, extractPath, shrink);
    const int rows2 = second->beginCall(two.events, two.rawSamples, sampleRate, extractPath, shrink);
    std::tie(posteriors, second->posteriors) = RunPair(*second, rows1, rows2);
    finishCall(one.events, one.transProbs, minProb, one.firstEvent, one.lastEvent, extractPath, shrink,
               homopolymerCorrect);
    second->finishCall(two.events, two.transProbs, minProb, two.firstEvent, two.lastEvent, extractPath, shrink,
                       homopolymerCorrect);
}

int NNRunnerCblas::beginCall(Common::EventData<Common::Deep>& events, const Common::VecView<float>& rawSamples,
                             float sampleRate, bool extractPath, bool shrink) {
    KVX_LOG(trace) << "Invoking Call() with " << events.size() << " events";
    const int decodeType = caller->decode_type;
    // A label state count that is no k-mer count fails here, before any work; a flip-flop model's
    // label_state is 4, so the check passes for it too.
    static_cast<void>(Common::KmerLengthFromStates(caller->label_state));
    KVX_LOG(trace) << "Model decode: " << DecodeTypeName(decodeType);

    weights.clear();
    moves.clear();
    states.clear();
    statePosteriors.clear();
    pathStates.clear();
    pathPosteriors.clear();
    qualityData.clear();
    pathViews.clear();
    posteriors = Common::MatView<float>();
    score = 0.0f;

    const bool raw = caller->feature_kind == kFeaturesRaw;
    const std::size_t stride = static_cast<std::size_t>(std::max(1, caller->event_stride));
    if (raw) {
        if (rawSamples.size == 0) {
            throw std::runtime_error("Trying to basecall with raw model, but no raw data provided.");
        }
        if ((rawSamples.size + stride - 1) / stride != events.size()) {
            throw std::runtime_error("Mismatch between size of raw data and event data: rawSamples.size() = " +
                                     std::to_string(rawSamples.size) + ", events.size() = " +
                                     std::to_string(events.size()) + ", eventStride = " + std::to_string(stride));
        }
        KVX_LOG(trace) << rawSamples.size << " raw samples provided.";
    }
    if (extractPath && !shrink && decodeType != kFlipflop) {
        throw std::runtime_error("Can only extract path from NN posteriors after bucket state removal.");
    }

    KVX_LOG(trace) << "Computing posteriors via NN";
    int inputRows;
    if (raw) {
        computeFeaturesRaw(rawSamples);
        inputRows = static_cast<int>(rawSamples.size);
    } else {
        computeFeaturesEvents(events, sampleRate);
        inputRows = static_cast<int>(events.size());
    }
    return inputRows;
}

void NNRunnerCblas::finishCall(Common::EventData<Common::Deep>& events, TransProbs& transProbs, float minProb,
                               int firstEvent, int lastEvent, bool extractPath, bool shrink,
                               bool homopolymerCorrect) {
    const int decodeType = caller->decode_type;
    const int k = Common::KmerLengthFromStates(caller->label_state);  // unused for a flip-flop model
    if (posteriors.rows != events.size()) {
        throw std::runtime_error("The network gave " + std::to_string(posteriors.rows) + " rows for " +
                                 std::to_string(events.size()) + " events; the event data must have one event per "
                                 "output row.");
    }

    bool ok = true;
    if (decodeType == kTransducer) {
        ok = decodeTransducer(transProbs, extractPath, homopolymerCorrect);
    } else if (decodeType == kFlipflop) {
        if (posteriors.cols != 40) {
            throw std::runtime_error("Unexpected size of posterior matrix.");
        }
        KVX_LOG(trace) << "Extracting path via flipflop decoding";
        ok = decodeFlipflop(extractPath, firstEvent, lastEvent);
    }

    if (ok && decodeType != kFlipflop) {
        const int numStates = caller->label_state;
        if (!hmm || hmm->NumStates() != numStates) {
            hmm = BasecallHMM::CreateCaller(numStates);
        }
        KVX_LOG(trace) << "Removing of low-quality events and " << (decodeType == kTransducer ? "stay" : "bucket")
                       << " state (start event: " << firstEvent << ", last event:" << lastEvent << ")";
        if (ShrinkPosteriors(events, firstEvent, lastEvent, shrink, minProb) == 0) {
            ok = false;
        }
        if (ok && shrink && posteriors.cols != static_cast<std::uint64_t>(numStates)) {
            throw std::runtime_error("Unexpected size of posterior matrix.");
        }

        if (ok && decodeType == kNontransducer) {
            const std::size_t n = posteriors.rows;
            expectations.resize(n * 3);
            Common::MatView<float> expect(expectations.data(), n, 3, 3, 1);
            // Without shrinking the bucket column is still there; the estimate reads the k-mer states.
            const Common::MatView<float> kmers(posteriors.data, n, static_cast<std::uint64_t>(numStates),
                                               posteriors.rowStride, 1);
            hmm->TransitionExpectations(kmers, expect);
            double sums[3] = {0.0, 0.0, 0.0};
            for (std::size_t i = 0; i < n; ++i) {
                for (int c = 0; c < 3; ++c) {
                    sums[c] += expectations[i * 3 + c];
                }
            }
            const double total = sums[0] + sums[1] + sums[2];
            if (total > 0.0) {
                transProbs.stay = static_cast<float>(sums[0] / total);
                transProbs.step = static_cast<float>(sums[1] / total);
                transProbs.skip = static_cast<float>(sums[2] / total);
            } else {
                // A single event has no neighbour to compare with: no evidence, even odds.
                transProbs.stay = transProbs.step = transProbs.skip = 1.0f / 3.0f;
            }
            KVX_LOG(trace) << "Estimating transition probabilities: " << transProbs.stay << ", " << transProbs.step
                           << ", " << transProbs.skip;

            if (extractPath) {
                hmm->SetTrans(transProbs.stay, transProbs.step, transProbs.skip, 0.0f);
                const Common::EmissionBase<float> emissions(posteriors);
                if (useSimpleDecode) {
                    KVX_LOG(trace) << "Extracting path via SimpleDecode()";
                    ok = hmm->SimpleDecode(emissions, states);
                } else {
                    KVX_LOG(trace) << "Extracting path via Decode()";
                    ok = hmm->Decode(emissions, states);
                }
                if (ok) {
                    score = hmm->GetLogLikelihood();
                    BasecallHMM::MovesFromStates(states, k, moves);
                }
            }
        }

        if (ok && extractPath) {
            KVX_LOG(trace) << "Computing quality data";
            const std::size_t n = posteriors.rows;
            const std::size_t width = static_cast<std::size_t>(4 * k);
            qualityData.resize(n * width);
            Common::MatView<float> data(qualityData.data(), n, width, static_cast<std::int64_t>(width), 1);
            hmm->GetQualityData(posteriors, data);
            KVX_LOG(trace) << "posteriors size " << posteriors.rows << " x " << posteriors.cols;
            statePosteriors.resize(n);
            for (std::size_t i = 0; i < n; ++i) {
                statePosteriors[i] = posteriors(i, static_cast<std::uint64_t>(states[i]));
            }
            pathViews.resize(n);
            for (std::size_t i = 0; i < n; ++i) {
                pathViews[i] = Common::VecView<float>(qualityData.data() + i * width, width, 1);
            }
            fillTrimmedPath(firstEvent, lastEvent);
        }
    }

    if (!ok) {
        fail(events);
        return;
    }
    KVX_LOG(trace) << "Basecall succeeded";
}

}  // namespace BasecallNN
