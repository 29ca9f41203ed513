#pragma once
// Joint decoding of the two strands of one molecule: the best monotone path through a band of the
// (strand-1 event, strand-2 event) plane, with the k-mer state at every step, in 32-bit integer log
// scores (log-probability times 100, truncated).
//
// One decoder belongs to one worker and is reused chunk after chunk. All memory is allocated in the
// constructor: maxNodes * numStates * 12 bytes of node tables (previous state, direction and move of
// each state of each band cell), 4 * (maxEvents + 1) * numStates * 4 bytes of score rows and event
// scores, and a few rows of scratch. The node tables are not zero-filled, so the pages a call does
// not reach are never committed. `Call` allocates only for its outputs.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "common/allocator.h"
#include "common/views.h"
#include "decoders/kernel_isa.h"
#include "decoders/viterbi_md_kernel.h"

namespace BasecallMD {

class ViterbiMD {
public:
    // maxNodes bounds the band cells of a call (plus the start node), maxEvents the events of either
    // strand. numStates = 4^k; only the first (numStates / 256) * 256 states take part in decoding,
    // so fewer than 256 states is refused. The skip probabilities set the first transition scores.
    ViterbiMD(int maxNodes, int maxEvents, int numStates, float skipProb1, float skipProb2);
    ViterbiMD(const ViterbiMD&) = delete;
    ViterbiMD& operator=(const ViterbiMD&) = delete;

    // post1, post2: events by states posteriors of the two strands (strand 2 already reversed and
    // complemented). stay1, stay2: per event, the probability that it adds no base. bandStart[j],
    // bandEnd[j]: first and last strand-1 event of the band in strand-2 row j. startScores: scores of
    // the states before the first event. Fills `alignment` with one pair per path step ((i, j), (i, -1)
    // or (-1, j)) and `states` with the state of each step; the move of each step is then in Moves().
    // Skip probabilities below 0 keep the transition scores of the last call. Returns the path score.
    float Call(const Common::MatView<float>& post1, const Common::MatView<float>& post2,
               const Common::VecView<float>& stay1, const Common::VecView<float>& stay2,
               const std::vector<int>& bandStart, const std::vector<int>& bandEnd,
               const std::vector<int>& startScores, std::vector<std::pair<int, int>>& alignment,
               std::vector<short>& states, float skipProb1, float skipProb2);

    // Move code (0 stay, 1 step, 2 skip) of each step of the last path.
    const std::vector<signed char>& Moves() const { return moves; }

    // Transition scores in force: notSkip1, skip1, notSkip2, skip2.
    std::int32_t NotSkip1() const { return notSkip1; }
    std::int32_t Skip1() const { return skip1; }
    std::int32_t NotSkip2() const { return notSkip2; }
    std::int32_t Skip2() const { return skip2; }

    int NumStates() const { return numStates; }
    // Bytes reserved by the constructor.
    std::size_t ReservedBytes() const;
    // Band cells (without the start node) of the last call.
    int LastCellCount() const { return nodeCount > 0 ? nodeCount - 1 : 0; }

    // Runs the cell kernel built for `isa`; false (and no change) if this processor cannot. The
    // constructor picks the fastest.
    bool SetKernel(BasecallCommon::KernelIsa isa);
    BasecallCommon::KernelIsa Kernel() const { return kernelIsa; }

private:
    struct Node {
        std::int32_t i = -1;
        std::int32_t j = -1;
        std::int32_t leftNode = -1;  // (i-1, j)
        std::int32_t upNode = -1;    // (i, j-1)
        std::int32_t diagNode = -1;  // (i-1, j-1)
    };

    // Aligned storage that is deliberately not value-initialised.
    struct BufferDeleter {
        void operator()(std::int32_t* p) const;
    };
    using Buffer = std::unique_ptr<std::int32_t[], BufferDeleter>;
    static Buffer allocate(std::size_t count);

    void setTransitionScores(float skipProb1, float skipProb2);
    void initNodes(const std::vector<int>& bandStart, const std::vector<int>& bandEnd);
    void processNodes(const Common::VecView<float>& stay1, const Common::VecView<float>& stay2);
    std::int32_t backTrace(std::vector<std::pair<int, int>>& alignment, std::vector<short>& states);
    void seatRowViews();
    void fillEventScores(const Common::MatView<float>& post, std::int32_t* out, int rows);

    std::int32_t* previousState(int node) const { return nodePrevious.get() + static_cast<std::size_t>(node) * rowStride; }
    std::int32_t* direction(int node) const { return nodeDirection.get() + static_cast<std::size_t>(node) * rowStride; }
    std::int32_t* moveCode(int node) const { return nodeMove.get() + static_cast<std::size_t>(node) * rowStride; }

    int maxNodes;
    int maxEvents;
    int numStates;              // N
    int usedStates;             // W = (N / 256) * 256
    std::size_t rowStride;      // N padded to whole 32-byte groups

    std::vector<Node> nodes;
    Buffer nodePrevious;        // maxNodes rows of N
    Buffer nodeDirection;
    Buffer nodeMove;

    Buffer eventScores1;        // maxEvents rows of N: the posteriors as integer logs
    Buffer eventScores2;
    Buffer rowBufferA;          // (maxEvents + 1) rows of N; row r is the cell with i = r - 1
    Buffer rowBufferB;
    std::int32_t* previousRows = nullptr;
    std::int32_t* currentRows = nullptr;
    Common::MatView<std::int32_t> previousView;
    Common::MatView<std::int32_t> currentView;
    Common::MatView<std::int32_t> emissionView1;
    Common::MatView<std::int32_t> emissionView2;
    Buffer unreachableRow;      // N entries of -100000000, the row of a missing predecessor

    // Per-direction scratch of the cell kernel.
    Buffer scratch;
    CellScratch cellScratch{};

    Common::AlignedVector32<std::int32_t> stayScore1, moveScore1, stayScore2, moveScore2;
    std::vector<int> rowFirstNode;  // node index of each row's first cell
    std::vector<signed char> moves;

    std::int32_t notSkip1 = 0, skip1 = 0, notSkip2 = 0, skip2 = 0;
    int nodeCount = 0;
    int n1 = 0;
    int n2 = 0;

    BasecallCommon::KernelIsa kernelIsa = BasecallCommon::KernelIsa::Scalar;
    CellKernel kernel = nullptr;
};

}  // namespace BasecallMD
