#include "mesh_data_optimizer/optimizer.hpp"

#include "cstdmf/debug.hpp"

#include <meshoptimizer.h>

#include <algorithm>
#include <type_traits>
#include <vector>

namespace MeshDataOptimizer
{

namespace
{

// meshoptimizer's limit on vertex sizes and position strides.
constexpr size_t kMaxVertexSize = 256;
constexpr unsigned int kVertexCacheSize = 16;

// The library asserts (and so aborts the process) on these; a fatal assertion of ours says why.
template <MeshIndex IndexT>
void checkTriangles(std::span<const IndexT> indices, size_t vertexCount)
{
  ZR_ASSERT(indices.size() % 3 == 0);
  IndexT maxIndex = 0;
  for (const IndexT index : indices)
    maxIndex = std::max(maxIndex, index);
  ZR_ASSERT(indices.empty() || maxIndex < vertexCount);
}

void checkVertices(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride)
{
  ZR_ASSERT(vertexStride > 0 && vertexStride <= kMaxVertexSize);
  ZR_ASSERT(vertices.size() % vertexStride == 0 && vertices.size() / vertexStride == vertexCount);
}

// The library reads positions as float3 at the start of every vertex, through a float pointer.
const float* positionsOf(std::span<const std::byte> vertices, size_t vertexStride)
{
  ZR_ASSERT(vertexStride >= 3 * sizeof(float) && vertexStride % sizeof(float) == 0);
  ZR_ASSERT(reinterpret_cast<uintptr_t>(vertices.data()) % alignof(float) == 0);
  return reinterpret_cast<const float*>(vertices.data());
}

// Indices produced by the library for a 16-bit buffer are either a permutation of its input (cache
// and overdraw) or below the number of distinct vertices it referenced (fetch), so they fit.
template <MeshIndex IndexT>
void narrow(const std::vector<uint32_t>& wide, std::span<IndexT> indices)
{
  for (size_t i = 0; i < indices.size(); ++i)
    indices[i] = static_cast<IndexT>(wide[i]);
}

// Runs one index-reordering call of the library, reorder(destination, source), with the source on a
// fresh 32-bit copy; the result lands in the caller's span. The copies die with this call.
template <MeshIndex IndexT, typename Reorder>
void reorderIndices(std::span<IndexT> indices, Reorder&& reorder)
{
  const std::vector<uint32_t> source(indices.begin(), indices.end());
  if constexpr (std::same_as<IndexT, uint32_t>)
  {
    reorder(indices.data(), source.data());
  }
  else
  {
    std::vector<uint32_t> destination(indices.size());
    reorder(destination.data(), source.data());
    narrow(destination, indices);
  }
}

} // namespace

template <MeshIndex IndexT>
void optimizeMeshData(std::span<std::byte> vertices, size_t vertexStride, std::span<IndexT> indices)
{
  ZR_ASSERT(vertexStride > 0);
  const size_t vertexCount = vertices.size() / vertexStride;
  // One check for the three steps: each keeps every index below the vertex count.
  checkVertices(vertices, vertexCount, vertexStride);
  checkTriangles<IndexT>(indices, vertexCount);
  if (indices.empty())
    return;
  const float* positions = positionsOf(vertices, vertexStride);

  // The library works on 32-bit indices: a 16-bit buffer is widened once for all three steps.
  // Every result index is below the vertex count, which a 16-bit buffer's count never passes, so
  // narrowing back is exact.
  std::vector<uint32_t> wide;
  std::span<uint32_t> work;
  if constexpr (std::same_as<IndexT, uint32_t>)
    work = indices;
  else
    work = (wide.assign(indices.begin(), indices.end()), std::span<uint32_t>(wide));

  // The first two steps pass the indices back and forth between the buffer and one scratch copy.
  std::vector<uint32_t> scratch(work.size());
  meshopt_optimizeVertexCache(scratch.data(), work.data(), work.size(), vertexCount);
  meshopt_optimizeOverdraw(work.data(), scratch.data(), work.size(), positions, vertexCount, vertexStride, 1.0f);
  scratch = {};
  const std::vector<std::byte> source(vertices.begin(), vertices.end());
  // The unique vertex count it returns is not needed: unreferenced vertices stay, at the end.
  meshopt_optimizeVertexFetch(vertices.data(), work.data(), work.size(), source.data(), vertexCount, vertexStride);

  if constexpr (!std::same_as<IndexT, uint32_t>)
    narrow(wide, indices);
}

template <MeshIndex IndexT>
void optimizeVertexCache(size_t vertexCount, std::span<IndexT> indices)
{
  checkTriangles<IndexT>(indices, vertexCount);
  if (indices.empty())
    return;
  reorderIndices(indices, [&](uint32_t* destination, const uint32_t* source) {
    meshopt_optimizeVertexCache(destination, source, indices.size(), vertexCount);
  });
}

template <MeshIndex IndexT>
void optimizeOverdraw(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride,
                      std::span<IndexT> indices)
{
  checkVertices(vertices, vertexCount, vertexStride);
  checkTriangles<IndexT>(indices, vertexCount);
  if (indices.empty())
    return;
  const float* positions = positionsOf(vertices, vertexStride);
  reorderIndices(indices, [&](uint32_t* destination, const uint32_t* source) {
    meshopt_optimizeOverdraw(destination, source, indices.size(), positions, vertexCount, vertexStride, 1.0f);
  });
}

template <MeshIndex IndexT>
void optimizeFetch(std::span<std::byte> vertices, size_t vertexCount, size_t vertexStride, std::span<IndexT> indices)
{
  checkVertices(vertices, vertexCount, vertexStride);
  checkTriangles<IndexT>(indices, vertexCount);
  // Without triangles every vertex is unreferenced and keeps its place.
  if (indices.empty())
    return;
  const std::vector<std::byte> source(vertices.begin(), vertices.end());
  // The unique vertex count it returns is not needed: unreferenced vertices stay, at the end.
  if constexpr (std::same_as<IndexT, uint32_t>)
  {
    meshopt_optimizeVertexFetch(vertices.data(), indices.data(), indices.size(), source.data(), vertexCount,
                                vertexStride);
  }
  else
  {
    std::vector<uint32_t> wide(indices.begin(), indices.end());
    meshopt_optimizeVertexFetch(vertices.data(), wide.data(), wide.size(), source.data(), vertexCount, vertexStride);
    narrow(wide, indices);
  }
}

template <MeshIndex IndexT>
MeshStatistics analyze(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride,
                       std::span<const IndexT> indices, bool withOverdraw)
{
  ZR_ASSERT(vertexStride > 0 && vertexStride <= kMaxVertexSize);
  // Only the overdraw reads vertices.
  if (withOverdraw)
    checkVertices(vertices, vertexCount, vertexStride);
  checkTriangles<IndexT>(indices, vertexCount);
  if (indices.empty())
    return {};

  // The library reads 32-bit indices: a 16-bit buffer is widened for it.
  std::vector<uint32_t> wide;
  const uint32_t* source = nullptr;
  if constexpr (std::same_as<IndexT, uint32_t>)
    source = indices.data();
  else
    source = (wide.assign(indices.begin(), indices.end()), wide.data());
  const size_t indexCount = indices.size();
  const meshopt_VertexCacheStatistics cache =
    meshopt_analyzeVertexCache(source, indexCount, vertexCount, kVertexCacheSize, 0, 0);
  const meshopt_VertexFetchStatistics fetch = meshopt_analyzeVertexFetch(source, indexCount, vertexCount, vertexStride);

  MeshStatistics result;
  result.acmr = cache.acmr;
  result.atvr = cache.atvr;
  if (withOverdraw)
    result.overdraw =
      meshopt_analyzeOverdraw(source, indexCount, positionsOf(vertices, vertexStride), vertexCount, vertexStride)
        .overdraw;
  result.overfetch = fetch.overfetch;
  return result;
}

template void optimizeMeshData<uint16_t>(std::span<std::byte>, size_t, std::span<uint16_t>);
template void optimizeMeshData<uint32_t>(std::span<std::byte>, size_t, std::span<uint32_t>);
template void optimizeVertexCache<uint16_t>(size_t, std::span<uint16_t>);
template void optimizeVertexCache<uint32_t>(size_t, std::span<uint32_t>);
template void optimizeOverdraw<uint16_t>(std::span<const std::byte>, size_t, size_t, std::span<uint16_t>);
template void optimizeOverdraw<uint32_t>(std::span<const std::byte>, size_t, size_t, std::span<uint32_t>);
template void optimizeFetch<uint16_t>(std::span<std::byte>, size_t, size_t, std::span<uint16_t>);
template void optimizeFetch<uint32_t>(std::span<std::byte>, size_t, size_t, std::span<uint32_t>);
template MeshStatistics analyze<uint16_t>(std::span<const std::byte>, size_t, size_t, std::span<const uint16_t>, bool);
template MeshStatistics analyze<uint32_t>(std::span<const std::byte>, size_t, size_t, std::span<const uint32_t>, bool);

} // namespace MeshDataOptimizer
