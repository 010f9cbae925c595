#include "gpu_mesh_from_compiler.hpp"

#include "geometry_compiler/geometry_compiler.hpp"
#include "moo/index_format.hpp"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

namespace vertexmill_bench
{

namespace
{

constexpr std::string_view kIndicesKind = "indices";
constexpr std::string_view kVerticesKind = "vertices";

template <typename Entry>
const Entry* findNamed(const std::vector<Entry>& entries, std::string_view name, size_t* position = nullptr)
{
  for (size_t i = 0; i < entries.size(); ++i)
    if (entries[i].sectionName == name)
    {
      if (position)
        *position = i;
      return &entries[i];
    }
  return nullptr;
}

const GeometryCompilerDetail::DataEntry* findFormat(const std::vector<GeometryCompilerDetail::DataEntry>& entries,
                                                     std::string_view formatName, size_t& position)
{
  for (size_t i = 0; i < entries.size(); ++i)
    if (entries[i].formatName == formatName)
    {
      position = i;
      return &entries[i];
    }
  return nullptr;
}

} // namespace

bool loadGpuMesh(const std::string& primitivesPath, GpuMesh& mesh, std::string& error)
{
  mesh = GpuMesh{};
  GeometryCompiler compiler;
  GeometryCompiler::Request request;
  request.primitivesPath = primitivesPath;
  if (!compiler.loadPrimitives(request))
  {
    error = "the compiler cannot load '" + primitivesPath + "'";
    return false;
  }

  std::vector<uint32_t> strides(compiler.vertexData().size(), 0);
  for (const GeometryCompilerDetail::MappingEntry& mapping : compiler.vertexMappings())
  {
    size_t buffer = 0;
    if (findFormat(compiler.vertexData(), mapping.formatName, buffer))
      strides[buffer] = mapping.strideInBytes;
  }
  for (size_t i = 0; i < compiler.vertexData().size(); ++i)
  {
    const cstdmf::ByteVector& bytes = compiler.vertexData()[i].data;
    mesh.vertexBuffers.push_back(
      {strides[i], std::vector<std::byte>(bytes.begin(), bytes.end()), compiler.vertexData()[i].formatName});
  }

  for (const GeometryCompilerDetail::DataEntry& entry : compiler.indexData())
  {
    const std::optional<IndexFormat> format = Moo::getIndexFormatFromName(entry.formatName);
    if (!format)
    {
      error = "unknown index format '" + entry.formatName + "'";
      return false;
    }
    GpuMesh::IndexBuffer buffer;
    buffer.storedIndexSize = *format == IndexFormat::LIST ? 2 : 4;
    buffer.indices.resize(entry.data.size() / buffer.storedIndexSize);
    for (size_t i = 0; i < buffer.indices.size(); ++i)
    {
      if (buffer.storedIndexSize == 2)
      {
        uint16_t value;
        std::memcpy(&value, entry.data.data() + i * 2, 2);
        buffer.indices[i] = value;
      }
      else
        std::memcpy(&buffer.indices[i], entry.data.data() + i * 4, 4);
    }
    mesh.indexBuffers.push_back(std::move(buffer));
  }

  // The compiler's pairing: "X.indices" is drawn from "X.vertices".
  for (const GeometryCompilerDetail::MappingEntry& indexMapping : compiler.indexMappings())
  {
    const std::string_view indexName = indexMapping.sectionName;
    const std::string_view prefix = indexName.substr(0, indexName.size() >= kIndicesKind.size()
                                                          ? indexName.size() - kIndicesKind.size()
                                                          : 0);
    const GeometryCompilerDetail::MappingEntry* vertexMapping =
      findNamed(compiler.vertexMappings(), std::string(prefix) + std::string(kVerticesKind));
    size_t vertexBuffer = 0, indexBuffer = 0;
    if (!vertexMapping || vertexMapping->strideInBytes == 0 ||
        !findFormat(compiler.vertexData(), vertexMapping->formatName, vertexBuffer) ||
        !findFormat(compiler.indexData(), indexMapping.formatName, indexBuffer))
      continue;
    const uint32_t stride = vertexMapping->strideInBytes;
    const uint32_t indexSize = mesh.indexBuffers[indexBuffer].storedIndexSize;
    GpuMesh::RenderSet set;
    set.vertexBuffer = uint32_t(vertexBuffer);
    set.firstVertex = vertexMapping->info.offsetInBytes / stride;
    set.vertexCount = vertexMapping->info.sizeInBytes / stride;
    set.indexBuffer = uint32_t(indexBuffer);
    set.firstIndex = indexMapping.info.offsetInBytes / indexSize;
    set.indexCount = indexMapping.info.sizeInBytes / indexSize;
    if (set.vertexCount == 0 || set.indexCount == 0)
      continue;
    mesh.sets.push_back(set);
  }

  if (!mesh.isValid())
  {
    error = "the merged state of '" + primitivesPath + "' is not a valid mesh";
    return false;
  }
  return true;
}

} // namespace vertexmill_bench
