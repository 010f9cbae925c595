#pragma once
// One cached result: the output file's bytes, the messages its conversion logged and the figures
// it measured, and the file layout that carries them (in the local folder and as remote content
// alike).
//
// Layout, little-endian:
//   "VMCE"   4 bytes magic
//   u32      layout version (3)
//   32 bytes the key the entry was stored under
//   u64      body size
//   body:    u32 message count, then per message u32 priority, u32 category size, category,
//            u32 text size, text; then u32 figures size and the figures; then u64
//            output size and the output bytes
//   16 bytes XXH3-128 of everything before it (see checksum.hpp)
// A reader checks the magic, the version, the key, every size against what is left, that nothing
// trails the body, and the checksum; any mismatch makes the entry corrupt, never a partial result.

#include "content_cache/sha256.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace content_cache
{

struct CachedMessage
{
  int32_t priority = 0; // DebugMessagePriority
  std::string category;
  std::string text;

  bool operator==(const CachedMessage&) const = default;
};

struct CacheEntry
{
  std::vector<CachedMessage> messages;
  // What the conversion measured, in the caller's own form (opaque here); empty when nothing was
  // measured.
  std::string figures;
  std::string output;

  bool operator==(const CacheEntry&) const = default;
};

// The entry's bytes for `key`.
std::string encodeEntry(const Digest& key, const CacheEntry& entry);

// Reads an entry stored under `key`. False, with what is wrong in `problem` ("truncated",
// "checksum mismatch", ...), when the bytes are not a whole, sound entry for that key.
[[nodiscard]] bool decodeEntry(std::string_view bytes, const Digest& key, CacheEntry& entry, std::string& problem);
// The same, reusing the bytes' storage for the output (no copy of a large output).
[[nodiscard]] bool decodeEntry(std::string&& bytes, const Digest& key, CacheEntry& entry, std::string& problem);

} // namespace content_cache
