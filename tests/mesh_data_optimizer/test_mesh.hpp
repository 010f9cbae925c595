#pragma once
// A UV sphere laid out like a GPU vertex buffer (float3 position at offset 0, then normal and
// texture coordinates as far as the stride allows), with its triangles and vertices shuffled the way
// an unoptimised exporter might leave them. Shared by the tests and the benchmark.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

namespace MeshDataOptimizerTest
{

struct TestMesh
{
  std::vector<std::byte> vertices;
  std::vector<uint32_t> indices;
  size_t stride = 0;

  size_t vertexCount() const { return vertices.size() / stride; }

  template <typename IndexT>
  std::vector<IndexT> indicesAs() const
  {
    return std::vector<IndexT>(indices.begin(), indices.end());
  }
};

// (rings + 1) * (segments + 1) vertices and 2 * rings * segments triangles; stride a multiple of 4.
inline TestMesh makeSphere(uint32_t rings, uint32_t segments, size_t stride, uint32_t seed)
{
  TestMesh mesh;
  mesh.stride = stride;
  const uint32_t columns = segments + 1;
  const uint32_t vertexCount = (rings + 1) * columns;
  mesh.vertices.resize(size_t(vertexCount) * stride);

  // Vertices in a shuffled order, so the fetch optimisation has something to do.
  std::mt19937 rng(seed);
  std::vector<uint32_t> slot(vertexCount);
  std::iota(slot.begin(), slot.end(), 0u);
  std::shuffle(slot.begin(), slot.end(), rng);

  const float pi = 3.14159265f;
  for (uint32_t ring = 0; ring <= rings; ++ring)
  {
    for (uint32_t segment = 0; segment <= segments; ++segment)
    {
      const float u = float(segment) / float(segments);
      const float v = float(ring) / float(rings);
      const float theta = v * pi;
      const float phi = u * 2.0f * pi;
      const float n[3] = {std::sin(theta) * std::cos(phi), std::cos(theta), std::sin(theta) * std::sin(phi)};
      const float attributes[8] = {n[0] * 10.0f, n[1] * 10.0f, n[2] * 10.0f, n[0], n[1], n[2], u, v};
      const size_t floatCount = std::min<size_t>(stride / sizeof(float), 8);
      std::memcpy(mesh.vertices.data() + size_t(slot[ring * columns + segment]) * stride, attributes,
                  floatCount * sizeof(float));
    }
  }

  struct Triangle
  {
    uint32_t corner[3];
  };
  std::vector<Triangle> triangles;
  for (uint32_t ring = 0; ring < rings; ++ring)
  {
    for (uint32_t segment = 0; segment < segments; ++segment)
    {
      const uint32_t a = slot[ring * columns + segment];
      const uint32_t b = slot[ring * columns + segment + 1];
      const uint32_t c = slot[(ring + 1) * columns + segment];
      const uint32_t d = slot[(ring + 1) * columns + segment + 1];
      triangles.push_back({{a, c, b}});
      triangles.push_back({{b, c, d}});
    }
  }
  std::shuffle(triangles.begin(), triangles.end(), rng);
  for (Triangle& triangle : triangles)
  {
    // Start each triangle at a random corner; the winding stays.
    std::rotate(triangle.corner, triangle.corner + rng() % 3, triangle.corner + 3);
    mesh.indices.insert(mesh.indices.end(), triangle.corner, triangle.corner + 3);
  }
  return mesh;
}

} // namespace MeshDataOptimizerTest
