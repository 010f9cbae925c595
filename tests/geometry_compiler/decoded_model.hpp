#pragma once
// A compiled .geometry file read back with the runtime's reader, every buffer decoded, and its
// render sets as sorted lists of triangles (each a triple of whole vertices), so that tests can
// compare what a file draws with what went in.

#include "mesh_data_optimizer/coder.hpp"
#include "moo/geometry_data.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace testutil
{

using Triangle = std::array<std::vector<std::byte>, 3>;

// Triangles as triples of vertex bytes, each rotated so that its smallest corner comes first
// (winding kept), sorted.
template <typename Index>
std::vector<Triangle> triangles(std::span<const std::byte> vertices, size_t stride, std::span<const Index> indices)
{
  std::vector<Triangle> result;
  auto vertex = [&](Index i) {
    EXPECT_LT(static_cast<size_t>(i) * stride, vertices.size());
    const std::byte* at = vertices.data() + static_cast<size_t>(i) * stride;
    return std::vector<std::byte>(at, at + stride);
  };
  for (size_t t = 0; t + 2 < indices.size(); t += 3)
  {
    Triangle tri = {vertex(indices[t]), vertex(indices[t + 1]), vertex(indices[t + 2])};
    std::rotate(tri.begin(), std::min_element(tri.begin(), tri.end()), tri.end());
    result.push_back(std::move(tri));
  }
  std::sort(result.begin(), result.end());
  return result;
}

struct DecodedModel
{
  Moo::GeometryData data;
  std::vector<std::vector<std::byte>> vertices; // per vertex buffer
  std::vector<std::vector<uint32_t>> indices;   // per index buffer, widened
};

inline void decode(const std::filesystem::path& path, DecodedModel& model)
{
  ASSERT_TRUE(model.data.load(path.string()));
  for (const auto& buffer : model.data.vertexBuffers())
  {
    std::vector<std::byte> bytes(buffer.data.begin(), buffer.data.end());
    if (buffer.encoded)
    {
      ASSERT_TRUE(MeshDataOptimizer::decodeVertexData(buffer.data, buffer.strideInBytes, bytes));
    }
    model.vertices.push_back(std::move(bytes));
  }
  for (const auto& buffer : model.data.indexBuffers())
  {
    std::vector<uint32_t> wide;
    if (buffer.primitiveType == 0)
    {
      std::vector<uint16_t> narrow(buffer.data.size() / 2);
      if (buffer.encoded)
      {
        ASSERT_TRUE(MeshDataOptimizer::decodeIndexData(buffer.data, narrow));
      }
      else if (!narrow.empty())
        std::memcpy(narrow.data(), buffer.data.data(), buffer.data.size());
      wide.assign(narrow.begin(), narrow.end());
    }
    else
    {
      wide.resize(buffer.data.size() / 4);
      if (buffer.encoded)
      {
        ASSERT_TRUE(MeshDataOptimizer::decodeIndexData(buffer.data, wide));
      }
      else if (!wide.empty())
        std::memcpy(wide.data(), buffer.data.data(), buffer.data.size());
    }
    model.indices.push_back(std::move(wide));
  }
}

// The triangles of one render set as the file holds them.
inline std::vector<Triangle> fileTriangles(const DecodedModel& model, const std::string& set)
{
  Moo::GeometryData::VertexRange vertexRange;
  Moo::GeometryData::IndexRange indexRange;
  EXPECT_TRUE(model.data.fetchVertices(set + ".vertices", vertexRange));
  EXPECT_TRUE(model.data.fetchIndices(set + ".indices", indexRange));
  const size_t vb = vertexRange.mapping.mergedBufferIndex, ib = indexRange.mapping.mergedBufferIndex;
  const size_t stride = model.data.vertexBuffers()[vb].strideInBytes;
  const auto& allVertices = model.vertices[vb];
  std::span<const std::byte> vertices(allVertices.data() + vertexRange.mapping.itemsOffset * stride,
                                      vertexRange.mapping.itemsCount * stride);
  std::span<const uint32_t> indices(model.indices[ib].data() + indexRange.mapping.itemsOffset,
                                    indexRange.mapping.itemsCount);
  for (uint32_t index : indices)
    EXPECT_LT(index, vertexRange.mapping.itemsCount) << set;
  return triangles(vertices, stride, indices);
}

} // namespace testutil
