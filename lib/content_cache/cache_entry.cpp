#include "content_cache/cache_entry.hpp"

#include "content_cache/checksum.hpp"
#include "content_cache/file_io.hpp"
#include "cstdmf/span_reader.hpp"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <array>
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
enum class HeadParse
{
  Done,
  NeedMore, // `head` ends before the messages and figures do
  Malformed,
};

// Reads the messages and figures at the start of a body of `bodySize` bytes, of which `head` is
// the first part, and the output's size after them; `headSize` is where the output starts.
HeadParse parseHead(std::string_view head, uint64_t bodySize, CacheEntry& entry, size_t& headSize,
                    uint64_t& outputSize, std::string& problem)
{
  const bool whole = head.size() == bodySize;
  entry.messages.clear();
  cstdmf::SpanReader body(asBytes(head));
  const uint32_t messageCount = body.read<uint32_t>();
  // Each message takes at least 12 bytes: a count beyond that is a lie, refused before reserving.
  if (body.ok() && messageCount > (bodySize - 4) / 12)
  {
    problem = "malformed message list";
    return HeadParse::Malformed;
  }
  bool messagesRead = body.ok();
  if (messagesRead)
    entry.messages.resize(messageCount);
  for (CachedMessage& message : entry.messages)
  {
    message.priority = body.read<int32_t>();
    messagesRead = readString(body, message.category) && readString(body, message.text);
    if (!messagesRead)
      break;
  }
  if (!messagesRead)
  {
    problem = "malformed message list";
    return whole ? HeadParse::Malformed : HeadParse::NeedMore;
  }
  if (!readString(body, entry.figures))
  {
    problem = "malformed figures";
    return whole ? HeadParse::Malformed : HeadParse::NeedMore;
  }
  outputSize = body.read<uint64_t>();
  if (!body.ok())
  {
    problem = "malformed output size";
    return whole ? HeadParse::Malformed : HeadParse::NeedMore;
  }
  headSize = body.position();
  return HeadParse::Done;
}

// Checks the fixed header of an entry of `size` bytes stored under `key`; the body's size is
// what lies between it and the checksum.
bool checkHeader(std::string_view header, uint64_t size, const Digest& key, std::string& problem)
{
  if (size < kHeaderSize + kChecksumSize || header.size() < kHeaderSize)
  {
    problem = "truncated";
    return false;
  }
  cstdmf::SpanReader reader(asBytes(header));
  const std::span<const std::byte> magic = reader.readBytes(sizeof(kMagic));
  if (std::memcmp(magic.data(), kMagic, sizeof(kMagic)) != 0)
  {
    problem = "not a cache entry";
    return false;
  }
  if (reader.read<uint32_t>() != kVersion)
  {
    problem = "unknown layout version";
    return false;
  }
  const std::span<const std::byte> storedKey = reader.readBytes(key.size());
  if (std::memcmp(storedKey.data(), key.data(), key.size()) != 0)
  {
    problem = "stored under another key";
    return false;
  }
  const uint64_t bodySize = reader.read<uint64_t>();
  const uint64_t room = size - kHeaderSize - kChecksumSize;
  if (bodySize != room)
  {
    problem = bodySize > room ? "truncated" : "trailing bytes";
    return false;
  }
  return true;
}

// Checks the whole entry and reads its messages; the output is left where it is, at
// [outputOffset, outputOffset + outputSize) of `bytes`.
bool decodeParts(std::string_view bytes, const Digest& key, CacheEntry& entry, std::string& problem,
                 size_t& outputOffset, size_t& outputSize)
{
  entry = CacheEntry{};
  if (!checkHeader(bytes, bytes.size(), key, problem))
    return false;
  const uint64_t bodySize = bytes.size() - kHeaderSize - kChecksumSize;
  const size_t checked = kHeaderSize + static_cast<size_t>(bodySize);
  if (checksumBytes(bytes.substr(0, checked)) != bytes.substr(checked))
  {
    problem = "checksum mismatch";
    return false;
  }

  // The checksum matched, so a malformed body was written malformed: still refused.
  const std::string_view body = bytes.substr(kHeaderSize, static_cast<size_t>(bodySize));
  size_t headSize = 0;
  uint64_t storedOutputSize = 0;
  if (parseHead(body, bodySize, entry, headSize, storedOutputSize, problem) != HeadParse::Done)
    return false;
  if (storedOutputSize != body.size() - headSize)
  {
    problem = "malformed output size";
    return false;
  }
  outputSize = static_cast<size_t>(storedOutputSize);
  outputOffset = kHeaderSize + headSize;
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

bool decodeEntry(std::string&& bytes, const Digest& key, CacheEntry& entry, std::string& problem,
                 const EntryBytes& sound)
{
  size_t outputOffset = 0;
  size_t outputSize = 0;
  if (!decodeParts(bytes, key, entry, problem, outputOffset, outputSize))
    return false;
  if (sound)
    sound(bytes);
  bytes.resize(outputOffset + outputSize);
  bytes.erase(0, outputOffset);
  entry.output = std::move(bytes);
  return true;
}

// The checksum of checksum.hpp, taken a piece at a time.
struct EntryReader::State
{
  XXH3_state_t checksum;
};

EntryReader::EntryReader(const Digest& key, uint64_t size, Source source)
  : m_state(std::make_unique<State>()), m_key(key), m_size(size), m_source(std::move(source))
{
  XXH3_128bits_reset(&m_state->checksum);
}

EntryReader::~EntryReader() = default;

size_t EntryReader::read(std::span<std::byte> bytes)
{
  const size_t count = m_source(bytes);
  const uint64_t checkedEnd = m_size >= kChecksumSize ? m_size - kChecksumSize : 0;
  if (m_position < checkedEnd)
    XXH3_128bits_update(&m_state->checksum, bytes.data(),
                        static_cast<size_t>(std::min<uint64_t>(count, checkedEnd - m_position)));
  m_position += count;
  return count;
}

bool EntryReader::readHead(std::string& problem)
{
  std::array<std::byte, kHeaderSize> header{};
  const size_t headerRead = m_size >= kHeaderSize + kChecksumSize ? read(header) : 0;
  const std::string_view headerText(reinterpret_cast<const char*>(header.data()), headerRead);
  if (!checkHeader(headerText, m_size, m_key, problem))
    return false;
  const uint64_t bodySize = m_size - kHeaderSize - kChecksumSize;

  // The head is the start of the body, read in small pieces until it is whole (it almost always
  // lies within the first); the output bytes read with it are handed on first by copyOutput.
  constexpr size_t kHeadPiece = size_t(1) << 16;
  size_t headSize = 0;
  for (;;)
  {
    const size_t have = m_pendingHead.size();
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(kHeadPiece, bodySize - have));
    m_pendingHead.resize(have + wanted);
    const size_t count = read(std::as_writable_bytes(std::span(m_pendingHead)).subspan(have, wanted));
    m_pendingHead.resize(have + count);
    const HeadParse parsed = parseHead(m_pendingHead, bodySize, m_head, headSize, m_outputSize, problem);
    if (parsed == HeadParse::Done)
      break;
    if (parsed == HeadParse::Malformed || count < wanted)
    {
      if (parsed != HeadParse::Malformed)
        problem = "truncated";
      return false;
    }
  }
  if (m_outputSize != bodySize - headSize)
  {
    problem = "malformed output size";
    return false;
  }
  m_pendingOffset = headSize;
  return true;
}

bool EntryReader::copyOutput(const Sink& sink, std::string& problem)
{
  problem.clear();
  const std::span<const std::byte> pending = std::as_bytes(std::span(m_pendingHead)).subspan(m_pendingOffset);
  if (!pending.empty() && !sink(pending))
    return false;
  m_pendingHead.clear();
  m_pendingOffset = 0;
  const uint64_t checkedEnd = m_size - kChecksumSize;
  const std::span<std::byte> buffer = pieceBuffer();
  while (m_position < checkedEnd)
  {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer.size(), checkedEnd - m_position));
    const size_t count = read(buffer.first(wanted));
    if (count != 0 && !sink(buffer.first(count)))
      return false;
    if (count < wanted)
    {
      problem = "truncated";
      return false;
    }
  }
  Checksum stored{};
  std::array<std::byte, 1> beyond{};
  if (read(std::as_writable_bytes(std::span(stored))) != stored.size())
  {
    problem = "truncated";
    return false;
  }
  if (read(beyond) != 0)
  {
    problem = "trailing bytes";
    return false;
  }
  XXH128_canonical_t computed;
  XXH128_canonicalFromHash(&computed, XXH3_128bits_digest(&m_state->checksum));
  if (std::memcmp(computed.digest, stored.data(), stored.size()) != 0)
  {
    problem = "checksum mismatch";
    return false;
  }
  return true;
}

bool decodeEntryInPieces(std::string_view bytes, const Digest& key, CacheEntry& entry, std::string& problem)
{
  size_t at = 0;
  EntryReader reader(key, bytes.size(), [&](std::span<std::byte> piece) {
    const size_t count = bytes.copy(reinterpret_cast<char*>(piece.data()), piece.size(), at);
    at += count;
    return count;
  });
  if (!reader.readHead(problem))
    return false;
  entry = reader.head();
  return reader.copyOutput(
    [&](std::span<const std::byte> piece) {
      entry.output.append(reinterpret_cast<const char*>(piece.data()), piece.size());
      return true;
    },
    problem);
}

} // namespace content_cache
