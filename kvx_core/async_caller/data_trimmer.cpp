#include "async_caller/data_trimmer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "async_caller/signal_scaling.h"

namespace AsyncCaller {

namespace {

// Reads with this few blocks are too short for the tail statistics to mean anything.
constexpr std::uint64_t kMinBlocksForTrim = 100;
// The tail used for the reference level: half the read, within these bounds.
constexpr std::uint64_t kMinTailBlocks = 100;
constexpr std::uint64_t kMaxTailBlocks = 10000;
// Currents at or above this are saturation or open pore, not part of a feature.
constexpr float kFeaturePeakCeiling = 200.0f;
constexpr float kFeatureMaxRise = 2.0f;
constexpr std::uint64_t kFeatureMargin = 10;

}  // namespace

DataTrimmer::DataTrimmer(float scaling_med_, float scaling_mad_, bool auto_scale_, const std::string& trim_strategy_,
                         const TrimSettings& s)
    : FileProcessor(scaling_med_, scaling_mad_, auto_scale_),
      max_trim(s.max_trim),
      search_param(s.search_param),
      threshold(s.threshold),
      trim_strategy(trim_strategy_),
      rna_events(s.rna_events),
      rna_window(s.rna_window),
      rna_factor(s.rna_factor),
      use_feature(s.use_feature),
      feature_shift(s.feature_shift),
      feature_scale(s.feature_scale),
      feature_drop(s.feature_drop),
      min_samples(s.min_samples) {}

DataTrimmer::ScaleResult DataTrimmer::Process(float scale, const std::int16_t* raw, std::uint64_t stride,
                                              float* output, std::uint64_t count, std::int16_t offset, int worker) {
    if (trim_strategy == "none") {
        return FileProcessor::Process(scale, raw, stride, output, count, offset, worker);
    }
    ScaleResult result;
    std::uint64_t cut = 0;
    if (trim_strategy == "dna") {
        cut = dnaCut(raw, stride, count, offset, scale);
        ScaleToPicoamps(raw + cut, count - cut, offset, scale, output);
        if (use_feature && count > min_samples && cut > 0) {
            std::vector<float> head(cut);
            ScaleToPicoamps(raw, cut, offset, scale, head.data());
            FindFeature(head.data(), cut, feature_drop, result);
        }
    } else if (trim_strategy == "rna") {
        ScaleToPicoamps(raw, count, offset, scale, output);
        cut = rnaCut(output, count);
        if (cut > 0) {
            std::memmove(output, output + cut, (count - cut) * sizeof(float));
        }
    } else {
        throw std::runtime_error("trim_strategy not recognised: " + trim_strategy);
    }

    const std::uint64_t kept = count - cut;
    result.trim_start = cut;
    result.kept_samples = kept;
    if (use_feature && result.feature_found) {
        result.median = feature_shift + result.before_mean;
        result.mad = (result.after_mean - result.before_mean) / feature_scale;
    } else if (kept > 0) {
        MedianAndMad(output, kept, result.median, result.mad);
    }
    if (kept > 0) {
        Normalise(output, kept, result.median, result.mad);
    }
    return result;
}

std::uint64_t DataTrimmer::dnaCut(const std::int16_t* raw, std::uint64_t stride, std::uint64_t count,
                                  std::int16_t offset, float scale) const {
    const std::uint64_t blocks = stride == 0 ? 0 : count / stride;
    if (max_trim == 0 || blocks <= kMinBlocksForTrim) {
        return 0;
    }
    std::vector<float> means(blocks);
    std::vector<std::uint64_t> positions(blocks);
    const float inv_stride = 1.0f / static_cast<float>(stride);
    for (std::uint64_t b = 0; b < blocks; ++b) {
        std::int64_t sum = 0;
        for (std::uint64_t i = b * stride; i < (b + 1) * stride; ++i) {
            sum += raw[i];
        }
        means[b] = (static_cast<float>(sum) * inv_stride + static_cast<float>(offset)) * scale;
        positions[b] = b * stride;
    }
    const std::uint64_t tail = std::max(kMinTailBlocks, std::min(kMaxTailBlocks, blocks / 2));
    float m = 0.0f;
    float d = 0.0f;
    MedianAndMad(means.data() + (blocks - tail), tail, m, d);
    const float limit = m + threshold * 1.4826f * d;
    const std::uint64_t reach = std::min(max_trim, blocks / 2);
    const std::int64_t found = TrimSearch(means, positions, limit, search_param, reach);
    return found < 0 ? 0 : static_cast<std::uint64_t>(found);
}

std::int64_t DataTrimmer::TrimSearch(const std::vector<float>& means, const std::vector<std::uint64_t>& positions,
                                     float limit, std::uint64_t search_param, std::uint64_t reach) {
    const std::uint64_t end = std::min<std::uint64_t>(reach, means.size());
    const std::uint64_t shortest = std::max<std::uint64_t>(search_param, 1);
    std::int64_t cut = -1;
    std::uint64_t run = 0;
    for (std::uint64_t b = 0; b < end; ++b) {
        if (means[b] > limit) {
            ++run;
            continue;
        }
        if (run >= shortest) {
            cut = static_cast<std::int64_t>(positions[b]);  // first sample behind the run
        }
        run = 0;
    }
    if (run >= shortest) {
        // The run reaches the end of the search: cut behind its last block, whose end is the next
        // block's start (or one block length on, for the very last block).
        const std::uint64_t last = end - 1;
        std::uint64_t behind = positions[last];
        if (last + 1 < positions.size()) {
            behind = positions[last + 1];
        } else if (last > 0) {
            behind += positions[last] - positions[last - 1];
        }
        cut = static_cast<std::int64_t>(behind);
    }
    return cut;
}

std::uint64_t DataTrimmer::rnaCut(const float* scaled, std::uint64_t count) const {
    // Events of fixed length: the coarse detector the strategy is defined over.
    const std::uint64_t window = rna_window >= 1.0f ? static_cast<std::uint64_t>(rna_window) : 1;
    std::uint64_t events = count / window;
    if (rna_events > 0) {
        events = std::min(events, rna_events);
    }
    if (events < 2) {
        return 0;
    }
    std::vector<float> means(events);
    for (std::uint64_t e = 0; e < events; ++e) {
        float sum = 0.0f;
        for (std::uint64_t i = e * window; i < (e + 1) * window; ++i) {
            sum += scaled[i];
        }
        means[e] = sum / static_cast<float>(window);
    }
    float central = 0.0f;
    float spread = 0.0f;
    MedianAndMad(means.data(), events, central, spread);
    const float step = central * rna_factor;
    std::uint64_t cut = 0;
    for (std::uint64_t e = 1; e < events; ++e) {
        if (means[e] - means[e - 1] >= step) {
            cut = e * window;
            break;
        }
    }
    return cut >= std::min(max_trim, count / 2) ? 0 : cut;
}

bool DataTrimmer::FindFeature(const float* x, std::uint64_t n, float drop, ScaleResult& result) {
    if (n < 2) {
        return false;
    }
    float peak = -INFINITY;
    for (std::uint64_t i = n - 1; i-- > 0;) {
        const float next = x[i + 1];
        if (next < kFeaturePeakCeiling) {
            peak = std::max(peak, next);
        }
        const float rise = next - x[i];
        if (peak - x[i] > drop && rise > 0.0f && rise < kFeatureMaxRise) {
            const std::uint64_t u = i;
            if (u < kFeatureMargin || n - 1 - u < kFeatureMargin) {
                return false;
            }
            double before_sum = 0.0;
            for (std::uint64_t k = 0; k < u; ++k) {
                before_sum += x[k];
            }
            const double before_mean = before_sum / static_cast<double>(u);
            double before_var = 0.0;
            for (std::uint64_t k = 0; k < u; ++k) {
                before_var += (x[k] - before_mean) * (x[k] - before_mean);
            }
            double after_sum = 0.0;
            for (std::uint64_t k = u; k < n; ++k) {
                after_sum += x[k];
            }
            result.before_mean = static_cast<float>(before_mean);
            result.before_spread = static_cast<float>(std::sqrt(before_var / static_cast<double>(u)));
            result.after_mean = static_cast<float>(after_sum / static_cast<double>(n - u));
            result.feature_found = true;
            return true;
        }
    }
    return false;
}

}  // namespace AsyncCaller
