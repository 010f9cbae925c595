#include "geometry_compiler/merged_geometry.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/range_check.hpp"
#include "moo/index_format.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace GeometryCompilerDetail
{
namespace
{
constexpr const char* kCategory = "Other";

// Whether appending `size` bytes to the buffer of formatName keeps it within 32-bit offsets.
template <typename Info>
bool fitsIn32Bits(const MergedBuffers<Info>& buffers, const std::string& formatName, size_t size)
{
  const std::optional<size_t> index = buffers.find(formatName);
  const uint64_t current = index ? buffers.data[*index].data.size() : 0;
  return current + size <= std::numeric_limits<uint32_t>::max();
}

void copyInto(std::span<std::byte> destination, std::span<const std::byte> data)
{
  if (!data.empty())
    std::memcpy(destination.data(), data.data(), data.size());
}
} // namespace

uint32_t readIndex(const std::byte* indices, size_t i, uint32_t indexSize)
{
  if (indexSize == 2)
  {
    uint16_t value;
    std::memcpy(&value, indices + i * 2, 2);
    return value;
  }
  uint32_t value;
  std::memcpy(&value, indices + i * 4, 4);
  return value;
}

template <typename Info>
std::span<std::byte> MergedGeometry::addToContainer(MergedBuffers<Info>& buffers, MappingEntry mapping, size_t size,
                                                    const Info& info)
{
  std::optional<size_t> index = buffers.find(mapping.formatName);
  if (!index)
  {
    index = buffers.data.size();
    buffers.data.push_back(DataEntry{mapping.formatName, {}});
    buffers.records.emplace_back(mapping.formatName, info);
    for (const auto& [formatName, bytes] : buffers.expectedSizes)
      if (formatName == mapping.formatName)
        buffers.data.back().data.reserve(bytes);
  }
  cstdmf::ByteVector& bytes = buffers.data[*index].data;
  const size_t offset = bytes.size();
  mapping.info.offsetInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(offset));
  mapping.info.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(size));
  bytes.resize(offset + size);
  buffers.mappings.push_back(std::move(mapping));
  return std::span<std::byte>(bytes).subspan(offset, size);
}

std::optional<std::span<std::byte>> MergedGeometry::appendVertexRoom(const std::string& sectionName, size_t size,
                                                                     const std::string& formatName,
                                                                     const VertexBufferInfo& info)
{
  if (m_vertices.findMapping(sectionName) || !fitsIn32Bits(m_vertices, formatName, size))
    return std::nullopt;
  return addToContainer(m_vertices, MappingEntry{sectionName, formatName, {}, info.strideInBytes, 0.0f, {}}, size,
                        info);
}

std::optional<std::span<std::byte>> MergedGeometry::appendIndexRoom(const std::string& sectionName, size_t size,
                                                                    const std::string& formatName,
                                                                    const IndexBufferInfo& info)
{
  if (m_indices.findMapping(sectionName) || !fitsIn32Bits(m_indices, formatName, size))
    return std::nullopt;
  return addToContainer(m_indices, MappingEntry{sectionName, formatName, {}, 0, 0.0f, {}}, size, info);
}

bool MergedGeometry::addVertices(const std::string& sectionName, std::span<const std::byte> data,
                                 const std::string& formatName, const VertexBufferInfo& info)
{
  if (m_vertices.findMapping(sectionName))
  {
    ZR_MSG(DebugMessagePriority::Warning, kCategory,
           "MergedGeometry::addVertices section '%s' already exists in the .primitives file. Ignoring.\n",
           sectionName.c_str());
    return true;
  }
  if (!fitsIn32Bits(m_vertices, formatName, data.size()))
  {
    ZR_MSG(DebugMessagePriority::Error, kCategory,
           "MergedGeometry::addVertices merged buffer '%s' would pass 4 GiB with section '%s'.\n", formatName.c_str(),
           sectionName.c_str());
    return false;
  }
  copyInto(addToContainer(m_vertices, MappingEntry{sectionName, formatName, {}, info.strideInBytes, 0.0f, {}},
                          data.size(), info),
           data);
  return true;
}

bool MergedGeometry::addIndices(const std::string& sectionName, std::span<const std::byte> data,
                                const std::string& formatName, const IndexBufferInfo& info)
{
  if (m_indices.findMapping(sectionName))
  {
    ZR_MSG(DebugMessagePriority::Warning, kCategory,
           "MergedGeometry::addIndices section '%s' already exists in the .primitives file. Ignoring.\n",
           sectionName.c_str());
    return true;
  }
  if (!fitsIn32Bits(m_indices, formatName, data.size()))
  {
    ZR_MSG(DebugMessagePriority::Error, kCategory,
           "MergedGeometry::addIndices merged buffer '%s' would pass 4 GiB with section '%s'.\n", formatName.c_str(),
           sectionName.c_str());
    return false;
  }
  MappingEntry mapping{sectionName, formatName, {}, 0, 0.0f, {}};
  const uint32_t indexSize = ari::getIndexSize(static_cast<IndexFormat>(info.indexFormat));
  const size_t indexCount = data.size() / indexSize;
  if (indexCount > 0)
  {
    uint32_t maxIndex = 0;
    for (size_t i = 0; i < indexCount; ++i)
      maxIndex = std::max(maxIndex, readIndex(data.data(), i, indexSize));
    mapping.maxIndex = maxIndex;
  }
  copyInto(addToContainer(m_indices, std::move(mapping), data.size(), info), data);
  return true;
}

bool MergedGeometry::checkIndexRange(const MappingEntry& vertices, const MappingEntry& indices,
                                     const std::string& resourceName) const
{
  const std::optional<size_t> buffer = m_indices.find(indices.formatName);
  ZR_ASSERT(buffer && vertices.strideInBytes != 0);
  const uint32_t vertexCount = vertices.info.sizeInBytes / vertices.strideInBytes;
  const uint32_t indexSize = ari::getIndexSize(static_cast<IndexFormat>(m_indices.records[*buffer].second.indexFormat));
  if (indices.maxIndex && *indices.maxIndex < vertexCount)
    return true;
  const std::byte* first = m_indices.data[*buffer].data.data() + indices.info.offsetInBytes;
  const size_t indexCount = indices.info.sizeInBytes / indexSize;
  for (size_t i = 0; i < indexCount; ++i)
  {
    const uint32_t index = readIndex(first, i, indexSize);
    if (index >= vertexCount)
    {
      ZR_MSG(DebugMessagePriority::Error, kCategory,
             "GeometryCompiler::updateCorrespondingBuffers index %u (position %zu) of section '%s' is not below the "
             "vertex count %u of section '%s' in '%s'.\n",
             index, i, indices.sectionName.c_str(), vertexCount, vertices.sectionName.c_str(), resourceName.c_str());
      return false;
    }
  }
  return true;
}

} // namespace GeometryCompilerDetail
