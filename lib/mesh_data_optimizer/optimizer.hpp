#pragma once
// GPU-oriented reordering of one mesh (a vertex range and the triangle list that indexes it):
// post-transform vertex cache, overdraw and vertex fetch, all done by meshoptimizer.
//
// Every function here is re-entrant: it keeps no state between calls, so different meshes may be
// optimised on different threads at once. The numerical work is meshoptimizer's; its 32-bit entry
// points are used throughout, 16-bit indices are widened to temporary 32-bit copies and narrowed
// back into the caller's span.
//
// Preconditions shared by all functions below (broken ones are fatal ZR_ASSERTs, checked before
// the library is called, because the library aborts the process on them):
// - `indices` is a triangle list: its length is a multiple of 3;
// - every index is below the vertex count;
// - `vertexStride` is in 1..256 bytes; where positions are read (overdraw, analyze) it is also a
//   multiple of 4 and at least 12, with a float3 position at offset 0 of every vertex and the
//   vertex span aligned for float;
// - the vertex span holds exactly vertexCount * vertexStride bytes.
// The compiler validates its data before calling, so none of this can be caused by file input.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace MeshDataOptimizer
{

template <typename T>
concept MeshIndex = std::same_as<T, uint16_t> || std::same_as<T, uint32_t>;

// The whole optimisation, in place on both spans: vertex cache, then overdraw (threshold 1.0: no
// cache efficiency is traded for less overdraw), then vertex fetch. The vertex count is the vertex
// span's length divided by the stride; neither span changes length. Afterwards the vertices are in
// first-use order of the optimised indices (see optimizeFetch for unreferenced ones), and a 16-bit
// buffer still holds only indices below the vertex count. Needs: vertices.size() a multiple of
// vertexStride, and the shared preconditions.
template <MeshIndex IndexT>
void optimizeMeshData(std::span<std::byte> vertices, size_t vertexStride, std::span<IndexT> indices);

// Reorders the triangles (in place) for the post-transform vertex cache.
template <MeshIndex IndexT>
void optimizeVertexCache(size_t vertexCount, std::span<IndexT> indices);

// Reorders the triangles (in place) to reduce overdraw without losing vertex cache efficiency.
// Expects indices already optimised for the vertex cache.
template <MeshIndex IndexT>
void optimizeOverdraw(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride,
                      std::span<IndexT> indices);

// Reorders the vertices (in place) into first-use order of the indices and rewrites the indices to
// match. The referenced vertices are packed at the front; the vertex count does not change, and the
// slots past the referenced ones keep the bytes they held before (whole vertices, but no index
// refers to them any more).
template <MeshIndex IndexT>
void optimizeFetch(std::span<std::byte> vertices, size_t vertexCount, size_t vertexStride, std::span<IndexT> indices);

// Figures for the statistics report, from meshoptimizer's analysers.
struct MeshStatistics
{
  float acmr = 0.0f;      // transformed vertices per triangle (FIFO cache of 16 entries); 0.5..3
  float atvr = 0.0f;      // transformed vertices per vertex; 1 is ideal
  // Shaded pixels per covered pixel of the software rasteriser; 1 is ideal. Costly to measure (about
  // a third of what optimising the mesh costs), so only measured when asked for.
  std::optional<float> overdraw;
  float overfetch = 0.0f; // fetched bytes per vertex buffer byte; 1 is ideal
};

// Analyses one mesh without changing it; overdraw only with `withOverdraw`, which alone reads the
// vertices (positions): without it `vertices` may be empty. Needs the shared preconditions.
template <MeshIndex IndexT>
[[nodiscard]] MeshStatistics analyze(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride,
                                     std::span<const IndexT> indices, bool withOverdraw = true);

extern template void optimizeMeshData<uint16_t>(std::span<std::byte>, size_t, std::span<uint16_t>);
extern template void optimizeMeshData<uint32_t>(std::span<std::byte>, size_t, std::span<uint32_t>);
extern template void optimizeVertexCache<uint16_t>(size_t, std::span<uint16_t>);
extern template void optimizeVertexCache<uint32_t>(size_t, std::span<uint32_t>);
extern template void optimizeOverdraw<uint16_t>(std::span<const std::byte>, size_t, size_t, std::span<uint16_t>);
extern template void optimizeOverdraw<uint32_t>(std::span<const std::byte>, size_t, size_t, std::span<uint32_t>);
extern template void optimizeFetch<uint16_t>(std::span<std::byte>, size_t, size_t, std::span<uint16_t>);
extern template void optimizeFetch<uint32_t>(std::span<std::byte>, size_t, size_t, std::span<uint32_t>);
extern template MeshStatistics analyze<uint16_t>(std::span<const std::byte>, size_t, size_t, std::span<const uint16_t>, bool);
extern template MeshStatistics analyze<uint32_t>(std::span<const std::byte>, size_t, size_t, std::span<const uint32_t>, bool);

} // namespace MeshDataOptimizer
