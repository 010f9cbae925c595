// Reordering every render set for the GPU caches before the model is saved.

#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "moo/index_format.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <algorithm>
#include <bitset>
#include <cmath>
#include <numeric>
#include <cstring>

using namespace GeometryCompilerDetail;

namespace
{
constexpr const char* kCategory = "Other";
constexpr auto kError = DebugMessagePriority::Error;

MeshDataOptimizer::MeshStatistics analyzeTask(std::span<const std::byte> vertices, size_t vertexCount, size_t stride,
                                              std::span<const std::byte> indices, IndexFormat format,
                                              bool withOverdraw)
{
  if (format == IndexFormat::LIST)
    return MeshDataOptimizer::analyze<uint16_t>(
      vertices, vertexCount, stride,
      std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(indices.data()), indices.size() / 2), withOverdraw);
  return MeshDataOptimizer::analyze<uint32_t>(
    vertices, vertexCount, stride,
    std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(indices.data()), indices.size() / 4), withOverdraw);
}

// Runs fn on a thread of its own with the caller's work context, or on the caller's thread when
// the system will not start one; join() waits for it.
class SideTask
{
public:
  // fn is called by reference: it must outlive join().
  template <typename Fn>
  explicit SideTask(Fn& fn)
  {
    try
    {
      m_thread = cstdmf::startWithWorkContext([&fn]() { fn(); });
    }
    catch (const std::system_error&)
    {
      fn();
    }
  }
  ~SideTask() { join(); }
  SideTask(const SideTask&) = delete;
  SideTask& operator=(const SideTask&) = delete;

  void join()
  {
    if (m_thread.joinable())
      m_thread.join();
  }

private:
  std::thread m_thread;
};
} // namespace

std::vector<GeometryCompiler::MeshTask> GeometryCompiler::gatherMeshTasks(bool optimizing, MergedGeometry& merged)
{
  MergedGeometry::VertexBuffers& vertexBuffers = merged.vertices();
  MergedGeometry::IndexBuffers& indexBuffers = merged.indices();
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
    tasks.push_back(MeshTask{std::move(name), vertexName, indexName, vertexBuffers.bytesOf(*vertexMapping), stride,
                             indexBuffers.bytesOf(indexMapping), *format, vertexMapping->texelDensity,
                             vertexMapping->formatName});
  }
  return tasks;
}

namespace
{
// The extent of a set's positions (three floats at the start of every vertex) and the bone indices
// its vertices use, from the layout of the buffer they are in.
void measureShape(std::span<const std::byte> vertices, size_t stride, const std::string& formatName,
                  CompileStatistics::RenderSet& set)
{
  if (stride < 3 * sizeof(float))
    return;
  // A merged buffer holds a packed format, or the source format when nothing was converted.
  const Moo::VertexFormat* layout = nullptr;
  if (const auto* packed = Moo::PrimitiveVertexFormat::findByGPUFormatName(formatName))
    layout = &packed->m_gpuFormat;
  else if (const auto* source = Moo::PrimitiveVertexFormat::findByFormatName(formatName))
    layout = &source->m_format;
  const Moo::VertexElement* bones = layout ? layout->findElement(VertexSemantic::BLENDINDICES, 0) : nullptr;
  size_t boneBytes = 0;
  if (bones)
    boneBytes = bones->type_ == VertexDataType::UBYTE4   ? 4
                : bones->type_ == VertexDataType::UBYTE3 ? 3
                : bones->type_ == VertexDataType::UBYTE2 ? 2
                                                               : 0;
  if (bones && size_t{bones->offset_} + boneBytes > stride)
    boneBytes = 0;

  std::array<float, 3> low{}, high{};
  bool any = false;
  std::bitset<256> used;
  const size_t count = vertices.size() / stride;
  for (size_t v = 0; v < count; ++v)
  {
    const std::byte* vertex = vertices.data() + v * stride;
    float position[3];
    std::memcpy(position, vertex, sizeof(position));
    if (std::isfinite(position[0]) && std::isfinite(position[1]) && std::isfinite(position[2]))
    {
      for (int axis = 0; axis < 3; ++axis)
      {
        low[axis] = any ? std::min(low[axis], position[axis]) : position[axis];
        high[axis] = any ? std::max(high[axis], position[axis]) : position[axis];
      }
      any = true;
    }
    for (size_t b = 0; b < boneBytes; ++b)
      used.set(static_cast<uint8_t>(vertex[bones->offset_ + b]));
  }
  for (int axis = 0; axis < 3; ++axis)
    set.size[axis] = high[axis] - low[axis];
  set.boneCount = static_cast<uint32_t>(used.count());
}
} // namespace

std::vector<CompileStatistics::RenderSet> GeometryCompiler::describeRenderSets(
  const std::vector<MeshTask>& tasks, bool optimized, const std::vector<MeshDataOptimizer::MeshStatistics>* before)
{
  // Figures after optimising that saving will measure again on the stored indices are left out.
  const bool measureAfter = !m_settings.encodeBuffers;
  std::vector<CompileStatistics::RenderSet> sets(tasks.size());
  cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t i) {
    const MeshTask& task = tasks[i];
    CompileStatistics::RenderSet& set = sets[i];
    set.name = task.name;
    set.vertexCount = static_cast<uint32_t>(task.vertices.size() / task.stride);
    set.triangleCount = static_cast<uint32_t>(task.indices.size() / (task.format == IndexFormat::LIST ? 2 : 4) / 3);
    set.strideInBytes = task.stride;
    set.texelDensity = task.texelDensity;
    measureShape(task.vertices, task.stride, task.vertexFormat, set);
    set.optimized = optimized;
    if (before)
      set.before = (*before)[i];
    else
      set.before = analyzeTask(task.vertices, set.vertexCount, task.stride, task.indices, task.format, m_overdraw);
    if (measureAfter)
      set.after = before ? analyzeTask(task.vertices, set.vertexCount, task.stride, task.indices, task.format,
                                       m_overdraw)
                         : set.before;
  });
  return sets;
}

void GeometryCompiler::optimizeMesh()
{
  const std::vector<MeshTask> tasks = gatherMeshTasks(true);

  // With statistics, the state before optimising is measured on copies of the indices, on a thread
  // of its own: with one job that is an otherwise idle core, and the optimisation does not wait.
  // Overdraw reads positions, which the optimisation reorders: it is measured here, before.
  std::vector<MeshDataOptimizer::MeshStatistics> before(m_statistics ? tasks.size() : 0);
  std::vector<cstdmf::ByteVector> indexCopies;
  const auto measureBefore = [&]() {
    // Only the order of the indices matters to the cache and fetch figures: no vertex is read.
    for (size_t i = 0; i < tasks.size(); ++i)
      before[i] = analyzeTask({}, tasks[i].vertices.size() / tasks[i].stride, tasks[i].stride, indexCopies[i],
                              tasks[i].format, false);
  };
  std::optional<SideTask> measuring;
  if (m_statistics && m_overdraw)
  {
    cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t i) {
      const MeshTask& task = tasks[i];
      before[i] = analyzeTask(task.vertices, task.vertices.size() / task.stride, task.stride, task.indices,
                              task.format, true);
    });
  }
  else if (m_statistics)
  {
    indexCopies.resize(tasks.size());
    for (size_t i = 0; i < tasks.size(); ++i)
      indexCopies[i].assign(tasks[i].indices.begin(), tasks[i].indices.end());
    measuring.emplace(measureBefore);
  }

  // Every pair owns disjoint ranges of the merged buffers, so pairs can be optimised at once. The
  // largest go first, so that no thread is left with a large one at the end.
  std::vector<size_t> order(tasks.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return tasks[a].indices.size() > tasks[b].indices.size(); });
  cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t k) {
    const MeshTask& task = tasks[order[k]];
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
  if (measuring)
    measuring->join();
  if (m_statistics)
    m_progress.renderSets = describeRenderSets(tasks, true, &before);
}

std::vector<GeometryCompiler::StoredSet> GeometryCompiler::locateStoredSets()
{
  std::vector<StoredSet> located;
  if (!m_statistics)
    return located;
  const std::vector<MeshTask> tasks = gatherMeshTasks(false);
  if (tasks.size() != m_progress.renderSets.size())
    return located;
  const auto locate = [](const auto& buffers, std::span<const std::byte> range, size_t& buffer, size_t& offset) {
    for (size_t k = 0; k < buffers.data.size(); ++k)
    {
      const cstdmf::ByteVector& bytes = buffers.data[k].data;
      if (range.data() >= bytes.data() && range.data() + range.size() <= bytes.data() + bytes.size())
      {
        buffer = k;
        offset = static_cast<size_t>(range.data() - bytes.data());
        return true;
      }
    }
    return false;
  };
  for (const MeshTask& task : tasks)
  {
    StoredSet set;
    set.stride = task.stride;
    set.vertexCount = task.vertices.size() / task.stride;
    set.vertexBytes = task.vertices.size();
    set.indexBytes = task.indices.size();
    set.format = task.format;
    if (!locate(m_mergedGeometry.vertices(), task.vertices, set.vertexBuffer, set.vertexOffset) ||
        !locate(m_mergedGeometry.indices(), task.indices, set.indexBuffer, set.indexOffset))
      return {};
    located.push_back(set);
  }
  return located;
}


MeshDataOptimizer::MeshStatistics GeometryCompiler::analyzeStoredSet(const StoredSet& set,
                                                                     std::span<const std::byte> vertices,
                                                                     std::span<const std::byte> indices) const
{
  return analyzeTask(vertices, set.vertexCount, set.stride, indices, set.format, !vertices.empty());
}
