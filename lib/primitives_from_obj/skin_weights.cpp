#include "primitives_from_obj/skin_weights.hpp"

#include <algorithm>
#include <cstddef>
#include <cmath>

namespace objimport
{

PackedSkin packSkin(std::span<const Influence> influences)
{
  // The three strongest so far, strongest first.
  std::array<Influence, 3> best{};
  size_t kept = 0;
  const auto stronger = [](const Influence& a, const Influence& b) {
    return a.weight != b.weight ? a.weight > b.weight : a.bone < b.bone;
  };
  for (const Influence& influence : influences)
  {
    if (!(influence.weight > 0.0f) || !std::isfinite(influence.weight))
      continue;
    // Insert in order; the weakest of three falls off the end.
    size_t slot = kept < best.size() ? kept++ : best.size();
    while (slot > 0 && stronger(influence, best[slot - 1]))
    {
      if (slot < best.size())
        best[slot] = best[slot - 1];
      --slot;
    }
    if (slot < best.size())
      best[slot] = influence;
  }

  PackedSkin packed;
  if (kept == 0)
  {
    packed.weights = {255, 0};
    return packed;
  }
  double sum = 0.0;
  for (size_t i = 0; i < kept; ++i)
    sum += best[i].weight;
  const auto w0 = static_cast<unsigned>(std::lround(best[0].weight / sum * 255.0));
  unsigned w1 = kept > 1 ? static_cast<unsigned>(std::lround(best[1].weight / sum * 255.0)) : 0u;
  w1 = std::min(w1, 255u - std::min(w0, 255u));
  packed.weights = {static_cast<uint8_t>(std::min(w0, 255u)), static_cast<uint8_t>(w1)};
  for (size_t i = 0; i < 3; ++i)
    packed.indices[i] = static_cast<uint8_t>(i < kept ? best[i].bone : best[0].bone);
  return packed;
}

} // namespace objimport
