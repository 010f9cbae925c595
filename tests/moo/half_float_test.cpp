#include "moo/half_float.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace
{

// A plain, branchy reference for the truncating conversion.
uint16_t referenceFloatToHalf(float value)
{
  const uint16_t sign = std::signbit(value) ? 0x8000 : 0;
  const float magnitude = std::fabs(value);
  if (std::isnan(value))
    return sign | 0x7E00;
  if (magnitude > 65504.0f)
    return sign | 0x7C00;
  if (magnitude < 6.103515625e-05f) // 2^-14
    return sign | static_cast<uint16_t>(std::ldexp(static_cast<double>(magnitude), 24));
  int exponent = 0;
  const double fraction = std::frexp(static_cast<double>(magnitude), &exponent); // [0.5, 1)
  const uint16_t halfExponent = static_cast<uint16_t>(exponent - 1 + 15);
  const uint16_t mantissa = static_cast<uint16_t>(std::floor((fraction * 2.0 - 1.0) * 1024.0));
  return sign | static_cast<uint16_t>(halfExponent << 10) | mantissa;
}

TEST(HalfFloat, WorkedValues)
{
  EXPECT_EQ(Moo::floatToHalf(1.0f), 0x3C00);
  EXPECT_EQ(Moo::floatToHalf(0.0f), 0x0000);
  EXPECT_EQ(Moo::floatToHalf(-0.0f), 0x8000);
  EXPECT_EQ(Moo::floatToHalf(0.1f), 0x2E66);
  EXPECT_EQ(Moo::floatToHalf(65504.0f), 0x7BFF);
  EXPECT_EQ(Moo::floatToHalf(65505.0f), 0x7C00);
  EXPECT_EQ(Moo::floatToHalf(70000.0f), 0x7C00);
  EXPECT_EQ(Moo::floatToHalf(-70000.0f), 0xFC00);
  EXPECT_EQ(Moo::floatToHalf(1.000732421875f), 0x3C00); // rounding would give 0x3C01
  EXPECT_EQ(Moo::floatToHalf(std::numeric_limits<float>::infinity()), 0x7C00);
  EXPECT_EQ(Moo::floatToHalf(-std::numeric_limits<float>::quiet_NaN()), 0xFE00);
  EXPECT_EQ(Moo::floatToHalf(5.960464477539063e-08f), 0x0001); // smallest subnormal
  EXPECT_EQ(Moo::floatToHalf(1e-10f), 0x0000);
}

TEST(HalfFloat, MatchesReferenceOverDenseSweep)
{
  // Every 97th float bit pattern plus the neighbourhoods of the interesting boundaries.
  auto check = [](uint32_t bits) {
    const float value = std::bit_cast<float>(bits);
    ASSERT_EQ(Moo::floatToHalf(value), referenceFloatToHalf(value)) << std::hex << bits;
  };
  for (uint64_t bits = 0; bits <= 0xFFFFFFFFull; bits += 97)
    check(static_cast<uint32_t>(bits));
  for (uint32_t centre : {0x38800000u, 0x477FE000u, 0x7F800000u, 0x33800000u, 0x3F800000u})
    for (uint32_t delta = 0; delta < 4096; ++delta)
    {
      check(centre + delta);
      check(centre - delta);
      check((centre + delta) | 0x80000000u);
    }
}

TEST(HalfFloat, EveryHalfRoundTrips)
{
  for (uint32_t half = 0; half <= 0xFFFF; ++half)
  {
    const float value = Moo::halfToFloat(static_cast<uint16_t>(half));
    if (std::isnan(value))
    {
      EXPECT_EQ(half & 0x7C00u, 0x7C00u);
      continue;
    }
    EXPECT_EQ(Moo::floatToHalf(value), half) << std::hex << half;
  }
  EXPECT_EQ(Moo::halfToFloat(0x0001), 5.960464477539063e-08f);
  EXPECT_EQ(Moo::halfToFloat(0x3C00), 1.0f);
}

} // namespace
