#include "moo/index_format.hpp"

#include "cstdmf/debug.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace ari
{

uint32_t getIndexSize(IndexFormat format)
{
  switch (format)
  {
  case IndexFormat::LIST:
    return 2;
  case IndexFormat::LIST32:
    return 4;
  }
  ZR_ASSERT(false && "Unhandled type. ");
  return 0;
}

} // namespace ari

namespace Moo
{

std::optional<IndexFormat> getIndexFormatFromName(std::string_view name)
{
  if (name == "list")
    return IndexFormat::LIST;
  if (name == "list32")
    return IndexFormat::LIST32;
  return std::nullopt;
}

std::string_view getIndexFormatName(IndexFormat format)
{
  switch (format)
  {
  case IndexFormat::LIST:
    return "list";
  case IndexFormat::LIST32:
    return "list32";
  }
  ZR_ASSERT(!"Unexpected index format");
  return {};
}

bool readIndexSectionHeader(std::span<const std::byte> section, std::string_view sectionName, IndexSectionHeader& out)
{
  if (section.size() < kIndexSectionHeaderSize)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
               "Moo::readIndexSectionHeader section '{}' has {} bytes, fewer than its {}-byte header.\n", sectionName,
               section.size(), kIndexSectionHeaderSize);
    return false;
  }

  IndexSectionHeaderRecord record;
  std::memcpy(&record, section.data(), sizeof(record));
  const std::string_view formatName(record.formatName, static_cast<size_t>(std::find(record.formatName, std::end(record.formatName), '\0') - record.formatName));
  const uint32_t indexCount = record.indexCount;
  const std::span<const std::byte> payload = section.subspan(sizeof(record));

  const std::optional<IndexFormat> format = getIndexFormatFromName(formatName);
  if (!format)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo", "Moo::readIndexSectionHeader section '{}' has unknown index format '{}'.\n",
               sectionName, formatName);
    return false;
  }

  // At most (2^32 - 1) × 4: no overflow in 64 bits.
  const uint64_t needed = static_cast<uint64_t>(indexCount) * ari::getIndexSize(*format);
  const size_t available = payload.size();
  if (needed > available)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
               "Moo::readIndexSectionHeader section '{}' declares {} indices of format '{}' ({} bytes) but only {} "
               "bytes follow its header.\n",
               sectionName, indexCount, formatName, needed, available);
    return false;
  }

  if (indexCount % 3 != 0)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
               "Moo::readIndexSectionHeader section '{}' has {} indices, which is not a whole number of triangles.\n",
               sectionName, indexCount);
    return false;
  }

  out.format = *format;
  out.formatName.assign(formatName);
  out.indexCount = indexCount;
  out.indices = payload.first(static_cast<size_t>(needed));
  return true;
}

void writeIndexSectionHeader(std::span<std::byte> section, IndexFormat format, uint32_t indexCount)
{
  ZR_ASSERT(section.size() >= sizeof(IndexSectionHeaderRecord));
  const std::string_view name = getIndexFormatName(format);
  IndexSectionHeaderRecord record{};
  std::memcpy(record.formatName, name.data(), name.size());
  record.indexCount = indexCount;
  std::memcpy(section.data(), &record, sizeof(record));
}

} // namespace Moo
