#include "geometry_inspect/preview_meshes.hpp"

#include "geometry_inspect/inspect_issues.hpp"
#include "preview/png_image.hpp"
#include "moo/index_format.hpp"
#include "moo/vertex_section.hpp"

#include <cstring>

namespace geometry_inspect
{
namespace
{

void appendVector(std::vector<float>& out, const Moo::Vector3& v)
{
  out.push_back(v.x);
  out.push_back(v.y);
  out.push_back(v.z);
}

// Positions, normals and UVs of `vertices` in `format`; false when the format has no position.
bool readVertices(const Moo::VertexFormat& format, std::span<const std::byte> vertices, preview::Mesh& mesh)
{
  const auto positions = format.getAccessor<VertexSemantic::POSITION>(vertices);
  if (!positions)
    return false;
  const auto normals = format.getAccessor<VertexSemantic::NORMAL>(vertices);
  const size_t count = positions.vertexCount();
  mesh.positions.reserve(count * 3);
  for (size_t i = 0; i < count; ++i)
    appendVector(mesh.positions, positions.get(i));
  if (normals && normals.vertexCount() == count)
  {
    mesh.normals.reserve(count * 3);
    for (size_t i = 0; i < count; ++i)
      appendVector(mesh.normals, normals.get(i));
  }
  const auto uvs = format.getAccessor<VertexSemantic::TEXCOORD>(vertices);
  if (uvs && uvs.vertexCount() == count)
  {
    mesh.uvs.reserve(count * 2);
    for (size_t i = 0; i < count; ++i)
    {
      const auto uv = uvs.get(i);
      mesh.uvs.push_back(uv.x);
      mesh.uvs.push_back(uv.y);
    }
  }
  return true;
}

const SectionInfo* findSection(const PrimitivesListing& source, uint32_t id, SectionInfo::Kind kind)
{
  for (const SectionInfo& section : source.sections())
    if (section.kind == kind && section.headerRead && section.id == id)
      return &section;
  return nullptr;
}

bool readSourceIndices(const SectionInfo& section, std::vector<uint32_t>& indices)
{
  Moo::IndexSectionHeader header;
  if (!Moo::readIndexSectionHeader(section.bytes, section.name, header))
    return false;
  const size_t width = header.format == IndexFormat::LIST32 ? 4 : 2;
  indices.resize(header.indexCount);
  for (size_t i = 0; i < indices.size(); ++i)
  {
    // Little-endian on disk, as everywhere in these files.
    if (width == 4)
    {
      uint32_t value = 0;
      std::memcpy(&value, header.indices.data() + i * 4, 4);
      indices[i] = value;
    }
    else
    {
      uint16_t value = 0;
      std::memcpy(&value, header.indices.data() + i * 2, 2);
      indices[i] = value;
    }
  }
  return true;
}

bool readSourceVertices(const SectionInfo& section, preview::Mesh& mesh)
{
  Moo::VertexSectionHeader header;
  if (!Moo::readVertexSectionHeader(section.bytes, section.name, header))
    return false;
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(header.formatName);
  if (format == nullptr || header.vertexCount == 0)
    return false;
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format->m_format, 0);
  if (!Moo::checkVertexPayload(header, stride, section.name))
    return false;
  return readVertices(format->m_format, header.payload, mesh);
}

} // namespace

std::vector<preview::Mesh> geometryMeshes(const GeometryInspection& inspection)
{
  std::vector<preview::Mesh> meshes;
  for (const RenderSet& set : inspection.renderSets())
  {
    if (!set.usable)
      continue;
    preview::Mesh mesh;
    mesh.renderSet = static_cast<uint32_t>(set.index);
    const Moo::VertexFormat& format = inspection.vertexBuffers()[set.vertices.mergedBufferIndex].format->m_gpuFormat;
    if (!readVertices(format, inspection.vertexRange(set.vertices), mesh))
      continue;
    const std::span<const uint32_t> indices = inspection.indexRange(set.indices);
    mesh.indices.assign(indices.begin(), indices.end());
    meshes.push_back(std::move(mesh));
  }
  return meshes;
}

std::vector<preview::Mesh> sourceMeshes(const GeometryInspection& inspection, const PrimitivesListing& source)
{
  std::vector<preview::Mesh> meshes;
  for (const RenderSet& set : inspection.renderSets())
  {
    if (!set.usable)
      continue;
    const SectionInfo* vertices = findSection(source, set.vertices.mappingId, SectionInfo::Kind::Vertices);
    const SectionInfo* indices = findSection(source, set.indices.mappingId, SectionInfo::Kind::Indices);
    if (vertices == nullptr || indices == nullptr)
      continue;
    preview::Mesh mesh;
    mesh.renderSet = static_cast<uint32_t>(set.index);
    if (!readSourceVertices(*vertices, mesh) || !readSourceIndices(*indices, mesh.indices))
      continue;
    meshes.push_back(std::move(mesh));
  }
  return meshes;
}

namespace
{
// renderPreview with the file's meshes already read.
preview::Image renderRead(const GeometryInspection& inspection, const std::vector<preview::Mesh>& after,
                          const preview::Bounds& bounds, const PreviewRequest& request)
{
  preview::Image image = preview::render(after, bounds, request.mode, request.size, request.quality);
  if (request.source == nullptr)
    return image;
  const std::vector<preview::Mesh> before = sourceMeshes(inspection, *request.source);
  const preview::Image panels[2] = {preview::render(before, bounds, request.mode, request.size, request.quality), std::move(image)};
  return preview::sideBySide(panels);
}
} // namespace

preview::Image renderPreview(const GeometryInspection& inspection, const PreviewRequest& request)
{
  const std::vector<preview::Mesh> after = geometryMeshes(inspection);
  preview::Bounds bounds;
  bounds.add(after);
  return renderRead(inspection, after, bounds, request);
}

report_page::ModelPreviews previewPngsOfFile(const std::string& path, uint32_t size, bool allModes,
                                             const std::string& sourcePath)
{
  report_page::ModelPreviews previews;
  GeometryInspection inspection;
  if (!inspection.load(path))
    return previews;
  // The meshes are read once for every mode.
  const std::vector<preview::Mesh> meshes = geometryMeshes(inspection);
  preview::Bounds bounds;
  bounds.add(meshes);
  const auto encoded = [](const preview::Image& image) {
    std::vector<uint8_t> bytes;
    std::string error;
    if (!preview::encodePng(image, bytes, error))
      bytes.clear();
    return bytes;
  };
  const auto png = [&](preview::Mode mode) {
    return encoded(preview::render(meshes, bounds, mode, size, preview::Quality::Compact));
  };
  previews.renderSets = png(preview::Mode::RenderSets);
  if (allModes)
  {
    previews.wireframe = png(preview::Mode::Wireframe);
    previews.uvDensity = png(preview::Mode::UvDensity);
    BinaryPtr block;
    std::string error;
    PrimitivesListing source;
    if (!sourcePath.empty() && readWholeFile(sourcePath, block, error) && source.load(block, sourcePath))
      previews.vertexCache = encoded(renderRead(
        inspection, meshes, bounds,
        {.mode = preview::Mode::VertexCache, .size = size, .quality = preview::Quality::Compact, .source = &source}));
  }
  return previews;
}

} // namespace geometry_inspect
