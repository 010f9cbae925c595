#include "resmgr/binary_block.hpp"

#include "cstdmf/debug.hpp"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <istream>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

namespace
{
// What an empty block points at, so data() is never null (memcpy of zero bytes from null is
// still undefined).
char s_noBytes[1] = {};

std::atomic<bool> s_failNextAllocation{false};

bool rangeInside(const void* data, size_t length, const BinaryBlock& owner)
{
  if (length == 0 && data == nullptr)
    return true;
  const auto begin = reinterpret_cast<uintptr_t>(data);
  const auto ownerBegin = reinterpret_cast<uintptr_t>(owner.data());
  if (begin < ownerBegin || begin - ownerBegin > owner.len())
    return false;
  return length <= owner.len() - (begin - ownerBegin);
}
} // namespace

BinaryBlock::BinaryBlock(const void* data, size_t length, const char* allocationTag,
                         ConstSmartPointer<BinaryBlock> owner)
  : m_data(s_noBytes), m_length(0), m_owner(std::move(owner)), m_allocationTag(allocationTag)
{
  if (m_owner)
  {
    const bool rangeInsideOwner = rangeInside(data, length, *m_owner);
    ZR_ASSERT(rangeInsideOwner);
    // Borrowed bytes stay the owner's; cdata() on them is for callers that fill a fresh owner.
    if (data != nullptr)
      m_data = const_cast<char*>(static_cast<const char*>(data));
    m_length = length;
    return;
  }
  if (length == 0)
    return;
  // calloc leaves fresh pages untouched, so a large zero-filled block costs no more than it is
  // used.
  char* bytes = s_failNextAllocation.exchange(false) ? nullptr
                                                    : static_cast<char*>(data ? std::malloc(length) : std::calloc(length, 1));
  if (bytes == nullptr)
  {
    // The count is printed as the int it has always been printed as, whatever its size.
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock: Failed to alloc %d bytes\n", static_cast<int>(length));
    return;
  }
  if (data != nullptr)
    std::memcpy(bytes, data, length);
  m_data = bytes;
  m_length = length;
}

BinaryBlock::BinaryBlock(std::istream& stream, size_t length, const char* allocationTag)
  : m_data(s_noBytes), m_length(0), m_allocationTag(allocationTag)
{
  if (length == 0)
    return;
  char* bytes = s_failNextAllocation.exchange(false) ? nullptr : static_cast<char*>(std::malloc(length));
  if (bytes == nullptr)
  {
    // "%Iu" is the Windows runtime's size_t specifier; other C libraries read it as a flagged
    // %u of an unsigned int, so the count is put in here rather than by printf.
    std::string text = "BinaryBlock: Failed to alloc %Iu bytes (creating from stream)\n";
    text.replace(text.find("%Iu"), 3, std::to_string(length));
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "%s", text.c_str());
    return;
  }
  size_t done = 0;
  while (done < length && stream)
  {
    const auto chunk = static_cast<std::streamsize>(std::min<size_t>(length - done, size_t(1) << 30));
    stream.read(bytes + done, chunk);
    done += static_cast<size_t>(stream.gcount());
  }
  if (done != length)
  {
    std::free(bytes);
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock: the stream ended after %zu of %zu bytes\n", done,
           length);
    return;
  }
  m_data = bytes;
  m_length = length;
}

void BinaryBlock::failNextAllocationForTesting()
{
  s_failNextAllocation = true;
}

BinaryBlock::BinaryBlock(AdoptBytes, char* bytes, size_t length, const char* allocationTag)
  : m_data(bytes ? bytes : s_noBytes), m_length(bytes ? length : 0), m_allocationTag(allocationTag)
{
}

BinaryBlock::~BinaryBlock()
{
  if (ownsBytes())
    std::free(m_data);
}

bool BinaryBlock::ownsBytes() const
{
  return !m_owner && m_data != s_noBytes;
}

SmartPointer<BinaryBlock> BinaryBlock::compress(int level) const
{
  if (m_length > std::numeric_limits<uLong>::max())
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock::compress: %zu bytes are too many to compress at once\n",
           m_length);
    return nullptr;
  }
  const uLong sourceLength = static_cast<uLong>(m_length);
  const uLong bound = compressBound(sourceLength);
  char* scratch = static_cast<char*>(std::malloc(bound));
  if (scratch == nullptr)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock: Failed to alloc %lu bytes (compress 1)\n",
           static_cast<unsigned long>(bound));
    return nullptr;
  }
  uLongf compressedLength = bound;
  const int result = compress2(reinterpret_cast<Bytef*>(scratch), &compressedLength,
                               reinterpret_cast<const Bytef*>(m_data), sourceLength, level);
  if (result != Z_OK)
  {
    std::free(scratch);
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock::compress: zlib failed with code %d\n", result);
    return nullptr;
  }
  char* bytes = static_cast<char*>(std::realloc(scratch, compressedLength));
  if (bytes == nullptr)
  {
    std::free(scratch);
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock: Failed to alloc %u bytes (compress 2)\n",
           static_cast<unsigned>(compressedLength));
    return nullptr;
  }
  return new BinaryBlock(AdoptBytes{}, bytes, compressedLength, m_allocationTag);
}

SmartPointer<BinaryBlock> BinaryBlock::decompress(size_t maxLength) const
{
  // The stream carries no length, so the output grows by doubling up to the caller's limit.
  if (m_length > std::numeric_limits<uInt>::max())
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock::decompress: a block of %zu bytes is too large to inflate\n",
           m_length);
    return nullptr;
  }
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock::decompress: zlib could not start\n");
    return nullptr;
  }
  stream.next_in = reinterpret_cast<Bytef*>(m_data);
  stream.avail_in = static_cast<uInt>(m_length);

  size_t capacity = std::min(maxLength, m_length > maxLength / 4 ? maxLength : std::max<size_t>(m_length * 4, 64));
  char* buffer = static_cast<char*>(std::malloc(std::max<size_t>(capacity, 1)));
  size_t produced = 0;
  const char* failure = nullptr;
  bool outOfMemory = buffer == nullptr;
  while (!outOfMemory && failure == nullptr)
  {
    if (produced == capacity)
    {
      if (capacity == maxLength)
      {
        // Full at the limit: the stream may still end here without another output byte.
        stream.next_out = reinterpret_cast<Bytef*>(buffer + produced);
        stream.avail_out = 0;
        if (inflate(&stream, Z_NO_FLUSH) == Z_STREAM_END)
          break;
        failure = "inflates to more bytes than allowed";
        break;
      }
      const size_t grown = capacity > maxLength / 2 ? maxLength : capacity * 2;
      char* larger = static_cast<char*>(std::realloc(buffer, grown));
      if (larger == nullptr)
      {
        capacity = grown;
        outOfMemory = true;
        break;
      }
      buffer = larger;
      capacity = grown;
    }
    const auto room = static_cast<uInt>(std::min<size_t>(capacity - produced, std::numeric_limits<uInt>::max()));
    stream.next_out = reinterpret_cast<Bytef*>(buffer + produced);
    stream.avail_out = room;
    const int result = inflate(&stream, Z_NO_FLUSH);
    produced += room - stream.avail_out;
    if (result == Z_STREAM_END)
      break;
    if (result != Z_OK && result != Z_BUF_ERROR)
      failure = "is not a valid zlib stream";
    else if (stream.avail_out != 0)
      failure = "ends before its zlib stream does"; // all input used, output not full
  }
  const uInt trailing = stream.avail_in;
  inflateEnd(&stream);

  if (outOfMemory)
  {
    std::free(buffer);
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock: Failed to alloc %lu bytes (decompress)\n",
           static_cast<unsigned long>(capacity));
    return nullptr;
  }
  if (failure == nullptr && trailing != 0)
    failure = "has bytes after the end of its zlib stream";
  if (failure != nullptr)
  {
    std::free(buffer);
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinaryBlock::decompress: the block %s\n", failure);
    return nullptr;
  }
  if (produced == 0)
  {
    std::free(buffer);
    return new BinaryBlock(nullptr, 0, m_allocationTag);
  }
  // Give back what the last doubling over-reserved; keep the larger buffer if that fails.
  if (char* fitted = static_cast<char*>(std::realloc(buffer, produced)))
    buffer = fitted;
  return new BinaryBlock(AdoptBytes{}, buffer, produced, m_allocationTag);
}
