#include "moo/vertex_section.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/span_reader.hpp"

#include <cstring>

namespace Moo
{

namespace
{

constexpr size_t kFormatNameFieldSize = 64;
constexpr char kProcessedMagic[4] = {'B', 'P', 'V', 'T'};

} // namespace

bool readVertexSectionHeader(std::span<const std::byte> section, std::string_view sectionName,
                             VertexSectionHeader& out)
{
  const bool processed =
    section.size() >= sizeof(kProcessedMagic) && std::memcmp(section.data(), kProcessedMagic, sizeof(kProcessedMagic)) == 0;
  const size_t headerSize = processed ? kProcessedVertexSectionHeaderSize : kVertexSectionHeaderSize;
  if (section.size() < headerSize)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "Moo",
               "Moo::readVertexSectionHeader section '{}' has {} bytes, fewer than its {}-byte {}header.\n",
               sectionName, section.size(), headerSize, processed ? "processed-vertices " : "");
    return false;
  }

  cstdmf::SpanReader reader(section);
  reader.seek(headerSize - kVertexSectionHeaderSize);
  const std::string_view formatName = reader.readFixedString(kFormatNameFieldSize);
  const uint32_t vertexCount = reader.read<uint32_t>();
  if (!reader.ok()) // unreachable after the size check; kept so a change of layout cannot read past the end
    return false;

  out.formatName.assign(formatName);
  out.vertexCount = vertexCount;
  out.processed = processed;
  out.payload = section.subspan(headerSize);
  return true;
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
