#pragma once
// A fast 128-bit checksum (XXH3) of an entry's bytes. It finds damage (a file cut off by a full
// disk, a flipped bit on a network share), not forgery: whoever may write entries can compute it
// as well as any checksum. What an entry stands for is its key, a SHA-256 of the inputs.

#include <array>
#include <cstdint>
#include <string_view>

namespace content_cache
{

using Checksum = std::array<uint8_t, 16>;

[[nodiscard]] Checksum checksum(std::string_view bytes);

} // namespace content_cache
