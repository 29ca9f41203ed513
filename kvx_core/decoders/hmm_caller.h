#pragma once
// The one-dimensional hidden Markov decoder. Given one row of emission probabilities per event over
// N = 4^k k-mer states it runs a Viterbi decode, and it holds the transition settings and the quality
// matrix.
//
// Transitions: from state p an event may stay in p, step to one of the 4 states that append one base,
// skip to one of the 16 that append two, or (with the flat "leak" probability) jump anywhere. There is
// no logarithm in the recursions: each row is scaled to sum 1 and the scale factors are kept.
//
// One object is used by one thread. Its buffers grow to the largest read seen and are then reused.

#include <cstdint>
#include <memory>
#include <vector>

#include "common/allocator.h"
#include "common/event_data.h"
#include "common/views.h"
#include "decoders/hmm_kernels.h"
#include "decoders/quality_matrix.h"

namespace BasecallHMM {

class CallerBase {
public:
    virtual ~CallerBase();

    // Stores the transition probabilities: stay, step and skip are normalised together and spread
    // over the 4 step and 16 skip targets; leak is a flat probability of any state, leak / N each.
    virtual void SetTrans(float stay, float step, float skip, float leak) = 0;
    // Sum over events of the log of the scale factors of the last decode.
    virtual float GetLogLikelihood() const = 0;
    virtual int NumStates() const = 0;
    // Viterbi path: one state per event. False on a zero or overflowing row.
    virtual bool Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) = 0;
    // The same, also giving the move of each event (0 stay, 1 step, 2 skip; a flat jump counts the
    // new bases it needs, up to k). The first event's move is 1.
    virtual bool Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path,
                        std::vector<signed char>& moves) = 0;
    // Decode without the moves: the runner's path for models that are not transducers.
    virtual bool SimpleDecode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) = 0;
    // data = posteriors * quality matrix (see QualityMatrix::Apply).
    virtual void GetQualityData(const Common::MatView<float>& posteriors, Common::MatView<float>& data) = 0;
    // Expected stay, step and skip between each event and its predecessor, from the posteriors of the
    // two: row e of out (n by 3) gets them normalised to sum 1; row 0, which has no predecessor, gets
    // zeros, as does a row where all three are zero.
    virtual void TransitionExpectations(const Common::MatView<float>& posteriors, Common::MatView<float>& out) = 0;
};

template <int NUM_STATES>
class Caller : public CallerBase {
    static_assert(NUM_STATES >= 64 && (NUM_STATES & (NUM_STATES - 1)) == 0, "N must be a power of 4 from 64");

public:
    static constexpr int kStates = NUM_STATES;
    static constexpr int kStepGroups = NUM_STATES / 4;
    static constexpr int kSkipGroups = NUM_STATES / 16;
    static constexpr float kInvStates = 1.0f / NUM_STATES;

    Caller();

    void SetTrans(float stay, float step, float skip, float leak) override;
    float GetLogLikelihood() const override;
    int NumStates() const override { return NUM_STATES; }
    bool Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) override;
    bool Decode(const Common::EmissionBase<float>& emissions, std::vector<int>& path,
                std::vector<signed char>& moves) override;
    bool SimpleDecode(const Common::EmissionBase<float>& emissions, std::vector<int>& path) override;
    void GetQualityData(const Common::MatView<float>& posteriors, Common::MatView<float>& data) override;
    void TransitionExpectations(const Common::MatView<float>& posteriors, Common::MatView<float>& out) override;

    // The row kernels in use; tests switch between the builds the processor can run.
    const kernels::KernelSet* Kernels() const { return kernelSet; }
    void UseKernels(const kernels::KernelSet* set) { kernelSet = set; }

    float StayProb() const { return pStay; }
    float StepProb() const { return pStep; }
    float SkipProb() const { return pSkip; }
    float LeakProb() const { return pLeak; }

private:
    // Pointer to row e of the emissions with unit stride (a copy in emRow when the view is strided).
    const float* emissionRow(const Common::EmissionBase<float>& emissions, std::uint64_t e);
    bool checkedScale(float* row, float sum);
    bool decodeRows(const Common::EmissionBase<float>& emissions, std::vector<int>& path,
                    std::vector<signed char>* moves);

    float pStay = 0.0f;
    float pStep = 0.0f;
    float pSkip = 0.0f;
    float pLeak = 0.0f;
    std::vector<float> scales;
    std::unique_ptr<QualityMatrix> qualityMatrix;  // built on first use: N * 4k floats

    // Working rows. For the large state counts a row is megabytes, too much for a thread's stack, so
    // they live here and are reused.
    const kernels::KernelSet* kernelSet;
    Common::AlignedVector32<float> rowA;
    Common::AlignedVector32<float> rowB;
    Common::AlignedVector32<float> emRow;
    Common::AlignedVector32<float> work;
    std::vector<float> backScales;
    std::vector<std::uint8_t> codes;  // decode back pointers, events by states
    std::vector<int> leakSources;     // per event, the state a flat jump comes from
    std::vector<double> groupSums;  // N/4 step then N/16 skip group sums of TransitionExpectations
};

extern template class Caller<64>;
extern template class Caller<256>;
extern template class Caller<1024>;
extern template class Caller<4096>;
extern template class Caller<16384>;
extern template class Caller<65536>;
extern template class Caller<262144>;
extern template class Caller<1048576>;

// A decoder for N states: 4^3 to 4^10. Any other count throws
// "Unsupported number of states: <N>. State count should be a positive power of 4.".
std::unique_ptr<CallerBase> CreateCaller(int numStates);

}  // namespace BasecallHMM
