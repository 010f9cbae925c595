// Reordering every render set for the GPU caches before the model is saved.

#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "moo/index_format.hpp"

#include <algorithm>
#include <cstring>

using namespace GeometryCompilerDetail;

namespace
{
constexpr const char* kCategory = "Other";
constexpr auto kError = DebugMessagePriority::Error;

MeshDataOptimizer::MeshStatistics analyzeTask(std::span<const std::byte> vertices, size_t stride,
                                              std::span<const std::byte> indices, IndexFormat format)
{
  const size_t vertexCount = vertices.size() / stride;
  if (format == IndexFormat::LIST)
    return MeshDataOptimizer::analyze<uint16_t>(
      vertices, vertexCount, stride,
      std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(indices.data()), indices.size() / 2));
  return MeshDataOptimizer::analyze<uint32_t>(
    vertices, vertexCount, stride,
    std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(indices.data()), indices.size() / 4));
}
} // namespace

std::vector<GeometryCompiler::MeshTask> GeometryCompiler::gatherMeshTasks(bool optimizing)
{
  MergedGeometry::VertexBuffers& vertexBuffers = m_mergedGeometry.vertices();
  MergedGeometry::IndexBuffers& indexBuffers = m_mergedGeometry.indices();
  std::vector<MeshTask> tasks;
  for (const MappingEntry& indexMapping : indexBuffers.mappings)
  {
    const std::string& indexName = indexMapping.sectionName;
    const std::string prefix = indexName.substr(0, indexName.size() >= 7 ? indexName.size() - 7 : 0);
    const std::string vertexName = prefix + "vertices";

    const MappingEntry* vertexMapping = vertexBuffers.findMapping(vertexName);
    if (!vertexMapping || !vertexBuffers.find(vertexMapping->formatName))
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::save cannot find vertex entry data for optimization '{}'\n",
                   vertexName);
      continue;
    }
    const std::optional<size_t> indexBuffer = indexBuffers.find(indexMapping.formatName);
    if (!indexBuffer)
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::save cannot find index entry data for optimization '{}'\n",
                   indexName);
      continue;
    }

    const uint16_t stride = vertexMapping->strideInBytes;
    const uint32_t vertexCount = stride ? vertexMapping->info.sizeInBytes / stride : 0;
    if (optimizing)
    {
      IndexBufferInfo& info = indexBuffers.records[*indexBuffer].second;
      info.maxVertexCount = std::max(info.maxVertexCount, vertexCount);
    }

    const std::optional<IndexFormat> format = Moo::getIndexFormatFromName(indexMapping.formatName);
    if (!format)
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::Index entry has invalid format '{}'\n", indexMapping.formatName);
      continue;
    }
    if (vertexCount == 0 || indexMapping.info.sizeInBytes == 0)
      continue;
    std::string name = prefix;
    if (!name.empty() && name.back() == '.')
      name.pop_back();
    tasks.push_back(MeshTask{std::move(name), vertexBuffers.bytesOf(*vertexMapping), stride,
                             indexBuffers.bytesOf(indexMapping), *format, vertexMapping->texelDensity});
  }
  return tasks;
}

std::vector<CompileStatistics::RenderSet> GeometryCompiler::describeRenderSets(
  const std::vector<MeshTask>& tasks, bool optimized, const std::vector<MeshDataOptimizer::MeshStatistics>* before)
{
  std::vector<CompileStatistics::RenderSet> sets;
  for (size_t i = 0; i < tasks.size(); ++i)
  {
    const MeshTask& task = tasks[i];
    CompileStatistics::RenderSet set;
    set.name = task.name;
    set.vertexCount = static_cast<uint32_t>(task.vertices.size() / task.stride);
    set.triangleCount = static_cast<uint32_t>(task.indices.size() / (task.format == IndexFormat::LIST ? 2 : 4) / 3);
    set.strideInBytes = task.stride;
    set.texelDensity = task.texelDensity;
    set.optimized = optimized;
    set.after = analyzeTask(task.vertices, task.stride, task.indices, task.format);
    set.before = before ? (*before)[i] : set.after;
    sets.push_back(std::move(set));
  }
  return sets;
}

void GeometryCompiler::optimizeMesh()
{
  const std::vector<MeshTask> tasks = gatherMeshTasks(true);
  // The state before optimising is measured only when statistics are asked for.
  std::vector<MeshDataOptimizer::MeshStatistics> before(m_statistics ? tasks.size() : 0);

  // Every pair owns disjoint ranges of the merged buffers, so pairs can be optimised at once.
  cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t i) {
    const MeshTask& task = tasks[i];
    if (!before.empty())
      before[i] = analyzeTask(task.vertices, task.stride, task.indices, task.format);
    if (task.format == IndexFormat::LIST)
    {
      std::span<uint16_t> indices(reinterpret_cast<uint16_t*>(task.indices.data()), task.indices.size() / 2);
      MeshDataOptimizer::optimizeMeshData<uint16_t>(task.vertices, task.stride, indices);
    }
    else
    {
      std::span<uint32_t> indices(reinterpret_cast<uint32_t*>(task.indices.data()), task.indices.size() / 4);
      MeshDataOptimizer::optimizeMeshData<uint32_t>(task.vertices, task.stride, indices);
    }
  });
  if (m_statistics)
    m_progress.renderSets = describeRenderSets(tasks, true, &before);
}

namespace
{
// The merged index buffer after a trip through the codec, in its own index width.
template <typename IndexT>
std::vector<std::byte> storedIndices(const std::vector<std::byte>& raw)
{
  const std::span<const IndexT> indices(reinterpret_cast<const IndexT*>(raw.data()), raw.size() / sizeof(IndexT));
  uint32_t maxIndex = 0;
  for (const IndexT index : indices)
    maxIndex = std::max<uint32_t>(maxIndex, index);
  // Sized past every index, so the encoder cannot refuse it (and log) here.
  const std::vector<std::byte> encoded =
    MeshDataOptimizer::encodeIndexData(indices, indices.empty() ? 0 : size_t{maxIndex} + 1);
  std::vector<IndexT> decoded;
  if (!MeshDataOptimizer::decodeIndexData(std::span<const std::byte>(encoded), decoded) ||
      decoded.size() != indices.size())
    return raw;
  std::vector<std::byte> bytes(decoded.size() * sizeof(IndexT));
  std::memcpy(bytes.data(), decoded.data(), bytes.size());
  return bytes;
}
} // namespace

void GeometryCompiler::measureStoredRenderSets()
{
  const std::vector<MeshTask> tasks = gatherMeshTasks(false);
  if (!m_statistics || tasks.size() != m_progress.renderSets.size())
    return;
  MergedGeometry::IndexBuffers& indexBuffers = m_mergedGeometry.indices();
  std::vector<std::vector<std::byte>> stored(indexBuffers.data.size());
  cstdmf::parallelFor(stored.size(), m_jobs, [&](size_t k) {
    const bool wide = indexBuffers.records[k].second.indexFormat == static_cast<uint32_t>(IndexFormat::LIST32);
    const std::vector<std::byte>& raw = indexBuffers.data[k].data;
    stored[k] = wide ? storedIndices<uint32_t>(raw) : storedIndices<uint16_t>(raw);
  });
  cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t i) {
    const MeshTask& task = tasks[i];
    for (size_t k = 0; k < stored.size(); ++k)
    {
      const std::vector<std::byte>& raw = indexBuffers.data[k].data;
      if (task.indices.data() < raw.data() || task.indices.data() >= raw.data() + raw.size() ||
          stored[k].size() != raw.size())
        continue;
      const size_t offset = static_cast<size_t>(task.indices.data() - raw.data());
      const std::span<const std::byte> indices(stored[k].data() + offset, task.indices.size());
      m_progress.renderSets[i].after = analyzeTask(task.vertices, task.stride, indices, task.format);
      break;
    }
  });
}
