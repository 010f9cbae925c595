#include "geometry_inspect/obj_export.hpp"

#include "cstdmf/path_utils.hpp"
#include "moo/vertex_format.hpp"
#include "preview/output_file.hpp"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace geometry_inspect
{
namespace
{

// The shortest text that reads back as the same float, so exported positions are exact.
void appendFloat(std::string& text, float value)
{
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  text.append(buffer, result.ptr);
}

void appendLine(std::string& text, const char* tag, std::initializer_list<float> values)
{
  text += tag;
  for (float value : values)
  {
    text += ' ';
    appendFloat(text, value);
  }
  text += '\n';
}

void appendCorner(std::string& text, size_t index, bool hasTexCoord, bool hasNormal)
{
  const std::string number = std::to_string(index);
  text += number;
  if (hasTexCoord || hasNormal)
    text += '/';
  if (hasTexCoord)
    text += number;
  if (hasNormal)
    text += '/' + number;
}

} // namespace

bool buildObjText(const GeometryInspection& inspection, std::string& text, ObjExportCounts& counts,
                  std::string& error)
{
  text.clear();
  counts = {};
  if (!inspection.isLoaded())
  {
    error = "the geometry file was not loaded";
    return false;
  }
  if (!inspection.canPairRenderSets())
  {
    error = fmt::format("{} vertex mappings but {} index mappings: render sets cannot be paired",
                        inspection.data().verticesMapping().size(), inspection.data().indicesMapping().size());
    return false;
  }

  const std::vector<RenderSet> sets = inspection.renderSets();
  text = fmt::format("# {} render sets of {}\n", sets.size(), inspection.path());
  size_t base = 1; // OBJ indices are 1-based and global to the file
  for (const RenderSet& set : sets)
  {
    if (!set.usable)
    {
      error = fmt::format("render set #{} cannot be exported: {}", set.index, set.problem);
      text.clear();
      counts = {};
      return false;
    }
    const Moo::VertexFormat& format = inspection.vertexBuffers()[set.vertices.mergedBufferIndex].format->m_gpuFormat;
    const std::span<const std::byte> vertices = inspection.vertexRange(set.vertices);
    const std::span<const uint32_t> indices = inspection.indexRange(set.indices);
    const auto positions = format.getAccessor<VertexSemantic::POSITION>(vertices);
    const auto normals = format.getAccessor<VertexSemantic::NORMAL>(vertices);
    const auto texCoords = format.getAccessor<VertexSemantic::TEXCOORD>(vertices);
    const bool hasNormal = static_cast<bool>(normals);
    const bool hasTexCoord = static_cast<bool>(texCoords);

    // The vertex section's name without its ".vertices" suffix when the source is known.
    std::string objectName = inspection.sectionName(set.vertices.mappingId);
    if (objectName.size() > 9 && objectName.ends_with(".vertices"))
      objectName.resize(objectName.size() - 9);
    for (char& c : objectName)
      if (static_cast<unsigned char>(c) <= ' ')
        c = '_';
    if (objectName.empty())
      objectName = fmt::format("renderset{}_{}", set.index, hexId(set.vertices.mappingId));
    text += "o " + objectName + "\n";
    for (size_t i = 0; positions && i < set.vertices.itemsCount; ++i)
    {
      const Moo::Vector3 p = positions.get(i);
      appendLine(text, "v", {p.x, p.y, p.z});
      if (hasTexCoord)
      {
        const Moo::Vector2 uv = texCoords.get(i);
        appendLine(text, "vt", {uv.x, uv.y});
      }
      if (hasNormal)
      {
        const Moo::Vector3 n = normals.get(i);
        appendLine(text, "vn", {n.x, n.y, n.z});
      }
    }
    for (size_t t = 0; t + 2 < indices.size(); t += 3)
    {
      text += 'f';
      for (size_t corner = 0; corner < 3; ++corner)
      {
        text += ' ';
        appendCorner(text, base + indices[t + corner], hasTexCoord, hasNormal);
      }
      text += '\n';
    }
    base += set.vertices.itemsCount;
    ++counts.objects;
    counts.vertices += set.vertices.itemsCount;
    counts.triangles += indices.size() / 3;
  }
  return true;
}

bool exportObj(const GeometryInspection& inspection, const std::string& outPath, ObjExportCounts& counts,
               std::string& error)
{
  std::string text;
  if (!buildObjText(inspection, text, counts, error))
    return false;

  // A failure names the path given and the system's reason, never the temporary file.
  std::string writeError;
  if (!preview::writeWholeFile(outPath, text, writeError))
  {
    const std::string prefix = "cannot write '" + outPath + "': ";
    error = writeError.starts_with(prefix) ? writeError.substr(prefix.size()) : writeError;
    return false;
  }
  return true;
}

} // namespace geometry_inspect
