#pragma once
// The cache folder: one file per entry, named after its key, that any number of processes on any
// number of machines may read and fill at once (a network share included).
//
//   DIR/v1/<first two hex digits of the key>/<key in hex>.entry
//
// No locks: an entry appears whole through an atomic rename, so a process that dies leaves at most
// a temporary file, which eviction later removes. An entry's write time is its last use: a hit
// touches it, and eviction removes the least recently used entries first.

#include "content_cache/cache_entry.hpp"
#include "resmgr/file_io.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace content_cache
{

class LocalStore
{
public:
  explicit LocalStore(std::filesystem::path root);

  enum class Lookup
  {
    Miss,    // no entry for the key
    Hit,     // `entry` holds it
    Corrupt, // there is a file, but not a sound entry (`problem` says why); it has been removed
  };

  // Looks the key up and, on a hit, marks the entry as just used.
  [[nodiscard]] Lookup load(const Digest& key, CacheEntry& entry, std::string& problem);

  // An entry read a piece at a time (open): its file stays open while the output is copied.
  struct OpenEntry
  {
    std::filesystem::path path;
    fileio::FileReader file;
    std::unique_ptr<EntryReader> reader;
  };

  // Looks the key up and reads the entry's head: a Hit leaves `entry.reader` ready to copy the
  // output, whose checksum is known only once it has been copied. A head found unsound is Corrupt
  // and removed, as with load().
  [[nodiscard]] Lookup open(const Digest& key, OpenEntry& entry, std::string& problem);
  // After the output was copied: closes the file (the head stays readable) and marks a sound entry
  // as just used, or removes an unsound one (`problem` is then completed with the entry's path).
  void close(OpenEntry& entry, bool sound, std::string& problem);

  // Stores an encoded entry (encodeEntry) under `key`. False with the reason in `problem`.
  [[nodiscard]] bool store(const Digest& key, std::string_view encoded, std::string& problem);

  struct Usage
  {
    uint64_t bytes = 0;
    uint64_t entries = 0;
  };

  // Removes the least recently used entries until the entries take at most maxBytes, and the
  // temporary files that are more than an hour old (a writer that died). Entries that vanish or
  // cannot be removed meanwhile (another process) are skipped. Returns what is left.
  Usage evict(uint64_t maxBytes);

  // What the entries take now.
  Usage usage() const;

  std::filesystem::path entryPath(const Digest& key) const;
  const std::filesystem::path& root() const { return m_root; }

private:
  std::filesystem::path m_root;
};

} // namespace content_cache
