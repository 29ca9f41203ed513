#include "decoders/prior_band.h"

#include <algorithm>
#include <stdexcept>

namespace BasecallMD {

StrandEventIndex::StrandEventIndex(std::uint64_t stride_, std::uint64_t samples1, std::uint64_t samples2)
    : stride(stride_), samples{samples1, samples2}, events{0, 0} {
    if (stride == 0) {
        throw std::runtime_error("StrandEventIndex needs a non-zero event stride for raw data.");
    }
    events[0] = samples1 / stride;
    events[1] = samples2 / stride;
}

StrandEventIndex::StrandEventIndex(std::vector<std::uint64_t> starts1, std::uint64_t samples1,
                                   std::vector<std::uint64_t> starts2, std::uint64_t samples2)
    : stride(0), samples{samples1, samples2}, events{starts1.size(), starts2.size()} {
    starts[0] = std::move(starts1);
    starts[1] = std::move(starts2);
}

int StrandEventIndex::Index(int strand, std::uint64_t sample) const {
    if (strand > 1 || strand < 0) {
        throw std::runtime_error("Invalid value of strand for Index() method.");
    }
    const std::uint64_t count = samples[strand];
    if (count > 0 && sample > count - 1) {
        sample = count - 1;
    }
    if (stride != 0) {
        return static_cast<int>(sample / stride);
    }
    const auto& s = starts[strand];
    const auto it = std::upper_bound(s.begin(), s.end(), sample);
    return it == s.begin() ? 0 : static_cast<int>(it - s.begin()) - 1;
}

BandPath buildBandPath(const std::vector<std::uint64_t>& priorSamples, std::uint64_t priorStep,
                       const StrandEventIndex& index) {
    BandPath anchors;
    anchors.reserve(priorSamples.size() + 1);
    for (std::size_t k = 0; k < priorSamples.size(); ++k) {
        anchors.emplace_back(index.Index(0, k * priorStep), index.Index(1, priorSamples[k]));
    }
    anchors.emplace_back(index.EventCount(0) - 1, index.EventCount(1) - 1);

    BandPath path;
    int a = anchors.front().first;
    int b = anchors.front().second;
    for (std::size_t k = 1; k < anchors.size(); ++k) {
        const int a2 = anchors[k].first;
        const int b2 = anchors[k].second;
        if (a2 == a && b2 == b) {
            continue;
        }
        const int da = a2 - a;
        const int db = b2 - b;
        // Walk the longer side one event at a time, rounding the other to the nearest event.
        if (da < db) {
            const double r = static_cast<float>(da) / static_cast<float>(db);
            double x = a;
            for (int j = b; j < b2; ++j) {
                path.emplace_back(static_cast<int>(x + 0.5), j);
                x += r;
            }
        } else {
            const double r = static_cast<float>(db) / static_cast<float>(da);
            double y = b;
            for (int i = a; i < a2; ++i) {
                path.emplace_back(i, static_cast<int>(y + 0.5));
                y += r;
            }
        }
        a = a2;
        b = b2;
    }
    path.push_back(anchors.back());
    return path;
}

void buildBand(const BandPath& path, int band_size, std::vector<int>& bandStart, std::vector<int>& bandEnd) {
    const int w = band_size;
    int p1 = 0;
    int p2 = 0;
    if (!path.empty()) {
        p1 = path.back().first - path.front().first + 1;
        p2 = path.back().second - path.front().second + 1;
    }
    bandStart.assign(static_cast<std::size_t>(std::max(p2, 0)), p1 - 1);
    bandEnd.assign(static_cast<std::size_t>(std::max(p2, 0)), 0);
    int i = 0;
    int j = p2 - 1;
    for (const auto& [a, b] : path) {
        if (a != -1) {
            i = a;
        }
        if (b != -1) {
            j = b;
        }
        for (int r = std::max(j - w, 0); r <= j + w && r < p2; ++r) {
            bandStart[r] = std::max(0, std::min(bandStart[r], i - w));
            bandEnd[r] = std::min(p1 - 1, std::max(bandEnd[r], i + w));
        }
    }
}

}  // namespace BasecallMD
