#pragma once
// The processor runner of an NNCallerCblas network. Two ping-pong buffers carry the rows from layer to
// layer (a layer's output is never copied) and one scratch buffer serves every layer; all three are
// 32-byte aligned with rows padded to 8 floats. Memory bound: the buffers hold, for the largest row
// count reserved, the widest padded layer output of each parity and the largest layer scratch; the
// decoders keep their own buffers sized for the largest chunk seen. Reserve only grows, so steady
// calls of at most the reserved size allocate nothing.

#include <memory>
#include <utility>
#include <vector>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_runner.h"
#include "common/allocator.h"
#include "decoders/flipflop_decoder.h"
#include "decoders/hmm_caller.h"
#include "decoders/transducer_decoder.h"

namespace BasecallNN {

class NNRunnerCblas : public NNRunner {
public:
    NNRunnerCblas(std::shared_ptr<const NNCallerCblas> caller, int maxRows);

    void Reserve(int rows) override;
    Common::MatView<float> InputView() override;
    Common::MatView<float> Run(int rows) override;
    std::shared_ptr<const NNCaller> GetCaller() const override { return caller; }
    void Call(Common::EventData<Common::Deep>& events, const Common::VecView<float>& rawSamples, float sampleRate,
              TransProbs& transProbs, float minProb, int firstEvent, int lastEvent, bool extractPath, bool shrink,
              bool homopolymerCorrect) override;
    // Runs the layers over both strands together when `second` is an NNRunnerCblas of the same network.
    void CallPair(NNRunner& second, const StrandCall& one, const StrandCall& two, float sampleRate, float minProb,
                  bool extractPath, bool shrink, bool homopolymerCorrect) override;
    // Run of this runner's first rows1 input rows and second's first rows2, the layers stepping both
    // strands together; sets and returns each runner's output as its own Run would.
    std::pair<Common::MatView<float>, Common::MatView<float>> RunPair(NNRunnerCblas& second, int rows1, int rows2);

    // Compacts the posterior rows in place: drops low-quality rows in [first, last) (for a transducer
    // those whose state is negative, otherwise those whose largest entry is the bucket column), keeps
    // num_states - 1 columns and renormalises them to (x + p) / (sum + n p) when renormalise is set,
    // and removes the dropped rows from events. Fills weights with the kept rows' mass for
    // non-transducer models. Throws "Weight vector corrupted." when events and weights disagree.
    // Returns the number of kept rows.
    template <typename Depth>
    std::size_t ShrinkPosteriors(Common::EventData<Depth>& events, int first, int last, bool renormalise, float p);

    // Rows prepared by Reserve so far.
    int PreparedRows() const { return preparedRows; }

private:
    // Where one runner's rows are between layers: the buffer holding the last output, the other one,
    // and the row count.
    struct Pass {
        float* current;
        float* other;
        int rows;
    };
    Pass startPass(int rows);
    // The input and output views of layer for pass, and the pass moved on past it.
    void layerViews(const CblasLayer& layer, Pass& pass, Common::MatView<float>& in, Common::MatView<float>& out);
    // Call up to and after the network: clears the results, checks the arguments and fills the input
    // (returning its rows); then decodes the posteriors.
    int beginCall(Common::EventData<Common::Deep>& events, const Common::VecView<float>& rawSamples,
                  float sampleRate, bool extractPath, bool shrink);
    void finishCall(Common::EventData<Common::Deep>& events, TransProbs& transProbs, float minProb, int firstEvent,
                    int lastEvent, bool extractPath, bool shrink, bool homopolymerCorrect);
    void computeFeaturesRaw(const Common::VecView<float>& rawSamples);
    void computeFeaturesEvents(const Common::EventData<Common::Deep>& events, float sampleRate);
    bool decodeTransducer(TransProbs& transProbs, bool extractPath, bool homopolymerCorrect);
    bool decodeFlipflop(bool extractPath, int firstEvent, int lastEvent);
    void fillTrimmedPath(int firstEvent, int lastEvent);
    void fail(Common::EventData<Common::Deep>& events);

    std::shared_ptr<const NNCallerCblas> caller;
    Common::AlignedVector32<float> bufferA;
    Common::AlignedVector32<float> bufferB;
    Common::AlignedVector32<float> scratch;
    int preparedRows = 0;

    // Per-call working memory, kept between calls.
    std::vector<float> rawWork;
    std::vector<float> featureWork;
    std::vector<int> removed;
    std::vector<float> expectations;
    std::unique_ptr<BasecallHMM::CallerBase> hmm;  // for the model's label_state, made on first use
    BasecallHMM::TransducerDecoder transducer;
    BasecallHMM::FlipflopDecoder flipflop;
};

}  // namespace BasecallNN
