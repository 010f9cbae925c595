// Reads cache entries whole and a piece at a time, and checks that both readers agree on every
// input: the same verdict, and the same messages, figures and output when they accept it. A
// checksum guards every entry, so random bytes would almost never reach the body's reader: the
// input is taken as a body and given a sound header and checksum, and also read as it is.
#include "content_cache/cache_entry.hpp"
#include "content_cache/checksum.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace
{
using namespace content_cache;

void check(bool condition)
{
  if (!condition)
    std::abort();
}

void readBothWays(std::string_view bytes, const Digest& key)
{
  CacheEntry whole;
  CacheEntry pieces;
  std::string problem;
  const bool wholeRead = decodeEntry(bytes, key, whole, problem);
  check(decodeEntryInPieces(bytes, key, pieces, problem) == wholeRead);
  if (wholeRead)
  {
    check(whole == pieces);
    check(encodeEntry(key, whole) == bytes);
  }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const Digest key{};
  readBothWays(input, key);

  std::string entry("VMCE", 4);
  const uint32_t version = 3;
  const uint64_t bodySize = size;
  entry.append(reinterpret_cast<const char*>(&version), sizeof(version));
  entry.append(reinterpret_cast<const char*>(key.data()), key.size());
  entry.append(reinterpret_cast<const char*>(&bodySize), sizeof(bodySize));
  entry.append(input);
  const Checksum sum = checksum(entry);
  entry.append(reinterpret_cast<const char*>(sum.data()), sum.size());
  readBothWays(entry, key);
  return 0;
}
