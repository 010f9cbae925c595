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

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
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
// The bytes of a sound entry, shown to a caller that keeps them elsewhere too.
using EntryBytes = std::function<void(std::string_view)>;

// The same, reusing the bytes' storage for the output (no copy of a large output); `sound` (when
// given) sees the bytes once they are known to be a sound entry, before they are taken apart.
[[nodiscard]] bool decodeEntry(std::string&& bytes, const Digest& key, CacheEntry& entry, std::string& problem,
                               const EntryBytes& sound = {});

// Reads an entry a piece at a time, so that its output never has to be held whole: from a source
// that fills the span it is given and returns the count (fewer only at the end of the bytes).
//   EntryReader reader(key, size, source);
//   reader.readHead(problem)       -> head(): the messages and figures (output empty)
//   reader.copyOutput(sink, problem) -> the output in pieces, then the checksum checked
// Until copyOutput has returned true nothing read is known to be sound: a caller acts on the head
// only in ways it would undo, and drops what the sink received when the copy fails.
class EntryReader
{
public:
  using Source = std::function<size_t(std::span<std::byte>)>;
  using Sink = std::function<bool(std::span<const std::byte>)>;

  EntryReader(const Digest& key, uint64_t size, Source source);
  ~EntryReader();
  EntryReader(const EntryReader&) = delete;
  EntryReader& operator=(const EntryReader&) = delete;

  // False, with what is wrong in `problem`, when the entry is not sound as far as it was read.
  [[nodiscard]] bool readHead(std::string& problem);
  const CacheEntry& head() const { return m_head; }
  uint64_t outputSize() const { return m_outputSize; }

  // False when the entry is not sound (`problem` says why) or when the sink refused a piece
  // (`problem` empty).
  [[nodiscard]] bool copyOutput(const Sink& sink, std::string& problem);

private:
  // Reads up to `bytes.size()` bytes, feeding those before the checksum to m_checksum.
  size_t read(std::span<std::byte> bytes);

  struct State;
  std::unique_ptr<State> m_state;
  Digest m_key;
  uint64_t m_size = 0;
  Source m_source;
  uint64_t m_position = 0;
  CacheEntry m_head;
  uint64_t m_outputSize = 0;
  // The head as read, and the output bytes read with it (from m_pendingOffset on), handed on
  // first by copyOutput.
  std::string m_pendingHead;
  size_t m_pendingOffset = 0;
};

// decodeEntry of bytes held in memory, through EntryReader: what a reader of a file does, for the
// checks that the two readers agree.
[[nodiscard]] bool decodeEntryInPieces(std::string_view bytes, const Digest& key, CacheEntry& entry,
                                       std::string& problem);

} // namespace content_cache
