#include "async_caller/event_detector.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace AsyncCaller {

std::vector<float> WindowTStatistic(const Common::VecView<float>& samples, std::uint64_t w) {
    const std::uint64_t n = samples.size;
    std::vector<float> t(n, 0.0f);
    if (w == 0 || n < 2 * w) {
        return t;
    }
    // Prefix sums in double: a read's sums of squares outgrow a float's precision.
    std::vector<double> sum(n + 1, 0.0), squares(n + 1, 0.0);
    for (std::uint64_t i = 0; i < n; ++i) {
        const double x = samples[i];
        sum[i + 1] = sum[i] + x;
        squares[i + 1] = squares[i] + x * x;
    }
    const double width = static_cast<double>(w);
    for (std::uint64_t i = w; i + w <= n; ++i) {
        const double m1 = (sum[i] - sum[i - w]) / width;
        const double m2 = (sum[i + w] - sum[i]) / width;
        const double v1 = std::max(0.0, (squares[i] - squares[i - w]) / width - m1 * m1);
        const double v2 = std::max(0.0, (squares[i + w] - squares[i]) / width - m2 * m2);
        const double spread = std::sqrt((v1 + v2) / width);
        t[i] = spread > 0.0 ? static_cast<float>(std::fabs(m2 - m1) / spread) : 0.0f;
    }
    return t;
}

std::vector<std::uint64_t> FindBoundaries(const std::vector<float>& t, float threshold, float peak_height,
                                          std::uint64_t w) {
    // Walk down into a valley, then up to a peak; a peak counts once the statistic has fallen
    // peak_height below it again, and then a new valley begins.
    std::vector<std::pair<float, std::uint64_t>> peaks;
    float valley = t.empty() ? 0.0f : t[0];
    float peak = 0.0f;
    std::uint64_t peakAt = 0;
    bool rising = false;
    for (std::uint64_t i = 0; i < t.size(); ++i) {
        const float v = t[i];
        if (!rising) {
            if (v < valley) {
                valley = v;
            } else if (v - valley > peak_height) {
                rising = true;
                peak = v;
                peakAt = i;
            }
            continue;
        }
        if (v > peak) {
            peak = v;
            peakAt = i;
        } else if (peak - v > peak_height) {
            if (peak > threshold) {
                peaks.emplace_back(peak, peakAt);
            }
            rising = false;
            valley = v;
        }
    }
    if (rising && peak > threshold) {
        peaks.emplace_back(peak, peakAt);
    }
    // One change of level raises the statistic over 2w samples, and ripples on its flanks make
    // lesser peaks: of peaks closer than w, only the highest stands.
    std::stable_sort(peaks.begin(), peaks.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<std::uint64_t> out;
    for (const auto& candidate : peaks) {
        const std::uint64_t at = candidate.second;
        const auto next = std::lower_bound(out.begin(), out.end(), at);
        const bool clear = (next == out.end() || *next - at >= w) && (next == out.begin() || at - *std::prev(next) >= w);
        if (clear) {
            out.insert(next, at);
        }
    }
    return out;
}

void DetectEvents(const Common::VecView<float>& samples, const EventDetectionSettings& settings,
                  Common::EventData<Common::Deep>& events) {
    if (settings.winsize1 == 0 || settings.winsize2 == 0) {
        throw std::runtime_error("Event detection settings are not valid.");
    }
    const std::uint64_t n = samples.size;
    const std::vector<std::uint64_t> shortCuts =
        FindBoundaries(WindowTStatistic(samples, settings.winsize1), settings.threshold1, settings.peak_height,
                       settings.winsize1);
    const std::vector<std::uint64_t> longCuts =
        FindBoundaries(WindowTStatistic(samples, settings.winsize2), settings.threshold2, settings.peak_height,
                       settings.winsize2);

    // The short detector's cuts stand; a long one joins them where it is clear of every other cut.
    std::vector<std::uint64_t> cuts = shortCuts;
    for (const std::uint64_t c : longCuts) {
        const auto next = std::lower_bound(cuts.begin(), cuts.end(), c);
        const bool clearAfter = next == cuts.end() || *next - c >= settings.winsize1;
        const bool clearBefore = next == cuts.begin() || c - *std::prev(next) >= settings.winsize1;
        if (clearAfter && clearBefore) {
            cuts.insert(next, c);
        }
    }
    cuts.erase(std::remove_if(cuts.begin(), cuts.end(), [n](std::uint64_t c) { return c == 0 || c >= n; }),
               cuts.end());

    const std::size_t count = n == 0 ? 0 : cuts.size() + 1;
    events.resize(0);
    events.resize(count);
    std::uint64_t from = 0;
    for (std::size_t e = 0; e < count; ++e) {
        const std::uint64_t to = e < cuts.size() ? cuts[e] : n;
        double sum = 0.0, squares = 0.0;
        for (std::uint64_t i = from; i < to; ++i) {
            sum += samples[i];
            squares += static_cast<double>(samples[i]) * samples[i];
        }
        const double len = static_cast<double>(to - from);
        const double mean = sum / len;
        events.start[e] = from;
        events.length[e] = to - from;
        events.mean[e] = static_cast<float>(mean);
        events.stdv[e] = static_cast<float>(std::sqrt(std::max(0.0, squares / len - mean * mean)));
        from = to;
    }
}

}  // namespace AsyncCaller
