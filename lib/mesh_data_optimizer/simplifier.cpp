#include "mesh_data_optimizer/simplifier.hpp"

#include "cstdmf/byte_vector.hpp"

#include <meshoptimizer.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace MeshDataOptimizer
{
namespace
{
// Whether the library may read positions from these vertices and indices without asserting, and
// the result can mean anything: whole triangles, indices in range, a float3 at the front of a
// vertex, and finite positions.
bool simplifiable(std::span<const uint32_t> indices, std::span<const std::byte> vertices, size_t vertexCount,
                  size_t vertexStride)
{
  if (indices.size() % 3 != 0 || vertexStride < 12 || vertexStride > 256 || vertexStride % 4 != 0 ||
      vertices.size() != vertexCount * vertexStride ||
      reinterpret_cast<uintptr_t>(vertices.data()) % alignof(float) != 0)
    return false;
  if (std::any_of(indices.begin(), indices.end(), [vertexCount](uint32_t index) { return index >= vertexCount; }))
    return false;
  for (size_t v = 0; v < vertexCount; ++v)
  {
    float position[3];
    std::memcpy(position, vertices.data() + v * vertexStride, sizeof position);
    if (!std::isfinite(position[0]) || !std::isfinite(position[1]) || !std::isfinite(position[2]))
      return false;
  }
  return true;
}

// Drops the triangles that use one vertex twice.
template <typename Vector>
void dropDegenerate(Vector& indices)
{
  size_t kept = 0;
  for (size_t i = 0; i + 2 < indices.size(); i += 3)
  {
    const uint32_t a = indices[i], b = indices[i + 1], c = indices[i + 2];
    if (a == b || b == c || a == c)
      continue;
    indices[kept++] = a;
    indices[kept++] = b;
    indices[kept++] = c;
  }
  indices.resize(kept);
}
} // namespace

float positionExtent(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride)
{
  if (vertexCount == 0 || vertexStride < 12 || vertices.size() < vertexCount * vertexStride)
    return 0.0f;
  float low[3], high[3];
  std::memcpy(low, vertices.data(), sizeof low);
  std::memcpy(high, vertices.data(), sizeof high);
  for (size_t v = 1; v < vertexCount; ++v)
  {
    float position[3];
    std::memcpy(position, vertices.data() + v * vertexStride, sizeof position);
    for (int axis = 0; axis < 3; ++axis)
    {
      low[axis] = std::min(low[axis], position[axis]);
      high[axis] = std::max(high[axis], position[axis]);
    }
  }
  const float extent = std::max({high[0] - low[0], high[1] - low[1], high[2] - low[2]});
  return std::isfinite(extent) ? extent : 0.0f;
}

Simplified simplify(std::span<const uint32_t> indices, std::span<const std::byte> vertices, size_t vertexCount,
                    size_t vertexStride, const SimplifyTarget& target)
{
  Simplified result;
  if (!simplifiable(indices, vertices, vertexCount, vertexStride) || indices.empty() ||
      !(target.relativeError >= 0.0f) || !std::isfinite(target.relativeError))
  {
    result.indices.assign(indices.begin(), indices.end());
    return result;
  }
  const size_t wanted = std::min(indices.size(), std::max<size_t>(3, target.indexCount - target.indexCount % 3));
  const float* positions = reinterpret_cast<const float*>(vertices.data());

  // Written by the library before it is read: no need to clear it first.
  std::vector<uint32_t, cstdmf::DefaultInitAllocator<uint32_t>> kept(indices.size());
  float error = 0.0f;
  size_t count = meshopt_simplify(kept.data(), indices.data(), indices.size(), positions, vertexCount, vertexStride,
                                  wanted, target.relativeError, target.lockBorder ? meshopt_SimplifyLockBorder : 0,
                                  &error);
  kept.resize(count);
  result.simplified = true;

  // The simplifier stops where collapsing more would tear the mesh (many borders, non-manifold
  // edges); far above the target, the sloppy collapse may still get there within the error.
  if (target.sloppy && count > wanted + wanted / 2)
  {
    std::vector<uint32_t, cstdmf::DefaultInitAllocator<uint32_t>> collapsed(indices.size());
    float sloppyError = 0.0f;
    const size_t sloppyCount = meshopt_simplifySloppy(collapsed.data(), indices.data(), indices.size(), positions,
                                                      vertexCount, vertexStride, wanted, target.relativeError,
                                                      &sloppyError);
    collapsed.resize(sloppyCount);
    dropDegenerate(collapsed);
    if (!collapsed.empty() && collapsed.size() < count)
    {
      kept = std::move(collapsed);
      error = sloppyError;
      result.sloppy = true;
    }
  }
  dropDegenerate(kept);
  // A mesh that would vanish keeps its triangles: a level shows every part of the model.
  if (kept.empty())
  {
    result.indices.assign(indices.begin(), indices.end());
    return result;
  }
  result.indices.assign(kept.begin(), kept.end());
  result.relativeError = error;
  return result;
}

} // namespace MeshDataOptimizer
