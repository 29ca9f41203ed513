#include "strand_segmenter.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestBed {

namespace {
float medianOf(const float* x, std::uint64_t n) {
    std::vector<float> copy(x, x + n);
    const auto middle = copy.begin() + static_cast<std::ptrdiff_t>(n / 2);
    std::nth_element(copy.begin(), middle, copy.end());
    return *middle;
}
}  // namespace

StrandSegmenter::StrandSegmenter(const SegmenterSettings& settings_) : settings(settings_) {
    if (settings.probe_samples == 0 || settings.quiet_samples == 0) {
        throw std::runtime_error("The open-pore probe and quiet stretch must be at least one sample long.");
    }
}

Segmentation StrandSegmenter::Find(const float* picoamperes, std::uint64_t n) const {
    Segmentation result;
    if (n > settings.probe_samples) {
        const float openLevel = medianOf(picoamperes, settings.probe_samples);
        const float strandLevel = medianOf(picoamperes + (n - settings.probe_samples), settings.probe_samples);
        if (openLevel - strandLevel >= settings.min_open_pore_step) {
            const float threshold = 0.5f * (openLevel + strandLevel);
            // The first sample that starts a quiet run: a single noisy dip inside the open pore does not
            // end it, nor does a brief return above the midpoint once the leader has begun.
            std::uint64_t run = 0;
            for (std::uint64_t i = 0; i < n; ++i) {
                run = picoamperes[i] < threshold ? run + 1 : 0;
                if (run == settings.quiet_samples) {
                    result.open_pore_found = true;
                    result.open_pore_end = i + 1 - settings.quiet_samples;
                    break;
                }
            }
        }
    }
    if (result.open_pore_found) {
        result.first_sample = result.open_pore_end + settings.adapter_samples;
    }
    if (result.first_sample + settings.min_strand_samples > n) {
        throw std::runtime_error("No strand found: the read has " + std::to_string(n) +
                                 " samples and the strand would start at sample " +
                                 std::to_string(result.first_sample) + ".");
    }
    result.duration = n - result.first_sample;
    return result;
}

}  // namespace TestBed
