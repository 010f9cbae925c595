#pragma once
// SHA-256 from the system's cryptography library: libcrypto on POSIX systems, loaded on first use
// so that runs without a cache do not pay for it at start-up; BCrypt on Windows (part of the
// system, so the Windows build needs no further library).

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace content_cache
{

using Digest = std::array<uint8_t, 32>;

// True when SHA-256 can be computed; false, with the reason (naming the library), when the
// library that computes it cannot be loaded. Hashing without it is a critical error: whatever
// needs hashes asks this first and refuses to start otherwise.
[[nodiscard]] bool sha256Available(std::string& problem);

// Incremental hashing: update() any number of times, then finish() once.
class Sha256
{
public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void update(std::span<const std::byte> bytes);
  void update(std::string_view text);
  [[nodiscard]] Digest finish();

private:
  struct State;
  std::unique_ptr<State> m_state;
};

[[nodiscard]] Digest sha256(std::span<const std::byte> bytes);
[[nodiscard]] Digest sha256(std::string_view bytes);

// Lower-case hexadecimal, 64 characters.
std::string toHex(const Digest& digest);
// Parses 64 hexadecimal characters; false for anything else.
[[nodiscard]] bool fromHex(std::string_view text, Digest& digest);

} // namespace content_cache
