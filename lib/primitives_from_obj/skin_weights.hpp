#pragma once
// Reduces a vertex's bone influences to what the skinned source formats hold: three bone indices
// and two weights in 255ths, the third weight being what the two leave of 255.

#include <array>
#include <cstdint>
#include <span>

namespace objimport
{

struct Influence
{
  uint32_t bone = 0;
  float weight = 0.0f;
};

struct PackedSkin
{
  std::array<uint8_t, 3> indices{};
  std::array<uint8_t, 2> weights{};

  friend bool operator==(const PackedSkin&, const PackedSkin&) = default;
};

// The three strongest influences (weight descending, then bone ascending, so the result does not
// depend on the order they are given in), renormalised to sum 1 and rounded to 255ths: weights[0]
// and weights[1] belong to indices[0] and indices[1], indices[2] gets 255 - both. Slots without an
// influence repeat the strongest bone with weight 0. Influences that are not positive and finite
// are ignored; a vertex with none is bound wholly to bone 0. Bones must be below 256.
PackedSkin packSkin(std::span<const Influence> influences);

} // namespace objimport
