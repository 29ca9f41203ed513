#include "async_caller/read_holder_1d.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace AsyncCaller {

ReadHolder1D::ReadHolder1D(const ReadHolder1D& other) : ReadHolder(other), read(other.read) {}

ReadHolder1D::ReadHolder1D(ReadHolder1D&& other) noexcept
    : ReadHolder(std::move(other)), raw(other.raw), read(std::move(other.read)) {
    other.raw = Common::VecView<float>();
}

ReadHolder1D::~ReadHolder1D() { ClearRawData(); }

void ReadHolder1D::ClearRawData() {
    if (owns_raw) {
        delete[] raw.data;
    }
    raw = Common::VecView<float>();
    owns_raw = false;
}

void ReadHolder1D::SetRawData(float* data, std::uint64_t count, bool owns) {
    ClearRawData();
    try {
        raw = Common::VecView<float>(data, count, 1);
    } catch (...) {
        if (owns) {
            delete[] data;
        }
        throw;
    }
    owns_raw = owns;
}

ChunkList ReadHolder1D::MakeChunks(std::uint64_t max_events, std::uint64_t count) {
    ChunkList out;
    if (count == 0 || stride == 0) {
        return out;
    }
    const std::uint64_t events = std::min(read.trimmed_duration, raw.size) / stride;
    const auto per = static_cast<std::uint64_t>(std::ceil(static_cast<double>(events) / static_cast<double>(count)));
    const std::uint64_t size = count == 1 ? per : per + overlap;
    if (size > max_events) {
        return out;
    }
    for (std::uint64_t k = 0; k < count; ++k) {
        const std::uint64_t begin = k == 0 ? 0 : (k * per > overlap ? k * per - overlap : 0);
        const std::uint64_t end = std::min((k + 1) * per, events);
        if (begin >= end) {
            break;
        }
        auto chunk = std::make_unique<ChunkData1D>();
        chunk->read_index = GetReadIndex();
        chunk->priority = GetPriority();
        chunk->chunk_index = k;
        chunk->events = end - begin;
        chunk->raw = raw.slice(begin * stride, (end - begin) * stride, 1);
        out.push_back(std::move(chunk));
        out.back()->list_node = std::prev(out.end());
    }
    for (auto& chunk : out) {
        chunk->chunk_count = out.size();
    }
    return out;
}

template <typename Visit>
void ReadHolder1D::walkEvents(Visit&& visit) const {
    const std::uint64_t halfOverlap = overlap / 2;
    const std::size_t n = chunks.size();
    std::size_t index = 0;
    bool first = true;
    for (const auto& base : chunks) {
        const auto& c = static_cast<const ChunkData1D&>(*base);
        const std::uint64_t len = c.states.size();
        const std::uint64_t begin = index > 0 ? std::min(halfOverlap, len) : 0;
        const std::uint64_t end = index + 1 < n ? (len > halfOverlap ? len - halfOverlap : 0) : len;
        const int k = static_cast<int>(c.kmerLength > 0 ? c.kmerLength : c.posterior_cols / 4);
        for (std::uint64_t e = begin; e < end; ++e) {
            // The read's first event brings its whole k-mer; any other brings as many bases as it moved.
            const int bases = first ? k : std::min<int>(std::max<int>(c.moves[e], 0), k);
            first = false;
            visit(c, e, k, bases);
        }
        ++index;
    }
}

std::uint64_t ReadHolder1D::GetSequenceLength() const {
    std::uint64_t length = 0;
    walkEvents([&](const ChunkData1D&, std::uint64_t, int, int bases) { length += static_cast<std::uint64_t>(bases); });
    return length;
}

void ReadHolder1D::Aggregate() {
    sequence.clear();
    qualities.clear();
    mean_qscore = 0.0f;
    strand_score = 0.0f;

    std::uint64_t events = 0;
    for (const auto& chunk : chunks) {
        events += static_cast<const ChunkData1D&>(*chunk).states.size();
    }
    if (events == 0) {
        // Only a chunk that a basecall service has already called may come back without events.
        if (chunks.size() > 1) {
            throw std::runtime_error("We have zero events and more than one chunk. Something has gone wrong.");
        }
        if (chunks.size() == 1 && !chunks.front()->sequence.empty()) {
            sequence = chunks.front()->sequence;
            qualities = chunks.front()->qualities;
        } else {
            throw std::runtime_error(
                "We have zero events and are not aggregating from a basecall server. Something has gone wrong.");
        }
    } else {
        const std::uint64_t length = GetSequenceLength();
        std::vector<float> good(length, 0.0f), all(length, 0.0f);
        std::vector<int> baseOf(length, 0);
        std::uint64_t position = 0;
        walkEvents([&](const ChunkData1D& c, std::uint64_t e, int k, int bases) {
            const int state = c.states[e];
            const float weight = e < c.weights.size() ? c.weights[e] : 1.0f;
            const float* row = c.posteriors.data() + e * c.posterior_cols;
            // Contributed bases are the newest ones, oldest first: digits bases-1 down to 0.
            for (int t = bases - 1; t >= 0; --t, ++position) {
                const int base = state < 0 ? 0 : (state >> (2 * t)) & 3;
                baseOf[position] = base;
                if (state < 0 || static_cast<std::uint64_t>(4 * t + 3) >= c.posterior_cols) {
                    continue;
                }
                const float* block = row + 4 * t;
                good[position] += block[base] * weight;
                all[position] += (block[0] + block[1] + block[2] + block[3]) * weight;
            }
            (void)k;
        });
        sequence.resize(length);
        qualities.resize(length);
        for (std::uint64_t i = 0; i < length; ++i) {
            sequence[i] = "ACGT"[baseOf[i]];
            float q = static_cast<float>(-10.0 * std::log10(1.0 - static_cast<double>(good[i] / all[i]))) *
                          qscore_scale +
                      qscore_offset;
            // Written so that a base nobody saw (0 / 0) lands on the floor rather than rounding NaN.
            if (!(q > 1.0f)) {
                q = 1.0f;
            }
            if (q >= 90.0f) {
                q = 90.0f;
            }
            qualities[i] = static_cast<char>(std::lroundf(q) + 33);
        }
    }

    float scores = 0.0f;
    for (const auto& chunk : chunks) {
        scores += static_cast<const ChunkData1D&>(*chunk).score;
    }
    if (!sequence.empty()) {
        strand_score = scores / static_cast<float>(sequence.size());
    }
    if (!qualities.empty()) {
        float sum = 0.0f;
        for (const char q : qualities) {
            sum += std::pow(10.0f, static_cast<float>(q - 33) * -0.1f);
        }
        mean_qscore = -10.0f * std::log10(sum / static_cast<float>(qualities.size()));
    }
    chunks.clear();
}

}  // namespace AsyncCaller
