#pragma once
// Bases and FASTQ quality characters from a decoded path. Each path entry's k-mer covers its last k
// bases; the per-position base probabilities of the entry (its row of quality data, see
// QualityMatrix) are added to every base the k-mer covers, so a base's quality pools all the events
// that saw it.

#include <cstdint>
#include <string>
#include <vector>

#include "common/views.h"

namespace BasecallCommon {

// The FASTQ character of a base called with probability p: q = -10 log10(1 - p) (in double), then
// q * qscoreScale + qscoreOffset, clamped to 1 .. 90, rounded with lroundf, plus 33.
char QualityChar(float p, float qscoreOffset, float qscoreScale);

// Fills sequence and quality from the path. qualityData has one row per path entry and 4 k columns
// (block p of four columns gives digit p of the state, digit 0 the newest base); states and moves have
// one entry per row; the first entry's move does not count and it contributes all k bases. Throws
// std::runtime_error when the sizes do not agree, or a move is negative or above k.
void BuildSequence(float qscoreOffset, float qscoreScale, const Common::MatView<const float>& qualityData,
                   const Common::VecView<const short>& states, const Common::VecView<const signed char>& moves,
                   std::string& sequence, std::string& quality);
void BuildSequence(float qscoreOffset, float qscoreScale, const Common::MatView<const float>& qualityData,
                   const Common::VecView<const int>& states, const Common::VecView<const signed char>& moves,
                   std::string& sequence, std::string& quality);

// The same, taking the calibration from anything that carries qscore_offset and qscore_scale (the
// chunk callers), and the path as vectors.
template <typename Calibrated, typename State>
void BuildSequence(const Calibrated& caller, const Common::MatView<const float>& qualityData,
                   const std::vector<State>& states, const std::vector<signed char>& moves, std::string& sequence,
                   std::string& quality) {
    BuildSequence(caller.qscore_offset, caller.qscore_scale, qualityData,
                  Common::VecView<const State>(states.data(), states.size(), 1),
                  Common::VecView<const signed char>(moves.data(), moves.size(), 1), sequence, quality);
}

}  // namespace BasecallCommon
