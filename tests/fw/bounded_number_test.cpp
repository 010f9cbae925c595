#include "fw/bounded_number.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

TEST(BoundedNumber, DigitsOnlyWithinTheRange)
{
  EXPECT_EQ(FW::parseBoundedNumber("0", 0, 10), 0u);
  EXPECT_EQ(FW::parseBoundedNumber("10", 0, 10), 10u);
  EXPECT_EQ(FW::parseBoundedNumber("007", 1, 10), 7u);
  EXPECT_EQ(FW::parseBoundedNumber("18446744073709551615", 0, UINT64_MAX), UINT64_MAX);
  for (const std::string bad : {"", "11", "-1", "+1", " 1", "1 ", "1k", "0x1", "1.0", "abc"})
    EXPECT_FALSE(FW::parseBoundedNumber(bad, 0, 10)) << bad;
  EXPECT_FALSE(FW::parseBoundedNumber("18446744073709551616", 0, UINT64_MAX));
  EXPECT_FALSE(FW::parseBoundedNumber("0", 1, 10));
}
