#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "common/value_formatter.h"

// The summary's settings (the only ones the program uses): "%f" numbers, TRUE/FALSE, and "0" for
// non-finite values so that a numeric column stays numeric.
TEST(ValueFormatterTest, SummarySettingsFormatEachKind) {
    const Common::ValueFormatter f;
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(f.Format(-2.25), "-2.250000");
    EXPECT_EQ(f.Format(123456.789f), "123456.789062");  // single precision shows through
    for (const double odd : {std::numeric_limits<double>::quiet_NaN(), inf, -inf}) EXPECT_EQ(f.Format(odd), "0");
    for (const float odd : {std::numeric_limits<float>::quiet_NaN(), float(inf), float(-inf)}) EXPECT_EQ(f.Format(odd), "0");
    EXPECT_EQ(f.Format(std::string("abc")), "abc");
    EXPECT_EQ(f.Format(true), "TRUE");
    EXPECT_EQ(f.Format(false), "FALSE");
    EXPECT_EQ(f.Format(std::uint64_t(18446744073709551615ull)), "18446744073709551615");
    EXPECT_EQ(f.Format(std::uint32_t(4000000000u)), "4000000000");
    EXPECT_EQ(f.Format(std::int64_t(-9000000000)), "-9000000000");
    EXPECT_EQ(f.Format(std::int32_t(-5)), "-5");
}
