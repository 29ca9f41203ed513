#pragma once
// The per-cell kernel of the two-dimensional Viterbi: for one band cell (i, j) it takes the score rows
// of the three predecessor cells and produces, for every state, the best score and the state,
// direction and move that gave it.
//
// States are k-mers as base-4 numbers, newest base lowest. A step to state s = 4t + b comes from any
// state whose value mod W/4 is t, a skip to s = 16t + 4b1 + b2 from any state whose value mod W/16
// is t. Reducing those sources first (best of 4 for a step, best of 16 for a skip, lowest state on a
// tie) leaves every remaining loop free of dependence between states, so it runs in vector blocks.

#include <cstdint>

#include "decoders/kernel_isa.h"

namespace BasecallMD {

// Scores of the three move kinds along one direction; see ViterbiMD for their sums.
struct DirectionScores {
    std::int32_t stay;
    std::int32_t step;
    std::int32_t skip;
};

// Scratch the kernel may use, sized by the caller (W/4, W/16 or W entries, as named).
struct CellScratch {
    std::int32_t* stepBest[3];   // W/4
    std::int32_t* stepFrom[3];   // W/4
    std::int32_t* skipBest[3];   // W/16
    std::int32_t* skipFrom[3];   // W/16
    std::int32_t* score[3];      // W
    std::int32_t* from[3];       // W
    std::int32_t* move[3];       // W
};

struct CellArgs {
    int W;  // states taken part, a multiple of 256
    // Predecessor score rows by direction: 0 from (i-1, j-1), 1 from (i-1, j), 2 from (i, j-1).
    const std::int32_t* source[3];
    DirectionScores moves[3];
    const std::int32_t* emission1;  // event-score row of strand 1's event i
    const std::int32_t* emission2;  // event-score row of strand 2's event j
    std::int32_t* score;            // out: best score per state
    std::int32_t* previousState;    // out
    std::int32_t* direction;        // out: 0 both strands, 1 strand 1, 2 strand 2
    std::int32_t* moveCode;         // out: 0 stay, 1 step, 2 skip
    CellScratch scratch;
};

using CellKernel = void (*)(const CellArgs& args);

// The kernel built for `isa`, or nullptr if the processor cannot run it.
CellKernel GetCellKernel(BasecallCommon::KernelIsa isa);

namespace detail {
void ViterbiCellScalar(const CellArgs& args);
void ViterbiCellSse2(const CellArgs& args);
void ViterbiCellAvx2(const CellArgs& args);
}  // namespace detail

}  // namespace BasecallMD
