#pragma once
// Simplification of one mesh for a level of detail, by meshoptimizer: the result is a new triangle
// list over the same vertices (no vertex is moved or made), so every kept vertex keeps all its
// attributes, and vertices that share a position but not their other attributes (texture seams)
// stay apart.
//
// The positions are a float3 at offset 0 of every vertex. Data the library would assert on is
// refused here instead: a mesh that breaks a precondition comes back unsimplified (with
// `simplified` false), never half done.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace MeshDataOptimizer
{

struct SimplifyTarget
{
  size_t indexCount = 0;       // about this many indices are kept (a multiple of 3, at least 3)
  float relativeError = 0.01f; // the largest deviation, relative to the mesh's own extent
  bool lockBorder = true;      // open edges stay where they are (meshes that meet keep their seams)
  bool sloppy = false;         // where the simplifier stops far above the target, collapse regardless of topology
};

struct Simplified
{
  std::vector<uint32_t> indices; // the triangles kept, none degenerate
  float relativeError = 0.0f;    // the deviation reached, relative to the mesh's extent
  bool simplified = false;       // false: the mesh broke a precondition and `indices` is the input
  bool sloppy = false;           // the aggressive fallback made it
};

// The extent of the positions (the largest side of their bounding box): relative errors are
// fractions of it. 0 for no vertices; the vertex span must hold vertexCount * vertexStride bytes.
float positionExtent(std::span<const std::byte> vertices, size_t vertexCount, size_t vertexStride);

// Simplifies the triangle list `indices` over `vertexCount` vertices towards `target`.
Simplified simplify(std::span<const uint32_t> indices, std::span<const std::byte> vertices, size_t vertexCount,
                    size_t vertexStride, const SimplifyTarget& target);

} // namespace MeshDataOptimizer
