// Saving a compiled model: the prototype filled from the merged state, the buffers encoded, the
// whole packed and written to its file.

#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/range_check.hpp"
#include "cstdmf/string_id.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "moo/index_format.hpp"
#include "moo/moo_prototypes.hpp"
#include "resmgr/file_io.hpp"

#include <algorithm>
#include <numeric>

using namespace GeometryCompilerDetail;

namespace
{
constexpr const char* kCategory = "Other";
constexpr auto kError = DebugMessagePriority::Error;

// An array of records as the prototype holds it: null when empty.
template <typename Record>
Record* arrayOf(std::vector<Record>& records)
{
  return records.empty() ? nullptr : records.data();
}
} // namespace

// Everything the prototype points to while it is being filled and packed.
struct GeometryCompiler::SaveState
{
  Moo::MergedGeometryPrototype prototype{};
  std::vector<Moo::MergedVerticesPrototype> mergedVertices;
  std::vector<Moo::MergedIndicesPrototype> mergedIndices;
  std::vector<Moo::MappingPrototype> verticesMapping;
  std::vector<Moo::MappingPrototype> indicesMapping;
  std::vector<Moo::CollisionModelDataPrototype> collisionModels;
  std::vector<Moo::ArmorDataPrototype> armorModels;
  // Which encodings failed, per merged buffer.
  std::vector<uint8_t> vertexEncodingFailed, indexEncodingFailed;
};

bool GeometryCompiler::save(const std::string& resourcePath)
{
  ZR_GUARD("GeometryCompiler::save");
  std::optional<StoredMeasurement> measurement;
  const BinaryPtr block = saveToBlock(resourcePath, measurement);
  if (!block)
    return false;
  // The stored buffers are measured while the file is written.
  const bool written = writeToFile(resourcePath, block);
  if (measurement)
    measurement->finish();
  if (written)
    m_written = block;
  return written;
}

BinaryPtr GeometryCompiler::saveToBlock(const std::string& resourcePath, std::optional<StoredMeasurement>& measurement)
{
  if (m_settings.optimizeMeshes)
    optimizeMesh();
  else if (m_statistics)
    m_progress.renderSets = describeRenderSets(gatherMeshTasks(false), false, nullptr);

  SaveState state;
  if (!saveArmor(state, resourcePath))
    return nullptr;
  if (m_settings.encodeBuffers && m_statistics)
    if (std::vector<StoredSet> sets = locateStoredSets(); !sets.empty())
      measurement.emplace(*this, std::move(sets));
  encodeBuffers(state, measurement ? &*measurement : nullptr);
  saveCollisionModels(state);
  saveVerticesData(state);
  saveVerticesMapping(state);
  saveIndicesData(state);
  saveIndicesMapping(state);

  BinaryPtr block = packData(state.prototype);
  if (!block)
    return nullptr;
  if (m_approveWrite && !m_approveWrite())
    return nullptr;
  m_progress.outputBytes = block->len();
  return block;
}

bool GeometryCompiler::saveArmor(SaveState& state, const std::string& resourcePath)
{
  if (m_armorData.size() > 1)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::saveArmor m_armorData.size() > 1 for result resource '%s'.\n",
           resourcePath.c_str());
    return false;
  }
  if (m_armorData.empty())
  {
    state.prototype.armorModelCount = 0;
    state.prototype.armorModels = nullptr;
    return true;
  }
  const DataSectionPtr& section = m_armorData.front();
  const BinaryPtr data = section->asBinary();
  Moo::ArmorDataPrototype record{};
  record.armorData = reinterpret_cast<const std::byte*>(data->data());
  record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(data->len()));
  m_stringPool.add(section->sectionName(), record.armorModelName);
  state.armorModels.push_back(record);
  state.prototype.armorModelCount = 1;
  state.prototype.armorModels = state.armorModels.data();
  return true;
}

void GeometryCompiler::saveCollisionModels(SaveState& state)
{
  for (const DataSectionPtr& section : m_collisionData)
  {
    const BinaryPtr data = section->asBinary();
    Moo::CollisionModelDataPrototype record{};
    record.cmData = reinterpret_cast<const std::byte*>(data->data());
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(data->len()));
    m_stringPool.add(section->sectionName(), record.collisionModelName);
    state.collisionModels.push_back(record);
  }
  state.prototype.collisionModelCount = static_cast<uint32_t>(state.collisionModels.size());
  state.prototype.collisionModels = arrayOf(state.collisionModels);
}

void GeometryCompiler::encodeBuffers(SaveState& state, StoredMeasurement* measurement)
{
  MergedGeometry::VertexBuffers& vertices = m_mergedGeometry.vertices();
  MergedGeometry::IndexBuffers& indices = m_mergedGeometry.indices();
  auto& [rawVertexSizes, rawIndexSizes] = m_rawBufferSizes.emplace();
  for (const DataEntry& entry : vertices.data)
    rawVertexSizes.push_back(entry.data.size());
  for (const DataEntry& entry : indices.data)
    rawIndexSizes.push_back(entry.data.size());
  state.vertexEncodingFailed.assign(vertices.data.size(), 0);
  state.indexEncodingFailed.assign(indices.data.size(), 0);
  if (!m_settings.encodeBuffers)
    return;

  // Every merged buffer is encoded on its own, so vertex and index buffers share one loop. A
  // buffer's record sits at the buffer's own position.
  // The largest buffers go first, so that no thread is left with a large one at the end.
  const size_t vertexBuffers = vertices.data.size();
  std::vector<size_t> order(vertexBuffers + indices.data.size());
  std::iota(order.begin(), order.end(), size_t{0});
  const auto sizeOf = [&](size_t task) {
    return task < vertexBuffers ? vertices.data[task].data.size() : indices.data[task - vertexBuffers].data.size();
  };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return sizeOf(a) > sizeOf(b); });
  // With one job and a measurement, the index buffers go first: each is measured on the other
  // core while the rest is encoded.
  if (measurement && m_jobs <= 1)
    std::stable_partition(order.begin(), order.end(), [&](size_t task) { return task >= vertexBuffers; });
  cstdmf::parallelFor(order.size(), m_jobs, [&](size_t k) {
    const size_t task = order[k];
    if (task < vertexBuffers)
    {
      DataEntry& entry = vertices.data[task];
      cstdmf::ByteVector encoded =
        MeshDataOptimizer::encodeVertexData(entry.data, vertices.records[task].second.strideInBytes);
      state.vertexEncodingFailed[task] = encoded.size() <= sizeof(MeshDataOptimizer::EncodedBufferHeader);
      entry.data = std::move(encoded);
      return;
    }
    const size_t i = task - vertexBuffers;
    DataEntry& entry = indices.data[i];
    const IndexBufferInfo& info = indices.records[i].second;
    const bool wide = info.indexFormat == static_cast<uint32_t>(IndexFormat::LIST32);
    const size_t stride = wide ? 4 : 2;
    const size_t indexCount = entry.data.size() / stride;
    // The vertex count only sizes the encoder's worst case; an index range that no vertex range
    // was paired with may still reach past the recorded count, so the bound covers both. The
    // largest index of every range was measured when it was merged (optimising only lowers it
    // below the paired vertex count).
    uint32_t maxIndex = 0;
    for (const MappingEntry& mapping : indices.mappings)
      if (mapping.formatName == entry.formatName)
        maxIndex = std::max(maxIndex, mapping.maxIndex.value_or(0));
    const size_t vertexCount =
      std::max<size_t>(info.maxVertexCount, indexCount ? static_cast<size_t>(maxIndex) + 1 : 0);
    cstdmf::ByteVector encoded;
    if (wide)
      encoded = MeshDataOptimizer::encodeIndexData(
        std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(entry.data.data()), indexCount), vertexCount);
    else
      encoded = MeshDataOptimizer::encodeIndexData(
        std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(entry.data.data()), indexCount), vertexCount);
    state.indexEncodingFailed[i] = encoded.size() <= sizeof(MeshDataOptimizer::EncodedBufferHeader);
    entry.data = std::move(encoded);
    if (measurement)
      measurement->indexBufferEncoded(i);
  });
}

void GeometryCompiler::saveVerticesData(SaveState& state)
{
  const MergedGeometry::VertexBuffers& vertices = m_mergedGeometry.vertices();
  ZR_ASSERT_TEXT(vertices.records.size() == vertices.data.size(),
                 "vertIndexationIt != m_mergedGeometry.m_verticesDataIndex.end()");
  state.mergedVertices.assign(vertices.data.size(), Moo::MergedVerticesPrototype{});

  for (uint8_t failed : state.vertexEncodingFailed)
    if (failed)
      ZR_MSG(kError, kCategory, "GeometryCompiler::saveVerticesData: The Vertex data hasn't been encoded.\n");

  for (size_t i = 0; i < vertices.data.size(); ++i)
  {
    const DataEntry& entry = vertices.data[i];
    const VertexBufferInfo& info = vertices.records[i].second;
    Moo::MergedVerticesPrototype& record = state.mergedVertices[i];
    record.verticesData = entry.data.empty() ? nullptr : entry.data.data();
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(entry.data.size()));
    record.strideInBytes = info.strideInBytes;
    record.isSkinned = std::byte{info.isSkinned ? uint8_t(1) : uint8_t(0)};
    record.isBumped = std::byte{info.isBumped ? uint8_t(1) : uint8_t(0)};
    m_stringPool.add(entry.formatName, record.formatName);
  }
  state.prototype.mergedVerticesCount = static_cast<uint32_t>(state.mergedVertices.size());
  state.prototype.mergedVertices = arrayOf(state.mergedVertices);
}

void GeometryCompiler::saveVerticesMapping(SaveState& state)
{
  const MergedGeometry::VertexBuffers& vertices = m_mergedGeometry.vertices();
  for (const MappingEntry& entry : vertices.mappings)
  {
    const size_t vertBufferIndex = vertices.find(entry.formatName).value_or(static_cast<size_t>(-1));
    ZR_ASSERT(vertBufferIndex != static_cast< size_t >( -1 ));
    const uint32_t strideInBytes = entry.strideInBytes;
    ZR_ASSERT_TEXT(strideInBytes != 0, "indexation.second.strideInBytes != 0");
    ZR_ASSERT_TEXT(entry.info.offsetInBytes % strideInBytes == 0,
                   "( indexation.second.info.offsetInBytes ) % indexation.second.strideInBytes == 0");
    ZR_ASSERT_TEXT(entry.info.sizeInBytes % strideInBytes == 0,
                   "( indexation.second.info.sizeInBytes ) % indexation.second.strideInBytes == 0");

    Moo::MappingPrototype record{};
    record.mappingId = cstdmf::makeStringID(entry.sectionName);
    record.mergedBufferIndex = ZR::range_check_cast<uint16_t>(vertBufferIndex);
    record.packedTexelDensity = Moo::packedTexelDensity(entry.texelDensity);
    record.itemsOffset = entry.info.offsetInBytes / strideInBytes;
    record.itemsCount = entry.info.sizeInBytes / strideInBytes;
    state.verticesMapping.push_back(record);
  }
  state.prototype.verticesMappingCount = static_cast<uint32_t>(state.verticesMapping.size());
  state.prototype.verticesMapping = arrayOf(state.verticesMapping);
}

void GeometryCompiler::saveIndicesData(SaveState& state)
{
  const MergedGeometry::IndexBuffers& indices = m_mergedGeometry.indices();
  ZR_ASSERT_TEXT(indices.records.size() == indices.data.size(),
                 "vertIndexationIt != m_mergedGeometry.m_indicesDataIndex.end()");
  state.mergedIndices.assign(indices.data.size(), Moo::MergedIndicesPrototype{});

  for (uint8_t failed : state.indexEncodingFailed)
    if (failed)
      ZR_MSG(kError, kCategory, "GeometryCompiler::saveIndicesData: The Index data hasn't been encoded.\n");

  for (size_t i = 0; i < indices.data.size(); ++i)
  {
    const DataEntry& entry = indices.data[i];
    Moo::MergedIndicesPrototype& record = state.mergedIndices[i];
    const uint16_t code = static_cast<uint16_t>(indices.records[i].second.indexFormat);
    record.indicesData = entry.data.empty() ? nullptr : entry.data.data();
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(entry.data.size()));
    record.primitiveType = code;
    record.strideInBytes = code == 0 ? 2 : 4;
  }
  state.prototype.mergedIndicesCount = static_cast<uint32_t>(state.mergedIndices.size());
  state.prototype.mergedIndices = arrayOf(state.mergedIndices);
}

void GeometryCompiler::saveIndicesMapping(SaveState& state)
{
  const MergedGeometry::IndexBuffers& indices = m_mergedGeometry.indices();
  for (const MappingEntry& entry : indices.mappings)
  {
    const size_t indBufferIndex = indices.find(entry.formatName).value_or(static_cast<size_t>(-1));
    ZR_ASSERT(indBufferIndex != static_cast< size_t >( -1 ));
    const uint32_t strideInBytes = indices.records[indBufferIndex].second.indexFormat == 0 ? 2 : 4;
    ZR_ASSERT_TEXT(entry.info.offsetInBytes % strideInBytes == 0,
                   "indexation.second.info.offsetInBytes % strideInBytes == 0");
    ZR_ASSERT_TEXT(entry.info.sizeInBytes % strideInBytes == 0,
                   "indexation.second.info.sizeInBytes % strideInBytes == 0");

    Moo::MappingPrototype record{};
    record.mappingId = cstdmf::makeStringID(entry.sectionName);
    record.mergedBufferIndex = ZR::range_check_cast<uint16_t>(indBufferIndex);
    record.packedTexelDensity = Moo::packedTexelDensity(entry.texelDensity);
    record.itemsOffset = entry.info.offsetInBytes / strideInBytes;
    record.itemsCount = entry.info.sizeInBytes / strideInBytes;
    state.indicesMapping.push_back(record);
  }
  state.prototype.indicesMappingCount = static_cast<uint32_t>(state.indicesMapping.size());
  state.prototype.indicesMapping = arrayOf(state.indicesMapping);
}

BinaryPtr GeometryCompiler::packData(const Moo::MergedGeometryPrototype& prototype)
{
  return Moo::packMergedGeometry(prototype);
}

bool GeometryCompiler::writeToFile(const std::string& resourcePath, const BinaryPtr& block)
{
  const fileio::WriteResult written = fileio::writeWholeFile(
    resourcePath, std::span<const std::byte>(reinterpret_cast<const std::byte*>(block->data()), block->len()));
  if (!written)
    m_systemReason = written.reason;
  switch (written.status)
  {
  case fileio::WriteStatus::Ok:
    return true;
  case fileio::WriteStatus::CannotCreate:
    ZR_MSG(kError, kCategory, "GeometryCompiler::writeToFile cannot open file '%s'.\n", resourcePath.c_str());
    return false;
  case fileio::WriteStatus::ShortWrite:
    ZR_MSG(kError, kCategory,
           "GeometryCompiler::writeToFile written size is '%zu' not equal binary size '%zu' for resource '%s'.\n",
           written.bytesWritten, block->len(), resourcePath.c_str());
    return false;
  case fileio::WriteStatus::CannotReplace:
    ZR_MSG(kError, kCategory, "GeometryCompiler::writeToFile cannot replace file '%s': %s\n", resourcePath.c_str(),
           written.reason.c_str());
    return false;
  case fileio::WriteStatus::Abandoned: // a whole block is never given up
    return false;
  }
  return false;
}
