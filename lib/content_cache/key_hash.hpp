#pragma once
// The hash that names a result by its inputs: BLAKE3, 256 bits. It is as hard to collide as
// SHA-256 (no crafted source can be given another source's result) and several times faster, which
// matters where a warm run does little else than hash its inputs.

#include "content_cache/sha256.hpp"

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace content_cache
{

// Incremental hashing: update() any number of times, then finish() once.
class KeyHash
{
public:
  KeyHash();
  ~KeyHash();
  KeyHash(const KeyHash&) = delete;
  KeyHash& operator=(const KeyHash&) = delete;

  void update(std::span<const std::byte> bytes);
  void update(std::string_view text);
  // A field of a key: its length first, so that no two sequences of fields hash the same bytes.
  void updateField(std::string_view text);
  [[nodiscard]] Digest finish();

private:
  struct State;
  std::unique_ptr<State> m_state;
};

[[nodiscard]] Digest keyHash(std::string_view bytes);

} // namespace content_cache
