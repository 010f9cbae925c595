#include "gpu_mesh.hpp"

#include <meshoptimizer.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace vertexmill_bench
{

namespace
{

// File layout, little-endian: "VMBG", version, vertex buffer count, index buffer count, set count
// (5 x uint32); per vertex buffer: stride (uint32), byte count (uint64), the bytes; per index
// buffer: stored index size (uint32), index count (uint64), the indices as uint32; per set: its six
// uint32 fields in declaration order.
constexpr uint32_t kMagic = 0x47424D56; // "VMBG"
constexpr uint32_t kVersion = 1;

struct FileCloser
{
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

class Writer
{
public:
  explicit Writer(std::FILE* file) : m_file(file) {}
  template <typename T>
  void value(const T& v)
  {
    bytes(&v, sizeof(v));
  }
  void bytes(const void* data, size_t size)
  {
    if (m_ok && size != 0)
      m_ok = std::fwrite(data, 1, size, m_file) == size;
  }
  bool ok() const { return m_ok; }

private:
  std::FILE* m_file;
  bool m_ok = true;
};

// Reads fields from a file of known size; the first failure sticks and every count is checked
// against the bytes left before anything is allocated for it.
class Reader
{
public:
  Reader(std::FILE* file, uint64_t size) : m_file(file), m_left(size) {}
  template <typename T>
  T value()
  {
    T v{};
    bytes(&v, sizeof(v));
    return v;
  }
  void bytes(void* data, size_t size)
  {
    if (!m_ok || size > m_left || (size != 0 && std::fread(data, 1, size, m_file) != size))
    {
      m_ok = false;
      return;
    }
    m_left -= size;
  }
  // True when `count` items of `size` bytes can still follow.
  bool fits(uint64_t count, uint64_t size)
  {
    if (m_ok && (size == 0 || count > m_left / size))
      m_ok = false;
    return m_ok;
  }
  bool ok() const { return m_ok; }
  uint64_t left() const { return m_left; }

private:
  std::FILE* m_file;
  uint64_t m_left;
  bool m_ok = true;
};

} // namespace

uint64_t GpuMesh::triangleCount() const
{
  uint64_t indices = 0;
  for (const RenderSet& set : sets)
    indices += set.indexCount;
  return indices / 3;
}

uint64_t GpuMesh::rawBytes() const
{
  uint64_t total = 0;
  for (const VertexBuffer& buffer : vertexBuffers)
    total += buffer.bytes.size();
  for (const IndexBuffer& buffer : indexBuffers)
    total += uint64_t(buffer.indices.size()) * buffer.storedIndexSize;
  return total;
}

bool GpuMesh::isValid() const
{
  for (const VertexBuffer& buffer : vertexBuffers)
    if (buffer.stride < 12 || buffer.stride > 256 || buffer.stride % 4 != 0 || buffer.bytes.size() % buffer.stride != 0)
      return false;
  for (const IndexBuffer& buffer : indexBuffers)
    if (buffer.storedIndexSize != 2 && buffer.storedIndexSize != 4)
      return false;
  for (const RenderSet& set : sets)
  {
    if (set.vertexBuffer >= vertexBuffers.size() || set.indexBuffer >= indexBuffers.size() || set.indexCount % 3 != 0)
      return false;
    const VertexBuffer& vertices = vertexBuffers[set.vertexBuffer];
    const IndexBuffer& indices = indexBuffers[set.indexBuffer];
    if (uint64_t(set.firstVertex) + set.vertexCount > vertices.bytes.size() / vertices.stride ||
        uint64_t(set.firstIndex) + set.indexCount > indices.indices.size())
      return false;
    for (uint32_t i = 0; i < set.indexCount; ++i)
      if (indices.indices[set.firstIndex + i] >= set.vertexCount)
        return false;
  }
  return true;
}

EncodedSizes runMeshoptimizer(GpuMesh& mesh)
{
  std::vector<uint32_t> scratchIndices;
  std::vector<std::byte> sourceVertices;
  for (const GpuMesh::RenderSet& set : mesh.sets)
  {
    if (set.indexCount == 0 || set.vertexCount == 0)
      continue;
    GpuMesh::VertexBuffer& vertexBuffer = mesh.vertexBuffers[set.vertexBuffer];
    const size_t stride = vertexBuffer.stride;
    std::byte* vertices = vertexBuffer.bytes.data() + size_t(set.firstVertex) * stride;
    uint32_t* indices = mesh.indexBuffers[set.indexBuffer].indices.data() + set.firstIndex;

    scratchIndices.resize(set.indexCount);
    meshopt_optimizeVertexCache(scratchIndices.data(), indices, set.indexCount, set.vertexCount);
    meshopt_optimizeOverdraw(indices, scratchIndices.data(), set.indexCount,
                             reinterpret_cast<const float*>(vertices), set.vertexCount, stride, 1.0f);
    sourceVertices.assign(vertices, vertices + size_t(set.vertexCount) * stride);
    meshopt_optimizeVertexFetch(vertices, indices, set.indexCount, sourceVertices.data(), set.vertexCount, stride);
  }

  EncodedSizes sizes;
  for (const GpuMesh::VertexBuffer& buffer : mesh.vertexBuffers)
  {
    const size_t count = buffer.bytes.size() / buffer.stride;
    std::vector<unsigned char> encoded(meshopt_encodeVertexBufferBound(count, buffer.stride));
    sizes.vertexBytes +=
      meshopt_encodeVertexBuffer(encoded.data(), encoded.size(), buffer.bytes.data(), count, buffer.stride);
  }
  for (size_t b = 0; b < mesh.indexBuffers.size(); ++b)
  {
    const GpuMesh::IndexBuffer& buffer = mesh.indexBuffers[b];
    // The bound only needs the largest vertex count indexed from this buffer.
    size_t vertexCount = 0;
    for (const GpuMesh::RenderSet& set : mesh.sets)
      if (set.indexBuffer == b)
        vertexCount = std::max<size_t>(vertexCount, set.vertexCount);
    std::vector<unsigned char> encoded(meshopt_encodeIndexBufferBound(buffer.indices.size(), vertexCount));
    sizes.indexBytes +=
      meshopt_encodeIndexBuffer(encoded.data(), encoded.size(), buffer.indices.data(), buffer.indices.size());
  }
  return sizes;
}

bool writeGpuMesh(const std::string& path, const GpuMesh& mesh, std::string& error)
{
  File file(std::fopen(path.c_str(), "wb"));
  if (!file)
  {
    error = "cannot create '" + path + "'";
    return false;
  }
  Writer out(file.get());
  out.value(kMagic);
  out.value(kVersion);
  out.value(uint32_t(mesh.vertexBuffers.size()));
  out.value(uint32_t(mesh.indexBuffers.size()));
  out.value(uint32_t(mesh.sets.size()));
  for (const GpuMesh::VertexBuffer& buffer : mesh.vertexBuffers)
  {
    out.value(buffer.stride);
    out.value(uint64_t(buffer.bytes.size()));
    out.bytes(buffer.bytes.data(), buffer.bytes.size());
  }
  for (const GpuMesh::IndexBuffer& buffer : mesh.indexBuffers)
  {
    out.value(buffer.storedIndexSize);
    out.value(uint64_t(buffer.indices.size()));
    out.bytes(buffer.indices.data(), buffer.indices.size() * sizeof(uint32_t));
  }
  for (const GpuMesh::RenderSet& set : mesh.sets)
    for (uint32_t field :
         {set.vertexBuffer, set.firstVertex, set.vertexCount, set.indexBuffer, set.firstIndex, set.indexCount})
      out.value(field);
  const bool closed = std::fclose(file.release()) == 0;
  if (!out.ok() || !closed)
  {
    error = "cannot write '" + path + "'";
    std::remove(path.c_str());
    return false;
  }
  return true;
}

bool readGpuMesh(const std::string& path, GpuMesh& mesh, std::string& error)
{
  mesh = GpuMesh{};
  File file(std::fopen(path.c_str(), "rb"));
  if (!file || std::fseek(file.get(), 0, SEEK_END) != 0)
  {
    error = "cannot open '" + path + "'";
    return false;
  }
  const long size = std::ftell(file.get());
  if (size < 0 || std::fseek(file.get(), 0, SEEK_SET) != 0)
  {
    error = "cannot read '" + path + "'";
    return false;
  }

  Reader in(file.get(), uint64_t(size));
  const uint32_t magic = in.value<uint32_t>();
  const uint32_t version = in.value<uint32_t>();
  const uint32_t vertexBufferCount = in.value<uint32_t>();
  const uint32_t indexBufferCount = in.value<uint32_t>();
  const uint32_t setCount = in.value<uint32_t>();
  if (!in.ok() || magic != kMagic || version != kVersion)
  {
    error = "'" + path + "' is not a mesh file of version 1";
    return false;
  }
  if (in.fits(vertexBufferCount, 12))
  {
    mesh.vertexBuffers.resize(vertexBufferCount);
    for (GpuMesh::VertexBuffer& buffer : mesh.vertexBuffers)
    {
      buffer.stride = in.value<uint32_t>();
      const uint64_t byteCount = in.value<uint64_t>();
      if (!in.fits(byteCount, 1))
        break;
      buffer.bytes.resize(size_t(byteCount));
      in.bytes(buffer.bytes.data(), buffer.bytes.size());
    }
  }
  if (in.fits(indexBufferCount, 12))
  {
    mesh.indexBuffers.resize(indexBufferCount);
    for (GpuMesh::IndexBuffer& buffer : mesh.indexBuffers)
    {
      buffer.storedIndexSize = in.value<uint32_t>();
      const uint64_t indexCount = in.value<uint64_t>();
      if (!in.fits(indexCount, sizeof(uint32_t)))
        break;
      buffer.indices.resize(size_t(indexCount));
      in.bytes(buffer.indices.data(), buffer.indices.size() * sizeof(uint32_t));
    }
  }
  if (in.fits(setCount, 6 * sizeof(uint32_t)))
  {
    mesh.sets.resize(setCount);
    for (GpuMesh::RenderSet& set : mesh.sets)
      for (uint32_t* field : {&set.vertexBuffer, &set.firstVertex, &set.vertexCount, &set.indexBuffer, &set.firstIndex,
                              &set.indexCount})
        *field = in.value<uint32_t>();
  }
  if (!in.ok() || in.left() != 0)
  {
    error = "'" + path + "' is truncated or has trailing bytes";
    return false;
  }
  if (!mesh.isValid())
  {
    error = "'" + path + "' describes an invalid mesh";
    return false;
  }
  return true;
}

} // namespace vertexmill_bench
