#include "decoders/transducer_decoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/logger.h"

namespace BasecallHMM {

namespace {

constexpr float kMinRowSum = 1.1754944e-38f;

bool usableSum(float sum) { return sum >= kMinRowSum && std::isfinite(sum); }

// All k digits of the state equal its lowest one.
bool isHomopolymer(int state, int numStates) {
    const int base = state & 3;
    for (int n = numStates; n > 1; n /= 4) {
        if ((state & 3) != base) {
            return false;
        }
        state >>= 2;
    }
    return true;
}

}  // namespace

bool TransducerDecoder::Decode(const Common::MatView<float>& posteriors, std::vector<int>& states,
                               std::vector<signed char>& moves, float& score, float stayPenalty,
                               bool homopolymerCorrect) {
    const std::uint64_t width = posteriors.cols;
    if (width != 65 && width != 257 && width != 1025 && width != 4097) {
        return false;
    }
    const int n = static_cast<int>(width - 1);
    const std::size_t rows = posteriors.rows;
    if (rows == 0) {
        return false;
    }
    const kernels::KernelSet* k = forced != nullptr ? forced : kernels::SelectKernels(n);

    cur.resize(n);
    next.resize(n);
    postRow.resize(n + 1);
    work.resize(kernels::WorkspaceFloats(n));
    trace.resize(rows * static_cast<std::size_t>(n));
    if (homopolymerCorrect) {
        history.resize(rows * static_cast<std::size_t>(n));
    }
    // Row r with unit column stride: the view itself, or a copy.
    const auto row = [&](std::size_t r) -> const float* {
        const float* p = posteriors.data + static_cast<std::int64_t>(r) * posteriors.rowStride;
        if (posteriors.colStride == 1) {
            return p;
        }
        for (int s = 0; s <= n; ++s) {
            postRow[s] = p[static_cast<std::int64_t>(s) * posteriors.colStride];
        }
        return postRow.data();
    };

    std::memcpy(cur.data(), row(0), sizeof(float) * n);
    float sum = k->sumRow(n, cur.data());
    if (!usableSum(sum)) {
        return false;
    }
    k->scaleRow(n, cur.data(), 1.0f / sum);
    for (std::size_t r = 1; r < rows; ++r) {
        if (homopolymerCorrect) {
            std::memcpy(history.data() + (r - 1) * n, cur.data(), sizeof(float) * n);
        }
        const float* post = row(r);
        const float stay = post[n] * stayPenalty;
        sum = k->transducerRow(n, cur.data(), post, stay, next.data(), trace.data() + r * n, work.data());
        if (!usableSum(sum)) {
            return false;
        }
        k->scaleRow(n, next.data(), 1.0f / sum);
        cur.swap(next);
    }

    int s = 0;
    for (int t = 1; t < n; ++t) {
        if (cur[t] > cur[s]) {
            s = t;
        }
    }
    score = logf(cur[s]);

    states.resize(rows);
    moves.resize(rows);
    for (std::size_t r = rows - 1; r > 0; --r) {
        const std::int32_t from = trace[r * n + static_cast<std::size_t>(s)];
        if (from < 0) {
            states[r] = -1;
        } else {
            states[r] = s;
            s = from;
        }
    }
    states[0] = s;

    moves[0] = 1;
    for (std::size_t r = 1; r < rows; ++r) {
        if (states[r] < 0) {
            states[r] = states[r - 1];
            moves[r] = 0;
        } else {
            const int b = (states[r - 1] % (n / 4)) * 4;
            moves[r] = states[r] >= b && states[r] <= b + 3 ? 1 : 2;
        }
    }
    if (homopolymerCorrect) {
        recountHomopolymers(posteriors, n, stayPenalty, states, moves);
    }
    return true;
}

// A stay and a new base of the same homopolymer look alike to the k-mer, so the path alone undercounts
// such runs. Over each run of one homopolymer state, the expected number of bases is the sum, over its
// rows, of the probability that the row brought a new base, arrive / (arrive + keep) (1 for the first
// row of the read); that sum plus 0.5, truncated and at least 1, is the run's base count. The first row
// of the run keeps its move (it brings the run's first base); the remaining bases go, one each, to the
// later rows of the run with the highest probability of a new base, the earlier row first on a tie.
void TransducerDecoder::recountHomopolymers(const Common::MatView<float>& posteriors, int numStates,
                                            float stayPenalty, const std::vector<int>& states,
                                            std::vector<signed char>& moves) {
    const int q = numStates / 4;
    const int rq = numStates / 16;
    const std::size_t rows = states.size();
    std::vector<std::pair<float, std::size_t>> chances;
    std::size_t a = 0;
    while (a < rows) {
        std::size_t z = a;
        while (z + 1 < rows && states[z + 1] == states[a]) {
            ++z;
        }
        const int h = states[a];
        if (z > a && isHomopolymer(h, numStates)) {
            chances.clear();
            double expected = 0.0;
            for (std::size_t r = a; r <= z; ++r) {
                if (r == 0) {
                    expected += 1.0;
                    continue;
                }
                const float* prev = history.data() + (r - 1) * numStates;
                float stepBest = prev[h / 4];
                for (int m = 1; m < 4; ++m) {
                    stepBest = std::max(stepBest, prev[h / 4 + m * q]);
                }
                float skipBest = prev[h / 16];
                for (int m = 1; m < 16; ++m) {
                    skipBest = std::max(skipBest, prev[h / 16 + m * rq]);
                }
                const float source = stepBest < skipBest ? skipBest : stepBest;
                const float arrive = source * posteriors(r, static_cast<std::uint64_t>(h));
                const float keep = prev[h] * posteriors(r, static_cast<std::uint64_t>(numStates)) * stayPenalty;
                const float chance = arrive + keep > 0.0f ? arrive / (arrive + keep) : 0.0f;
                expected += chance;
                if (r > a) {
                    chances.emplace_back(chance, r);
                }
            }
            const long bases = std::max(1L, static_cast<long>(expected + 0.5));
            const std::size_t extra = std::min(static_cast<std::size_t>(bases - 1), chances.size());
            std::stable_sort(chances.begin(), chances.end(),
                             [](const auto& x, const auto& y) { return x.first > y.first; });
            for (std::size_t r = a + 1; r <= z; ++r) {
                moves[r] = 0;
            }
            for (std::size_t i = 0; i < extra; ++i) {
                moves[chances[i].second] = 1;
            }
            KVX_LOG(trace) << "Homopolymer run of state " << h << " over rows " << a << " to " << z << ": "
                           << bases << " bases";
        }
        a = z + 1;
    }
}

bool TransducerDecode(const Common::MatView<float>& posteriors, std::vector<int>& states,
                      std::vector<signed char>& moves, float& score, float stayPenalty, bool homopolymerCorrect) {
    TransducerDecoder decoder;
    return decoder.Decode(posteriors, states, moves, score, stayPenalty, homopolymerCorrect);
}

}  // namespace BasecallHMM
