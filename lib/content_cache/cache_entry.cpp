#include "content_cache/cache_entry.hpp"

#include "content_cache/checksum.hpp"
#include "cstdmf/span_reader.hpp"

#include <bit>
#include <cstring>

namespace content_cache
{
static_assert(std::endian::native == std::endian::little);

namespace
{
constexpr char kMagic[4] = {'V', 'M', 'C', 'E'};
// Layouts 1 and 2 ended in a SHA-256 and were stored under keys of another hash: no key of this
// version can find one, so they are not read.
constexpr uint32_t kVersion = 3;
constexpr size_t kHeaderSize = 4 + 4 + 32 + 8;
constexpr size_t kChecksumSize = sizeof(Checksum);

std::string checksumBytes(std::string_view bytes)
{
  const Checksum sum = checksum(bytes);
  return std::string(reinterpret_cast<const char*>(sum.data()), sum.size());
}

template <typename T>
void append(std::string& bytes, T value)
{
  char raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  bytes.append(raw, sizeof(T));
}

void appendString(std::string& bytes, std::string_view text)
{
  append<uint32_t>(bytes, static_cast<uint32_t>(text.size()));
  bytes.append(text);
}

std::span<const std::byte> asBytes(std::string_view text)
{
  return std::as_bytes(std::span<const char>(text.data(), text.size()));
}

bool readString(cstdmf::SpanReader& reader, std::string& text)
{
  const uint32_t size = reader.read<uint32_t>();
  if (!reader.has(size))
    return false;
  const std::span<const std::byte> bytes = reader.readBytes(size);
  text.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return reader.ok();
}
} // namespace

std::string encodeEntry(const Digest& key, const CacheEntry& entry)
{
  std::string body;
  append<uint32_t>(body, static_cast<uint32_t>(entry.messages.size()));
  for (const CachedMessage& message : entry.messages)
  {
    append<int32_t>(body, message.priority);
    appendString(body, message.category);
    appendString(body, message.text);
  }
  appendString(body, entry.figures);
  append<uint64_t>(body, entry.output.size());
  body += entry.output;

  std::string bytes(kMagic, sizeof(kMagic));
  append<uint32_t>(bytes, kVersion);
  bytes.append(reinterpret_cast<const char*>(key.data()), key.size());
  append<uint64_t>(bytes, body.size());
  bytes += body;
  bytes += checksumBytes(bytes);
  return bytes;
}

namespace
{
// Checks the whole entry and reads its messages; the output is left where it is, at
// [outputOffset, outputOffset + outputSize) of `bytes`.
bool decodeParts(std::string_view bytes, const Digest& key, CacheEntry& entry, std::string& problem,
                 size_t& outputOffset, size_t& outputSize)
{
  entry = CacheEntry{};
  if (bytes.size() < kHeaderSize + kChecksumSize)
  {
    problem = "truncated";
    return false;
  }
  cstdmf::SpanReader header(asBytes(bytes));
  const std::span<const std::byte> magic = header.readBytes(sizeof(kMagic));
  if (std::memcmp(magic.data(), kMagic, sizeof(kMagic)) != 0)
  {
    problem = "not a cache entry";
    return false;
  }
  const uint32_t version = header.read<uint32_t>();
  if (version != kVersion)
  {
    problem = "unknown layout version";
    return false;
  }
  constexpr size_t trailer = kChecksumSize;
  const std::span<const std::byte> storedKey = header.readBytes(key.size());
  if (std::memcmp(storedKey.data(), key.data(), key.size()) != 0)
  {
    problem = "stored under another key";
    return false;
  }
  const uint64_t bodySize = header.read<uint64_t>();
  if (bodySize > bytes.size() - kHeaderSize - trailer)
  {
    problem = "truncated";
    return false;
  }
  if (bodySize != bytes.size() - kHeaderSize - trailer)
  {
    problem = "trailing bytes";
    return false;
  }
  const size_t checked = kHeaderSize + static_cast<size_t>(bodySize);
  if (checksumBytes(bytes.substr(0, checked)) != bytes.substr(checked))
  {
    problem = "checksum mismatch";
    return false;
  }

  // The checksum matched, so a malformed body was written malformed: still refused.
  cstdmf::SpanReader body(asBytes(bytes.substr(kHeaderSize, static_cast<size_t>(bodySize))));
  const uint32_t messageCount = body.read<uint32_t>();
  // Each message takes at least 12 bytes: a count beyond that is a lie, refused before reserving.
  if (!body.ok() || messageCount > body.remaining() / 12)
  {
    problem = "malformed message list";
    return false;
  }
  entry.messages.resize(messageCount);
  for (CachedMessage& message : entry.messages)
  {
    message.priority = body.read<int32_t>();
    if (!readString(body, message.category) || !readString(body, message.text))
    {
      problem = "malformed message list";
      return false;
    }
  }
  if (!readString(body, entry.figures))
  {
    problem = "malformed figures";
    return false;
  }
  const uint64_t storedOutputSize = body.read<uint64_t>();
  if (!body.ok() || storedOutputSize != body.remaining())
  {
    problem = "malformed output size";
    return false;
  }
  outputSize = static_cast<size_t>(storedOutputSize);
  outputOffset = kHeaderSize + body.position();
  return true;
}
} // namespace

bool decodeEntry(std::string_view bytes, const Digest& key, CacheEntry& entry, std::string& problem)
{
  size_t outputOffset = 0;
  size_t outputSize = 0;
  if (!decodeParts(bytes, key, entry, problem, outputOffset, outputSize))
    return false;
  entry.output.assign(bytes.substr(outputOffset, outputSize));
  return true;
}

bool decodeEntry(std::string&& bytes, const Digest& key, CacheEntry& entry, std::string& problem)
{
  size_t outputOffset = 0;
  size_t outputSize = 0;
  if (!decodeParts(bytes, key, entry, problem, outputOffset, outputSize))
    return false;
  bytes.resize(outputOffset + outputSize);
  bytes.erase(0, outputOffset);
  entry.output = std::move(bytes);
  return true;
}

} // namespace content_cache
