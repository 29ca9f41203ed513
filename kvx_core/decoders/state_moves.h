#pragma once
// Moves along a path of k-mer states: how many new bases turn one state into the next.

#include <vector>

namespace BasecallHMM {

// 0 if cur == prev; else the smallest m in 1 .. k-1 for which cur lies in the 4^m states that start at
// (prev << 2m) cut to 2k bits, i.e. the last k-m bases of prev are the first k-m bases of cur; else k.
int MoveBetweenStates(int prev, int cur, int kmerLength);

// moves[0] = 1, then the move between each state and its predecessor.
void MovesFromStates(const std::vector<int>& states, int kmerLength, std::vector<signed char>& moves);

}  // namespace BasecallHMM
