#include "decoders/flipflop_decoder.h"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace BasecallHMM {

namespace {
constexpr double kNegInf = -std::numeric_limits<double>::infinity();
}

double LogSumExp(double a, double b) {
    if (a == kNegInf) {
        return b;
    }
    if (b == kNegInf) {
        return a;
    }
    return a > b ? a + std::log1p(std::exp(b - a)) : b + std::log1p(std::exp(a - b));
}

int FlipflopDecoder::Column(int from, int to) {
    if (to < 4) {
        return to * 8 + from;
    }
    const int b = to - 4;
    if (from == b) {
        return 32 + b;
    }
    if (from == to) {
        return 36 + b;
    }
    return -1;
}

bool FlipflopDecoder::Decode(const Common::MatView<float>& scores, std::vector<int>& states,
                             std::vector<signed char>& moves, std::vector<float>& weights,
                             Common::MatView<float>* quality, float& score) {
    if (scores.cols != static_cast<std::uint64_t>(kTransitions)) {
        throw std::runtime_error("Unexpected size of posterior matrix.");
    }
    const std::size_t n = scores.rows;
    if (quality != nullptr && (quality->rows != n || quality->cols != 4)) {
        throw std::runtime_error("Unexpected size of qdata matrix.");
    }
    states.assign(n, 0);
    moves.assign(n, 0);
    weights.assign(n, 0.0f);
    if (n == 0) {
        score = 0.0f;
        return true;
    }
    alpha.assign((n + 1) * kStates, 0.0);
    beta.assign((n + 1) * kStates, 0.0);
    best.assign((n + 1) * kStates, 0.0);
    back.assign((n + 1) * kStates, -1);

    for (std::size_t r = 0; r < n; ++r) {
        const double* a = &alpha[r * kStates];
        const double* v = &best[r * kStates];
        for (int to = 0; to < kStates; ++to) {
            double sum = kNegInf;
            double top = kNegInf;
            int from = -1;
            for (int p = 0; p < kStates; ++p) {
                const int c = Column(p, to);
                if (c < 0) {
                    continue;
                }
                const double s = scores(r, static_cast<std::uint64_t>(c));
                if (!std::isfinite(s)) {
                    return false;
                }
                sum = LogSumExp(sum, a[p] + s);
                if (v[p] + s > top) {
                    top = v[p] + s;
                    from = p;
                }
            }
            alpha[(r + 1) * kStates + to] = sum;
            best[(r + 1) * kStates + to] = top;
            back[(r + 1) * kStates + to] = static_cast<signed char>(from);
        }
    }
    for (std::size_t r = n; r-- > 0;) {
        const double* b = &beta[(r + 1) * kStates];
        for (int p = 0; p < kStates; ++p) {
            double sum = kNegInf;
            for (int to = 0; to < kStates; ++to) {
                const int c = Column(p, to);
                if (c >= 0) {
                    sum = LogSumExp(sum, scores(r, static_cast<std::uint64_t>(c)) + b[to]);
                }
            }
            beta[r * kStates + p] = sum;
        }
    }
    double logZ = kNegInf;
    for (int s = 0; s < kStates; ++s) {
        logZ = LogSumExp(logZ, alpha[n * kStates + s]);
    }

    int s = 0;
    for (int t = 1; t < kStates; ++t) {
        if (best[n * kStates + t] > best[n * kStates + s]) {
            s = t;
        }
    }
    score = static_cast<float>(best[n * kStates + s] - logZ);
    for (std::size_t r = n; r >= 1; --r) {
        const int from = back[r * kStates + s];
        states[r - 1] = s % 4;
        moves[r - 1] = static_cast<signed char>(from == s ? 0 : 1);
        s = from;
    }
    moves[0] = 1;

    for (std::size_t r = 0; r < n; ++r) {
        // Posterior of a new base in row r: every transition but the two kinds of stay.
        double stay = kNegInf;
        for (int p = 0; p < kStates; ++p) {
            stay = LogSumExp(stay, alpha[r * kStates + p] + scores(r, static_cast<std::uint64_t>(Column(p, p))) +
                                       beta[(r + 1) * kStates + p]);
        }
        weights[r] = static_cast<float>(1.0 - std::exp(stay - logZ));
        if (quality != nullptr) {
            for (int b = 0; b < 4; ++b) {
                const double flip = alpha[(r + 1) * kStates + b] + beta[(r + 1) * kStates + b];
                const double flop = alpha[(r + 1) * kStates + 4 + b] + beta[(r + 1) * kStates + 4 + b];
                const double posterior = std::exp(LogSumExp(flip, flop) - logZ);
                (*quality)(r, static_cast<std::uint64_t>(b)) = static_cast<float>(posterior);
            }
        }
    }
    return true;
}

}  // namespace BasecallHMM
