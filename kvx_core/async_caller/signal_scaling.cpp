#include "async_caller/signal_scaling.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace AsyncCaller {
namespace detail {

void ToPicoampsScalar(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out) {
    for (std::uint64_t i = 0; i < n; ++i) {
        out[i] = static_cast<float>(static_cast<std::int32_t>(raw[i]) + static_cast<std::int32_t>(offset)) * scale;
    }
}

void ShiftAndScaleScalar(float* x, std::uint64_t n, float shift, float factor) {
    for (std::uint64_t i = 0; i < n; ++i) {
        x[i] = (x[i] - shift) * factor;
    }
}

ScalingKernels GetScalingKernels(BasecallCommon::KernelIsa isa) {
    if (!BasecallCommon::IsaSupported(isa)) {
        return {nullptr, nullptr};
    }
    switch (isa) {
        case BasecallCommon::KernelIsa::Scalar:
            return {ToPicoampsScalar, ShiftAndScaleScalar};
        case BasecallCommon::KernelIsa::Sse2:
            return {ToPicoampsSse2, ShiftAndScaleSse2};
        case BasecallCommon::KernelIsa::Avx2:
            return {ToPicoampsAvx2, ShiftAndScaleAvx2};
        case BasecallCommon::KernelIsa::Avx512:
            return {ToPicoampsAvx512, ShiftAndScaleAvx512};
    }
    return {nullptr, nullptr};
}

}  // namespace detail

namespace {
const detail::ScalingKernels& bestKernels() {
    static const detail::ScalingKernels kernels = detail::GetScalingKernels(BasecallCommon::BestIsa());
    return kernels;
}

float medianInPlace(std::vector<float>& v) {
    const std::size_t n = v.size();
    const auto middle = v.begin() + static_cast<std::ptrdiff_t>(n / 2);
    std::nth_element(v.begin(), middle, v.end());
    const float upper = *middle;
    if (n % 2 == 1) {
        return upper;
    }
    const float lower = *std::max_element(v.begin(), middle);
    return (lower + upper) * 0.5f;
}
}  // namespace

void ScaleToPicoamps(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out) {
    bestKernels().toPicoamps(raw, n, offset, scale, out);
}

void ShiftAndScale(float* x, std::uint64_t n, float shift, float factor) {
    bestKernels().shiftAndScale(x, n, shift, factor);
}

void MedianAndMad(const float* x, std::uint64_t n, float& median, float& mad) {
    std::vector<float> copy(x, x + n);
    median = medianInPlace(copy);
    for (std::uint64_t i = 0; i < n; ++i) {
        copy[i] = std::fabs(x[i] - median);
    }
    mad = medianInPlace(copy);
}

}  // namespace AsyncCaller
