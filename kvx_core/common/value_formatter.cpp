#include "common/value_formatter.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace Common {

std::string ValueFormatter::pad(std::string text) const {
    if (width > 0 && text.size() < static_cast<std::size_t>(width)) {
        text.insert(0, static_cast<std::size_t>(width) - text.size(), ' ');
    }
    return text;
}

std::string ValueFormatter::Format(double value) const {
    if (std::isnan(value) && !nan_text.empty()) {
        return pad(nan_text);
    }
    if (std::isinf(value)) {
        const std::string& text = value > 0 ? inf_text : neg_inf_text;
        if (!text.empty()) {
            return pad(text);
        }
    }
    if (precision < 0) {
        // Large magnitudes print every digit with "%f"; the buffer is sized for the largest double.
        char text[512];
        std::snprintf(text, sizeof(text), "%f", value);
        return pad(text);
    }
    std::ostringstream out;
    out.precision(precision);
    if (fixed) {
        out << std::fixed;
    }
    out << value;
    return pad(out.str());
}

std::string ValueFormatter::Format(const std::string& value) const { return pad(value.empty() ? missing_text : value); }

std::string ValueFormatter::Format(bool value) const { return pad(value ? true_text : false_text); }

std::string ValueFormatter::Format(std::uint32_t value) const {
    char text[16];
    std::snprintf(text, sizeof(text), "%u", static_cast<unsigned>(value));
    return pad(text);
}

std::string ValueFormatter::Format(std::uint64_t value) const {
    char text[24];
    std::snprintf(text, sizeof(text), "%" PRIu64, value);
    return pad(text);
}

std::string ValueFormatter::Format(std::int32_t value) const {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", static_cast<int>(value));
    return pad(text);
}

std::string ValueFormatter::Format(std::int64_t value) const {
    char text[24];
    std::snprintf(text, sizeof(text), "%" PRId64, value);
    return pad(text);
}

}  // namespace Common
