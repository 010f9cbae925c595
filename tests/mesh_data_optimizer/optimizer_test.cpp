#include "mesh_data_optimizer/optimizer.hpp"

#include "cstdmf/log_sinks.hpp"
#include "mesh_data_optimizer/test_mesh.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <thread>

namespace
{

using MeshDataOptimizerTest::makeSphere;
using MeshDataOptimizerTest::TestMesh;
using Triangle = std::array<std::string, 3>;

// The triangles as triples of vertex contents, each rotated to start at its smallest corner (so the
// winding counts), sorted: equal for two meshes that draw the same triangles.
template <typename IndexT>
std::vector<Triangle> triangleSet(const std::vector<std::byte>& vertices, size_t stride,
                                  const std::vector<IndexT>& indices)
{
  auto vertexAt = [&](size_t index) {
    return std::string(reinterpret_cast<const char*>(vertices.data()) + index * stride, stride);
  };
  std::vector<Triangle> triangles;
  for (size_t i = 0; i < indices.size(); i += 3)
  {
    Triangle triangle{vertexAt(indices[i]), vertexAt(indices[i + 1]), vertexAt(indices[i + 2])};
    std::rotate(triangle.begin(), std::min_element(triangle.begin(), triangle.end()), triangle.end());
    triangles.push_back(std::move(triangle));
  }
  std::sort(triangles.begin(), triangles.end());
  return triangles;
}

// How many vertices the indices use, if they meet them in order 0, 1, 2...; 0 otherwise.
template <typename IndexT>
size_t firstUseCount(const std::vector<IndexT>& indices)
{
  size_t next = 0;
  for (const IndexT index : indices)
  {
    if (index > next)
      return 0;
    next += index == next;
  }
  return next;
}

template <typename IndexT>
void checkOptimizedSphere(size_t stride)
{
  SCOPED_TRACE(testing::Message() << sizeof(IndexT) * 8 << "-bit indices, stride " << stride);
  const TestMesh mesh = makeSphere(50, 80, stride, 7);
  std::vector<std::byte> vertices = mesh.vertices;
  std::vector<IndexT> indices = mesh.indicesAs<IndexT>();
  const auto before = MeshDataOptimizer::analyze<IndexT>(vertices, mesh.vertexCount(), stride, indices);

  MeshDataOptimizer::optimizeMeshData<IndexT>(vertices, stride, indices);

  ASSERT_EQ(vertices.size(), mesh.vertices.size());
  ASSERT_EQ(indices.size(), mesh.indices.size());
  EXPECT_TRUE(triangleSet(vertices, stride, indices) == triangleSet(mesh.vertices, stride, mesh.indices));
  // Every vertex of the sphere is used, so the fetch order names each once and none past the end.
  EXPECT_EQ(firstUseCount(indices), mesh.vertexCount());
  const auto after = MeshDataOptimizer::analyze<IndexT>(vertices, mesh.vertexCount(), stride, indices);
  EXPECT_LT(after.acmr, 0.8f * before.acmr);
  EXPECT_LT(after.atvr, 0.8f * before.atvr);
  EXPECT_LT(after.overfetch, 1.1f);
  ASSERT_TRUE(after.overdraw);
  EXPECT_GE(*after.overdraw, 1.0f);
}

TEST(OptimizeMeshData, KeepsTheTrianglesAndImprovesTheMesh)
{
  for (const size_t stride : {size_t(28), size_t(32)})
  {
    checkOptimizedSphere<uint16_t>(stride);
    checkOptimizedSphere<uint32_t>(stride);
  }
}

TEST(OptimizeMeshData, ReferencedVerticesArePackedFirst)
{
  // Only the triangles among the first 300 vertex slots remain; the other vertices are unused.
  TestMesh mesh = makeSphere(20, 30, 32, 3);
  std::vector<uint32_t> kept;
  for (size_t i = 0; i < mesh.indices.size(); i += 3)
    if (std::max({mesh.indices[i], mesh.indices[i + 1], mesh.indices[i + 2]}) < 300)
      kept.insert(kept.end(), mesh.indices.begin() + i, mesh.indices.begin() + i + 3);
  mesh.indices = kept;
  std::vector<uint32_t> referenced = kept;
  std::sort(referenced.begin(), referenced.end());
  referenced.erase(std::unique(referenced.begin(), referenced.end()), referenced.end());

  std::vector<std::byte> vertices = mesh.vertices;
  std::vector<uint16_t> indices = mesh.indicesAs<uint16_t>();
  MeshDataOptimizer::optimizeMeshData<uint16_t>(vertices, mesh.stride, indices);

  EXPECT_EQ(vertices.size(), mesh.vertices.size());
  EXPECT_TRUE(triangleSet(vertices, mesh.stride, indices) == triangleSet(mesh.vertices, mesh.stride, mesh.indices));
  EXPECT_EQ(firstUseCount(indices), referenced.size());

  std::vector<uint16_t> none;
  vertices = mesh.vertices;
  MeshDataOptimizer::optimizeMeshData<uint16_t>(vertices, mesh.stride, none);
  EXPECT_EQ(vertices, mesh.vertices);
}

// Render sets will be optimised on several threads at once; the results must not depend on it.
TEST(OptimizeMeshData, ConcurrentCallsGiveTheSerialResult)
{
  const TestMesh mesh = makeSphere(30, 40, 32, 11);
  auto optimized = [&mesh] {
    std::pair<std::vector<std::byte>, std::vector<uint32_t>> result{mesh.vertices, mesh.indices};
    MeshDataOptimizer::optimizeMeshData<uint32_t>(result.first, mesh.stride, result.second);
    return result;
  };
  const auto expected = optimized();
  std::array<decltype(optimized()), 4> results;
  std::vector<std::thread> threads;
  for (auto& result : results)
    threads.emplace_back([&result, &optimized] { result = optimized(); });
  for (auto& thread : threads)
    thread.join();
  for (const auto& result : results)
    EXPECT_TRUE(result == expected);
}

// meshoptimizer aborts the process on these; our own assertions must stop it first, with a reason.
TEST(OptimizeMeshDataDeathTest, PreconditionsAreFatalAssertions)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::vector<std::byte> vertices = makeSphere(4, 4, 32, 1).vertices; // 25 vertices
  std::vector<uint32_t> notTriangles{0, 1, 2, 3};
  std::vector<uint16_t> pastTheEnd{0, 1, 25};
  std::vector<uint32_t> triangle{0, 1, 2};
  auto run = [](auto&& call) {
    cstdmf::setupConsoleLogging(1);
    call();
  };
  EXPECT_EXIT(run([&] { MeshDataOptimizer::optimizeMeshData<uint32_t>(vertices, 32, notTriangles); }),
              testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: indices.size\\(\\) % 3 == 0");
  EXPECT_EXIT(run([&] { MeshDataOptimizer::optimizeMeshData<uint16_t>(vertices, 32, pastTheEnd); }),
              testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: indices.empty\\(\\) \\|\\| maxIndex < vertexCount");
  EXPECT_EXIT(run([&] { MeshDataOptimizer::optimizeMeshData<uint32_t>(std::span(vertices).first(30), 10, triangle); }),
              testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: vertexStride >= 3 \\* sizeof\\(float\\)");
}

} // namespace
