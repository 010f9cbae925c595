#pragma once
// The data a model's meshoptimizer work runs on, laid out as the compiler merges it: one buffer of
// converted GPU vertices per vertex format, one index buffer per index format, and the render sets
// (a vertex range and the index range drawn from it). The benchmarks run the bare library calls on
// it to compare the compiler against, and can store it in a small file so that a separate process
// does the same work from disk.
//
// Indices are held as 32-bit values, the library's own type, whatever width the compiler stores;
// widening 16-bit indices is part of what the compiler pays and the bare run does not.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vertexmill_bench
{

struct GpuMesh
{
  struct VertexBuffer
  {
    uint32_t stride = 0;
    std::vector<std::byte> bytes;
    std::string gpuFormatName; // where known; not stored in the file
  };

  struct IndexBuffer
  {
    uint32_t storedIndexSize = 4; // 2 or 4: the width the compiler stores
    std::vector<uint32_t> indices;
  };

  struct RenderSet
  {
    uint32_t vertexBuffer = 0;
    uint32_t firstVertex = 0;
    uint32_t vertexCount = 0;
    uint32_t indexBuffer = 0;
    uint32_t firstIndex = 0;
    uint32_t indexCount = 0;
  };

  std::vector<VertexBuffer> vertexBuffers;
  std::vector<IndexBuffer> indexBuffers;
  std::vector<RenderSet> sets;

  uint64_t triangleCount() const;
  // Vertex bytes plus index bytes at the widths the compiler stores: what the output would hold
  // without encoding.
  uint64_t rawBytes() const;
  // True when every set lies inside its buffers and every index is below its set's vertex count.
  [[nodiscard]] bool isValid() const;
};

struct EncodedSizes
{
  uint64_t vertexBytes = 0; // codec streams only, without the 8-byte headers the compiler adds
  uint64_t indexBytes = 0;
};

// The five calls the compiler makes, with its arguments, and nothing else: per render set
// meshopt_optimizeVertexCache, meshopt_optimizeOverdraw (positions at offset 0, stride = vertex
// stride, threshold 1.0) and meshopt_optimizeVertexFetch (destination and source distinct, as the
// compiler calls them); then meshopt_encodeVertexBuffer per vertex buffer and
// meshopt_encodeIndexBuffer per index buffer into buffers of the library's bound. Optimises `mesh`
// in place. Needs mesh.isValid().
EncodedSizes runMeshoptimizer(GpuMesh& mesh);

// Stores `mesh` in the benchmark's own little file layout. False with `error` set when the file
// cannot be written.
[[nodiscard]] bool writeGpuMesh(const std::string& path, const GpuMesh& mesh, std::string& error);

// Reads a file written by writeGpuMesh. False with `error` set when it cannot be read, is
// truncated, has trailing bytes or describes an invalid mesh.
[[nodiscard]] bool readGpuMesh(const std::string& path, GpuMesh& mesh, std::string& error);

} // namespace vertexmill_bench
