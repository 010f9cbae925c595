#pragma once
// Plain records shared by packable prototypes.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

static_assert(std::endian::native == std::endian::little, "packed prototypes are little-endian");
static_assert(sizeof(void*) == 8, "packed prototypes store array pointers as 64-bit fields");

namespace red::types
{

// A packed string: `size` bytes of `text`, the terminating zero byte included. Packed as an
// array of char whose count is `size`.
struct String
{
  uint32_t size;
  uint32_t padding;
  const char* text;
};

static_assert(sizeof(String) == 16);
static_assert(offsetof(String, size) == 0);
static_assert(offsetof(String, padding) == 4);
static_assert(offsetof(String, text) == 8);
static_assert(std::is_trivially_copyable_v<String>);

} // namespace red::types
