#include "decoders/viterbi_md.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "decoders/int_score.h"
#include "decoders/prior_band.h"
#include "decoders/viterbi_md_kernel.h"

#include "../basecall_nn/allocation_counter.h"

namespace {

using BasecallCommon::KernelIsa;
using BasecallMD::ViterbiMD;
using Alignment = std::vector<std::pair<int, int>>;

std::vector<KernelIsa> availableKernels() {
    std::vector<KernelIsa> out;
    for (KernelIsa isa : {KernelIsa::Scalar, KernelIsa::Sse2, KernelIsa::Avx2, KernelIsa::Avx512}) {
        if (BasecallCommon::IsaSupported(isa)) {
            out.push_back(isa);
        }
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// A direct, slow decoder: every cell of the band kept in a map, every transition enumerated from
// its source state, candidates taken in the order stay, steps, skips, each source ascending, and a
// later candidate winning only when strictly better.

int L(float x) { return static_cast<int>(std::log(std::max(x, 1e-10f)) * 100.0f); }

struct Input {
    int N = 256;
    int n1 = 0;
    int n2 = 0;
    std::vector<float> post1, post2;  // events x N
    std::vector<float> stay1, stay2;
    std::vector<int> bandStart, bandEnd;
    std::vector<int> startScores;
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
            const long step[3] = {ns1 + ns2 + M1 + M2 - 139, ns1 + sk2 + M1 - 139 + X2, ns2 + sk1 + M2 - 139 + X1};
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
                for (int s = 0; s < W; ++s) {
                    best[d][s] = src[s] + stay[d];
                    from[d][s] = s;
                    move[d][s] = 0;
                }
                for (int s = 0; s < W; ++s) {  // s -> (s mod W/4) * 4 + b
                    for (int b = 0; b < 4; ++b) {
                        const int t = (s % (W / 4)) * 4 + b;
                        if (src[s] + step[d] > best[d][t]) {
                            best[d][t] = src[s] + step[d];
                            from[d][t] = s;
                            move[d][t] = 1;
                        }
                    }
                }
                for (int s = 0; s < W; ++s) {  // s -> (s mod W/16) * 16 + b1 * 4 + b2
                    for (int b = 0; b < 16; ++b) {
                        const int t = (s % (W / 16)) * 16 + b;
                        if (src[s] + skip[d] > best[d][t]) {
                            best[d][t] = src[s] + skip[d];
                            from[d][t] = s;
                            move[d][t] = 2;
                        }
                    }
                }
                for (int s = 0; s < W; ++s) {
                    if (d != 2) {
                        best[d][s] += L(in.post1[i * in.N + s]);
                    }
                    if (d != 1) {
                        best[d][s] += L(in.post2[j * in.N + s]);
                    }
                }
            }
            Cell& cell = cells[{i, j}];
            for (int s = 0; s < W; ++s) {
                const int d = best[0][s] >= best[1][s] && best[0][s] >= best[2][s] ? 0 : (best[1][s] > best[2][s] ? 1 : 2);
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
    int state = 0;
    for (int s = 1; s < W; ++s) {
        if (last.score[s] > last.score[state]) {
            state = s;
        }
    }
    r.score = last.score[state];
    // Walk back until the start, or until a predecessor outside the band.
    bool atStart = false;
    while (!atStart) {
        const auto it = cells.find({i, j});
        if (it == cells.end()) {
            break;
        }
        const Cell& c = it->second;
        r.states.push_back(static_cast<short>(state));
        r.moves.push_back(static_cast<signed char>(c.move[state]));
        switch (c.direction[state]) {
            case 0:
                r.alignment.emplace_back(i, j);
                atStart = j == 0 && i == in.bandStart[0];
                --i;
                --j;
                break;
            case 1:
                r.alignment.emplace_back(i, -1);
                --i;
                break;
            default:
                r.alignment.emplace_back(-1, j);
                --j;
                break;
        }
        state = c.from[state];
    }
    std::reverse(r.alignment.begin(), r.alignment.end());
    std::reverse(r.states.begin(), r.states.end());
    std::reverse(r.moves.begin(), r.moves.end());
    return r;
}

// ---------------------------------------------------------------------------------------------

float pick(std::mt19937& rng, const std::vector<float>& values) {
    return values[std::uniform_int_distribution<std::size_t>(0, values.size() - 1)(rng)];
}

// Random band with its first cell at (0, 0) and its last at (n1 - 1, n2 - 1), rows overlapping.
void randomBand(std::mt19937& rng, Input& in) {
    in.bandStart.assign(in.n2, 0);
    in.bandEnd.assign(in.n2, 0);
    for (int j = 0; j < in.n2; ++j) {
        int lo = 0;
        int hi = 0;
        if (j > 0) {
            lo = std::uniform_int_distribution<int>(in.bandStart[j - 1], std::min(in.bandEnd[j - 1] + 1, in.n1 - 1))(rng);
            hi = std::max(lo, in.bandEnd[j - 1]);
        }
        hi = std::uniform_int_distribution<int>(hi, std::min(in.n1 - 1, std::max(hi, lo + 4)))(rng);
        if (j == in.n2 - 1) {
            hi = in.n1 - 1;
        }
        in.bandStart[j] = lo;
        in.bandEnd[j] = hi;
    }
}

// Posteriors and probabilities drawn from a few values so that scores tie often.
Input randomInput(std::mt19937& rng, int N, int n1, int n2) {
    Input in;
    in.N = N;
    in.n1 = n1;
    in.n2 = n2;
    const std::vector<float> post = {0.0f, 0.001f, 0.01f, 0.1f, 0.25f, 0.5f, 1.0f};
    const std::vector<float> stays = {0.0f, 0.1f, 0.5f, 0.9f, 1.0f};
    for (int k = 0; k < n1 * N; ++k) {
        in.post1.push_back(pick(rng, post));
    }
    for (int k = 0; k < n2 * N; ++k) {
        in.post2.push_back(pick(rng, post));
    }
    for (int k = 0; k < n1; ++k) {
        in.stay1.push_back(pick(rng, stays));
    }
    for (int k = 0; k < n2; ++k) {
        in.stay2.push_back(pick(rng, stays));
    }
    in.startScores.resize(N);
    for (auto& s : in.startScores) {
        s = std::uniform_int_distribution<int>(-3, 0)(rng) * 50;
    }
    in.skip1 = pick(rng, {0.0f, 0.1f, 0.5f});
    in.skip2 = pick(rng, {0.0f, 0.1f, 0.5f});
    randomBand(rng, in);
    return in;
}

Result decode(ViterbiMD& decoder, Input& in) {
    Result r;
    Common::MatView<float> p1(in.post1.data(), in.n1, in.N, in.N);
    Common::MatView<float> p2(in.post2.data(), in.n2, in.N, in.N);
    Common::VecView<float> s1(in.stay1);
    Common::VecView<float> s2(in.stay2);
    r.score = static_cast<long>(decoder.Call(p1, p2, s1, s2, in.bandStart, in.bandEnd, in.startScores, r.alignment,
                                             r.states, in.skip1, in.skip2));
    r.moves = decoder.Moves();
    return r;
}

void expectSame(const Result& got, const Result& want, const std::string& what) {
    EXPECT_EQ(got.score, want.score) << what;
    EXPECT_EQ(got.alignment, want.alignment) << what;
    EXPECT_EQ(got.states, want.states) << what;
    EXPECT_EQ(got.moves, want.moves) << what;
}

// Random input of up to maxEvents events a strand, rich in ties, in four kinds by trial number.
Input tieRichInput(std::mt19937& rng, int N, int maxEvents, int trial) {
    std::uniform_int_distribution<int> events(2, maxEvents);
    Input in = randomInput(rng, N, events(rng), events(rng));
    if (trial % 4 == 0) {
        // Flat posteriors and one stay probability: the two strands look alike and the three
        // directions tie all over the plane.
        std::fill(in.post1.begin(), in.post1.end(), in.post1[0]);
        std::fill(in.post2.begin(), in.post2.end(), in.post1[0]);
        std::fill(in.stay1.begin(), in.stay1.end(), in.stay1[0]);
        std::fill(in.stay2.begin(), in.stay2.end(), in.stay1[0]);
        in.skip2 = in.skip1;
    } else if (trial % 4 == 1) {
        // Both strands the same over a full square band: the plane is symmetric about its diagonal,
        // so on the diagonal strand 1 alone and strand 2 alone tie exactly.
        in.n2 = in.n1;
        in.post2 = in.post1;
        in.stay2 = in.stay1;
        in.skip2 = in.skip1;
        in.bandStart.assign(in.n2, 0);
        in.bandEnd.assign(in.n2, in.n1 - 1);
    } else if (trial % 4 == 2) {
        // One cell a row along the diagonal: every step advances both strands.
        in.n2 = in.n1;
        in.post2.resize(in.post1.size());
        in.stay2.resize(in.n1, 0.5f);
        in.bandStart.resize(in.n2);
        in.bandEnd.resize(in.n2);
        for (int j = 0; j < in.n2; ++j) {
            in.bandStart[j] = in.bandEnd[j] = j;
        }
    }
    return in;
}

// Every kernel build against the direct decoder, at state counts where every state takes part and
// at one (320) where the last 64 do not. The decoders are reused throughout, as a worker reuses its
// own.
TEST(ViterbiMD, MatchesDirectDecoderOnRandomBands) {
    std::mt19937 rng(1234);
    for (const auto& [N, trials] : {std::pair<int, int>{256, 100}, {320, 60}, {1024, 20}}) {
        std::vector<std::unique_ptr<ViterbiMD>> decoders;
        for (KernelIsa isa : availableKernels()) {
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
                if (::testing::Test::HasFailure()) {
                    return;
                }
            }
        }
    }
}

TEST(ViterbiMD, BandFromPriorMapDecodesLikeTheDirectDecoder) {
    std::mt19937 rng(8);
    for (int trial = 0; trial < 6; ++trial) {
        Input in = randomInput(rng, 256, 25 + trial, 22);
        // A prior map that starts at (0, 0) and runs roughly along the diagonal.
        const std::uint64_t stride = 10;
        BasecallMD::StrandEventIndex index(stride, in.n1 * stride, in.n2 * stride);
        std::vector<std::uint64_t> prior;
        for (std::uint64_t s = 0; s < in.n1 * stride; s += 10) {
            prior.push_back(s * in.n2 / in.n1);
        }
        BasecallMD::buildBand(BasecallMD::buildBandPath(prior, 10, index), 1 + trial % 2, in.bandStart, in.bandEnd);
        ASSERT_EQ(static_cast<int>(in.bandStart.size()), in.n2);
        ViterbiMD decoder(in.n2 * 5 * 2, 40, 256, 0.0f, 0.0f);
        expectSame(decode(decoder, in), referenceDecode(in), "trial " + std::to_string(trial));
    }
}

TEST(ViterbiMD, IntegerLogsAndTransitionScores) {
    EXPECT_EQ(BasecallCommon::IntLogScore(0.0f), -2302);
    EXPECT_EQ(BasecallCommon::IntLogScore(1.0f), 0);
    EXPECT_EQ(BasecallCommon::IntLogScore(0.25f), -138);  // the literal -139 is not L(1/4) by this rule
    ViterbiMD decoder(10, 4, 256, 0.0f, 0.0f);
    EXPECT_EQ(decoder.NotSkip1(), 0);
    EXPECT_EQ(decoder.Skip1(), -2302);
    EXPECT_EQ(decoder.NotSkip2(), 0);
    EXPECT_EQ(decoder.Skip2(), -2302);

    // Negative skip probabilities keep the scores of the last call.
    std::mt19937 rng(2);
    Input in = randomInput(rng, 256, 3, 3);
    in.skip1 = 0.5f;
    in.skip2 = 0.1f;
    decode(decoder, in);
    EXPECT_EQ(decoder.Skip1(), -69);
    EXPECT_EQ(decoder.NotSkip2(), -10);
    in.skip1 = -1.0f;
    decode(decoder, in);
    EXPECT_EQ(decoder.Skip1(), -69);
    EXPECT_EQ(decoder.Skip2(), -230);
}

TEST(ViterbiMD, EventScoresAreTheIntegerLogsOnEveryBuild) {
    // Special values, every probability at which the score changes (100 ln x crossing an integer) with
    // its neighbouring floats, where a fast logarithm would slip first, and random bit patterns.
    std::vector<float> x = {0.0f, -0.0f, -1.0f, 1e-10f, 1e-11f, 1.0f, 2.0f, 1e30f, std::numeric_limits<float>::max(),
                            std::numeric_limits<float>::denorm_min(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()};
    for (int k = -2400; k <= 200; ++k) {
        float v = static_cast<float>(std::exp(k / 100.0));
        for (int u = 0; u < 4; ++u) {
            v = std::nextafter(v, 0.0f);
        }
        for (int u = 0; u < 9; ++u, v = std::nextafter(v, 10.0f)) {
            x.push_back(v);
        }
    }
    std::mt19937 rng(9);
    for (int k = 0; k < 100001; ++k) {
        const std::uint32_t bits = rng();
        float v;
        std::memcpy(&v, &bits, sizeof v);
        x.push_back(v);
    }
    std::vector<std::int32_t> want;
    for (const float v : x) {
        want.push_back(BasecallCommon::IntLogScore(v));
    }
    for (KernelIsa isa : availableKernels()) {
        std::vector<std::int32_t> got(x.size());
        BasecallMD::GetEventScoreKernel(isa)(x.data(), static_cast<int>(x.size()), got.data());
        for (std::size_t k = 0; k < x.size(); ++k) {
            ASSERT_EQ(got[k], want[k]) << "x = " << x[k] << " kernel " << BasecallCommon::IsaName(isa);
        }
    }
}

TEST(ViterbiMD, CallAllocatesOnlyItsOutputs) {
    std::mt19937 rng(4);
    Input in = randomInput(rng, 256, 10, 10);
    ViterbiMD decoder(200, 12, 256, 0.2f, 0.2f);
    Result r;
    r.alignment.reserve(20);
    r.states.reserve(20);
    Common::MatView<float> p1(in.post1.data(), in.n1, in.N, in.N);
    Common::MatView<float> p2(in.post2.data(), in.n2, in.N, in.N);
    Common::VecView<float> s1(in.stay1);
    Common::VecView<float> s2(in.stay2);
    EXPECT_EQ(alloc_test::AllocationsDuring([&] {
                  decoder.Call(p1, p2, s1, s2, in.bandStart, in.bandEnd, in.startScores, r.alignment, r.states, -1.0f,
                               -1.0f);
              }),
              0);
    EXPECT_FALSE(r.alignment.empty());
}

TEST(ViterbiMD, Failures) {
    std::mt19937 rng(5);
    Input in = randomInput(rng, 256, 4, 4);
    ViterbiMD decoder(100, 6, 256, 0.0f, 0.0f);
    in.bandEnd[3] = 4;  // one past the last strand-1 event
    try {
        decode(decoder, in);
        FAIL() << "band past the events accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "row index out of bounds.");
    }
    // Beyond the sizes fixed at construction: refused instead of overrunning the buffers.
    Input wide = randomInput(rng, 256, 8, 4);
    EXPECT_THROW(decode(decoder, wide), std::runtime_error);
    ViterbiMD tiny(5, 10, 256, 0.0f, 0.0f);
    Input many = randomInput(rng, 256, 8, 8);
    EXPECT_THROW(decode(tiny, many), std::runtime_error);
    EXPECT_THROW(ViterbiMD(10, 10, 64, 0.0f, 0.0f), std::runtime_error);
}

// ---------------------------------------------------------------------------------------------
// The cell kernel on its own: the tie rules, on every build. Whole decodes rarely put a tie between
// the two single-strand directions on the path they keep, so the rule is pinned here.

struct KernelCase {
    int W;
    std::vector<std::int32_t> source[3], emission1, emission2;
    BasecallMD::DirectionScores moves[3];
};

struct Summary {
    std::vector<std::int32_t> stepBest, skipBest;
    std::vector<std::uint8_t> stepCode, skipCode;
    explicit Summary(int W) : stepBest(W / 4), skipBest(W / 16), stepCode(W / 4), skipCode(W / 16) {}
    BasecallMD::SourceSummary View() { return {stepBest.data(), skipBest.data(), stepCode.data(), skipCode.data()}; }
};

struct KernelOut {
    std::vector<std::int32_t> score;
    std::vector<std::uint8_t> trace;
    // The trace byte of each state, unpacked.
    std::vector<int> from, direction, move;
};

// Runs one build's summary kernel on the case's three source rows, then its cell kernel.
KernelOut runKernel(KernelIsa isa, const KernelCase& c) {
    const int W = c.W;
    std::vector<std::int32_t> scratch(6 * W);
    std::vector<Summary> summaries(3, Summary(W));
    BasecallMD::CellArgs a{};
    for (int d = 0; d < 3; ++d) {
        a.scratch.score[d] = scratch.data() + 2 * d * W;
        a.scratch.code[d] = scratch.data() + (2 * d + 1) * W;
        a.source[d] = c.source[d].data();
        BasecallMD::GetSummaryKernel(isa)(a.source[d], W, summaries[d].View());
        a.summary[d] = summaries[d].View();
        a.moves[d] = c.moves[d];
    }
    KernelOut out;
    out.score.resize(W);
    out.trace.resize(W);
    a.W = W;
    a.emission1 = c.emission1.data();
    a.emission2 = c.emission2.data();
    a.score = out.score.data();
    a.trace = out.trace.data();
    BasecallMD::GetCellKernel(isa)(a);
    for (int s = 0; s < W; ++s) {
        out.from.push_back(BasecallMD::TracePrevious(out.trace[s], s, W));
        out.direction.push_back(BasecallMD::TraceDirection(out.trace[s]));
        out.move.push_back(BasecallMD::TraceMove(out.trace[s]));
    }
    return out;
}

KernelCase constantCase(int W, std::int32_t value) {
    KernelCase c;
    c.W = W;
    for (auto& s : c.source) {
        s.assign(W, value);
    }
    c.emission1.assign(W, 0);
    c.emission2.assign(W, 0);
    for (auto& m : c.moves) {
        m = {0, 0, 0};
    }
    return c;
}

TEST(ViterbiCellKernel, TieRules) {
    for (KernelIsa isa : availableKernels()) {
        // All three directions equal: both strands advance. Stay, step and skip equal: stay.
        KernelCase c = constantCase(256, -500);
        KernelOut out = runKernel(isa, c);
        for (int s = 0; s < 256; ++s) {
            ASSERT_EQ(out.direction[s], 0);
            ASSERT_EQ(out.move[s], 0);
            ASSERT_EQ(out.from[s], s);
        }
        // Strand 1 and strand 2 equal and better than both: strand 2. A step strictly better than a
        // stay, with four equal sources: the lowest source state, s / 4.
        c.source[0].assign(256, -900);
        for (auto& m : c.moves) {
            m = {-100, 0, -1000};
        }
        out = runKernel(isa, c);
        for (int s = 0; s < 256; ++s) {
            ASSERT_EQ(out.direction[s], 2);
            ASSERT_EQ(out.move[s], 1);
            ASSERT_EQ(out.from[s], s / 4);
            ASSERT_EQ(out.score[s], -500);
        }
        // Step and skip equal and better than a stay: the step. Skip strictly best: the lowest of its
        // sixteen sources, s / 16.
        for (auto& m : c.moves) {
            m = {-100, 0, 0};
        }
        out = runKernel(isa, c);
        EXPECT_EQ(out.move[37], 1);
        for (auto& m : c.moves) {
            m = {-100, 0, 10};
        }
        out = runKernel(isa, c);
        for (int s = 0; s < 256; ++s) {
            ASSERT_EQ(out.move[s], 2);
            ASSERT_EQ(out.from[s], s / 16);
        }
        // Strand 1 strictly better than strand 2 wins: a better state 5 on strand 1 lifts the steps
        // into states 20 .. 23 (4 * 5 + b) and the skips into 80 .. 95 (16 * 5 + 4 * b1 + b2), and
        // nothing else.
        c.source[1][5] = -400;
        out = runKernel(isa, c);
        for (int s = 0; s < 256; ++s) {
            ASSERT_EQ(out.direction[s], (s >= 20 && s < 24) || (s >= 80 && s < 96) ? 1 : 2) << s;
        }
        EXPECT_EQ(out.from[21], 5);
        EXPECT_EQ(out.move[21], 1);
        EXPECT_EQ(out.score[21], -400);
        EXPECT_EQ(out.from[80], 5);
        EXPECT_EQ(out.move[95], 2);
        EXPECT_EQ(out.score[95], -390);
    }
}

}  // namespace
