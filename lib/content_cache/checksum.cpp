#include "content_cache/checksum.hpp"

#include <cstring>

// The whole library in this one file: nothing to link, on Windows as on Linux.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace content_cache
{

Checksum checksum(std::string_view bytes)
{
  const XXH128_hash_t hash = XXH3_128bits(bytes.data(), bytes.size());
  // Big-endian, as XXH128_canonicalFromHash writes it: the same bytes on every machine.
  XXH128_canonical_t canonical;
  XXH128_canonicalFromHash(&canonical, hash);
  Checksum result;
  static_assert(sizeof(canonical.digest) == result.size());
  std::memcpy(result.data(), canonical.digest, result.size());
  return result;
}

} // namespace content_cache
