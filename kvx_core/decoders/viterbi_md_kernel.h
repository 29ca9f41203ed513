#pragma once
// The per-cell kernel of the two-dimensional Viterbi: for one band cell (i, j) it takes the score rows
// of the three predecessor cells and produces, for every state, the best score and one trace byte
// saying how that score was reached.
//
// States are k-mers as base-4 numbers, newest base lowest. A step to state s = 4t + b comes from any
// state whose value mod W/4 is t, a skip to s = 16t + 4b1 + b2 from any state whose value mod W/16
// is t. Reducing those sources first (best of 4 for a step, best of 16 for a skip, lowest state on a
// tie; see SourceSummary) leaves every remaining loop free of dependence between states, so it runs
// in vector blocks.

#include <cstdint>

#include "decoders/kernel_isa.h"

namespace BasecallMD {

// The trace byte of one state of one cell: bits 6-7 the direction (0 both strands, 1 strand 1 only,
// 2 strand 2 only, 3 the start node), bits 4-5 the move (0 stay, 1 step, 2 skip), bits 0-3 which of
// the 4 step sources or 16 skip sources won. The source index is all the back trace needs, because
// the sources of a state are fixed by its value: the state itself for a stay, t + m * W/4 with
// t = s / 4 for a step, t + m * W/16 with t = s / 16 for a skip. One byte instead of a 32-bit previous
// state, direction and move keeps the trace of a chunk small enough to stay out of a caller's peak.
constexpr int kTraceDirectionShift = 6;
constexpr int kTraceMoveShift = 4;
constexpr std::uint8_t kTraceSourceMask = 0x0F;
constexpr std::uint8_t kTraceStart = 3 << kTraceDirectionShift;

inline int TraceDirection(std::uint8_t trace) { return trace >> kTraceDirectionShift; }
inline int TraceMove(std::uint8_t trace) { return (trace >> kTraceMoveShift) & 3; }
// The state, in the predecessor cell, that `state` came from; W is the number of states decoded.
inline int TracePrevious(std::uint8_t trace, int state, int W) {
    const int m = trace & kTraceSourceMask;
    switch (TraceMove(trace)) {
        case 1:
            return state / 4 + m * (W / 4);
        case 2:
            return state / 16 + m * (W / 16);
        default:
            return state;
    }
}

// Scores of the three move kinds along one direction; see ViterbiMD for their sums.
struct DirectionScores {
    std::int32_t stay;
    std::int32_t step;
    std::int32_t skip;
};

// The best step and skip sources of one score row: for each step group t < W/4 the largest of
// row[t + m * W/4] over m < 4, for each skip group t < W/16 the largest of row[t + m * W/16] over
// m < 16, the lowest m on a tie, with the trace bits 1 << 4 | m or 2 << 4 | m of the winner. A row is
// the source of three later cells (the diagonal, left and upper neighbour of each), so its summary
// is made once, as soon as the row is complete, rather than by every cell that reads it.
struct SourceSummary {
    std::int32_t* stepBest;  // W/4
    std::int32_t* skipBest;  // W/16
    std::uint8_t* stepCode;  // W/4
    std::uint8_t* skipCode;  // W/16
};

// Scratch of the scalar kernel (W entries each); the vector builds keep all of it in registers.
struct CellScratch {
    std::int32_t* score[3];
    std::int32_t* code[3];  // the move and source bits of the trace byte, within a direction
};

struct CellArgs {
    int W;  // states taken part, a multiple of 256
    // Predecessor score rows by direction: 0 from (i-1, j-1), 1 from (i-1, j), 2 from (i, j-1), and
    // their summaries.
    const std::int32_t* source[3];
    SourceSummary summary[3];
    DirectionScores moves[3];
    const std::int32_t* emission1;  // event-score row of strand 1's event i
    const std::int32_t* emission2;  // event-score row of strand 2's event j
    std::int32_t* score;            // out: best score per state
    std::uint8_t* trace;            // out: trace byte per state
    CellScratch scratch;
};

using CellKernel = void (*)(const CellArgs& args);
// Fills `out` with the summary of the first W entries of `row`.
using SummaryKernel = void (*)(const std::int32_t* row, int W, const SourceSummary& out);

// The kernels built for `isa`, or nullptr if the processor cannot run them.
CellKernel GetCellKernel(BasecallCommon::KernelIsa isa);
SummaryKernel GetSummaryKernel(BasecallCommon::KernelIsa isa);

// Event scores: out[s] = IntLogScore(in[s]) for s < n, exactly (int_score.h).
using EventScoreKernel = void (*)(const float* in, int n, std::int32_t* out);

// The event-score kernel built for `isa`, or nullptr if the processor cannot run it. Only the AVX-512
// build is vectorised; the others use the scalar loop.
EventScoreKernel GetEventScoreKernel(BasecallCommon::KernelIsa isa);

namespace detail {
void EventScoresScalar(const float* in, int n, std::int32_t* out);
void EventScoresAvx512(const float* in, int n, std::int32_t* out);
void ViterbiCellScalar(const CellArgs& args);
void ViterbiCellSse2(const CellArgs& args);
void ViterbiCellAvx2(const CellArgs& args);
void ViterbiCellAvx512(const CellArgs& args);
void SummaryScalar(const std::int32_t* row, int W, const SourceSummary& out);
void SummarySse2(const std::int32_t* row, int W, const SourceSummary& out);
void SummaryAvx2(const std::int32_t* row, int W, const SourceSummary& out);
void SummaryAvx512(const std::int32_t* row, int W, const SourceSummary& out);
}  // namespace detail

}  // namespace BasecallMD
