// Joining the chunks of a strand pair. Neighbouring chunks overlap on the signal and were decoded on
// their own, so the overlap is resolved on the bases: the end of one chunk is aligned to the start of
// the next and the join is placed at the longest run of agreeing bases.

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "async_caller/read_holder_md.h"
#include "common/logger.h"
#include "decoders/nw_align.h"

namespace AsyncCaller {

namespace {

// Scores of the overlap aligner: a flat match bonus against a flat mismatch penalty, and gaps a
// little dearer to open than a mismatch, so that short indels do not fragment the runs of matches.
const int kOverlapScores[16] = {100, -100, -100, -100, -100, 100, -100, -100,
                                -100, -100, 100, -100, -100, -100, -100, 100};
const std::vector<int> kOverlapGaps = {100, 100, 150, 150, 100, 100, 150, 150};

std::vector<int> encodeBases(const std::string& bases, std::size_t from, std::size_t count) {
    std::vector<int> out(count);
    for (std::size_t i = 0; i < count; ++i) {
        switch (bases[from + i]) {
            case 'C': out[i] = 1; break;
            case 'G': out[i] = 2; break;
            case 'T': out[i] = 3; break;
            default: out[i] = 0; break;
        }
    }
    return out;
}

}  // namespace

void ReadHolderMD::Aggregate() {
    aggregated = true;
    sequence.clear();
    qualities.clear();
    mean_qscore = 0.0f;
    strand_score = 0.0f;

    if (chunks.empty()) {
        KVX_LOG(info) << "No chunks received for read pair ('" << read1.read_id << "', '" << read2.read_id << "').";
        return;
    }
    const auto fail = [this](const std::string& tail) {
        sequence.clear();
        qualities.clear();
        strand_score = 0.0f;
        KVX_LOG(info) << "Chunk aggregation failed for read pair ('" << read1.read_id << "', '" << read2.read_id
                      << "')." << tail;
    };

    std::vector<const ChunkDataMD*> list;
    list.reserve(chunks.size());
    for (const auto& chunk : chunks) {
        list.push_back(static_cast<const ChunkDataMD*>(chunk.get()));
    }
    for (const ChunkDataMD* c : list) {
        if (c->sequence.empty()) {
            fail(" One or more chunks could not be basecalled.");
            return;
        }
    }

    // Overlap in bases: bases per event over both strands, times the overlap in events.
    std::uint64_t L = 0;
    std::uint64_t T = 0;
    for (const ChunkDataMD* c : list) {
        L += c->sequence.size();
        T += c->events1 + c->events2;
    }
    const std::uint64_t B =
        T == 0 ? 0
               : static_cast<std::uint64_t>((static_cast<float>(L) + static_cast<float>(L)) / static_cast<float>(T) *
                                            static_cast<float>(overlap));
    const std::uint64_t half = B / 2;

    const std::size_t n = list.size();
    std::vector<std::int64_t> from(n, 0), to(n);
    for (std::size_t k = 0; k < n; ++k) {
        to[k] = static_cast<std::int64_t>(list[k]->sequence.size());
    }

    if (n > 1) {
        PairAlignment::NWAlign aligner(Common::MatView<const int>(kOverlapScores, 4, 4, 4, 1), kOverlapGaps);
        PairAlignment::AlignmentPath path;
        for (std::size_t k = 1; k < n; ++k) {
            const std::string& prev = list[k - 1]->sequence;
            const std::string& cur = list[k]->sequence;
            if (prev.size() < B || cur.size() < B) {
                fail(" Chunk sequence was shorter than the overlap.");
                return;
            }
            const std::vector<int> first = encodeBases(prev, prev.size() - B, B);
            const std::vector<int> second = encodeBases(cur, 0, B);
            aligner.Align(PairAlignment::Sequence(first.data(), first.size(), 1),
                          PairAlignment::Sequence(second.data(), second.size(), 1), path);

            std::int64_t firstAligned = -1;
            std::int64_t lastAligned = -1;
            for (std::size_t e = 0; e < path.size(); ++e) {
                if (path[e].first != -1 && path[e].second != -1) {
                    if (firstAligned < 0) {
                        firstAligned = static_cast<std::int64_t>(e);
                    }
                    lastAligned = static_cast<std::int64_t>(e);
                }
            }
            const std::int64_t spread = firstAligned < 0 ? 0 : lastAligned - firstAligned;
            if (spread < static_cast<std::int64_t>(half)) {
                fail(" Bad alignment of overlap sections.");
                return;
            }

            // Longest run of consecutive matches; a later run must be strictly longer to win.
            std::size_t bestStart = 0;
            std::size_t bestLength = 0;
            std::size_t runStart = 0;
            std::size_t runLength = 0;
            for (std::size_t e = 0; e < path.size(); ++e) {
                const auto& entry = path[e];
                const bool match = entry.first != -1 && entry.second != -1 &&
                                   first[static_cast<std::size_t>(entry.first)] ==
                                       second[static_cast<std::size_t>(entry.second)];
                if (!match) {
                    runLength = 0;
                    continue;
                }
                if (runLength == 0) {
                    runStart = e;
                }
                ++runLength;
                if (runLength > bestLength) {
                    bestLength = runLength;
                    bestStart = runStart;
                }
            }
            if (bestLength == 0) {
                fail(" Not enough consecutive perfect matches found (needed 1, found " + std::to_string(bestLength) +
                     ").");
                return;
            }
            // The previous chunk ends just before the run and this one begins with it.
            from[k] = path[bestStart].second;
            to[k - 1] = static_cast<std::int64_t>(prev.size() - B) + path[bestStart].first;
        }
    }

    std::uint64_t N = 0;
    for (std::size_t k = 0; k < n; ++k) {
        const ChunkDataMD& c = *list[k];
        if (to[k] <= from[k] || to[k] > static_cast<std::int64_t>(c.sequence.size())) {
            fail(" Inconsistent alignment of overlap sections.");
            return;
        }
        const auto f = static_cast<std::size_t>(from[k]);
        const auto len = static_cast<std::size_t>(to[k] - from[k]);
        sequence.append(c.sequence, f, len);
        // A chunk's qualities match its bases; clamp all the same, so a short string cannot throw here.
        qualities.append(c.qualities, std::min(f, c.qualities.size()), len);
        N += c.sequence.size();
        strand_score += c.score;
    }
    // The divisor counts whole chunk sequences, overlaps included.
    strand_score = strand_score / static_cast<float>(N);

    // The mean is taken over error probabilities, not over the scores themselves.
    if (!qualities.empty()) {
        double sum = 0.0;
        for (const char q : qualities) {
            sum += std::pow(10.0, (static_cast<int>(q) - 33) * -0.1);
        }
        mean_qscore = static_cast<float>(-10.0 * std::log10(sum / static_cast<double>(qualities.size())));
    }
    chunks.clear();
}

}  // namespace AsyncCaller
