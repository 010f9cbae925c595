#pragma once
// 32-bit ids of names: MurmurHash3 (x86, 32-bit variant) of the name's bytes, seed 0.

#include <cstddef>
#include <cstdint>
#include <string_view>

using StringID = uint32_t;

namespace cstdmf
{
uint32_t murmurHash3_x86_32(const void* data, size_t length, uint32_t seed);

inline StringID makeStringID(std::string_view name)
{
  return murmurHash3_x86_32(name.data(), name.size(), 0);
}
} // namespace cstdmf
