#pragma once
// Shared by the decoder tests: kernel builds, random inputs, and every path of a small decoding problem.

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "decoders/kernel_isa.h"

inline std::vector<BasecallCommon::KernelIsa> AvailableKernels() {
    using BasecallCommon::KernelIsa;
    std::vector<KernelIsa> out;
    for (KernelIsa isa : {KernelIsa::Scalar, KernelIsa::Sse2, KernelIsa::Avx2, KernelIsa::Avx512}) {
        if (BasecallCommon::IsaSupported(isa)) out.push_back(isa);
    }
    return out;
}

// `count` integers drawn uniformly from lo .. hi.
template <typename Rng>
std::vector<int> RandomInts(Rng& rng, std::size_t count, int lo, int hi) {
    std::vector<int> out(count);
    for (auto& x : out) x = std::uniform_int_distribution<int>(lo, hi)(rng);
    return out;
}

// The rows of a table, one after the other, in single precision.
inline std::vector<float> Flatten(const std::vector<std::vector<double>>& rows) {
    std::vector<float> out;
    for (const auto& row : rows) out.insert(out.end(), row.begin(), row.end());
    return out;
}

namespace brute_force {

// Offers each edge out of state p into row r as offer(s, rank, weight), emission included.
using Offer = std::function<void(int s, int rank, double weight)>;
using Edges = std::function<void(std::size_t r, int p, const Offer& offer)>;

struct Best {
    double score = -1.0;
    int optimalPaths = 0;  // how many paths reach the best score
    std::vector<int> states, ranks;  // rank of the edge into each row (row 0 unused)
    std::vector<double> bestEnding;  // best score of the paths ending in each state
};

// The best path, exact in double; of equal scores the decoders keep, from the end back, the smallest
// final state and then the lowest rank.
inline Best Decode(std::size_t n, const std::vector<double>& first, const Edges& edges) {
    Best best;
    best.bestEnding.assign(first.size(), 0.0);
    std::vector<int> path(n), ranks(n, 0);
    const auto earlier = [&] {
        if (path[n - 1] != best.states[n - 1]) return path[n - 1] < best.states[n - 1];
        for (std::size_t r = n - 1; r >= 1; --r) {
            if (ranks[r] != best.ranks[r]) return ranks[r] < best.ranks[r];
        }
        return false;
    };
    std::function<void(std::size_t, double)> walk = [&](std::size_t r, double score) {
        if (r < n) {
            edges(r, path[r - 1], [&](int s, int rank, double weight) {
                path[r] = s;
                ranks[r] = rank;
                walk(r + 1, score * weight);
            });
            return;
        }
        best.bestEnding[path[n - 1]] = std::max(best.bestEnding[path[n - 1]], score);
        if (score > best.score) best.optimalPaths = 0;
        if (score >= best.score) ++best.optimalPaths;
        if (score > best.score || (score == best.score && earlier())) {
            best.score = score;
            best.states = path;
            best.ranks = ranks;
        }
    };
    for (std::size_t s = 0; s < first.size(); ++s) {
        path[0] = static_cast<int>(s);
        walk(1, first[s]);
    }
    return best;
}

// The score of one given path: its best edge into each row.
inline double PathScore(const std::vector<int>& path, const std::vector<double>& first, const Edges& edges) {
    double score = first[path[0]];
    for (std::size_t r = 1; r < path.size(); ++r) {
        double edge = 0.0;
        edges(r, path[r - 1],
              [&](int s, int, double weight) { edge = s == path[r] ? std::max(edge, weight) : edge; });
        score *= edge;
    }
    return score;
}

}  // namespace brute_force
