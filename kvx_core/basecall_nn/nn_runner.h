#pragma once
// One worker's means of executing a loaded network: it owns the buffers, runs the layers over a chunk,
// turns the last layer's output into posteriors and, by the model's decode type, decodes a path and
// quality data for that single strand. Results stay in the runner's fields until the next Call.

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "common/event_data.h"
#include "common/views.h"

namespace BasecallNN {

class NNCaller;

// Transition probabilities estimated by a Call: a leading value that Call does not set, then the
// probabilities of no new base, one and two new bases per event.
struct TransProbs {
    float lead = 0.0f;
    float stay = 0.0f;
    float step = 0.0f;
    float skip = 0.0f;
};

// The arguments of Call that belong to one strand of a CallPair.
struct StrandCall {
    Common::EventData<Common::Deep>& events;
    Common::VecView<float> rawSamples;
    TransProbs& transProbs;
    int firstEvent = -1;
    int lastEvent = -1;
};

class NNRunner {
public:
    virtual ~NNRunner();

    // Grows the buffers for up to rows input rows; never shrinks them.
    virtual void Reserve(int rows) = 0;
    // The prepared rows of the first buffer, the network's input width wide (row stride padded to 8,
    // 1 for a width of 1). Callers fill the rows they will Run.
    virtual Common::MatView<float> InputView() = 0;
    // Runs every layer over the first rows of the input view; returns the last layer's output.
    virtual Common::MatView<float> Run(int rows) = 0;
    virtual std::shared_ptr<const NNCaller> GetCaller() const = 0;

    // Calls one strand. events: one record per network output row (cut down to the kept rows, or
    // emptied on failure). rawSamples: the strand's samples for a raw model. sampleRate: for event
    // features. transProbs: receives the estimated transitions. minProb: the floor that
    // ShrinkPosteriors adds to every posterior. firstEvent, lastEvent: rows in [firstEvent, lastEvent)
    // may be dropped as low quality; -1 keeps all. extractPath: decode a path and quality data.
    // shrink: drop the bucket/stay column and renormalise. homopolymerCorrect: recount moves inside
    // homopolymer runs (transducer models).
    // Failure to decode is not an exception: score becomes negative infinity.
    virtual void Call(Common::EventData<Common::Deep>& events, const Common::VecView<float>& rawSamples,
                      float sampleRate, TransProbs& transProbs, float minProb, int firstEvent, int lastEvent,
                      bool extractPath, bool shrink, bool homopolymerCorrect) = 0;
    // Calls two strands: this runner does `one` as Call would, `second` (a runner of the same network,
    // and not this one) does `two`, each with exactly the results of its own Call. A runner may run
    // the network's layers over both strands together where that is faster; this one makes the two
    // Calls.
    virtual void CallPair(NNRunner& second, const StrandCall& one, const StrandCall& two, float sampleRate,
                          float minProb, bool extractPath, bool shrink, bool homopolymerCorrect);

    std::vector<float> weights;          // per kept event: 1 - P(no new base), or the row's mass
    std::vector<signed char> moves;      // per event: 0 stay, 1 step, 2 skip (up to k after a jump)
    std::vector<int> states;             // per event, -1 for none
    std::vector<float> statePosteriors;  // posterior of the chosen state of each event
    std::vector<int> pathStates;         // the path trimmed to [firstEvent, lastEvent) (all of it for -1)
    std::vector<float> pathPosteriors;   // statePosteriors over the same rows
    std::vector<float> qualityData;      // rows by 4 k, see BasecallHMM::QualityMatrix
    std::vector<Common::VecView<float>> pathViews;  // row i of qualityData for each path entry i
    Common::MatView<float> posteriors;   // rows by state columns
    float score = 0.0f;                  // log likelihood; negative infinity marks a failed call
    bool useSimpleDecode = false;        // decode type 0: SimpleDecode rather than Decode
    bool normaliseRaw = true;            // median/MAD normalisation of raw samples in the runner
    float stayPenalty = 1.0f;            // scales the stay column of a transducer (1.0 is neutral)
};

}  // namespace BasecallNN
