#include "async_caller/read_holder_md.h"

#include <algorithm>
#include <stdexcept>

namespace AsyncCaller {

ReadHolderMD::ReadHolderMD(const ReadHolderMD& other)
    : ReadHolder(other),
      priorSamples(other.priorSamples),
      priorStep(other.priorStep),
      aggregated(other.aggregated),
      read1(other.read1),
      read2(other.read2) {}

ReadHolderMD::ReadHolderMD(ReadHolderMD&& other) noexcept
    : ReadHolder(std::move(other)),
      raw1(other.raw1),
      raw2(other.raw2),
      priorSamples(std::move(other.priorSamples)),
      priorStep(other.priorStep),
      aggregated(other.aggregated),
      read1(std::move(other.read1)),
      read2(std::move(other.read2)) {
    other.raw1 = Common::VecView<float>();
    other.raw2 = Common::VecView<float>();
}

ReadHolderMD::~ReadHolderMD() { ClearRawData(); }

void ReadHolderMD::ResetMetadata() {
    read1.Reset();
    read2.Reset();
}

void ReadHolderMD::SetPriority(std::int32_t priority) {
    read1.priority = priority;
    read2.priority = priority;
}

void ReadHolderMD::SetReadIndex(std::uint64_t index) {
    read1.read_index = index;
    read2.read_index = index;
}

std::uint64_t ReadHolderMD::GetDuration() const {
    return std::max(read1.trimmed_duration, read2.trimmed_duration);
}

void ReadHolderMD::ClearRawData() {
    if (owns_raw) {
        delete[] raw1.data;
        delete[] raw2.data;
    }
    raw1 = Common::VecView<float>();
    raw2 = Common::VecView<float>();
    owns_raw = false;
}

std::uint64_t ReadHolderMD::GetSequenceLength() const {
    throw std::runtime_error("GetSequenceLength() method not available for multi-dimensional implementation.");
}

void ReadHolderMD::SetRawData(float* raw1_, std::uint64_t count1, float* raw2_, std::uint64_t count2, bool owns) {
    ClearRawData();
    Common::VecView<float> view1, view2;
    try {
        view1 = Common::VecView<float>(raw1_, count1, 1);
        view2 = Common::VecView<float>(raw2_, count2, 1);
    } catch (...) {
        // Whatever was handed over with ownership must not leak on the way out.
        if (owns) {
            delete[] raw1_;
            delete[] raw2_;
        }
        throw;
    }
    raw1 = view1;
    raw2 = view2;
    owns_raw = owns;
}

namespace {
std::uint64_t roundUp(std::uint64_t x, std::uint64_t b) { return ((x + b - 1) / b) * b; }
}  // namespace

ChunkList ReadHolderMD::MakeChunks(std::uint64_t max_events, std::uint64_t count) {
    ChunkList out;
    const std::uint64_t S1 = raw1.size;
    const std::uint64_t S2 = raw2.size;
    const std::uint64_t o = overlap * stride;
    const std::uint64_t b = priorStep;
    const std::uint64_t limit = max_events * stride;
    const std::uint64_t mapSize = priorSamples.size();
    // Without a map (or a strand-1 stretch to cut) there is nothing to carry to strand 2.
    if (count == 0 || b == 0 || stride == 0 || mapSize == 0 || S1 == 0) {
        return out;
    }

    std::uint64_t step = S1 / count;
    if (step == 0) {
        return out;
    }
    const std::uint64_t need = b + step + o;
    // One more chunk when a chunk would be too long on strand 1, or when strand 2 is longer by a
    // factor that would make the strand-2 windows too long on average.
    if (limit < need ||
        static_cast<double>(limit) <
            static_cast<double>(need) * ((static_cast<double>(S2) / static_cast<double>(count)) / static_cast<double>(step))) {
        count += 1;
        step = S1 / count;
        if (step == 0) {
            return out;
        }
    }

    std::vector<std::uint64_t> start(count), end(count);
    for (std::uint64_t k = 1; k < count; ++k) {
        start[k] = start[k - 1] + step;
        end[k - 1] = start[k] + o;
    }
    end[count - 1] = S1;
    // Cuts fall on entries of the map, so that each chunk's window on strand 2 starts at an anchor.
    for (std::uint64_t k = 0; k < count; ++k) {
        start[k] = std::min(roundUp(start[k], b), S1);
        if (k + 1 < count) {
            end[k] = std::min(roundUp(end[k], b), S1);
        }
    }

    // Strand-2 position of a map entry; entries past the map's end stand for the end of strand 2.
    const auto pos2 = [&](std::uint64_t entry) -> std::int64_t {
        return static_cast<std::int64_t>(std::min(entry < mapSize ? priorSamples[entry] : S2, S2));
    };
    const auto lim = static_cast<std::int64_t>(limit);

    for (std::size_t k = 0; k < start.size(); ++k) {
        const std::int64_t y0 = pos2(start[k] / b);
        const std::int64_t y1 = pos2(std::min(end[k] / b, mapSize));
        if (y1 - y0 <= lim) {
            continue;
        }
        // Too long on strand 2: split this chunk in two halves, once. The old chunk becomes k + 1.
        start.insert(start.begin() + static_cast<std::ptrdiff_t>(k), start[k]);
        end.insert(end.begin() + static_cast<std::ptrdiff_t>(k), end[k]);
        const std::uint64_t middle = start[k] + (end[k + 1] - start[k]) / 2;
        start[k + 1] = std::min(roundUp(middle, b), S1);
        end[k] = std::min(roundUp(middle + o, b), S1);
        if (pos2(end[k] / b) - y0 > lim || y1 - pos2(start[k + 1] / b) > lim) {
            return ChunkList();
        }
        ++k;  // go on behind the second half
    }
    count = start.size();

    const std::uint64_t readIndex = GetReadIndex();
    const std::int32_t priority = GetPriority();
    for (std::uint64_t k = 0; k < count; ++k) {
        auto chunk = std::make_unique<ChunkDataMD>();
        ChunkDataMD& c = *chunk;
        c.read_index = readIndex;
        c.priority = priority;
        c.chunk_index = k;
        c.chunk_count = count;

        const std::uint64_t len1 = end[k] > start[k] ? end[k] - start[k] : 0;
        c.raw1 = raw1.slice(start[k], len1, 1);

        const std::uint64_t b0 = start[k] / b;
        const std::uint64_t b1 = std::min(end[k] / b, mapSize);
        const auto y0 = static_cast<std::uint64_t>(pos2(b0));
        const auto y1 = std::max(static_cast<std::uint64_t>(pos2(b1)), y0);
        // The map counts strand 2 from its end, so the window is mirrored.
        c.raw2 = raw2.slice(S2 - y1, y1 - y0, 1);

        c.events1 = c.raw1.size / stride;
        c.events2 = c.raw2.size / stride;
        c.priorStep = b;
        if (b0 < b1) {
            c.priorSamples.resize(b1 - b0);
            for (std::uint64_t t = 0; t < b1 - b0; ++t) {
                c.priorSamples[t] = priorSamples[b0 + t] - priorSamples[b0];
            }
        }
        out.push_back(std::move(chunk));
        out.back()->list_node = std::prev(out.end());
    }
    return out;
}

}  // namespace AsyncCaller
