// The levels of detail of a model: every render set simplified from the main model's merged state,
// then optimised, encoded and packed as the main model is.

#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "mesh_data_optimizer/simplifier.hpp"
#include "moo/index_format.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <unordered_map>

using namespace GeometryCompilerDetail;

namespace
{
constexpr const char* kCategory = "Other";
constexpr auto kWarning = DebugMessagePriority::Warning;

// The buffers of `base` into `target` (which holds base's mappings and records but no bytes yet),
// with new bytes in place of the named sections' ranges and every other range moved along, so that
// each buffer stays the sections' concatenation in the order they came.
template <typename Info>
void rebuildRanges(const MergedBuffers<Info>& base, MergedBuffers<Info>& target,
                   const std::unordered_map<std::string, cstdmf::ByteVector>& replacements)
{
  for (size_t b = 0; b < base.data.size(); ++b)
  {
    const DataEntry& source = base.data[b];
    cstdmf::ByteVector& rebuilt = target.data[b].data;
    size_t size = 0;
    for (const MappingEntry& mapping : target.mappings)
      if (mapping.formatName == source.formatName)
      {
        const auto replacement = replacements.find(mapping.sectionName);
        size += replacement != replacements.end() ? replacement->second.size() : mapping.info.sizeInBytes;
      }
    rebuilt.resize(size);
    size_t at = 0;
    for (MappingEntry& mapping : target.mappings)
    {
      if (mapping.formatName != source.formatName)
        continue;
      const auto replacement = replacements.find(mapping.sectionName);
      const std::span<const std::byte> bytes =
        replacement != replacements.end()
          ? std::span<const std::byte>(replacement->second)
          : std::span<const std::byte>(source.data).subspan(mapping.info.offsetInBytes, mapping.info.sizeInBytes);
      if (!bytes.empty())
        std::memcpy(rebuilt.data() + at, bytes.data(), bytes.size());
      mapping.info.offsetInBytes = static_cast<uint32_t>(at);
      mapping.info.sizeInBytes = static_cast<uint32_t>(bytes.size());
      at += bytes.size();
    }
  }
}

// base's mappings and records, and its buffers without their bytes.
template <typename Info>
void copyLayout(const MergedBuffers<Info>& base, MergedBuffers<Info>& target)
{
  target.mappings = base.mappings;
  target.records = base.records;
  target.data.clear();
  for (const DataEntry& entry : base.data)
    target.data.push_back(DataEntry{entry.formatName, {}});
}

// The bounding box of every position of the render sets.
struct Bounds
{
  float low[3] = {std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                  std::numeric_limits<float>::max()};
  float high[3] = {-std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(),
                   -std::numeric_limits<float>::max()};

  void add(std::span<const std::byte> vertices, size_t stride)
  {
    if (stride < 12)
      return;
    for (size_t offset = 0; offset + stride <= vertices.size(); offset += stride)
    {
      float position[3];
      std::memcpy(position, vertices.data() + offset, sizeof position);
      for (int axis = 0; axis < 3; ++axis)
        if (std::isfinite(position[axis]))
        {
          low[axis] = std::min(low[axis], position[axis]);
          high[axis] = std::max(high[axis], position[axis]);
        }
    }
  }
  float extent() const
  {
    const float side = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
    return side > 0.0f ? side : 0.0f;
  }
};
} // namespace

uint64_t GeometryCompiler::simplifyRenderSets(const MergedGeometry& base, float keep, Level& level)
{
  // Only read: gathering without optimising changes nothing, so the levels share one base.
  const std::vector<MeshTask> tasks = gatherMeshTasks(false, const_cast<MergedGeometry&>(base));
  Bounds model;
  for (const MeshTask& task : tasks)
    model.add(task.vertices, task.stride);
  const float modelScale = model.extent();

  uint64_t trianglesBefore = 0;
  std::unordered_map<std::string, cstdmf::ByteVector> vertexRanges, indexRanges;
  std::unordered_map<std::string, uint32_t> vertexCounts;
  for (const MeshTask& task : tasks)
  {
    const uint32_t indexSize = task.format == IndexFormat::LIST ? 2 : 4;
    const size_t indexCount = task.indices.size() / indexSize;
    const size_t vertexCount = task.vertices.size() / task.stride;
    std::vector<uint32_t> indices(indexCount);
    for (size_t i = 0; i < indexCount; ++i)
      indices[i] = readIndex(task.indices.data(), i, indexSize);
    trianglesBefore += indexCount / 3;

    const float setScale = MeshDataOptimizer::positionExtent(task.vertices, vertexCount, task.stride);
    MeshDataOptimizer::SimplifyTarget target;
    target.indexCount = static_cast<size_t>(std::llround(static_cast<double>(indexCount / 3) * keep)) * 3;
    // The bound is the model's: a small part of a large model may move as far as the large one.
    target.relativeError = setScale > 0.0f ? m_settings.lods.maxError * modelScale / setScale : 0.0f;
    target.sloppy = m_settings.lods.sloppy;
    MeshDataOptimizer::Simplified simplified =
      MeshDataOptimizer::simplify(indices, task.vertices, vertexCount, task.stride, target);
    if (!simplified.simplified)
    {
      if (level.number == 1)
        ZR_MSG_FMT(kWarning, kCategory,
                   "GeometryCompiler: render set '{}' of '{}' cannot be simplified (positions that are not finite, "
                   "or indices that are not whole triangles): its levels keep it whole\n",
                   task.name, m_resourceName);
      level.triangles += indexCount / 3;
      level.vertices += vertexCount;
      continue;
    }

    // Only the vertices the kept triangles use, in the order they are first used, each copied
    // whole: skin, normals and texture coordinates stay those of the main model.
    std::vector<uint32_t> remap(vertexCount, std::numeric_limits<uint32_t>::max());
    uint32_t used = 0;
    for (uint32_t& index : simplified.indices)
    {
      if (remap[index] == std::numeric_limits<uint32_t>::max())
        remap[index] = used++;
      index = remap[index];
    }
    cstdmf::ByteVector vertices(static_cast<size_t>(used) * task.stride);
    for (size_t v = 0; v < vertexCount; ++v)
      if (remap[v] != std::numeric_limits<uint32_t>::max())
        std::memcpy(vertices.data() + static_cast<size_t>(remap[v]) * task.stride, task.vertices.data() + v * task.stride,
                    task.stride);
    cstdmf::ByteVector packedIndices(simplified.indices.size() * indexSize);
    for (size_t i = 0; i < simplified.indices.size(); ++i)
    {
      if (indexSize == 2)
      {
        const uint16_t narrow = static_cast<uint16_t>(simplified.indices[i]);
        std::memcpy(packedIndices.data() + i * 2, &narrow, 2);
      }
      else
        std::memcpy(packedIndices.data() + i * 4, &simplified.indices[i], 4);
    }

    level.triangles += simplified.indices.size() / 3;
    level.vertices += used;
    level.errorAbsolute = std::max(level.errorAbsolute, simplified.relativeError * setScale);
    vertexCounts[task.indexSection] = used;
    vertexRanges.emplace(task.vertexSection, std::move(vertices));
    indexRanges.emplace(task.indexSection, std::move(packedIndices));
  }
  level.errorRelative = modelScale > 0.0f ? level.errorAbsolute / modelScale : 0.0f;

  copyLayout(base.vertices(), m_mergedGeometry.vertices());
  copyLayout(base.indices(), m_mergedGeometry.indices());
  rebuildRanges(base.vertices(), m_mergedGeometry.vertices(), vertexRanges);
  rebuildRanges(base.indices(), m_mergedGeometry.indices(), indexRanges);
  for (MappingEntry& mapping : m_mergedGeometry.indices().mappings)
    if (const auto count = vertexCounts.find(mapping.sectionName); count != vertexCounts.end())
      mapping.maxIndex = count->second == 0 ? std::nullopt : std::optional<uint32_t>(count->second - 1);
  return trianglesBefore;
}

void GeometryCompiler::makeLevels(const MergedGeometry& base, const std::string& outputPath)
{
  const LevelOfDetailOptions& lods = m_settings.lods;
  std::vector<Level> made(lods.levels);
  std::vector<uint64_t> mainTriangles(made.size(), 0);
  // Every level starts from the main model, so that its error is measured against it and the
  // levels can be made at once.
  cstdmf::parallelFor(made.size(), m_jobs, [&](size_t i) {
    Level& level = made[i];
    level.number = static_cast<unsigned>(i + 1);
    GeometryCompiler child;
    child.m_settings = m_settings;
    child.m_settings.lods = {};
    child.m_overdraw = m_overdraw;
    child.m_resourceName = m_resourceName;
    child.m_statistics = m_statistics ? &level.statistics : nullptr;
    mainTriangles[i] = child.simplifyRenderSets(base, std::pow(lods.ratio, static_cast<float>(level.number)), level);
    std::optional<StoredMeasurement> measurement;
    level.bytes = child.saveToBlock(outputPath + " (level " + std::to_string(level.number) + ")", measurement);
    if (measurement)
      measurement->finish();
    if (child.m_statistics)
      child.gatherStatistics();
  });

  // The chain ends at a level that fails or that would not be worth its file.
  uint64_t previous = made.empty() ? 0 : mainTriangles[0];
  for (Level& level : made)
  {
    if (!level.bytes || previous == 0 || level.triangles * 10 > previous * 9)
      break;
    level.ratio = static_cast<float>(static_cast<double>(level.triangles) / static_cast<double>(previous));
    previous = level.triangles;
    m_levels.push_back(std::move(level));
  }
}
