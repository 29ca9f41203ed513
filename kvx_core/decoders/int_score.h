#pragma once
// Integer score arithmetic shared by the decoders and aligners. Scores are 32-bit integers that add
// with wrapping, the way the vector lanes do, so the scalar and vector builds of a kernel agree bit
// for bit even on inputs that overflow (a zero probability in a table gives the most negative score).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace BasecallCommon {

inline std::int32_t WrapAdd(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// Truncation toward zero into 32 bits. Values that do not fit, infinities and NaN give the most
// negative integer, which is what the processor's own conversion gives; doing it explicitly keeps
// the result defined in C++.
inline std::int32_t TruncateToInt32(float v) {
    if (!(v > -2147483904.0f && v < 2147483648.0f)) {
        return std::numeric_limits<std::int32_t>::min();
    }
    return static_cast<std::int32_t>(v);
}

// A probability as an integer log score: log(max(x, 1e-10)) times 100, truncated. So L(0) = -2302
// and L(1) = 0.
inline std::int32_t IntLogScore(float x) {
    return TruncateToInt32(std::log(std::max(x, 1e-10f)) * 100.0f);
}

}  // namespace BasecallCommon
