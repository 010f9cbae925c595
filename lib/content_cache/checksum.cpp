#include "content_cache/checksum.hpp"

#include <cstring>

// The whole library in this one file: nothing to link, on Windows as on Linux.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace content_cache
{

namespace
{
// Big-endian, as XXH128_canonicalFromHash writes it: the same bytes on every machine.
Checksum canonicalOf(XXH128_hash_t hash)
{
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, hash);
  Checksum result;
  static_assert(sizeof(canonical.digest) == result.size());
  std::memcpy(result.data(), canonical.digest, result.size());
  return result;
}
} // namespace

Checksum checksum(std::string_view bytes)
{
  return canonicalOf(XXH3_128bits(bytes.data(), bytes.size()));
}

struct ChecksumStream::State
{
  XXH3_state_t state;
};

ChecksumStream::ChecksumStream() : m_state(std::make_unique<State>())
{
  XXH3_128bits_reset(&m_state->state);
}

ChecksumStream::~ChecksumStream() = default;

void ChecksumStream::update(std::span<const std::byte> bytes)
{
  XXH3_128bits_update(&m_state->state, bytes.data(), bytes.size());
}

Checksum ChecksumStream::finish()
{
  return canonicalOf(XXH3_128bits_digest(&m_state->state));
}

} // namespace content_cache
