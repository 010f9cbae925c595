#include "geometry_inspect/primitives_listing.hpp"

#include "moo/index_format.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_section.hpp"
#include "resmgr/bin_section.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

namespace geometry_inspect
{
namespace
{

constexpr std::string_view kVerticesKind = "vertices";
constexpr std::string_view kIndicesKind = "indices";

std::string_view kindOf(std::string_view name)
{
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

std::string stemOf(std::string_view name)
{
  const size_t dot = name.rfind('.');
  return std::string(dot == std::string_view::npos ? name : name.substr(0, dot));
}

uint32_t readIndex(std::span<const std::byte> indices, size_t position, size_t size)
{
  if (size == 4)
  {
    uint32_t value = 0;
    std::memcpy(&value, indices.data() + position * 4, 4);
    return value;
  }
  uint16_t value = 0;
  std::memcpy(&value, indices.data() + position * 2, 2);
  return value;
}

} // namespace

bool looksLikeContainer(const ConstBinaryPtr& block)
{
  if (!block || block->len() < 4)
    return false;
  uint32_t magic = 0;
  std::memcpy(&magic, block->data(), 4);
  if (magic == BinSection::kMagic)
    return true;
  // The legacy form has no magic word, and its parser accepts many byte patterns; demand names that
  // look like section names as well.
  size_t entries = 0;
  bool printable = true;
  const bool parsed = parseBinSectionEntries(block, [&](const char* name, int nameLength, const char*, int) {
    ++entries;
    if (nameLength <= 0)
      printable = false;
    for (int i = 0; i < nameLength; ++i)
    {
      const auto c = static_cast<unsigned char>(name[i]);
      printable = printable && c >= 0x20 && c < 0x7F;
    }
  });
  return parsed && entries > 0 && printable;
}

bool PrimitivesListing::load(ConstBinaryPtr block, const std::string& path)
{
  m_path = path;
  m_block = std::move(block);
  m_sections.clear();
  m_validContainer = false;
  if (!m_block)
  {
    m_issues.error(located("no data"));
    return false;
  }

  const auto* base = reinterpret_cast<const std::byte*>(m_block->data());
  m_validContainer = parseBinSectionEntries(m_block, [&](const char* name, int nameLength, const char* data,
                                                         int dataLength) {
    SectionInfo section;
    section.name.assign(name, static_cast<size_t>(nameLength));
    section.id = cstdmf::makeStringID(section.name);
    section.size = static_cast<uint32_t>(dataLength);
    section.bytes = std::span<const std::byte>(base + (data - m_block->data()), static_cast<uint32_t>(dataLength));
    const std::string_view kind = kindOf(section.name);
    section.kind = kind == kVerticesKind  ? SectionInfo::Kind::Vertices
                   : kind == kIndicesKind ? SectionInfo::Kind::Indices
                                          : SectionInfo::Kind::Other;
    m_sections.push_back(std::move(section));
  });
  if (!m_validContainer)
  {
    m_issues.error(located(fmt::format("not a valid section container (its index is corrupt after {} sections)",
                                       m_sections.size())));
    return false;
  }

  LogCollector log;
  for (SectionInfo& section : m_sections)
    readHeader(section, log);
  return true;
}

void PrimitivesListing::readHeader(SectionInfo& section, LogCollector& log)
{
  const auto reportLog = [&](const std::string& what) {
    const std::string reason = log.takeJoined();
    m_issues.error(located(fmt::format("section '{}': {}{}", section.name, what, reason.empty() ? "" : " (" + reason + ")")));
  };

  if (section.kind == SectionInfo::Kind::Vertices)
  {
    Moo::VertexSectionHeader header;
    if (!Moo::readVertexSectionHeader(section.bytes, section.name, header))
    {
      reportLog("the vertex header cannot be read");
      return;
    }
    section.headerRead = true;
    section.format = header.formatName;
    section.count = header.vertexCount;
    section.processed = header.processed;
    const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(header.formatName);
    if (format == nullptr)
    {
      m_issues.error(located(fmt::format("section '{}': unknown vertex format '{}'", section.name, header.formatName)));
      return;
    }
    section.gpuFormat = format->gpuFormatName;
    section.sourceStride = ari::VertexDeclaration::computeStreamDataSize(format->m_format, 0);
    if (!Moo::checkVertexPayload(header, section.sourceStride, section.name))
      reportLog(fmt::format("{} vertices do not fit", header.vertexCount));
  }
  else if (section.kind == SectionInfo::Kind::Indices)
  {
    Moo::IndexSectionHeader header;
    if (!Moo::readIndexSectionHeader(section.bytes, section.name, header))
    {
      reportLog("the index header cannot be read");
      return;
    }
    section.headerRead = true;
    section.format = std::string(Moo::getIndexFormatName(header.format));
    section.count = header.indexCount;
  }
}

void PrimitivesListing::validate()
{
  if (!m_validContainer)
    return;
  if (m_sections.empty())
    m_issues.error(located("the container has no sections"));

  std::map<std::string, size_t> firstWithName;
  std::map<std::string, const SectionInfo*> verticesByStem;
  for (size_t i = 0; i < m_sections.size(); ++i)
  {
    const SectionInfo& section = m_sections[i];
    if (section.name.empty())
    {
      m_issues.warning(located(fmt::format("section #{} has an empty name and is ignored", i)));
      continue;
    }
    if (!firstWithName.emplace(section.name, i).second)
    {
      m_issues.warning(located(fmt::format("section '{}' appears again as #{}; only the first is used", section.name, i)));
      continue;
    }
    if (section.kind != SectionInfo::Kind::Vertices || !section.headerRead)
      continue;
    if (section.processed)
      m_issues.warning(located(fmt::format("section '{}' holds vertices that were already processed", section.name)));
    if (!section.gpuFormat.empty())
      verticesByStem.emplace(stemOf(section.name), &section);
  }

  for (const SectionInfo& section : m_sections)
  {
    if (section.kind != SectionInfo::Kind::Indices || !section.headerRead)
      continue;
    const auto partner = verticesByStem.find(stemOf(section.name));
    if (partner == verticesByStem.end())
    {
      m_issues.warning(located(fmt::format("section '{}' has no vertex section '{}.vertices'", section.name,
                                           stemOf(section.name))));
      continue;
    }
    Moo::IndexSectionHeader header;
    if (!Moo::readIndexSectionHeader(section.bytes, section.name, header))
      continue; // read once already
    const size_t size = ari::getIndexSize(header.format);
    const uint32_t vertexCount = partner->second->count;
    for (size_t i = 0; i < header.indexCount; ++i)
    {
      const uint32_t value = readIndex(header.indices, i, size);
      if (value >= vertexCount)
      {
        m_issues.error(located(fmt::format("section '{}': index {} (position {}) is not below the {} vertices of '{}'",
                                           section.name, value, i, vertexCount, partner->second->name)));
        break;
      }
    }
  }
}

} // namespace geometry_inspect
