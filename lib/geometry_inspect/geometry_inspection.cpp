#include "geometry_inspect/geometry_inspection.hpp"

#include "cstdmf/string_id.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "moo/half_float.hpp"
#include "moo/vertex_format.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <utility>

namespace geometry_inspect
{
namespace
{

std::string vertexBufferLabel(size_t index, const Moo::GeometryData::VertexBuffer& buffer)
{
  return fmt::format("vertex buffer #{} ({})", index, buffer.formatName);
}

std::string indexBufferLabel(size_t index)
{
  return fmt::format("index buffer #{}", index);
}

std::string mappingLabel(bool vertices, size_t index, const Moo::MappingPrototype& mapping)
{
  return fmt::format("{} mapping #{} ({})", vertices ? "vertex" : "index", index, hexId(mapping.mappingId));
}

// Where the ranges of one buffer's mappings overlap, and how many of its items no mapping covers.
struct Coverage
{
  std::vector<std::pair<size_t, size_t>> overlaps; // mapping positions
  uint64_t uncovered = 0;
};

Coverage coverageOf(const std::vector<Moo::MappingPrototype>& mappings, size_t bufferIndex, uint64_t itemCount)
{
  std::vector<size_t> users;
  for (size_t i = 0; i < mappings.size(); ++i)
    if (mappings[i].mergedBufferIndex == bufferIndex && mappings[i].itemsCount != 0)
      users.push_back(i);
  std::sort(users.begin(), users.end(),
            [&](size_t a, size_t b) { return mappings[a].itemsOffset < mappings[b].itemsOffset; });
  Coverage coverage;
  uint64_t covered = 0;
  uint64_t end = 0; // the furthest end seen so far
  size_t endOwner = 0;
  for (size_t position : users)
  {
    const uint64_t first = mappings[position].itemsOffset;
    const uint64_t last = std::min<uint64_t>(first + mappings[position].itemsCount, itemCount);
    if (first < end)
      coverage.overlaps.emplace_back(endOwner, position);
    const uint64_t from = std::max(first, end);
    if (last > from)
      covered += last - from;
    if (last > end)
    {
      end = last;
      endOwner = position;
    }
  }
  coverage.uncovered = itemCount - std::min(covered, itemCount);
  return coverage;
}

// An encoded buffer of no items: the header of a buffer whose sections are all empty says 0, which
// the decoder refuses, and the tool saves such a model as it is.
bool holdsNoItems(std::span<const std::byte> encoded)
{
  if (encoded.size() < MeshDataOptimizer::EncodedBufferHeader::kSize)
    return false;
  const auto header = MeshDataOptimizer::EncodedBufferHeader::readFrom(encoded);
  return header.checkHeaderMagicVal() && header.getElementCount() == 0;
}

std::string emptyBufferProblem(const std::string& label, const char* items)
{
  return fmt::format("{}: every section in it is empty, and the decoder refuses an encoded buffer of 0 {} (saved as "
                     "it is)",
                     label, items);
}

} // namespace

std::string hexId(uint32_t id)
{
  return fmt::format("0x{:08x}", id);
}

std::string GeometryInspection::located(const std::string& text) const
{
  return m_path + ": " + text;
}

bool GeometryInspection::load(const std::string& path)
{
  BinaryPtr block;
  std::string error;
  if (!readWholeFile(path, block, error))
  {
    m_path = path;
    m_issues.error(located("cannot read the file: " + error));
    return false;
  }
  return load(block, path);
}

bool GeometryInspection::load(ConstBinaryPtr block, const std::string& path)
{
  m_path = path;
  m_fileSize = block ? block->len() : 0;
  m_vertexBuffers.clear();
  m_indexBuffers.clear();
  if (!block)
  {
    m_issues.error(located("no data"));
    return false;
  }

  LogCollector log;
  if (!m_data.load(block, path))
  {
    const std::string reason = log.takeJoined();
    m_issues.error(located("not a valid geometry file" + (reason.empty() ? std::string() : ": " + reason)));
    return false;
  }
  for (const std::string& message : log.take())
    m_issues.warning(located(message));

  m_vertexBuffers.resize(m_data.vertexBuffers().size());
  for (size_t i = 0; i < m_vertexBuffers.size(); ++i)
    decodeVertexBuffer(i, log);
  m_indexBuffers.resize(m_data.indexBuffers().size());
  for (size_t i = 0; i < m_indexBuffers.size(); ++i)
    decodeIndexBuffer(i, log);
  return true;
}

void GeometryInspection::decodeVertexBuffer(size_t index, LogCollector& log)
{
  const Moo::GeometryData::VertexBuffer& buffer = m_data.vertexBuffers()[index];
  DecodedVertexBuffer& decoded = m_vertexBuffers[index];
  decoded.format = Moo::PrimitiveVertexFormat::findByGPUFormatName(buffer.formatName);
  const std::string label = vertexBufferLabel(index, buffer);
  const size_t stride = buffer.strideInBytes;
  if (stride == 0)
  {
    if (buffer.sizeInBytes != 0)
      m_issues.error(located(label + ": stride is 0"));
    decoded.decoded = buffer.sizeInBytes == 0;
    return;
  }

  if (buffer.encoded && holdsNoItems(buffer.data))
  {
    m_issues.error(located(emptyBufferProblem(label, "vertices")));
    decoded.decoded = true;
    return;
  }
  if (!buffer.encoded)
  {
    // The reader has checked that the bytes are whole vertices.
    decoded.vertices.assign(buffer.data.begin(), buffer.data.end());
  }
  else if (!MeshDataOptimizer::decodeVertexData(buffer.data, stride, decoded.vertices))
  {
    const std::string reason = log.takeJoined();
    m_issues.error(located(label + ": the encoded data cannot be decoded" + (reason.empty() ? "" : " (" + reason + ")")));
    return;
  }
  const uint64_t expected = buffer.encoded
                              ? uint64_t{MeshDataOptimizer::EncodedBufferHeader::readFrom(buffer.data).getElementCount()} * stride
                              : buffer.sizeInBytes;
  if (decoded.vertices.size() != expected || decoded.vertices.size() % stride != 0)
  {
    m_issues.error(located(fmt::format("{}: decoded to {} bytes, expected {} ({}-byte vertices)", label,
                                       decoded.vertices.size(), expected, stride)));
    decoded.vertices.clear();
    return;
  }
  decoded.vertexCount = static_cast<uint32_t>(decoded.vertices.size() / stride);
  decoded.decoded = true;
}

void GeometryInspection::decodeIndexBuffer(size_t index, LogCollector& log)
{
  const Moo::GeometryData::IndexBuffer& buffer = m_data.indexBuffers()[index];
  DecodedIndexBuffer& decoded = m_indexBuffers[index];
  const std::string label = indexBufferLabel(index);
  const bool wide = buffer.primitiveType == 1; // the reader accepts only 0 (16-bit) and 1 (32-bit)

  if (buffer.encoded && holdsNoItems(buffer.data))
  {
    m_issues.error(located(emptyBufferProblem(label, "indices")));
    decoded.decoded = true;
    return;
  }
  if (!buffer.encoded)
  {
    const size_t count = buffer.sizeInBytes / buffer.strideInBytes;
    decoded.indices.resize(count);
    for (size_t i = 0; i < count; ++i)
    {
      if (wide)
        std::memcpy(&decoded.indices[i], buffer.data.data() + i * 4, 4);
      else
      {
        uint16_t value = 0;
        std::memcpy(&value, buffer.data.data() + i * 2, 2);
        decoded.indices[i] = value;
      }
    }
  }
  else
  {
    bool ok = false;
    if (wide)
      ok = MeshDataOptimizer::decodeIndexData<uint32_t>(buffer.data, decoded.indices);
    else
    {
      std::vector<uint16_t> narrow;
      ok = MeshDataOptimizer::decodeIndexData<uint16_t>(buffer.data, narrow);
      decoded.indices.assign(narrow.begin(), narrow.end());
    }
    if (!ok)
    {
      const std::string reason = log.takeJoined();
      m_issues.error(
        located(label + ": the encoded data cannot be decoded" + (reason.empty() ? "" : " (" + reason + ")")));
      decoded.indices.clear();
      return;
    }
    const uint32_t expected = MeshDataOptimizer::EncodedBufferHeader::readFrom(buffer.data).getElementCount();
    if (decoded.indices.size() != expected)
    {
      m_issues.error(located(fmt::format("{}: decoded to {} indices, expected {}", label, decoded.indices.size(), expected)));
      decoded.indices.clear();
      return;
    }
  }
  decoded.decoded = true;
}

std::span<const std::byte> GeometryInspection::vertexRange(const Moo::MappingPrototype& mapping) const
{
  if (mapping.mergedBufferIndex >= m_vertexBuffers.size())
    return {};
  const DecodedVertexBuffer& decoded = m_vertexBuffers[mapping.mergedBufferIndex];
  const size_t stride = m_data.vertexBuffers()[mapping.mergedBufferIndex].strideInBytes;
  if (!decoded.decoded || uint64_t{mapping.itemsOffset} + mapping.itemsCount > decoded.vertexCount)
    return {};
  return std::span<const std::byte>(decoded.vertices).subspan(size_t{mapping.itemsOffset} * stride,
                                                              size_t{mapping.itemsCount} * stride);
}

std::span<const uint32_t> GeometryInspection::indexRange(const Moo::MappingPrototype& mapping) const
{
  if (mapping.mergedBufferIndex >= m_indexBuffers.size())
    return {};
  const DecodedIndexBuffer& decoded = m_indexBuffers[mapping.mergedBufferIndex];
  if (!decoded.decoded || uint64_t{mapping.itemsOffset} + mapping.itemsCount > decoded.indices.size())
    return {};
  return std::span<const uint32_t>(decoded.indices).subspan(mapping.itemsOffset, mapping.itemsCount);
}

bool GeometryInspection::canPairRenderSets() const
{
  return m_data.verticesMapping().size() == m_data.indicesMapping().size();
}

std::vector<RenderSet> GeometryInspection::renderSets() const
{
  std::vector<RenderSet> sets;
  if (!canPairRenderSets())
    return sets;
  const auto& vertexMappings = m_data.verticesMapping();
  const auto& indexMappings = m_data.indicesMapping();
  for (size_t i = 0; i < vertexMappings.size(); ++i)
  {
    RenderSet set;
    set.index = i;
    set.vertices = vertexMappings[i];
    set.indices = indexMappings[i];
    const auto fail = [&](std::string problem) {
      set.problem = std::move(problem);
      sets.push_back(set);
    };

    const size_t bufferIndex = set.vertices.mergedBufferIndex;
    if (bufferIndex >= m_vertexBuffers.size() || m_vertexBuffers[bufferIndex].format == nullptr)
    {
      fail("its vertex format is unknown");
      continue;
    }
    const Moo::PrimitiveVertexFormat& format = *m_vertexBuffers[bufferIndex].format;
    if (m_data.vertexBuffers()[bufferIndex].strideInBytes !=
        ari::VertexDeclaration::computeStreamDataSize(format.m_gpuFormat, 0))
    {
      fail("its vertex buffer's stride does not match the format " + format.gpuFormatName);
      continue;
    }
    const std::span<const std::byte> vertices = vertexRange(set.vertices);
    const std::span<const uint32_t> indices = indexRange(set.indices);
    if (vertices.empty() && set.vertices.itemsCount != 0)
    {
      fail("its vertex range is not available");
      continue;
    }
    if (indices.empty() && set.indices.itemsCount != 0)
    {
      fail("its index range is not available");
      continue;
    }
    if (indices.size() % 3 != 0)
    {
      fail(fmt::format("its {} indices are not whole triangles", indices.size()));
      continue;
    }
    const auto beyond =
      std::find_if(indices.begin(), indices.end(), [&](uint32_t value) { return value >= set.vertices.itemsCount; });
    if (beyond != indices.end())
    {
      set.mismatched = true;
      fail(fmt::format("index {} (position {}) is not below its {} vertices", *beyond, beyond - indices.begin(),
                       set.vertices.itemsCount));
      continue;
    }
    set.usable = true;
    sets.push_back(set);
  }
  return sets;
}

void GeometryInspection::validate()
{
  if (!isLoaded())
    return;
  checkVertexBuffers();
  checkMappings(true);
  checkMappings(false);
  checkIndexValues();
  checkPairs();
}

void GeometryInspection::checkVertexBuffers()
{
  const auto& buffers = m_data.vertexBuffers();
  for (size_t i = 0; i < buffers.size(); ++i)
  {
    const Moo::GeometryData::VertexBuffer& buffer = buffers[i];
    const Moo::PrimitiveVertexFormat* format = m_vertexBuffers[i].format;
    const std::string label = vertexBufferLabel(i, buffer);
    if (format == nullptr)
    {
      m_issues.error(located(label + ": the vertex format is unknown to the runtime"));
      continue;
    }
    const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format->m_gpuFormat, 0);
    if (buffer.strideInBytes != stride)
      m_issues.error(located(fmt::format("{}: stride {} differs from the format's {}", label, buffer.strideInBytes, stride)));
    if (buffer.isSkinned != format->m_gpuFormat.isSkinned() || buffer.isBumped != format->m_gpuFormat.isBumped())
      m_issues.warning(located(fmt::format("{}: flags skinned {} bumped {} differ from the format's ({} {})", label,
                                           int(buffer.isSkinned), int(buffer.isBumped),
                                           int(format->m_gpuFormat.isSkinned()), int(format->m_gpuFormat.isBumped()))));
  }
}

void GeometryInspection::checkMappings(bool vertices)
{
  const std::vector<Moo::MappingPrototype>& mappings = vertices ? m_data.verticesMapping() : m_data.indicesMapping();
  const size_t bufferCount = vertices ? m_vertexBuffers.size() : m_indexBuffers.size();

  std::map<StringID, size_t> firstWithId;
  for (size_t i = 0; i < mappings.size(); ++i)
  {
    const Moo::MappingPrototype& mapping = mappings[i];
    const std::string label = mappingLabel(vertices, i, mapping);
    const auto [first, inserted] = firstWithId.emplace(mapping.mappingId, i);
    if (!inserted)
      m_issues.warning(located(fmt::format("{}: same id as {} mapping #{}, so the runtime never finds it", label,
                                           vertices ? "vertex" : "index", first->second)));

    // The reader has checked the buffer index.
    const bool decoded =
      vertices ? m_vertexBuffers[mapping.mergedBufferIndex].decoded : m_indexBuffers[mapping.mergedBufferIndex].decoded;
    if (!decoded)
      continue; // already reported
    const uint64_t items = vertices ? m_vertexBuffers[mapping.mergedBufferIndex].vertexCount
                                    : m_indexBuffers[mapping.mergedBufferIndex].indices.size();
    const uint64_t end = uint64_t{mapping.itemsOffset} + mapping.itemsCount;
    if (end > items)
      m_issues.error(located(fmt::format("{}: items {}..{} run past the {} decoded items of buffer #{}", label,
                                         mapping.itemsOffset, end, items, mapping.mergedBufferIndex)));
    if (!vertices && mapping.itemsCount % 3 != 0)
      m_issues.error(located(fmt::format("{}: {} indices are not whole triangles", label, mapping.itemsCount)));
  }

  for (size_t b = 0; b < bufferCount; ++b)
  {
    const bool decoded = vertices ? m_vertexBuffers[b].decoded : m_indexBuffers[b].decoded;
    if (!decoded)
      continue;
    const uint64_t items = vertices ? m_vertexBuffers[b].vertexCount : m_indexBuffers[b].indices.size();
    const Coverage coverage = coverageOf(mappings, b, items);
    for (const auto& [a, c] : coverage.overlaps)
      m_issues.warning(located(fmt::format("{} mappings #{} and #{} overlap in buffer #{}", vertices ? "vertex" : "index",
                                           a, c, b)));
    if (coverage.uncovered != 0)
      m_issues.warning(located(fmt::format("{} of the {} {} of {} belong to no mapping", coverage.uncovered, items,
                                           vertices ? "vertices" : "indices",
                                           vertices ? vertexBufferLabel(b, m_data.vertexBuffers()[b]) : indexBufferLabel(b))));
  }
}

std::vector<bool> GeometryInspection::unpairedIndexMappings() const
{
  const auto& vertexMappings = m_data.verticesMapping();
  const auto& indexMappings = m_data.indicesMapping();
  std::vector<bool> unpaired(indexMappings.size(), false);
  std::set<StringID> vertexIds;
  for (const Moo::MappingPrototype& mapping : vertexMappings)
    vertexIds.insert(mapping.mappingId);
  // An index section pairs with the vertex section whose name ends in "vertices" where its own
  // ends in "indices".
  for (size_t i = 0; i < indexMappings.size(); ++i)
  {
    const std::string& name = sectionName(indexMappings[i].mappingId);
    if (name.size() >= 7)
      unpaired[i] = vertexIds.count(cstdmf::makeStringID(name.substr(0, name.size() - 7) + "vertices")) == 0;
  }
  return unpaired;
}

void GeometryInspection::checkIndexValues()
{
  // Indices are relative to their own vertex range, so none may reach the largest buffer's count,
  // whichever range it belongs to.
  uint32_t largest = 0;
  bool anyDecoded = false;
  for (const DecodedVertexBuffer& buffer : m_vertexBuffers)
    if (buffer.decoded)
    {
      anyDecoded = true;
      largest = std::max(largest, buffer.vertexCount);
    }
  const bool allDecoded =
    std::all_of(m_vertexBuffers.begin(), m_vertexBuffers.end(), [](const auto& buffer) { return buffer.decoded; });
  if (!allDecoded)
    return; // a buffer that did not decode is already an error, and the bound would be unsure

  const auto& mappings = m_data.indicesMapping();
  const std::vector<bool> unpaired = unpairedIndexMappings();
  // Without the source's names an index range with no vertex range beside it can only be guessed at:
  // the file has more index mappings than vertex mappings.
  const bool mayBeUnpaired = mappings.size() > m_data.verticesMapping().size();
  for (size_t i = 0; i < mappings.size(); ++i)
  {
    const std::string label = mappingLabel(false, i, mappings[i]);
    if (unpaired[i])
    {
      m_issues.warning(located(fmt::format("index mapping #{} ({})", i, idLabel(mappings[i].mappingId)) +
                               ": no vertex section pairs with it, so nothing draws it and its indices are "
                                       "not checked (an index section without its vertex section is saved as it is)"));
      continue;
    }
    const std::span<const uint32_t> indices = indexRange(mappings[i]);
    const auto beyond = std::find_if(indices.begin(), indices.end(), [&](uint32_t value) { return value >= largest; });
    if (beyond == indices.end() || (!anyDecoded && !mayBeUnpaired))
      continue;
    const std::string problem =
      fmt::format("{}: index {} (position {}) is not below the vertex count of any vertex buffer (at most {})", label,
                  *beyond, beyond - indices.begin(), largest);
    if (mayBeUnpaired && m_sectionNames.empty())
      m_issues.warning(located(fmt::format("{}; with {} index mappings to {} vertex mappings it may be an index "
                                           "section without its vertex section (saved as it is)",
                                           problem, mappings.size(), m_data.verticesMapping().size())));
    else
      m_issues.error(located(problem));
  }
}

void GeometryInspection::checkPairs()
{
  const auto& vertexMappings = m_data.verticesMapping();
  const auto& indexMappings = m_data.indicesMapping();
  if (!canPairRenderSets())
  {
    m_issues.warning(located(fmt::format("{} vertex mappings but {} index mappings: render sets cannot be paired "
                                         "by position and are not checked",
                                         vertexMappings.size(), indexMappings.size())));
    return;
  }
  // Render sets that are unusable for other reasons have been reported as errors above.
  for (const RenderSet& set : renderSets())
  {
    if (set.mismatched)
      m_issues.warning(located(fmt::format("render set #{} ({} with {}): {}", set.index,
                                           mappingLabel(true, set.index, set.vertices),
                                           mappingLabel(false, set.index, set.indices), set.problem)));
    // The compiler stores one density in both mappings of a pair.
    else if (set.vertices.packedTexelDensity != set.indices.packedTexelDensity)
      m_issues.warning(located(fmt::format("render set #{}: texel densities differ ({} and {}); the pair may be "
                                           "mismatched",
                                           set.index, Moo::halfToFloat(set.vertices.packedTexelDensity),
                                           Moo::halfToFloat(set.indices.packedTexelDensity))));
  }
}

std::optional<MeshDataOptimizer::MeshStatistics> analyzeRenderSet(const GeometryInspection& inspection,
                                                                  const RenderSet& renderSet)
{
  if (!renderSet.usable || renderSet.vertices.itemsCount == 0 || renderSet.indices.itemsCount == 0)
    return std::nullopt;
  const size_t bufferIndex = renderSet.vertices.mergedBufferIndex;
  const Moo::PrimitiveVertexFormat* format = inspection.vertexBuffers()[bufferIndex].format;
  const size_t stride = inspection.data().vertexBuffers()[bufferIndex].strideInBytes;
  // The analysers read a float3 position at the start of every vertex.
  const Moo::VertexElement* position = format->m_gpuFormat.findElement(VertexSemantic::POSITION, 0);
  if (position == nullptr || position->offset_ != 0 || position->type_ != VertexDataType::FLOAT3 || stride % 4 != 0 ||
      stride < 12)
    return std::nullopt;
  const std::span<const std::byte> vertices = inspection.vertexRange(renderSet.vertices);
  return MeshDataOptimizer::analyze<uint32_t>(vertices, renderSet.vertices.itemsCount, stride,
                                              inspection.indexRange(renderSet.indices));
}

const std::string& GeometryInspection::sectionName(uint32_t id) const
{
  static const std::string kUnknown;
  const auto found = m_sectionNames.find(id);
  return found == m_sectionNames.end() ? kUnknown : found->second;
}

std::string GeometryInspection::idLabel(uint32_t id) const
{
  const std::string& name = sectionName(id);
  return name.empty() ? hexId(id) : hexId(id) + " (" + name + ")";
}

} // namespace geometry_inspect
