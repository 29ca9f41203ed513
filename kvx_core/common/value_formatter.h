#pragma once
// Turns values into the text of a table cell, such as a row of the sequencing summary.
//
// A default-built formatter has the settings of the summary file: no fixed precision or width,
// non-finite numbers as "0" (so a column of numbers stays numeric for whatever reads the table),
// an empty cell for a missing text, and "TRUE"/"FALSE" for flags.

#include <cstdint>
#include <string>

namespace Common {

class ValueFormatter {
public:
    ValueFormatter() = default;
    virtual ~ValueFormatter() = default;

    // NaN and infinities: the matching text, if it is not empty. Otherwise with `precision` below 0
    // "%f"; else stream output with that precision, fixed notation if `fixed`.
    std::string Format(double value) const;
    std::string Format(float value) const { return Format(static_cast<double>(value)); }
    // `missing_text` for an empty text.
    std::string Format(const std::string& value) const;
    std::string Format(const char* value) const { return Format(std::string(value ? value : "")); }
    std::string Format(bool value) const;
    // Integers in plain decimal ("%u", "%lu").
    std::string Format(std::uint32_t value) const;
    std::string Format(std::uint64_t value) const;
    std::string Format(std::int32_t value) const;
    std::string Format(std::int64_t value) const;

    std::int32_t precision = -1;  // digits of stream output; -1 for "%f"
    std::int32_t width = -1;      // minimum width, padded on the left; -1 for none
    std::string nan_text = "0";
    std::string inf_text = "0";
    std::string neg_inf_text = "0";
    std::string missing_text;
    std::string true_text = "TRUE";
    std::string false_text = "FALSE";
    bool fixed = false;

private:
    std::string pad(std::string text) const;
};

}  // namespace Common
