#pragma once
// A fast 128-bit checksum (XXH3) of an entry's bytes. It finds damage (a file cut off by a full
// disk, a flipped bit on a network share), not forgery: whoever may write entries can compute it
// as well as any checksum. What an entry stands for is its key, a SHA-256 of the inputs.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace content_cache
{

using Checksum = std::array<uint8_t, 16>;

[[nodiscard]] Checksum checksum(std::string_view bytes);

// The same checksum of bytes that arrive in pieces: update() any number of times, then finish().
class ChecksumStream
{
public:
  ChecksumStream();
  ~ChecksumStream();
  ChecksumStream(const ChecksumStream&) = delete;
  ChecksumStream& operator=(const ChecksumStream&) = delete;

  void update(std::span<const std::byte> bytes);
  [[nodiscard]] Checksum finish();

private:
  struct State;
  std::unique_ptr<State> m_state;
};

} // namespace content_cache
