#include "decoders/viterbi_md.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

#include "common/logger.h"
#include "decoders/int_score.h"

namespace BasecallMD {

using BasecallCommon::IntLogScore;
using BasecallCommon::WrapAdd;

namespace {

// Integer logs of 1/4 and 1/16: the flat prior over the next base, or the next two, of a step or skip.
constexpr std::int32_t kLogQuarter = -139;
constexpr std::int32_t kLogSixteenth = -277;
// Score row of a predecessor that is not in the band.
constexpr std::int32_t kUnreachable = -100000000;

// Integers of kernel scratch for W states: a score and a code row per direction.
std::size_t scratchInts(std::size_t W) { return 3 * 2 * W; }

// Bytes of one row's source summary: W/4 + W/16 best scores of 4 bytes and as many trace codes, with
// each of the four arrays on a 64-byte boundary (W is a multiple of 256).
std::size_t summaryBytes(std::size_t W) { return (W + W / 4 + W / 4 + W / 16 + 63) / 64 * 64; }

}  // namespace

void ViterbiMD::BufferDeleter::operator()(void* p) const { std::free(p); }

ViterbiMD::Buffer ViterbiMD::allocate(std::size_t count) {
    // Not value-initialised on purpose, like the trace (see the constructor).
    return Buffer(Common::Allocator<std::int32_t, 64>().allocate(std::max<std::size_t>(count, 1)));
}

ViterbiMD::ByteBuffer ViterbiMD::allocateBytes(std::size_t count) {
    return ByteBuffer(Common::Allocator<std::uint8_t, 64>().allocate(std::max<std::size_t>(count, 1)));
}

ViterbiMD::ViterbiMD(int maxNodes_, int maxEvents_, int numStates_, float skipProb1, float skipProb2)
    : maxNodes(maxNodes_), maxEvents(maxEvents_), numStates(numStates_), usedStates((numStates_ / 256) * 256) {
    if (numStates < 256) {
        throw std::runtime_error("ViterbiMD needs at least 256 states (a k-mer length of 4 or more), not " +
                                 std::to_string(numStates) + ".");
    }
    if (maxNodes < 1 || maxEvents < 1) {
        throw std::runtime_error("ViterbiMD needs room for at least one node and one event, not " +
                                 std::to_string(maxNodes) + " nodes and " + std::to_string(maxEvents) +
                                 " events.");
    }
    rowStride = Common::PaddedStride(static_cast<std::size_t>(numStates));
    traceStride = (static_cast<std::size_t>(numStates) + 63) / 64 * 64;
    const std::size_t N = static_cast<std::size_t>(numStates);

    nodes.resize(static_cast<std::size_t>(maxNodes));
    // Not value-initialised on purpose: the trace is sized for the widest band, and pages that a call
    // never reaches should stay uncommitted.
    nodeTrace = allocateBytes(static_cast<std::size_t>(maxNodes) * traceStride);
    // The start node: direction 3 is a stop that backTrace never reads, since the walk ends at node 0.
    std::fill(trace(0), trace(0) + N, kTraceStart);

    eventScores1 = allocate(static_cast<std::size_t>(maxEvents) * rowStride);
    eventScores2 = allocate(static_cast<std::size_t>(maxEvents) * rowStride);
    rowBufferA = allocate(static_cast<std::size_t>(maxEvents + 1) * rowStride);
    rowBufferB = allocate(static_cast<std::size_t>(maxEvents + 1) * rowStride);
    unreachableRow = allocate(N);
    std::fill(unreachableRow.get(), unreachableRow.get() + N, kUnreachable);

    const std::size_t W = static_cast<std::size_t>(usedStates);
    summaryStride = summaryBytes(W);
    summaryBufferA = allocateBytes(static_cast<std::size_t>(maxEvents + 1) * summaryStride);
    summaryBufferB = allocateBytes(static_cast<std::size_t>(maxEvents + 1) * summaryStride);
    unreachableSummary = allocateBytes(summaryStride);
    GetSummaryKernel(BasecallCommon::KernelIsa::Scalar)(unreachableRow.get(), usedStates,
                                                        summaryAt(unreachableSummary.get(), 0));
    scratch = allocate(scratchInts(W));
    for (int d = 0; d < 3; ++d) {
        cellScratch.score[d] = scratch.get() + 2 * d * W;
        cellScratch.code[d] = scratch.get() + (2 * d + 1) * W;
    }

    stayScore1.resize(static_cast<std::size_t>(maxEvents));
    moveScore1.resize(static_cast<std::size_t>(maxEvents));
    stayScore2.resize(static_cast<std::size_t>(maxEvents));
    moveScore2.resize(static_cast<std::size_t>(maxEvents));
    rowFirstNode.resize(static_cast<std::size_t>(maxEvents));
    // A path has at most one step per event of either strand.
    moves.reserve(2 * static_cast<std::size_t>(maxEvents));

    setTransitionScores(skipProb1, skipProb2);
    SetKernel(BasecallCommon::BestIsa());
    KVX_LOG(trace) << "ViterbiMD instantiated";
}

std::size_t ViterbiMD::ReservedBytes() const {
    const std::size_t bytes = static_cast<std::size_t>(maxNodes) * traceStride +
                              (2 * static_cast<std::size_t>(maxEvents + 1) + 1) * summaryStride;
    const std::size_t ints = 2 * static_cast<std::size_t>(maxEvents) * rowStride +
                             2 * static_cast<std::size_t>(maxEvents + 1) * rowStride + numStates +
                             scratchInts(static_cast<std::size_t>(usedStates)) + 5 * maxEvents;
    return bytes + ints * sizeof(std::int32_t) + nodes.size() * sizeof(Node) + moves.capacity();
}

bool ViterbiMD::SetKernel(BasecallCommon::KernelIsa isa) {
    const CellKernel k = GetCellKernel(isa);
    if (k == nullptr) {
        return false;
    }
    kernel = k;
    summaryKernel = GetSummaryKernel(isa);
    eventScoreKernel = GetEventScoreKernel(isa);
    kernelIsa = isa;
    return true;
}

void ViterbiMD::setTransitionScores(float a, float b) {
    notSkip1 = IntLogScore(1.0f - a);
    skip1 = IntLogScore(a);
    notSkip2 = IntLogScore(1.0f - b);
    skip2 = IntLogScore(b);
}

void ViterbiMD::seatRowViews() {
    const auto stride = static_cast<std::int64_t>(rowStride);
    const auto rows = static_cast<std::uint64_t>(n1) + 1;
    previousView = Common::MatView<std::int32_t>(previousRows, rows, static_cast<std::uint64_t>(numStates), stride);
    currentView = Common::MatView<std::int32_t>(currentRows, rows, static_cast<std::uint64_t>(numStates), stride);
}

void ViterbiMD::fillEventScores(const Common::MatView<float>& post, std::int32_t* out, int firstRow, int endRow) {
    for (int r = firstRow; r < endRow; ++r) {
        const float* in = &post(static_cast<std::uint64_t>(r), 0);
        std::int32_t* dst = out + static_cast<std::size_t>(r) * rowStride;
        const std::int64_t cs = post.colStride;
        if (cs == 1) {
            eventScoreKernel(in, numStates, dst);
            continue;
        }
        for (int s = 0; s < numStates; ++s) {
            dst[s] = IntLogScore(in[s * cs]);
        }
    }
}

float ViterbiMD::Call(const Common::MatView<float>& post1, const Common::MatView<float>& post2,
                      const Common::VecView<float>& stay1, const Common::VecView<float>& stay2,
                      const std::vector<int>& bandStart, const std::vector<int>& bandEnd,
                      const std::vector<int>& startScores, std::vector<std::pair<int, int>>& alignment,
                      std::vector<short>& states, float skipProb1, float skipProb2) {
    KVX_LOG(trace) << "ViterbiMD::Call() with MatView objects";
    if (skipProb1 >= 0 && skipProb2 >= 0) {
        setTransitionScores(skipProb1, skipProb2);
    }
    // Guards against overrunning the buffers sized in the constructor.
    if (post1.rows > static_cast<std::uint64_t>(maxEvents) || post2.rows > static_cast<std::uint64_t>(maxEvents)) {
        throw std::runtime_error("ViterbiMD::Call(): " + std::to_string(post1.rows) + " and " +
                                 std::to_string(post2.rows) + " events exceed the decoder's limit of " +
                                 std::to_string(maxEvents) + " per strand.");
    }
    if (post1.cols != static_cast<std::uint64_t>(numStates) || post2.cols != static_cast<std::uint64_t>(numStates)) {
        throw std::runtime_error("ViterbiMD::Call(): posteriors have " + std::to_string(post1.cols) + " and " +
                                 std::to_string(post2.cols) + " columns, the decoder was built for " +
                                 std::to_string(numStates) + " states.");
    }
    n1 = static_cast<int>(post1.rows);
    n2 = static_cast<int>(post2.rows);
    if (stay1.size < post1.rows || stay2.size < post2.rows) {
        throw std::runtime_error("ViterbiMD::Call(): fewer stay probabilities than events.");
    }
    if (bandStart.size() < post2.rows || bandEnd.size() < post2.rows) {
        throw std::runtime_error("ViterbiMD::Call(): the band has fewer rows than strand 2 has events.");
    }
    if (startScores.size() < static_cast<std::size_t>(numStates)) {
        throw std::runtime_error("ViterbiMD::Call(): fewer start scores than states.");
    }

    previousRows = rowBufferA.get();
    currentRows = rowBufferB.get();
    previousSummaries = summaryBufferA.get();
    currentSummaries = summaryBufferB.get();
    seatRowViews();
    std::copy(startScores.begin(), startScores.begin() + numStates, previousView.row(0).data);
    summaryKernel(previousView.row(0).data, usedStates, summaryAt(previousSummaries, 0));
    initNodes(bandStart, bandEnd);

    const auto stride = static_cast<std::int64_t>(rowStride);
    emissionView1 = Common::MatView<std::int32_t>(eventScores1.get(), post1.rows, post1.cols, stride);
    emissionView2 = Common::MatView<std::int32_t>(eventScores2.get(), post2.rows, post2.cols, stride);
    processNodes(post1, post2, stay1, stay2);
    return static_cast<float>(backTrace(alignment, states));
}

void ViterbiMD::initNodes(const std::vector<int>& bandStart, const std::vector<int>& bandEnd) {
    KVX_LOG(trace) << "ViterbiMD::initNodes()";
    // The node count is the plain sum, in which a row without cells counts negatively; the band is
    // expected to touch every row. The cells actually walked must still fit the node tables.
    std::int64_t count = 1;
    std::int64_t walked = 1;
    for (int j = 0; j < n2; ++j) {
        const std::int64_t width = static_cast<std::int64_t>(bandEnd[j]) - bandStart[j] + 1;
        count += width;
        walked += std::max<std::int64_t>(width, 0);
    }
    if (walked > maxNodes) {
        throw std::runtime_error("ViterbiMD::Call(): the band has " + std::to_string(walked - 1) +
                                 " cells, more than the decoder's limit of " + std::to_string(maxNodes - 1) + ".");
    }
    nodeCount = static_cast<int>(count);

    int index = 1;
    for (int j = 0; j < n2; ++j) {
        rowFirstNode[j] = index;
        for (int i = bandStart[j]; i <= bandEnd[j]; ++i, ++index) {
            Node& node = nodes[index];
            node.i = i;
            node.j = j;
            node.leftNode = i == bandStart[j] ? -1 : index - 1;
            if (j == 0 || i < bandStart[j - 1] || i > bandEnd[j - 1]) {
                node.upNode = -1;
            } else {
                node.upNode = rowFirstNode[j - 1] + (i - bandStart[j - 1]);
            }
            // The first cell always comes from the start node, whatever its i.
            if (index == 1) {
                node.diagNode = 0;
            } else if (j == 0 || i <= bandStart[j - 1] || i > bandEnd[j - 1] + 1) {
                node.diagNode = -1;
            } else {
                node.diagNode = rowFirstNode[j - 1] + (i - 1 - bandStart[j - 1]);
            }
        }
    }
}

void ViterbiMD::processNodes(const Common::MatView<float>& post1, const Common::MatView<float>& post2,
                             const Common::VecView<float>& stay1, const Common::VecView<float>& stay2) {
    KVX_LOG(trace) << "ViterbiMD::processNodes()";
    for (int i = 0; i < n1; ++i) {
        stayScore1[i] = IntLogScore(stay1[i]);
        moveScore1[i] = IntLogScore(1.0f - stay1[i]);
    }
    for (int j = 0; j < n2; ++j) {
        stayScore2[j] = IntLogScore(stay2[j]);
        moveScore2[j] = IntLogScore(1.0f - stay2[j]);
    }
    if (nodeCount < 2) {
        return;
    }
    CellArgs args;
    args.W = usedStates;
    args.scratch = cellScratch;
    const SourceSummary unreachable = summaryAt(unreachableSummary.get(), 0);
    int rowInHand = 0;
    // Event scores are filled just before their first use rather than all up front: a row's scores
    // are then still in cache for the band cells that read it, and the cells never wait on memory.
    int filled1 = 0;
    int filled2 = 0;
    for (int index = 1; index < nodeCount; ++index) {
        const Node& node = nodes[index];
        if (node.j != rowInHand) {
            // The row just finished becomes the previous row.
            std::swap(previousRows, currentRows);
            std::swap(previousSummaries, currentSummaries);
            seatRowViews();
            rowInHand = node.j;
        }
        const int i = node.i;
        const int j = node.j;
        if (i >= filled1 && filled1 < n1) {
            const int end = std::min(i + 1, n1);
            fillEventScores(post1, eventScores1.get(), filled1, end);
            filled1 = end;
        }
        if (j >= filled2) {
            fillEventScores(post2, eventScores2.get(), filled2, j + 1);
            filled2 = j + 1;
        }
        // Checked views: a band reaching past the events fails here with "row index out of bounds.".
        args.score = currentView.row(static_cast<std::uint64_t>(i + 1)).data;
        args.emission1 = emissionView1.row(static_cast<std::uint64_t>(i)).data;
        args.emission2 = emissionView2.row(static_cast<std::uint64_t>(j)).data;
        const auto r = static_cast<std::uint64_t>(i);
        args.source[0] = node.diagNode >= 0 ? previousView.row(r).data : unreachableRow.get();
        args.summary[0] = node.diagNode >= 0 ? summaryAt(previousSummaries, r) : unreachable;
        args.source[1] = node.leftNode >= 0 ? currentView.row(r).data : unreachableRow.get();
        args.summary[1] = node.leftNode >= 0 ? summaryAt(currentSummaries, r) : unreachable;
        args.source[2] = node.upNode >= 0 ? previousView.row(r + 1).data : unreachableRow.get();
        args.summary[2] = node.upNode >= 0 ? summaryAt(previousSummaries, r + 1) : unreachable;

        const std::int32_t S1 = stayScore1[i], M1 = moveScore1[i];
        const std::int32_t S2 = stayScore2[j], M2 = moveScore2[j];
        // A strand that waits is charged as though it had skipped over its next event.
        const std::int32_t X2 = j < n2 - 1 ? moveScore2[j + 1] : 0;
        const std::int32_t X1 = i < n1 - 1 ? moveScore1[i + 1] : 0;
        const auto sum = [](std::initializer_list<std::int32_t> terms) {
            std::int32_t total = 0;
            for (const std::int32_t t : terms) {
                total = WrapAdd(total, t);
            }
            return total;
        };
        args.moves[0] = {sum({S1, S2}), sum({notSkip1, notSkip2, M1, M2, kLogQuarter}),
                         sum({skip1, skip2, M1, M2, kLogSixteenth})};
        args.moves[1] = {S1, sum({notSkip1, skip2, M1, kLogQuarter, X2}),
                         sum({skip1, skip2, skip2, M1, kLogSixteenth, X2})};
        args.moves[2] = {S2, sum({notSkip2, skip1, M2, kLogQuarter, X1}),
                         sum({skip1, skip1, skip2, M2, kLogSixteenth, X1})};
        args.trace = trace(index);
        kernel(args);
        // Summarised while the row is still in cache; the three cells that read it come later.
        summaryKernel(args.score, usedStates, summaryAt(currentSummaries, r + 1));
    }
}

std::int32_t ViterbiMD::backTrace(std::vector<std::pair<int, int>>& alignment, std::vector<short>& states) {
    KVX_LOG(trace) << "ViterbiMD::backTrace";
    alignment.clear();
    states.clear();
    moves.clear();
    const int W = usedStates;
    if (nodeCount < 2) {
        // Nothing was decoded: the path is empty and the best start score is all there is.
        const std::int32_t* start = previousView.row(0).data;
        return *std::max_element(start, start + W);
    }
    const int last = nodeCount - 1;
    const std::int32_t* row = currentView.row(static_cast<std::uint64_t>(nodes[last].i + 1)).data;
    int state = 0;
    for (int s = 1; s < W; ++s) {
        if (row[s] > row[state]) {
            state = s;
        }
    }
    const std::int32_t score = row[state];
    int index = last;
    while (index > 0) {
        const Node& node = nodes[index];
        const std::uint8_t code = trace(index)[state];
        const auto previous = static_cast<unsigned short>(TracePrevious(code, state, W));
        moves.push_back(static_cast<signed char>(TraceMove(code)));
        states.push_back(static_cast<short>(state));
        switch (TraceDirection(code)) {
            case 0:
                alignment.emplace_back(node.i, node.j);
                index = node.diagNode;
                break;
            case 1:
                alignment.emplace_back(node.i, -1);
                index = node.leftNode;
                break;
            case 2:
                alignment.emplace_back(-1, node.j);
                index = node.upNode;
                break;
            default:
                throw std::runtime_error("Error in backtrace. Unrecognised movement value.");
        }
        state = previous;
    }
    std::reverse(alignment.begin(), alignment.end());
    std::reverse(states.begin(), states.end());
    std::reverse(moves.begin(), moves.end());
    return score;
}

}  // namespace BasecallMD
