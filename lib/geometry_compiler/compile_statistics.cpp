// The statistics of one compile, gathered once at its end.

#include "geometry_compiler/geometry_compiler.hpp"

using namespace GeometryCompilerDetail;

void GeometryCompiler::gatherStatistics() const
{
  CompileStatistics& out = *m_statistics;
  out.sections.insert(out.sections.end(), m_progress.sections.begin(), m_progress.sections.end());
  out.verifier.insert(out.verifier.end(), m_progress.verifier.begin(), m_progress.verifier.end());
  out.companions.insert(out.companions.end(), m_progress.companions.begin(), m_progress.companions.end());
  out.renderSets.insert(out.renderSets.end(), m_progress.renderSets.begin(), m_progress.renderSets.end());
  if (m_progress.outputBytes != 0)
    out.outputBytes = m_progress.outputBytes;

  // The buffers are described once saving has reached them: raw sizes from before encoding,
  // stored sizes from the buffers as written.
  if (!m_rawBufferSizes)
    return;
  const auto& [rawVertexSizes, rawIndexSizes] = *m_rawBufferSizes;
  const MergedGeometry::VertexBuffers& vertices = m_mergedGeometry.vertices();
  for (size_t i = 0; i < vertices.data.size(); ++i)
  {
    const uint16_t stride = vertices.records[i].second.strideInBytes;
    out.buffers.push_back({"vertices", vertices.data[i].formatName, stride, rawVertexSizes[i] / stride,
                           rawVertexSizes[i], vertices.data[i].data.size(), m_settings.encodeBuffers});
  }
  const MergedGeometry::IndexBuffers& indices = m_mergedGeometry.indices();
  for (size_t i = 0; i < indices.data.size(); ++i)
  {
    const uint32_t stride = indices.records[i].second.indexFormat == 0 ? 2 : 4;
    out.buffers.push_back({"indices", indices.data[i].formatName, stride, rawIndexSizes[i] / stride,
                           rawIndexSizes[i], indices.data[i].data.size(), m_settings.encodeBuffers});
  }
}
