#pragma once
// Event detection for event-based models: the signal is cut where its level changes. Two detectors
// run a two-sample t-test between the windows before and after every sample, a short one (winsize1,
// threshold1) that sees quick changes and a long one (winsize2, threshold2) that sees small but
// lasting ones. A boundary is a peak of the statistic above the detector's threshold that stands at
// least peak_height above the valleys around it, and the highest of any peaks closer than the window. The long detector's boundaries fill in between the
// short one's, never closer than winsize1 samples to another boundary.

#include <cstdint>
#include <vector>

#include "common/event_data.h"
#include "common/views.h"

namespace AsyncCaller {

struct EventDetectionSettings {
    std::uint64_t winsize1 = 0;
    std::uint64_t winsize2 = 0;
    float threshold1 = 0.0f;
    float threshold2 = 0.0f;
    float peak_height = 0.0f;
};

// The t statistic of a change in level at each sample i, comparing samples [i - w, i) with [i, i + w);
// 0 where either window does not fit or both are flat.
std::vector<float> WindowTStatistic(const Common::VecView<float>& samples, std::uint64_t w);

// Boundaries (sample positions, ascending) of one detector's statistic of window w: peaks above the
// threshold that stand peak_height above their valleys, no two closer than w (the higher stands).
std::vector<std::uint64_t> FindBoundaries(const std::vector<float>& t, float threshold, float peak_height,
                                          std::uint64_t w);

// Fills `events` with the events of the samples: start, length, mean and standard deviation of each
// stretch between boundaries. Throws "Event detection settings are not valid." for window lengths of 0.
void DetectEvents(const Common::VecView<float>& samples, const EventDetectionSettings& settings,
                  Common::EventData<Common::Deep>& events);

}  // namespace AsyncCaller
