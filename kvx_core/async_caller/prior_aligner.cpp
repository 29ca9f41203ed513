#include "async_caller/prior_aligner.h"

#include <algorithm>

namespace AsyncCaller {

PriorAligner::PriorAligner(const Common::MatView<const int>& score_matrix, int gap_penalty, int start_end_penalty,
                           int band)
    : aligner(score_matrix,
              {start_end_penalty, start_end_penalty, gap_penalty, start_end_penalty, start_end_penalty, gap_penalty},
              band) {}

namespace {

// Sample positions of the label positions of one strand. `members` are cumulative zero-based label
// indices, one per path entry; the stride of a block is shared out among the entries that map onto
// it, and the array is closed by 0 in front and the end of the last block behind.
void samplePositions(const std::vector<std::int64_t>& members, std::uint64_t stride, std::vector<std::uint64_t>& out) {
    const std::size_t c = members.size();
    out.assign(c + 2, 0);
    out[0] = static_cast<std::uint64_t>(members.front()) * stride;
    std::size_t s = 0;
    while (s < c) {
        std::size_t r = 1;
        while (s + r < c && members[s + r] == members[s]) {
            ++r;
        }
        const auto v = static_cast<std::uint64_t>(members[s]);
        const std::uint64_t step = stride / r;
        for (std::size_t t = 0; t < r; ++t) {
            out[s + 1 + t] = v * stride + step / 2 + t * step;
        }
        s += r;
    }
    out[c + 1] = (static_cast<std::uint64_t>(members.back()) + 1) * stride;
}

}  // namespace

bool PriorAligner::Compute(const std::vector<std::int32_t>& labels1, const std::vector<std::int32_t>& labels2,
                           std::uint64_t stride) {
    const PairAlignment::Sequence first(labels1.data(), labels1.size(), 1);
    const PairAlignment::Sequence second(labels2.data(), labels2.size(), 1);
    aligner.Align(first, second, path);
    const std::uint64_t N1 = labels1.size() * stride;
    const std::uint64_t N2 = labels2.size() * stride;

    std::int64_t firstEntry = -1;
    std::int64_t lastEntry = -1;
    for (std::size_t e = 0; e < path.size(); ++e) {
        if (path[e].first != -1 && path[e].second != -1) {
            if (firstEntry < 0) {
                firstEntry = static_cast<std::int64_t>(e);
            }
            lastEntry = static_cast<std::int64_t>(e);
        }
    }
    if (firstEntry < 0 || lastEntry <= firstEntry) {
        return false;
    }
    const auto begin = static_cast<std::size_t>(firstEntry);
    const std::size_t c = static_cast<std::size_t>(lastEntry - firstEntry) + 1;
    const std::uint64_t a0 = static_cast<std::uint64_t>(path[begin].first);
    const std::uint64_t b0 = static_cast<std::uint64_t>(path[begin].second);
    const std::uint64_t a1 = static_cast<std::uint64_t>(path[begin + c - 1].first);
    const std::uint64_t b1 = static_cast<std::uint64_t>(path[begin + c - 1].second);

    start1 = stride * a0;
    length1 = (a1 + 1) * stride - start1;
    // Strand 2 counts from the end of its signal: its start comes from the last aligned block.
    start2 = N2 - (b1 + 1) * stride;
    length2 = N2 - start2 - stride * b0;

    // Cumulative, zero-based members: a gap takes the value of the entry before it.
    std::vector<std::int64_t> m1(c), m2(c);
    for (std::size_t e = 0; e < c; ++e) {
        const auto& entry = path[begin + e];
        m1[e] = entry.first == -1 ? m1[e - 1] : entry.first - static_cast<std::int64_t>(a0);
        m2[e] = entry.second == -1 ? m2[e - 1] : entry.second - static_cast<std::int64_t>(b0);
    }
    samplePositions(m1, stride, x);
    samplePositions(m2, stride, y);

    // The map is sized from the whole of strand 1 and extends past the aligned stretch by
    // interpolation toward the ends of both strands.
    priorSamples.assign(N1 / priorStep, 0);
    for (std::size_t e = 0; e < priorSamples.size(); ++e) {
        const std::uint64_t p = priorStep * e;
        const std::size_t u = static_cast<std::size_t>(std::upper_bound(x.begin(), x.end(), p) - x.begin());
        const std::uint64_t x0 = x[u - 1];
        const std::uint64_t x1 = u < x.size() ? x[u] : N1;
        const std::uint64_t y0 = y[u - 1];
        const std::uint64_t y1 = u < y.size() ? y[u] : N2;
        const float fraction = static_cast<float>(y1 - y0) * static_cast<float>(p - x0) / static_cast<float>(x1 - x0);
        priorSamples[e] = y0 + static_cast<std::uint64_t>(fraction);
    }
    return true;
}

}  // namespace AsyncCaller
