// Optimisation and encoding of one generated mesh of about 100K triangles (a 224 x 224 UV sphere:
// 50,625 vertices of 32 bytes, 100,352 shuffled triangles), with 16-bit and 32-bit indices.

#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "mesh_data_optimizer/test_mesh.hpp"

#include <benchmark/benchmark.h>

namespace
{

const MeshDataOptimizerTest::TestMesh& benchMesh()
{
  static const MeshDataOptimizerTest::TestMesh mesh = MeshDataOptimizerTest::makeSphere(224, 224, 32, 42);
  return mesh;
}

// The optimised mesh is what the compiler encodes.
template <typename IndexT>
std::pair<std::vector<std::byte>, std::vector<IndexT>> optimizedMesh()
{
  const auto& mesh = benchMesh();
  std::pair<std::vector<std::byte>, std::vector<IndexT>> result{mesh.vertices, mesh.indicesAs<IndexT>()};
  MeshDataOptimizer::optimizeMeshData<IndexT>(result.first, mesh.stride, result.second);
  return result;
}

template <typename IndexT>
void optimizeMeshData(benchmark::State& state)
{
  const auto& mesh = benchMesh();
  const std::vector<IndexT> sourceIndices = mesh.indicesAs<IndexT>();
  for (auto _ : state)
  {
    state.PauseTiming();
    std::vector<std::byte> vertices = mesh.vertices;
    std::vector<IndexT> indices = sourceIndices;
    state.ResumeTiming();
    MeshDataOptimizer::optimizeMeshData<IndexT>(vertices, mesh.stride, indices);
    benchmark::DoNotOptimize(indices.data());
  }
  state.counters["triangles/s"] =
    benchmark::Counter(double(sourceIndices.size() / 3), benchmark::Counter::kIsIterationInvariantRate);
}

void encodeVertexData(benchmark::State& state)
{
  const auto mesh = optimizedMesh<uint32_t>();
  size_t encodedSize = 0;
  for (auto _ : state)
  {
    const auto encoded = MeshDataOptimizer::encodeVertexData(mesh.first, benchMesh().stride);
    encodedSize = encoded.size();
    benchmark::DoNotOptimize(encoded.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(mesh.first.size()));
  state.counters["ratio"] = double(mesh.first.size()) / double(encodedSize);
}

void decodeVertexData(benchmark::State& state)
{
  const auto mesh = optimizedMesh<uint32_t>();
  const auto encoded = MeshDataOptimizer::encodeVertexData(mesh.first, benchMesh().stride);
  std::vector<std::byte> decoded;
  for (auto _ : state)
  {
    if (!MeshDataOptimizer::decodeVertexData(encoded, benchMesh().stride, decoded))
      state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(decoded.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(mesh.first.size()));
}

template <typename IndexT>
void encodeIndexData(benchmark::State& state)
{
  const auto mesh = optimizedMesh<IndexT>();
  const size_t vertexCount = benchMesh().vertexCount();
  size_t encodedSize = 0;
  for (auto _ : state)
  {
    const auto encoded = MeshDataOptimizer::encodeIndexData<IndexT>(mesh.second, vertexCount);
    encodedSize = encoded.size();
    benchmark::DoNotOptimize(encoded.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(mesh.second.size() * sizeof(IndexT)));
  state.counters["ratio"] = double(mesh.second.size() * sizeof(IndexT)) / double(encodedSize);
}

template <typename IndexT>
void decodeIndexData(benchmark::State& state)
{
  const auto mesh = optimizedMesh<IndexT>();
  const auto encoded = MeshDataOptimizer::encodeIndexData<IndexT>(mesh.second, benchMesh().vertexCount());
  std::vector<IndexT> decoded;
  for (auto _ : state)
  {
    if (!MeshDataOptimizer::decodeIndexData<IndexT>(encoded, decoded))
      state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(decoded.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(mesh.second.size() * sizeof(IndexT)));
}

BENCHMARK_TEMPLATE(optimizeMeshData, uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(optimizeMeshData, uint32_t)->Unit(benchmark::kMillisecond);
BENCHMARK(encodeVertexData)->Unit(benchmark::kMillisecond);
BENCHMARK(decodeVertexData)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(encodeIndexData, uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(encodeIndexData, uint32_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(decodeIndexData, uint16_t)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(decodeIndexData, uint32_t)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
