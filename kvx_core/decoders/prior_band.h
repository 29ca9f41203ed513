#pragma once
// The band of the two-dimensional Viterbi, built from the prior map between the two strands' signals:
// sample positions become event indices, the anchors are joined into a dense path, and the path is
// widened by band_size cells on every side.

#include <cstdint>
#include <utility>
#include <vector>

namespace BasecallMD {

// Maps a sample position of either strand to the index of the event that holds it.
class StrandEventIndex {
public:
    // Raw data: fixed-length events of `stride` samples.
    StrandEventIndex(std::uint64_t stride, std::uint64_t samples1, std::uint64_t samples2);
    // Event-based data: each strand's sorted event start samples and its sample count.
    StrandEventIndex(std::vector<std::uint64_t> starts1, std::uint64_t samples1, std::vector<std::uint64_t> starts2,
                     std::uint64_t samples2);

    // Event of `sample` on strand 0 or 1. The sample is first clamped to the strand's last sample.
    // Throws "Invalid value of strand for Index() method." for a strand above 1.
    int Index(int strand, std::uint64_t sample) const;
    int EventCount(int strand) const { return static_cast<int>(events[strand == 0 ? 0 : 1]); }

private:
    std::uint64_t stride;
    std::uint64_t samples[2];
    std::uint64_t events[2];
    std::vector<std::uint64_t> starts[2];
};

using BandPath = std::vector<std::pair<int, int>>;

// Dense path of (strand-1 event, strand-2 event) pairs through the anchors given by the prior map
// (entry k: strand-1 sample k * priorStep maps to strand-2 sample priorSamples[k]), ending at the last
// event of both strands.
BandPath buildBandPath(const std::vector<std::uint64_t>& priorSamples, std::uint64_t priorStep,
                       const StrandEventIndex& index);

// For each strand-2 row, the first and last strand-1 event within band_size cells of the path.
void buildBand(const BandPath& path, int band_size, std::vector<int>& bandStart, std::vector<int>& bandEnd);

}  // namespace BasecallMD
