#include "moo/vertex_section.hpp"

#include "cstdmf/debug.hpp"

#include <algorithm>
#include <iterator>
#include <cstring>

namespace Moo
{

namespace
{

constexpr char kProcessedMagic[4] = {'B', 'P', 'V', 'T'};

} // namespace

namespace
{
size_t headerSizeOf(std::span<const std::byte> section)
{
  const bool processed =
    section.size() >= sizeof(kProcessedMagic) && std::memcmp(section.data(), kProcessedMagic, sizeof(kProcessedMagic)) == 0;
  return processed ? kProcessedVertexSectionHeaderSize : kVertexSectionHeaderSize;
}
} // namespace

bool peekVertexSectionHeader(std::span<const std::byte> section, VertexSectionHeader& out)
{
  const size_t headerSize = headerSizeOf(section);
  if (section.size() < headerSize)
    return false;
  VertexSectionHeaderRecord record;
  std::memcpy(&record, section.data() + (headerSize - kVertexSectionHeaderSize), sizeof(record));
  out.formatName.assign(record.formatName, static_cast<size_t>(std::find(record.formatName, std::end(record.formatName), '\0') - record.formatName));
  out.vertexCount = record.vertexCount;
  out.processed = headerSize == kProcessedVertexSectionHeaderSize;
  out.payload = section.subspan(headerSize);
  return true;
}

bool readVertexSectionHeader(std::span<const std::byte> section, std::string_view sectionName,
                             VertexSectionHeader& out)
{
  if (peekVertexSectionHeader(section, out))
    return true;
  const size_t headerSize = headerSizeOf(section);
  ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
             "Moo::readVertexSectionHeader section '{}' has {} bytes, fewer than its {}-byte {}header.\n",
             sectionName, section.size(), headerSize,
             headerSize == kProcessedVertexSectionHeaderSize ? "processed-vertices " : "");
  return false;
}

void writeVertexSectionHeader(std::span<std::byte> section, std::string_view formatName, uint32_t vertexCount)
{
  ZR_ASSERT(section.size() >= sizeof(VertexSectionHeaderRecord));
  ZR_ASSERT(formatName.size() < kSectionFormatNameSize);
  VertexSectionHeaderRecord record{};
  std::memcpy(record.formatName, formatName.data(), std::min(formatName.size(), kSectionFormatNameSize - 1));
  record.vertexCount = vertexCount;
  std::memcpy(section.data(), &record, sizeof(record));
}

bool checkVertexPayload(VertexSectionHeader& header, uint32_t sourceStride, std::string_view sectionName)
{
  ZR_ASSERT(sourceStride > 0);
  // At most (2^32 - 1)^2: no overflow in 64 bits.
  const uint64_t needed = static_cast<uint64_t>(header.vertexCount) * sourceStride;
  if (needed > header.payload.size())
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
               "Moo::checkVertexPayload section '{}' declares {} vertices of {} bytes ({} bytes) but only {} bytes "
               "follow its header.\n",
               sectionName, header.vertexCount, sourceStride, needed, header.payload.size());
    return false;
  }
  header.payload = header.payload.first(static_cast<size_t>(needed));
  return true;
}

} // namespace Moo
