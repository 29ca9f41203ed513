#include "decoders/viterbi_md.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "decoders/int_score.h"
#include "decoders/viterbi_md_kernel.h"

#include "../common/test_support.h"
#include "decoder_test_util.h"

namespace {

using BasecallCommon::KernelIsa;
using BasecallMD::ViterbiMD;
using Alignment = std::vector<std::pair<int, int>>;

// A direct, slow decoder: every cell kept in a map, every transition enumerated, candidates in the
// order stay, steps, skips, sources ascending, a later one winning only when strictly better.

int L(float x) { return static_cast<int>(std::log(std::max(x, 1e-10f)) * 100.0f); }

struct Input {
    int N = 256, n1 = 0, n2 = 0;
    std::vector<float> post1, post2, stay1, stay2;  // posteriors: events x N
    std::vector<int> bandStart, bandEnd, startScores;
    float skip1 = 0.0f, skip2 = 0.0f;
};

struct Result {
    long score = 0;
    Alignment alignment;
    std::vector<short> states;
    std::vector<signed char> moves;
};

struct Cell {
    std::vector<long> score;
    std::vector<int> from, direction, move;
};

Result referenceDecode(const Input& in) {
    const int W = in.N / 256 * 256;
    const int ns1 = L(1 - in.skip1), sk1 = L(in.skip1), ns2 = L(1 - in.skip2), sk2 = L(in.skip2);
    std::map<std::pair<int, int>, Cell> cells;
    const auto inBand = [&](int i, int j) {
        return j >= 0 && j < in.n2 && i >= in.bandStart[j] && i <= in.bandEnd[j];
    };
    const std::vector<long> unreachable(W, -100000000);
    const std::vector<long> start(in.startScores.begin(), in.startScores.begin() + W);
    for (int j = 0; j < in.n2; ++j) {
        for (int i = in.bandStart[j]; i <= in.bandEnd[j]; ++i) {
            const int S1 = L(in.stay1[i]), M1 = L(1 - in.stay1[i]);
            const int S2 = L(in.stay2[j]), M2 = L(1 - in.stay2[j]);
            const int X2 = j < in.n2 - 1 ? L(1 - in.stay2[j + 1]) : 0;
            const int X1 = i < in.n1 - 1 ? L(1 - in.stay1[i + 1]) : 0;
            const long stay[3] = {S1 + S2, S1, S2};
            const long step[3] = {ns1 + ns2 + M1 + M2 - 139, ns1 + sk2 + M1 - 139 + X2,
                                  ns2 + sk1 + M2 - 139 + X1};
            const long skip[3] = {sk1 + sk2 + M1 + M2 - 277, sk1 + 2 * sk2 + M1 - 277 + X2,
                                  2 * sk1 + sk2 + M2 - 277 + X1};
            const bool first = j == 0 && i == in.bandStart[0];
            const std::vector<long>* source[3] = {
                first ? &start : (inBand(i - 1, j - 1) ? &cells[{i - 1, j - 1}].score : &unreachable),
                inBand(i - 1, j) ? &cells[{i - 1, j}].score : &unreachable,
                inBand(i, j - 1) ? &cells[{i, j - 1}].score : &unreachable};
            long best[3][1024];
            int from[3][1024], move[3][1024];
            for (int d = 0; d < 3; ++d) {
                const std::vector<long>& src = *source[d];
                std::fill_n(best[d], W, std::numeric_limits<long>::min());
                // Stays s -> s, steps s -> (s mod W/4) * 4 + b, skips s -> (s mod W/16) * 16 + b1 * 4 + b2.
                for (int kind = 0; kind < 3; ++kind) {
                    const int fan = 1 << (2 * kind);
                    const long weight = kind == 0 ? stay[d] : kind == 1 ? step[d] : skip[d];
                    for (int s = 0; s < W; ++s) {
                        for (int t = (s % (W / fan)) * fan; t < (s % (W / fan) + 1) * fan; ++t) {
                            if (src[s] + weight <= best[d][t]) continue;
                            best[d][t] = src[s] + weight;
                            from[d][t] = s;
                            move[d][t] = kind;
                        }
                    }
                }
                for (int s = 0; s < W; ++s) {
                    if (d != 2) best[d][s] += L(in.post1[i * in.N + s]);
                    if (d != 1) best[d][s] += L(in.post2[j * in.N + s]);
                }
            }
            Cell& cell = cells[{i, j}];
            for (int s = 0; s < W; ++s) {
                const bool stay = best[0][s] >= best[1][s] && best[0][s] >= best[2][s];
                const int d = stay ? 0 : (best[1][s] > best[2][s] ? 1 : 2);
                cell.score.push_back(best[d][s]);
                cell.from.push_back(from[d][s]);
                cell.direction.push_back(d);
                cell.move.push_back(move[d][s]);
            }
        }
    }
    Result r;
    int i = in.bandEnd[in.n2 - 1];
    int j = in.n2 - 1;
    const Cell& last = cells[{i, j}];
    int state = static_cast<int>(std::max_element(last.score.begin(), last.score.end()) - last.score.begin());
    r.score = last.score[state];
    // Walk back until the start, or until a predecessor outside the band.
    for (auto it = cells.find({i, j}); it != cells.end(); it = cells.find({i, j})) {
        const Cell& c = it->second;
        const int d = c.direction[state];
        r.states.push_back(static_cast<short>(state));
        r.moves.push_back(static_cast<signed char>(c.move[state]));
        r.alignment.emplace_back(d == 2 ? -1 : i, d == 1 ? -1 : j);
        const bool atStart = d == 0 && j == 0 && i == in.bandStart[0];
        state = c.from[state];
        i -= d != 2;
        j -= d != 1;
        if (atStart) break;
    }
    std::reverse(r.alignment.begin(), r.alignment.end());
    std::reverse(r.states.begin(), r.states.end());
    std::reverse(r.moves.begin(), r.moves.end());
    return r;
}

float pick(std::mt19937& rng, const std::vector<float>& values) {
    return values[std::uniform_int_distribution<std::size_t>(0, values.size() - 1)(rng)];
}

// Random band with its first cell at (0, 0) and its last at (n1 - 1, n2 - 1), rows overlapping.
void randomBand(std::mt19937& rng, Input& in) {
    in.bandStart.assign(in.n2, 0);
    in.bandEnd.assign(in.n2, 0);
    for (int j = 0; j < in.n2; ++j) {
        int lo = 0, hi = 0;
        if (j > 0) {
            lo = std::uniform_int_distribution<int>(in.bandStart[j - 1],
                                                    std::min(in.bandEnd[j - 1] + 1, in.n1 - 1))(rng);
            hi = std::max(lo, in.bandEnd[j - 1]);
        }
        hi = std::uniform_int_distribution<int>(hi, std::min(in.n1 - 1, std::max(hi, lo + 4)))(rng);
        in.bandStart[j] = lo;
        in.bandEnd[j] = j == in.n2 - 1 ? in.n1 - 1 : hi;
    }
}

// Posteriors and probabilities drawn from a few values so that scores tie often.
Input randomInput(std::mt19937& rng, int N, int n1, int n2) {
    Input in;
    std::tie(in.N, in.n1, in.n2) = std::tie(N, n1, n2);
    const auto draw = [&](int count, const std::vector<float>& values) {
        std::vector<float> out(count);
        for (auto& x : out) x = pick(rng, values);
        return out;
    };
    const std::vector<float> post = {0.0f, 0.001f, 0.01f, 0.1f, 0.25f, 0.5f, 1.0f},
                             stays = {0.0f, 0.1f, 0.5f, 0.9f, 1.0f};
    in.post1 = draw(n1 * N, post);
    in.post2 = draw(n2 * N, post);
    in.stay1 = draw(n1, stays);
    in.stay2 = draw(n2, stays);
    in.startScores.resize(N);
    for (auto& s : in.startScores) s = std::uniform_int_distribution<int>(-3, 0)(rng) * 50;
    in.skip1 = pick(rng, {0.0f, 0.1f, 0.5f});
    in.skip2 = pick(rng, {0.0f, 0.1f, 0.5f});
    randomBand(rng, in);
    return in;
}

Result decode(ViterbiMD& decoder, Input& in) {
    Result r;
    r.score = static_cast<long>(decoder.Call(Common::MatView<float>(in.post1.data(), in.n1, in.N, in.N),
                                             Common::MatView<float>(in.post2.data(), in.n2, in.N, in.N),
                                             Common::VecView<float>(in.stay1),
                                             Common::VecView<float>(in.stay2), in.bandStart, in.bandEnd,
                                             in.startScores, r.alignment, r.states, in.skip1, in.skip2));
    r.moves = decoder.Moves();
    return r;
}

void expectSame(const Result& got, const Result& want, const std::string& what) {
    EXPECT_EQ(std::tie(got.score, got.alignment, got.states, got.moves),
              std::tie(want.score, want.alignment, want.states, want.moves)) << what;
}

// Random input of up to maxEvents events a strand, rich in ties, in three kinds by trial number.
Input tieRichInput(std::mt19937& rng, int N, int maxEvents, int trial) {
    std::uniform_int_distribution<int> events(2, maxEvents);
    Input in = randomInput(rng, N, events(rng), events(rng));
    if (trial % 3 == 0) {
        // Flat posteriors and one stay probability: the two strands look alike and the three
        // directions tie all over the plane.
        in.post1.assign(in.post1.size(), in.post1[0]);
        in.post2.assign(in.post2.size(), in.post1[0]);
        in.stay1.assign(in.stay1.size(), in.stay1[0]);
        in.stay2.assign(in.stay2.size(), in.stay1[0]);
        in.skip2 = in.skip1;
    } else if (trial % 3 == 1) {
        // Both strands the same over a full square band: the plane is symmetric about its diagonal,
        // so on the diagonal strand 1 alone and strand 2 alone tie exactly.
        std::tie(in.n2, in.post2, in.stay2, in.skip2) = std::tie(in.n1, in.post1, in.stay1, in.skip1);
        in.bandStart.assign(in.n2, 0);
        in.bandEnd.assign(in.n2, in.n1 - 1);
    }
    return in;
}

// Every kernel build against the direct decoder, reused as a worker reuses its own; at 320 states the
// last 64 take no part.
TEST(ViterbiMD, MatchesDirectDecoderOnRandomBands) {
    std::mt19937 rng(1234);
    for (const auto& [N, trials] : {std::pair<int, int>{256, 100}, {320, 60}, {1024, 20}}) {
        std::vector<std::unique_ptr<ViterbiMD>> decoders;
        for (KernelIsa isa : AvailableKernels()) {
            decoders.push_back(std::make_unique<ViterbiMD>(300, 16, N, 0.0f, 0.0f));
            ASSERT_TRUE(decoders.back()->SetKernel(isa));
        }
        for (int trial = 0; trial < trials; ++trial) {
            Input in = tieRichInput(rng, N, 14, trial);
            const Result want = referenceDecode(in);
            ASSERT_FALSE(want.alignment.empty());
            for (auto& decoder : decoders) {
                expectSame(decode(*decoder, in), want,
                           "states " + std::to_string(N) + " trial " + std::to_string(trial) + " kernel " +
                               BasecallCommon::IsaName(decoder->Kernel()));
                if (::testing::Test::HasFailure()) return;
            }
            if (trial % 7 == 6) {  // negative skip probabilities keep the scores of the last call
                in.skip1 = in.skip2 = -1.0f;
                expectSame(decode(*decoders.back(), in), want,
                           "negative skips, trial " + std::to_string(trial));
            }
        }
    }
}

TEST(ViterbiMD, EventScoresAreTheIntegerLogsOnEveryBuild) {
    // Special values, every probability at which the score changes (100 ln x crossing an integer) with
    // its neighbouring floats, where a fast logarithm would slip first, and random bit patterns.
    using Limits = std::numeric_limits<float>;
    std::vector<float> x = {0.0f,
                            -0.0f,
                            -1.0f,
                            1e-10f,
                            1e-11f,
                            1.0f,
                            2.0f,
                            1e30f,
                            Limits::max(),
                            Limits::denorm_min(),
                            Limits::infinity(),
                            -Limits::infinity(),
                            Limits::quiet_NaN()};
    for (int k = -2400; k <= 200; ++k) {
        float v = static_cast<float>(std::exp(k / 100.0));
        for (int u = 0; u < 4; ++u) v = std::nextafter(v, 0.0f);
        for (int u = 0; u < 9; ++u, v = std::nextafter(v, 10.0f)) x.push_back(v);
    }
    std::mt19937 rng(9);
    for (int k = 0; k < 100001; ++k) {
        const std::uint32_t bits = rng();
        float v;
        std::memcpy(&v, &bits, sizeof v);
        x.push_back(v);
    }
    std::vector<std::int32_t> want;
    for (const float v : x) want.push_back(BasecallCommon::IntLogScore(v));
    for (KernelIsa isa : AvailableKernels()) {
        std::vector<std::int32_t> got(x.size());
        BasecallMD::GetEventScoreKernel(isa)(x.data(), static_cast<int>(x.size()), got.data());
        for (std::size_t k = 0; k < x.size(); ++k)
            ASSERT_EQ(got[k], want[k]) << "x = " << x[k] << " kernel " << BasecallCommon::IsaName(isa);
    }
}

TEST(ViterbiMD, Failures) {
    std::mt19937 rng(5);
    Input in = randomInput(rng, 256, 4, 4);
    ViterbiMD decoder(100, 6, 256, 0.0f, 0.0f);
    in.bandEnd[3] = 4;  // one past the last strand-1 event
    EXPECT_EQ(TestSupport::ErrorOf([&] { decode(decoder, in); }), "row index out of bounds.");
    // Beyond the sizes fixed at construction: refused instead of overrunning the buffers.
    Input wide = randomInput(rng, 256, 8, 4), many = randomInput(rng, 256, 8, 8);
    EXPECT_THROW(decode(decoder, wide), std::runtime_error);
    ViterbiMD tiny(5, 10, 256, 0.0f, 0.0f);
    EXPECT_THROW(decode(tiny, many), std::runtime_error);
    EXPECT_THROW(ViterbiMD(10, 10, 64, 0.0f, 0.0f), std::runtime_error);
}

}  // namespace
