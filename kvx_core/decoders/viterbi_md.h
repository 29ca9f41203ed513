#pragma once
// Joint decoding of the two strands of one molecule: the best monotone path through a band of the
// (strand-1 event, strand-2 event) plane, with the k-mer state at every step, in 32-bit integer log
// scores (log-probability times 100, truncated).
//
// One decoder belongs to one worker and is reused chunk after chunk. All memory is allocated in the
// constructor: maxNodes * numStates bytes of trace (one byte per state of each band cell), about
// 4 * (maxEvents + 1) * numStates * 4 bytes of score rows and event scores, 2 * (maxEvents + 1) *
// numStates * 25/16 bytes of source summaries of the score rows, and a few rows of scratch. The
// trace is not zero-filled, so the pages a call does not reach are never committed. `Call` allocates
// only for its outputs.

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
    // Bytes of trace the last call wrote (one row per band cell).
    std::size_t LastTraceBytes() const { return static_cast<std::size_t>(LastCellCount()) * traceStride; }

    // Runs the cell, summary and event-score kernels built for `isa`; false (and no change) if this
    // processor cannot. The constructor picks the fastest.
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
        void operator()(void* p) const;
    };
    using Buffer = std::unique_ptr<std::int32_t[], BufferDeleter>;
    using ByteBuffer = std::unique_ptr<std::uint8_t[], BufferDeleter>;
    static Buffer allocate(std::size_t count);
    static ByteBuffer allocateBytes(std::size_t count);

    void setTransitionScores(float skipProb1, float skipProb2);
    void initNodes(const std::vector<int>& bandStart, const std::vector<int>& bandEnd);
    void processNodes(const Common::MatView<float>& post1, const Common::MatView<float>& post2,
                      const Common::VecView<float>& stay1, const Common::VecView<float>& stay2);
    std::int32_t backTrace(std::vector<std::pair<int, int>>& alignment, std::vector<short>& states);
    void seatRowViews();
    void fillEventScores(const Common::MatView<float>& post, std::int32_t* out, int firstRow, int endRow);

    std::uint8_t* trace(int node) const { return nodeTrace.get() + static_cast<std::size_t>(node) * traceStride; }
    // The summary of score row r of the buffer whose summaries start at `base`: W/4 and W/16 best
    // scores, then as many trace codes.
    SourceSummary summaryAt(std::uint8_t* base, std::uint64_t r) const {
        const auto W = static_cast<std::size_t>(usedStates);
        std::uint8_t* p = base + r * summaryStride;
        return {reinterpret_cast<std::int32_t*>(p), reinterpret_cast<std::int32_t*>(p + W), p + W + W / 4,
                p + W + W / 2};
    }

    int maxNodes;
    int maxEvents;
    int numStates;              // N
    int usedStates;             // W = (N / 256) * 256
    std::size_t rowStride;      // N padded to whole 32-byte groups
    std::size_t traceStride;    // N padded to whole 64-byte groups
    std::size_t summaryStride;  // bytes of one row's source summary, a multiple of 64

    std::vector<Node> nodes;
    // The best way into each state of each cell, as one trace byte (see viterbi_md_kernel.h) rather
    // than a 32-bit previous state, direction and move: the three integers made the trace twelve
    // times larger, about 250 MB of a caller's 290 MB peak at the default chunk and band sizes, and
    // writing them took a large share of the decoding time. The previous state follows from the
    // source index and the move.
    ByteBuffer nodeTrace;       // maxNodes rows of traceStride bytes

    Buffer eventScores1;        // maxEvents rows of N: the posteriors as integer logs
    Buffer eventScores2;
    Buffer rowBufferA;          // (maxEvents + 1) rows of N; row r is the cell with i = r - 1
    Buffer rowBufferB;
    std::int32_t* previousRows = nullptr;
    std::int32_t* currentRows = nullptr;
    // The source summary of every score row, beside each row buffer; they swap together.
    ByteBuffer summaryBufferA;
    ByteBuffer summaryBufferB;
    std::uint8_t* previousSummaries = nullptr;
    std::uint8_t* currentSummaries = nullptr;
    ByteBuffer unreachableSummary;
    Common::MatView<std::int32_t> previousView;
    Common::MatView<std::int32_t> currentView;
    Common::MatView<std::int32_t> emissionView1;
    Common::MatView<std::int32_t> emissionView2;
    Buffer unreachableRow;      // N entries of -100000000, the row of a missing predecessor

    // Per-direction scratch of the scalar cell kernel.
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
    SummaryKernel summaryKernel = nullptr;
    EventScoreKernel eventScoreKernel = nullptr;
};

}  // namespace BasecallMD
