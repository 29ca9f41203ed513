#pragma once
// Homopolymer dwell correction. Inside a run of one homopolymer k-mer a new base cannot be told from a
// stay by the k-mer alone; the time the run lasted tells how many bases it held. The moves of each
// such run are rewritten so that they add up to the run's dwell divided by the read's mean dwell per
// base.

#include <vector>

#include "common/views.h"

namespace BasecallCommon {

// states: the path, one state per event; lengths: the dwell of each event (samples, or seconds);
// moves: the path's moves, rewritten in place; numStates: N = 4^k. Returns the change in the number of
// bases. LengthT is unsigned long or float.
template <typename LengthT>
int homopolymerDwellCorrection(const Common::VecView<int>& states, const std::vector<LengthT>& lengths,
                               std::vector<signed char>& moves, int numStates);

extern template int homopolymerDwellCorrection<unsigned long>(const Common::VecView<int>&,
                                                              const std::vector<unsigned long>&,
                                                              std::vector<signed char>&, int);
extern template int homopolymerDwellCorrection<float>(const Common::VecView<int>&, const std::vector<float>&,
                                                      std::vector<signed char>&, int);

}  // namespace BasecallCommon
