#pragma once
// Scaling of raw signal: stored samples to picoamperes, and picoamperes to a signal normalised by
// median and MAD. These loops run over every sample of every read, so they are built for several
// instruction sets and the best one is chosen once at run time; all give identical results, since
// every output element comes from the same element-wise operations in the same order.

#include <cstdint>

#include "decoders/kernel_isa.h"

namespace AsyncCaller {

// out[i] = float(int32(raw[i]) + offset) * scale.
void ScaleToPicoamps(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out);
// x[i] = (x[i] - shift) * factor.
void ShiftAndScale(float* x, std::uint64_t n, float shift, float factor);
// Median of n > 0 floats (the mean of the middle two, as (a + b) * 0.5f, for even n) and the median
// of the absolute deviations from it. Works on a copy.
void MedianAndMad(const float* x, std::uint64_t n, float& median, float& mad);

namespace detail {
struct ScalingKernels {
    void (*toPicoamps)(const std::int16_t*, std::uint64_t, std::int16_t, float, float*);
    void (*shiftAndScale)(float*, std::uint64_t, float, float);
};
// The kernels built for `isa`; all null if the processor cannot run them.
ScalingKernels GetScalingKernels(BasecallCommon::KernelIsa isa);

void ToPicoampsScalar(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out);
void ShiftAndScaleScalar(float* x, std::uint64_t n, float shift, float factor);
void ToPicoampsSse2(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out);
void ShiftAndScaleSse2(float* x, std::uint64_t n, float shift, float factor);
void ToPicoampsAvx2(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out);
void ShiftAndScaleAvx2(float* x, std::uint64_t n, float shift, float factor);
void ToPicoampsAvx512(const std::int16_t* raw, std::uint64_t n, std::int16_t offset, float scale, float* out);
void ShiftAndScaleAvx512(float* x, std::uint64_t n, float shift, float factor);
}  // namespace detail

}  // namespace AsyncCaller
