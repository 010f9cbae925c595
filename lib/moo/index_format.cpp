#include "moo/index_format.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/span_reader.hpp"

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

namespace
{

constexpr size_t kFormatNameFieldSize = 64;

} // namespace

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

  cstdmf::SpanReader reader(section);
  const std::string_view formatName = reader.readFixedString(kFormatNameFieldSize);
  const uint32_t indexCount = reader.read<uint32_t>();
  reader.skip(4);
  if (!reader.ok()) // unreachable after the size check; kept so a change of layout cannot read past the end
    return false;

  const std::optional<IndexFormat> format = getIndexFormatFromName(formatName);
  if (!format)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo", "Moo::readIndexSectionHeader section '{}' has unknown index format '{}'.\n",
               sectionName, formatName);
    return false;
  }

  // At most (2^32 - 1) × 4: no overflow in 64 bits.
  const uint64_t needed = static_cast<uint64_t>(indexCount) * ari::getIndexSize(*format);
  const size_t available = reader.remaining();
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
  out.indices = reader.readBytes(static_cast<size_t>(needed));
  return true;
}

} // namespace Moo
