#pragma once
// IEEE 754 binary16 conversions. Floats become halves by truncation, never by rounding; halves
// become floats exactly.

#include <bit>
#include <cstdint>

namespace Moo
{

// Sign kept; magnitudes of at least 2^-14 keep their exponent and the top 10 mantissa bits;
// magnitudes above 65504 (and infinities) become infinity (0x7C00 with the sign); NaN becomes
// 0x7E00 with its sign; magnitudes below 2^-14 become subnormals whose mantissa is the magnitude
// times 2^24 truncated to an integer.
// (Defined here so that conversion loops inline them.)
inline uint16_t floatToHalf(float value);

// The exact value of a half; subnormals are mantissa × 2^-24, infinities and NaN are kept.
inline float halfToFloat(uint16_t half);

inline uint16_t floatToHalf(float value)
{
  const uint32_t bits = std::bit_cast<uint32_t>(value);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const uint32_t magnitudeBits = bits & 0x7FFFFFFFu;

  // Each case is computed and the right one selected, so the conversion has no data-dependent
  // branches in its arithmetic.
  const float magnitude = std::bit_cast<float>(magnitudeBits);
  const bool isNaN = magnitudeBits > 0x7F800000u;
  const bool overflows = magnitudeBits > 0x477FE000u; // above 65504, infinity included
  const bool subnormal = magnitudeBits < 0x38800000u; // below 2^-14

  const uint32_t normal = (magnitudeBits - (112u << 23)) >> 13;
  const uint32_t denormal = subnormal ? static_cast<uint32_t>(magnitude * 16777216.0f) : 0u; // × 2^24, truncated

  uint32_t result = subnormal ? denormal : normal;
  result = overflows ? 0x7C00u : result;
  result = isNaN ? 0x7E00u : result;
  return static_cast<uint16_t>(sign | result);
}

inline float halfToFloat(uint16_t half)
{
  const uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  const uint32_t exponent = (half >> 10) & 0x1Fu;
  const uint32_t mantissa = half & 0x3FFu;

  if (exponent == 0)
  {
    const float value = static_cast<float>(mantissa) * 5.960464477539063e-08f; // 2^-24
    return sign ? -value : value;
  }
  if (exponent == 0x1F)
    return std::bit_cast<float>(sign | 0x7F800000u | (mantissa << 13));
  return std::bit_cast<float>(sign | ((exponent + 112u) << 23) | (mantissa << 13));
}

} // namespace Moo
