#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "common/value_formatter.h"

using Common::ValueFormatter;

TEST(ValueFormatterTest, SummarySettingsFormatEachKind) {
    const ValueFormatter f;
    EXPECT_EQ(f.precision, -1);
    EXPECT_EQ(f.width, -1);
    EXPECT_FALSE(f.fixed);
    // Floats print with "%f".
    EXPECT_EQ(f.Format(1.5f), "1.500000");
    EXPECT_EQ(f.Format(0.0f), "0.000000");
    EXPECT_EQ(f.Format(-2.25), "-2.250000");
    EXPECT_EQ(f.Format(123456.789f), "123456.789062");  // single precision shows through
    // Non-finite values keep a numeric column numeric.
    EXPECT_EQ(f.Format(std::numeric_limits<float>::quiet_NaN()), "0");
    EXPECT_EQ(f.Format(std::numeric_limits<float>::infinity()), "0");
    EXPECT_EQ(f.Format(-std::numeric_limits<float>::infinity()), "0");
    // Texts, flags, integers.
    EXPECT_EQ(f.Format(std::string()), "");
    EXPECT_EQ(f.Format(std::string("abc")), "abc");
    EXPECT_EQ(f.Format(true), "TRUE");
    EXPECT_EQ(f.Format(false), "FALSE");
    EXPECT_EQ(f.Format(std::uint32_t(4000000000u)), "4000000000");
    EXPECT_EQ(f.Format(std::uint64_t(18446744073709551615ull)), "18446744073709551615");
    EXPECT_EQ(f.Format(std::int32_t(-5)), "-5");
    EXPECT_EQ(f.Format(std::int64_t(-9000000000)), "-9000000000");
}

TEST(ValueFormatterTest, OtherSettings) {
    ValueFormatter f;
    f.precision = 3;
    EXPECT_EQ(f.Format(3.14159f), "3.14");
    EXPECT_EQ(f.Format(1234567.0), "1.23e+06");
    f.fixed = true;
    EXPECT_EQ(f.Format(3.14159f), "3.142");
    f.width = 8;
    EXPECT_EQ(f.Format(3.14159f), "   3.142");
    EXPECT_EQ(f.Format(std::uint64_t(12)), "      12");
    EXPECT_EQ(f.Format(std::string("a")), "       a");

    // Empty texts for non-finite values leave them to the number format.
    ValueFormatter g;
    g.nan_text = "";
    g.inf_text = "Inf";
    g.neg_inf_text = "";
    g.missing_text = "NA";
    g.true_text = "yes";
    g.false_text = "no";
    EXPECT_NE(g.Format(std::numeric_limits<double>::quiet_NaN()).find("nan"), std::string::npos);
    EXPECT_EQ(g.Format(std::numeric_limits<double>::infinity()), "Inf");
    EXPECT_EQ(g.Format(-std::numeric_limits<double>::infinity()), "-inf");
    EXPECT_EQ(g.Format(std::string()), "NA");
    EXPECT_EQ(g.Format(true), "yes");
    EXPECT_EQ(g.Format(false), "no");
}
