#pragma once
// IEEE 754 binary16 conversions. Floats become halves by truncation, never by rounding; halves
// become floats exactly.

#include <cstdint>

namespace Moo
{

// Sign kept; magnitudes of at least 2^-14 keep their exponent and the top 10 mantissa bits;
// magnitudes above 65504 (and infinities) become infinity (0x7C00 with the sign); NaN becomes
// 0x7E00 with its sign; magnitudes below 2^-14 become subnormals whose mantissa is the magnitude
// times 2^24 truncated to an integer.
uint16_t floatToHalf(float value);

// The exact value of a half; subnormals are mantissa × 2^-24, infinities and NaN are kept.
float halfToFloat(uint16_t half);

} // namespace Moo
