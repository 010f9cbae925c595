#include "cstdmf/string_id.hpp"

#include <cstring>

namespace cstdmf
{
namespace
{
inline uint32_t rotl32(uint32_t x, int r)
{
  return (x << r) | (x >> (32 - r));
}
} // namespace

uint32_t murmurHash3_x86_32(const void* data, size_t length, uint32_t seed)
{
  const auto* bytes = static_cast<const unsigned char*>(data);
  const size_t blockCount = length / 4;
  constexpr uint32_t c1 = 0xcc9e2d51;
  constexpr uint32_t c2 = 0x1b873593;
  uint32_t h1 = seed;

  for (size_t i = 0; i < blockCount; ++i)
  {
    uint32_t k1;
    std::memcpy(&k1, bytes + i * 4, 4); // little-endian hosts only
    k1 *= c1;
    k1 = rotl32(k1, 15);
    k1 *= c2;
    h1 ^= k1;
    h1 = rotl32(h1, 13);
    h1 = h1 * 5 + 0xe6546b64;
  }

  const unsigned char* tail = bytes + blockCount * 4;
  uint32_t k1 = 0;
  switch (length & 3)
  {
  case 3:
    k1 ^= static_cast<uint32_t>(tail[2]) << 16;
    [[fallthrough]];
  case 2:
    k1 ^= static_cast<uint32_t>(tail[1]) << 8;
    [[fallthrough]];
  case 1:
    k1 ^= tail[0];
    k1 *= c1;
    k1 = rotl32(k1, 15);
    k1 *= c2;
    h1 ^= k1;
  }

  h1 ^= static_cast<uint32_t>(length);
  h1 ^= h1 >> 16;
  h1 *= 0x85ebca6b;
  h1 ^= h1 >> 13;
  h1 *= 0xc2b2ae35;
  h1 ^= h1 >> 16;
  return h1;
}
} // namespace cstdmf
