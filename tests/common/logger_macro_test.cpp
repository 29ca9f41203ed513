#include <gtest/gtest.h>

#include <stdexcept>

#include "common/logger.h"

using Common::logging::attributes::ParseSeverity;
using Common::logging::attributes::SeverityLevel;
using Common::logging::attributes::SeverityName;

TEST(SeverityLevel, NamesAndExactParsing) {
    EXPECT_STREQ(SeverityName(SeverityLevel::trace), "trace");
    EXPECT_STREQ(SeverityName(SeverityLevel::error), "error");
    EXPECT_STREQ(SeverityName(static_cast<SeverityLevel>(6)), "unknown");
    EXPECT_EQ(ParseSeverity("warning"), SeverityLevel::warning);
    try {
        ParseSeverity("Error");
        FAIL() << "parsing is case-sensitive";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "unable to find severity for string: Error");
    }
}
