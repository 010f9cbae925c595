// Render sets measured on the indices as the file stores them: every index buffer is decoded
// again as soon as it has been encoded, and its render sets measured, on a thread of its own.

#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/parallel.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"

#include <cstring>
#include <system_error>

using namespace GeometryCompilerDetail;

namespace
{
// The merged index buffer as the file stores it, decoded again, in its own index width; empty when
// the codec could not take it.
template <typename IndexT>
cstdmf::ByteVector decodedIndices(std::span<const std::byte> encoded, size_t indexCount)
{
  std::vector<IndexT> decoded;
  if (!MeshDataOptimizer::decodeIndexData(encoded, decoded) || decoded.size() != indexCount)
    return {};
  cstdmf::ByteVector bytes(decoded.size() * sizeof(IndexT));
  std::memcpy(bytes.data(), decoded.data(), bytes.size());
  return bytes;
}
} // namespace

GeometryCompiler::StoredMeasurement::StoredMeasurement(GeometryCompiler& compiler, std::vector<StoredSet> sets)
  : m_compiler(compiler), m_sets(std::move(sets))
{
  // Overdraw reads positions, and the vertex buffers are about to be replaced by their encoding.
  if (compiler.m_overdraw)
    for (const DataEntry& entry : compiler.m_mergedGeometry.vertices().data)
      m_rawVertices.push_back(entry.data);
  try
  {
    m_thread = cstdmf::startWithWorkContext([this]() { run(); });
  }
  catch (const std::system_error&)
  {
    // Without a thread of its own, every buffer is measured when it is reported encoded.
  }
}

GeometryCompiler::StoredMeasurement::~StoredMeasurement()
{
  finish();
}

void GeometryCompiler::StoredMeasurement::indexBufferEncoded(size_t buffer)
{
  if (!m_thread.joinable())
  {
    measure(buffer);
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    m_ready.push_back(buffer);
  }
  m_wake.notify_one();
}

void GeometryCompiler::StoredMeasurement::finish()
{
  if (!m_thread.joinable())
    return;
  {
    const std::lock_guard lock(m_mutex);
    m_finishing = true;
  }
  m_wake.notify_one();
  m_thread.join();
}

void GeometryCompiler::StoredMeasurement::run()
{
  for (;;)
  {
    size_t buffer = 0;
    {
      std::unique_lock lock(m_mutex);
      m_wake.wait(lock, [&] { return !m_ready.empty() || m_finishing; });
      if (m_ready.empty())
        return;
      buffer = m_ready.front();
      m_ready.pop_front();
    }
    measure(buffer);
  }
}

void GeometryCompiler::StoredMeasurement::measure(size_t buffer)
{
  const MergedGeometry::IndexBuffers& indexBuffers = m_compiler.m_mergedGeometry.indices();
  const bool wide = indexBuffers.records[buffer].second.indexFormat == static_cast<uint32_t>(IndexFormat::LIST32);
  const uint64_t rawSize = m_compiler.m_rawBufferSizes->second[buffer];
  const std::span<const std::byte> encoded(indexBuffers.data[buffer].data);
  const size_t indexCount = static_cast<size_t>(rawSize) / (wide ? 4 : 2);
  const cstdmf::ByteVector stored =
    wide ? decodedIndices<uint32_t>(encoded, indexCount) : decodedIndices<uint16_t>(encoded, indexCount);
  // A buffer the codec could not take keeps no figures after optimising; its failure is reported.
  if (stored.size() != rawSize)
    return;
  for (size_t i = 0; i < m_sets.size(); ++i)
  {
    const StoredSet& set = m_sets[i];
    if (set.indexBuffer != buffer)
      continue;
    const std::span<const std::byte> indices = std::span<const std::byte>(stored).subspan(set.indexOffset, set.indexBytes);
    std::span<const std::byte> vertices;
    if (set.vertexBuffer < m_rawVertices.size())
      vertices = std::span<const std::byte>(m_rawVertices[set.vertexBuffer]).subspan(set.vertexOffset, set.vertexBytes);
    m_compiler.m_progress.renderSets[i].after = m_compiler.analyzeStoredSet(set, vertices, indices);
  }
}
