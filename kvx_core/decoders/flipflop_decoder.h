#pragma once
// Decoding of flip-flop transition scores. A flip-flop model has 8 states: flip A, C, G, T (0 .. 3)
// and flop A, C, G, T (4 .. 7). A new base enters its flip state from any state, except that a flip
// state followed by itself is a stay; the flip state of a base may move to its flop state, a repeat of
// the same base, and a flop state may stay. That leaves 40 transitions, and each row of the network's
// output gives their unnormalised log scores, in this layout:
//   column to * 8 + from       into flip state `to` (0 .. 3) from any state `from` (0 .. 7),
//   column 32 + b              from flip b into flop b,
//   column 36 + b              flop b staying in flop b.
// Row r scores the move from position r to position r + 1; a path over n rows visits n + 1 positions,
// and the first has every state equally likely. Scores are normalised by the log partition function
// of the whole chunk, accumulated in double precision with the exact two-term log-sum-exp.

#include <vector>

#include "common/views.h"

namespace BasecallHMM {

class FlipflopDecoder {
public:
    static constexpr int kStates = 8;
    static constexpr int kTransitions = 40;

    // scores: n rows of 40 columns. states: per row, the base (0 .. 3) of the position it moves to on
    // the best path. moves: 1 when that move brings a new base, 0 for a stay (row 0 always 1).
    // weights: per row, the posterior probability that the row brings a new base. quality: n rows of 4
    // columns (dense) receiving the posterior probability of each base at the row's position; may be
    // null. score: log probability of the best path, that is its score minus the log partition.
    // Throws "Unexpected size of posterior matrix." for another column count. False when the scores
    // are not finite.
    bool Decode(const Common::MatView<float>& scores, std::vector<int>& states, std::vector<signed char>& moves,
                std::vector<float>& weights, Common::MatView<float>* quality, float& score);

    // Column of the transition from -> to, or -1 if the model has no such transition.
    static int Column(int from, int to);

private:
    std::vector<double> alpha;  // (n + 1) by 8, log forward
    std::vector<double> beta;   // (n + 1) by 8, log backward
    std::vector<double> best;   // (n + 1) by 8, Viterbi
    std::vector<signed char> back;
};

// The exact log(exp(a) + exp(b)), the larger plus log1p of the exponential of the negated difference.
double LogSumExp(double a, double b);

}  // namespace BasecallHMM
