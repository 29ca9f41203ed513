#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "common/value_formatter.h"

using Common::ValueFormatter;

TEST(ValueFormatterTest, SummarySettingsFormatEachKind) {
    const ValueFormatter f;
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(f.Format(1.5f), "1.500000");  // "%f"
    EXPECT_EQ(f.Format(-2.25), "-2.250000");
    EXPECT_EQ(f.Format(123456.789f), "123456.789062");  // single precision shows through
    // Non-finite values keep a numeric column numeric.
    for (const double odd : {std::numeric_limits<double>::quiet_NaN(), inf, -inf}) EXPECT_EQ(f.Format(odd), "0");
    EXPECT_EQ(f.Format(std::string("abc")), "abc");
    EXPECT_EQ(f.Format(true), "TRUE");
    EXPECT_EQ(f.Format(false), "FALSE");
    EXPECT_EQ(f.Format(std::uint64_t(18446744073709551615ull)), "18446744073709551615");
    EXPECT_EQ(f.Format(std::int64_t(-9000000000)), "-9000000000");

    ValueFormatter g;
    g.precision = 3;
    EXPECT_EQ(g.Format(3.14159f), "3.14");
    EXPECT_EQ(g.Format(1234567.0), "1.23e+06");
    g.fixed = true;
    g.width = 8;
    EXPECT_EQ(g.Format(3.14159f), "   3.142");
    EXPECT_EQ(g.Format(std::uint64_t(12)), "      12");
    EXPECT_EQ(g.Format(std::string("a")), "       a");
    // Empty texts for non-finite values leave them to the number format.
    ValueFormatter h;
    h.nan_text = "";
    h.inf_text = "Inf";
    h.neg_inf_text = "";
    h.missing_text = "NA";
    h.true_text = "yes";
    EXPECT_NE(h.Format(std::numeric_limits<double>::quiet_NaN()).find("nan"), std::string::npos);
    EXPECT_EQ(h.Format(inf), "Inf");
    EXPECT_EQ(h.Format(-inf), "-inf");
    EXPECT_EQ(h.Format(std::string()), "NA");
    EXPECT_EQ(h.Format(true), "yes");
}
