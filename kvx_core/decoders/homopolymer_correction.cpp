#include "decoders/homopolymer_correction.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "common/event_data.h"
#include "common/logger.h"

namespace BasecallCommon {

namespace {

const char kAlphabet[] = "ACGT";

bool isHomopolymer(int state, int k) {
    const int base = state & 3;
    for (int p = 0; p < k; ++p) {
        if (((state >> (2 * p)) & 3) != base) {
            return false;
        }
    }
    return true;
}

}  // namespace

template <typename LengthT>
int homopolymerDwellCorrection(const Common::VecView<int>& states, const std::vector<LengthT>& lengths,
                               std::vector<signed char>& moves, int numStates) {
    KVX_LOG(verbose) << "Starting homopolymer dwell correction";
    const std::size_t n = moves.size();
    if (states.size != n || lengths.size() != n) {
        throw std::runtime_error("Homopolymer dwell correction needs one state and one length per move, but got " +
                                 std::to_string(states.size) + " states, " + std::to_string(lengths.size()) +
                                 " lengths and " + std::to_string(n) + " moves.");
    }
    const int k = Common::KmerLengthFromStates(numStates);

    // The read's mean dwell per base: the dwell of stretches that follow a single step, pooled with one
    // pseudo-base at the read's overall dwell per base, so that a read with few single steps still
    // gets a sensible figure.
    double sum = 0.0;
    long bases = 0;
    for (std::size_t i = 0; i < n; ++i) {
        sum += static_cast<double>(lengths[i]);
        bases += moves[i];
    }
    if (bases <= 0) {
        KVX_LOG(verbose) << "Finished homopolymer dwell correction.";
        return 0;
    }
    int run = 0;
    double stepDwell = 0.0;
    long steps = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double length = static_cast<double>(lengths[i]);
        if (moves[i] == 0) {
            stepDwell += run * length;
        } else if (moves[i] == 1) {
            steps += 1;
            stepDwell += length;
            run = 1;
        } else {
            run = 0;
        }
    }
    const double meanDwell = (sum / static_cast<double>(bases) + stepDwell) / static_cast<double>(steps + 1);
    if (!(meanDwell > 0.0) || !std::isfinite(meanDwell)) {
        KVX_LOG(verbose) << "Finished homopolymer dwell correction.";
        return 0;
    }

    // A new move is at most k; the first event of a run keeps at least its old move, up to (k + 1) / 2,
    // since that event is where the path entered the homopolymer and its own bases are not in doubt.
    const int newCap = k;
    const int oldCap = (k + 1) / 2;
    int change = 0;
    std::vector<int> newMoves;
    std::size_t i = 0;
    while (i < n) {
        const int state = states[i];
        if (!isHomopolymer(state, k)) {
            ++i;
            continue;
        }
        KVX_LOG(trace) << "Event " << i << ": " << kAlphabet[state & 3] << " homopolymer started";
        const std::size_t a = i;
        double dwell = 0.0;
        while (true) {
            dwell += static_cast<double>(lengths[i]);
            if (i + 1 == n || states[i + 1] != state) {
                break;
            }
            ++i;
        }
        const std::size_t z = i;
        ++i;

        const int runLength = static_cast<int>(z - a + 1);
        const int wanted = static_cast<int>(std::lround(dwell / meanDwell));
        newMoves.assign(static_cast<std::size_t>(runLength), std::min(wanted / runLength, newCap));
        newMoves[0] = std::max(newMoves[0], std::min(static_cast<int>(moves[a]), oldCap));
        if (a == 0) {
            newMoves[0] = 1;
        }
        int current = 0;
        int oldSum = 0;
        for (int j = 0; j < runLength; ++j) {
            current += newMoves[static_cast<std::size_t>(j)];
            oldSum += moves[a + static_cast<std::size_t>(j)];
        }
        KVX_LOG(trace) << "Would like to distribute " << wanted;
        // Sweeps leave only the read's first event alone, whose move of 1 was settled above; the first
        // event of any other run is swept like the rest, since a long step into a short run can be as
        // wrong as the run itself. When every event has reached its limit the sweep ends and the
        // difference is dropped.
        const std::size_t firstSwept = a == 0 ? 1 : 0;
        while (current < wanted) {
            bool changed = false;
            for (int j = static_cast<int>(firstSwept); j < runLength && current < wanted; ++j) {
                if (newMoves[j] < newCap) {
                    ++newMoves[j];
                    ++current;
                    changed = true;
                }
            }
            if (!changed) {
                break;
            }
        }
        while (current > wanted) {
            bool changed = false;
            for (int j = runLength - 1; j >= static_cast<int>(firstSwept) && current > wanted; --j) {
                if (newMoves[j] > 0) {
                    --newMoves[j];
                    --current;
                    changed = true;
                }
            }
            if (!changed) {
                break;
            }
        }
        KVX_LOG(trace) << "Actually writing new moves: " << [&] {
            std::ostringstream os;
            for (int j = 0; j < runLength; ++j) {
                os << (j == 0 ? "" : " ") << newMoves[j];
            }
            return os.str();
        }();
        for (int j = 0; j < runLength; ++j) {
            moves[a + static_cast<std::size_t>(j)] = static_cast<signed char>(newMoves[j]);
        }
        change += current - oldSum;
    }
    KVX_LOG(verbose) << "Finished homopolymer dwell correction.";
    return change;
}

template int homopolymerDwellCorrection<unsigned long>(const Common::VecView<int>&, const std::vector<unsigned long>&,
                                                       std::vector<signed char>&, int);
template int homopolymerDwellCorrection<float>(const Common::VecView<int>&, const std::vector<float>&,
                                               std::vector<signed char>&, int);

}  // namespace BasecallCommon
