#include "content_cache/key_hash.hpp"

#include <blake3.h>

#include <array>
#include <cstdint>

namespace content_cache
{

struct KeyHash::State
{
  blake3_hasher hasher;
};

KeyHash::KeyHash() : m_state(std::make_unique<State>())
{
  blake3_hasher_init(&m_state->hasher);
}

KeyHash::~KeyHash() = default;

void KeyHash::update(std::span<const std::byte> bytes)
{
  blake3_hasher_update(&m_state->hasher, bytes.data(), bytes.size());
}

void KeyHash::update(std::string_view text)
{
  update(std::as_bytes(std::span<const char>(text.data(), text.size())));
}

void KeyHash::updateField(std::string_view text)
{
  const uint64_t size = text.size();
  std::array<std::byte, 8> length{};
  for (size_t i = 0; i < length.size(); ++i)
    length[i] = static_cast<std::byte>((size >> (8 * i)) & 0xFF);
  update(length);
  update(text);
}

Digest KeyHash::finish()
{
  Digest digest{};
  blake3_hasher_finalize(&m_state->hasher, digest.data(), digest.size());
  return digest;
}

Digest keyHash(std::string_view bytes)
{
  KeyHash hash;
  hash.update(bytes);
  return hash.finish();
}

} // namespace content_cache
