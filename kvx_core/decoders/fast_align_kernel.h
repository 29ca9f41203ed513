#pragma once
// The interior of one anti-diagonal of the banded label aligner. No cell of an anti-diagonal depends
// on another cell of the same anti-diagonal, so the loop reads only the two previous anti-diagonals
// and the gathered substitution scores, all contiguous, at fixed offsets: that is what lets it run
// eight cells at a time. Edge cells, with their start and end penalties, are filled elsewhere so
// this loop knows only the two interior gap scores.

#include <cstdint>

#include "decoders/kernel_isa.h"

namespace PairAlignment {

struct AntiDiagonalInterior {
    const std::int32_t* previous;      // anti-diagonal d-1
    const std::int32_t* previous2;     // anti-diagonal d-2
    const std::int32_t* substitution;  // substitution score of cell k, gathered beforehand
    std::int32_t* current;             // anti-diagonal d, written
    std::uint8_t* trace;               // move codes of anti-diagonal d, written
    int begin;                         // first interior cell
    int end;                           // one past the last interior cell
    int delta1;                        // start of d minus start of d-1, in second-sequence index
    int delta2;                        // start of d minus start of d-2
    std::int32_t gapA;                 // negated penalty of a step that consumes only the first sequence
    std::int32_t gapB;                 // same for the second sequence
};

// Cell k takes the best of
//   diagonal: previous2[k-1+delta2] + substitution[k]   (code 0)
//   from (i, j-1): previous[k-1+delta1] + gapB          (code 1)
//   from (i-1, j): previous[k+delta1] + gapA            (code 2)
// with ties going to the diagonal, then to code 2. Additions wrap.
using AntiDiagonalKernel = void (*)(const AntiDiagonalInterior& args);

// The kernel built for `isa`, or nullptr if that build is missing or the processor lacks the
// instructions.
AntiDiagonalKernel GetAntiDiagonalKernel(BasecallCommon::KernelIsa isa);

namespace detail {
void AntiDiagonalScalar(const AntiDiagonalInterior& args);
void AntiDiagonalSse2(const AntiDiagonalInterior& args);
void AntiDiagonalAvx2(const AntiDiagonalInterior& args);
void AntiDiagonalAvx512(const AntiDiagonalInterior& args);
}  // namespace detail

}  // namespace PairAlignment
