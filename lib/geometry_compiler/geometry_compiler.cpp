#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/range_check.hpp"
#include "cstdmf/span_reader.hpp"
#include "cstdmf/string_id.hpp"
#include "geometry_compiler/texel_density.hpp"
#include "geometry_compiler/verifier.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "moo/index_format.hpp"
#include "moo/moo_prototypes.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"
#include "moo/vertex_section.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>
#include <vector>

using namespace GeometryCompilerDetail;

namespace
{
constexpr const char* kCategory = "Other";
constexpr auto kTrace = DebugMessagePriority::Trace;
constexpr auto kWarning = DebugMessagePriority::Warning;
constexpr auto kError = DebugMessagePriority::Error;

constexpr std::string_view kVerticesKind = "vertices";
constexpr std::string_view kIndicesKind = "indices";

// The kind of a section: the text after the last '.', when the last of '\', '/' and '.' in the
// name is a '.' with something after it; otherwise the whole name.
std::string_view sectionKind(std::string_view name)
{
  const size_t last = name.find_last_of("\\/.");
  if (last != std::string_view::npos && name[last] == '.' && last + 1 < name.size())
    return name.substr(last + 1);
  return name;
}

std::span<const std::byte> bytesOf(const BinaryPtr& block)
{
  if (!block)
    return {};
  return {reinterpret_cast<const std::byte*>(block->data()), block->len()};
}

template <typename Entry>
Entry* findByName(std::vector<Entry>& entries, const std::string& name)
{
  auto it = std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.sectionName == name; });
  return it == entries.end() ? nullptr : &*it;
}

DataEntry* findData(std::vector<DataEntry>& entries, const std::string& formatName)
{
  auto it = std::find_if(entries.begin(), entries.end(), [&](const DataEntry& e) { return e.formatName == formatName; });
  return it == entries.end() ? nullptr : &*it;
}

uint32_t readIndex(const std::byte* indices, size_t i, uint32_t indexSize)
{
  if (indexSize == 2)
  {
    uint16_t value;
    std::memcpy(&value, indices + i * 2, 2);
    return value;
  }
  uint32_t value;
  std::memcpy(&value, indices + i * 4, 4);
  return value;
}
} // namespace

// Everything the prototype points to while it is being filled and packed.
struct GeometryCompiler::SaveState
{
  Moo::MergedGeometryPrototype prototype{};
  std::vector<Moo::MergedVerticesPrototype> mergedVertices;
  std::vector<Moo::MergedIndicesPrototype> mergedIndices;
  std::vector<Moo::MappingPrototype> verticesMapping;
  std::vector<Moo::MappingPrototype> indicesMapping;
  std::vector<Moo::CollisionModelDataPrototype> collisionModels;
  std::vector<Moo::ArmorDataPrototype> armorModels;
  // Sizes of the merged buffers before encoding, and which encodings failed.
  std::vector<uint64_t> rawVertexSizes, rawIndexSizes;
  std::vector<uint8_t> vertexEncodingFailed, indexEncodingFailed;
};

GeometryCompiler::GeometryCompiler() = default;

GeometryCompiler::~GeometryCompiler()
{
  clearStringPool();
}

bool GeometryCompiler::compile(const Request& request, const std::string& outputPath, bool encode, bool optimize,
                               bool verify)
{
  ZR_GUARD("GeometryCompiler::compile");
  clear();
  m_settings = Settings{encode, optimize, verify};

  if (request.primitivesPath.empty())
    return false;

  if (!loadPrimitives(request))
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::compile loading '%s' failed.\n", request.primitivesPath.c_str());
    return false;
  }

  struct Companion
  {
    const std::string& path;
    const char* kind;
    const char* traceFormat;
  };
  const Companion companions[] = {
    {request.collisionPath, "collision", "GeometryCompiler::loading collision model from file: %s for model: %s\n"},
    {request.armorPath, "armor", "GeometryCompiler::loading armor model from file: %s for model: %s\n"},
    {request.armorVisualPath, "armorvisual",
     "GeometryCompiler::loading visual armor model from file: %s for model: %s\n"},
  };
  for (const Companion& companion : companions)
  {
    if (companion.path.empty())
      continue;
    ZR_MSG(kTrace, kCategory, companion.traceFormat, companion.path.c_str(), request.modelName.c_str());
    if (!loadCompanionModel(companion.path, request.modelName, companion.kind))
      ZR_MSG(kError, kCategory, "GeometryCompiler::compile loading '%s' failed.\n", companion.path.c_str());
  }

  return save(outputPath);
}

void GeometryCompiler::clear()
{
  m_resourceName.clear();
  m_vertexData.clear();
  m_indexData.clear();
  m_verticesDataIndex.clear();
  m_indicesDataIndex.clear();
  m_vertexMappings.clear();
  m_indexMappings.clear();
  m_collisionData.clear();
  m_armorData.clear();
  clearStringPool();
}

bool GeometryCompiler::loadPrimitives(const Request& request)
{
  ZR_GUARD("GeometryCompiler::loadPrimitives");
  BinFile binFile;
  if (!readFile(request.primitivesPath, binFile))
    return false;
  if (!packLOD(binFile))
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::load packLOD failed for '%s'.\n", request.primitivesPath.c_str());
    return false;
  }
  binFile.children.clear();
  return true;
}

bool GeometryCompiler::readFile(const std::string& path, BinFile& binFile)
{
  binFile.children.clear();
  binFile.resourceName = path;
  m_resourceName = path;

  std::FILE* file = platform::openFile(path, "rb");
  if (!file)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::load file '%s' failed to open.\n", path.c_str());
    return false;
  }

  std::error_code error;
  const uintmax_t fileSize = std::filesystem::file_size(cstdmf::u8path(path), error);
  if (error || fileSize == 0)
  {
    std::fclose(file);
    ZR_MSG(kError, kCategory, "GeometryCompiler::load file size is 0 for resource '%s'.\n", path.c_str());
    return false;
  }
  if (fileSize > std::numeric_limits<size_t>::max())
  {
    std::fclose(file);
    ZR_MSG(kError, kCategory, "GeometryCompiler::load file '%s' is too large to read.\n", path.c_str());
    return false;
  }

  BinaryPtr block(new BinaryBlock(nullptr, static_cast<size_t>(fileSize), "Geometry"));
  if (block->len() != fileSize)
  {
    std::fclose(file);
    ZR_MSG(kError, kCategory, "GeometryCompiler::load file '%s' failed to open.\n", path.c_str());
    return false;
  }
  const size_t readCount = std::fread(block->cdata(), 1, block->len(), file);
  std::fclose(file);
  if (readCount != block->len())
  {
    ZR_MSG(kError, kCategory,
           "GeometryCompiler::load file read '%d' bytes which is different with filesize '%d' for resource '%s'.\n",
           static_cast<int>(readCount), static_cast<int>(fileSize), path.c_str());
    return false;
  }

  const bool parsed = parseBinSectionEntries(
    block, [&](const char* name, int nameLength, const char* data, int dataLength) {
      BinaryPtr child(new BinaryBlock(data, static_cast<size_t>(dataLength), "BinaryBlock/BinSection", block));
      binFile.children.emplace_back(std::string(name, static_cast<size_t>(nameLength)), std::move(child));
    });
  if (!parsed)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::load parseBinSectionEntries for resource '%s' failed.\n", path.c_str());
    return false;
  }
  if (binFile.children.empty())
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::load binFile.children is empty for '%s'!.\n", path.c_str());
    return false;
  }
  return true;
}

bool GeometryCompiler::packLOD(const BinFile& binFile)
{
  m_resourceName = binFile.resourceName;
  for (const auto& [name, block] : binFile.children)
  {
    if (name.empty())
    {
      ZR_MSG(kWarning, kCategory,
             "GeometryCompiler::packLOD found a section with the empty name for file '%s'! Ignoring it.\n",
             binFile.resourceName.c_str());
      continue;
    }

    const std::string_view kind = sectionKind(name);
    if (kind == kVerticesKind)
    {
      if (!packVertices(name, block))
      {
        ZR_MSG(kError, kCategory, "GeometryCompiler::packLOD packVertices for section '%s' failed.\n", name.c_str());
        return false;
      }
      const std::string partner = name.substr(0, name.size() - kVerticesKind.size()) + std::string(kIndicesKind);
      if (!updateCorrespondingBuffers(name, partner))
        return false;
    }
    else if (kind == kIndicesKind)
    {
      if (!packIndices(name, block))
      {
        ZR_MSG(kError, kCategory, "GeometryCompiler::packLOD packIndices for section '%s' failed.\n", name.c_str());
        return false;
      }
      const std::string partner = name.substr(0, name.size() - kIndicesKind.size()) + std::string(kVerticesKind);
      if (!updateCorrespondingBuffers(partner, name))
        return false;
    }
    else if (kind == "cmodl" || kind == "armor" || kind == "stub")
    {
      // Known sections that the geometry file does not take from here.
    }
    else
    {
      ZR_MSG(kWarning, kCategory,
             "GeometryCompiler::packLOD found a section with an unexpected name '%s' for file '%s'! Consider removing "
             "it because it wastes space. Ignoring it.\n",
             name.c_str(), binFile.resourceName.c_str());
    }
  }
  return true;
}

bool GeometryCompiler::packVertices(const std::string& sectionName, const BinaryPtr& section)
{
  Moo::VertexSectionHeader header;
  if (!Moo::readVertexSectionHeader(bytesOf(section), sectionName, header))
    return false;
  if (header.processed)
    ZR_MSG(kWarning, kCategory, "GeometryCompiler::getVertexHeader got already processed vertices which is suspicious. \n");

  const Moo::PrimitiveVertexFormat* primFormat = Moo::PrimitiveVertexFormat::findByFormatName(header.formatName);
  if (!primFormat)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::packVertices unknown source format '%s' for section '%s'\n",
           header.formatName.c_str(), sectionName.c_str());
    return false;
  }
  ZR_ASSERT(primFormat->m_format.streams.size() == 1 && primFormat->m_gpuFormat.streams.size() == 1 &&
            "we support only single stream vertices");

  const uint32_t sourceStride = ari::VertexDeclaration::computeStreamDataSize(primFormat->m_format, 0);
  const uint32_t gpuStride = ari::VertexDeclaration::computeStreamDataSize(primFormat->m_gpuFormat, 0);
  if (!Moo::checkVertexPayload(header, sourceStride, sectionName))
    return false;

  if (m_statistics)
    m_statistics->sections.push_back({sectionName, "vertices", header.formatName, header.vertexCount});

  size_t convertedSize = 0;
  if (!cstdmf::checkedMultiply(header.vertexCount, gpuStride, convertedSize) ||
      convertedSize > std::numeric_limits<uint32_t>::max())
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::packVertices section '%s' of '%s' holds too many vertices (%u).\n",
           sectionName.c_str(), m_resourceName.c_str(), header.vertexCount);
    return false;
  }

  size_t badVertex = 0;
  if (m_refuseUnpackableNormals && Moo::findUnpackableUnitVector(primFormat->m_gpuFormat, header.payload.data(),
                                                                 primFormat->m_format, header.vertexCount, badVertex))
  {
    ZR_MSG(kError, kCategory,
           "GeometryCompiler::packVertices section '%s' of '%s': vertex %zu has a normal that is neither unit length "
           "nor zero.\n",
           sectionName.c_str(), m_resourceName.c_str(), badVertex);
    return false;
  }

  std::vector<std::byte> converted(convertedSize);
  if (header.vertexCount > 0 &&
      !Moo::convertVertices(converted.data(), primFormat->m_gpuFormat, header.payload.data(), primFormat->m_format,
                            header.vertexCount))
  {
    ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::packVertices convertVertices for formats '{}'->'{}' failed.\n",
               primFormat->formatName, primFormat->gpuFormatName);
    return false;
  }

  if (m_settings.verifyVertices && header.vertexCount > 0)
    verifyVertices(sectionName, converted.data(), converted.size(), primFormat->m_gpuFormat);

  return addVertices(sectionName, converted, primFormat->gpuFormatName, static_cast<uint16_t>(gpuStride),
                     primFormat->m_gpuFormat.isSkinned(), primFormat->m_gpuFormat.isBumped());
}

bool GeometryCompiler::packIndices(const std::string& sectionName, const BinaryPtr& section)
{
  Moo::IndexSectionHeader header;
  if (!Moo::readIndexSectionHeader(bytesOf(section), sectionName, header))
    return false;
  if (m_statistics)
    m_statistics->sections.push_back({sectionName, "indices", header.formatName, header.indexCount});
  return addIndices(sectionName, header.indices, std::string(Moo::getIndexFormatName(header.format)),
                    static_cast<uint32_t>(header.format));
}

bool GeometryCompiler::addToContainer(std::vector<DataEntry>& container, const std::string& formatName,
                                      std::span<const std::byte> data, MappingInfo& info)
{
  DataEntry* entry = findData(container, formatName);
  if (!entry)
  {
    container.push_back(DataEntry{formatName, {}});
    entry = &container.back();
  }
  const size_t offset = entry->data.size();
  const uint64_t newSize = static_cast<uint64_t>(offset) + data.size();
  info.offsetInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(offset));
  info.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(data.size()));
  ZR::range_check_cast<uint32_t>(newSize);
  entry->data.resize(static_cast<size_t>(newSize));
  if (!data.empty())
    std::memcpy(entry->data.data() + offset, data.data(), data.size());
  return true;
}

bool GeometryCompiler::addVertices(const std::string& sectionName, std::span<const std::byte> data,
                                   const std::string& formatName, uint16_t strideInBytes, bool isSkinned,
                                   bool isBumped)
{
  if (findByName(m_vertexMappings, sectionName))
  {
    ZR_MSG(kWarning, kCategory, "MergedGeometry::addVertices section '%s' already exists in the .primitives file. Ignoring.\n",
           sectionName.c_str());
    return true;
  }
  const DataEntry* existing = findData(m_vertexData, formatName);
  if (static_cast<uint64_t>(existing ? existing->data.size() : 0) + data.size() > std::numeric_limits<uint32_t>::max())
  {
    ZR_MSG(kError, kCategory, "MergedGeometry::addVertices merged buffer '%s' would pass 4 GiB with section '%s'.\n",
           formatName.c_str(), sectionName.c_str());
    return false;
  }
  MappingEntry mapping{sectionName, formatName, {}, strideInBytes, 0.0f};
  addToContainer(m_vertexData, formatName, data, mapping.info);
  if (!findVertexBufferInfo(formatName))
    m_verticesDataIndex.emplace_back(formatName, VertexBufferInfo{strideInBytes, isSkinned, isBumped});
  m_vertexMappings.push_back(std::move(mapping));
  return true;
}

bool GeometryCompiler::addIndices(const std::string& sectionName, std::span<const std::byte> data,
                                  const std::string& formatName, uint32_t indexFormat)
{
  if (findByName(m_indexMappings, sectionName))
  {
    ZR_MSG(kWarning, kCategory, "MergedGeometry::addIndices section '%s' already exists in the .primitives file. Ignoring.\n",
           sectionName.c_str());
    return true;
  }
  const DataEntry* existing = findData(m_indexData, formatName);
  if (static_cast<uint64_t>(existing ? existing->data.size() : 0) + data.size() > std::numeric_limits<uint32_t>::max())
  {
    ZR_MSG(kError, kCategory, "MergedGeometry::addIndices merged buffer '%s' would pass 4 GiB with section '%s'.\n",
           formatName.c_str(), sectionName.c_str());
    return false;
  }
  MappingEntry mapping{sectionName, formatName, {}, 0, 0.0f};
  addToContainer(m_indexData, formatName, data, mapping.info);
  if (!findIndexBufferInfo(formatName))
    m_indicesDataIndex.emplace_back(formatName, IndexBufferInfo{indexFormat, 0});
  m_indexMappings.push_back(std::move(mapping));
  return true;
}

bool GeometryCompiler::updateCorrespondingBuffers(const std::string& verticesName, const std::string& indicesName)
{
  MappingEntry* vertices = findByName(m_vertexMappings, verticesName);
  MappingEntry* indices = findByName(m_indexMappings, indicesName);
  if (!vertices || !indices)
    return true;
  // Nothing may read a vertex through an index before the indices are known to be in range.
  if (!checkIndexRange(*vertices, *indices))
    return false;
  updateTexelDensity(*vertices, *indices);
  return true;
}

bool GeometryCompiler::checkIndexRange(const MappingEntry& vertices, const MappingEntry& indices)
{
  const IndexBufferInfo* indexInfo = findIndexBufferInfo(indices.formatName);
  const DataEntry* indexData = findData(m_indexData, indices.formatName);
  ZR_ASSERT(indexInfo && indexData && vertices.strideInBytes != 0);
  const uint32_t vertexCount = vertices.info.sizeInBytes / vertices.strideInBytes;
  const uint32_t indexSize = ari::getIndexSize(static_cast<IndexFormat>(indexInfo->indexFormat));
  const std::byte* first = indexData->data.data() + indices.info.offsetInBytes;
  const size_t indexCount = indices.info.sizeInBytes / indexSize;
  for (size_t i = 0; i < indexCount; ++i)
  {
    const uint32_t index = readIndex(first, i, indexSize);
    if (index >= vertexCount)
    {
      ZR_MSG(kError, kCategory,
             "GeometryCompiler::updateCorrespondingBuffers index %u (position %zu) of section '%s' is not below the "
             "vertex count %u of section '%s' in '%s'.\n",
             index, i, indices.sectionName.c_str(), vertexCount, vertices.sectionName.c_str(), m_resourceName.c_str());
      return false;
    }
  }
  return true;
}

void GeometryCompiler::updateTexelDensity(MappingEntry& vertices, MappingEntry& indices)
{
  const Moo::PrimitiveVertexFormat* primFormat = Moo::PrimitiveVertexFormat::findByGPUFormatName(vertices.formatName);
  const IndexBufferInfo* indexInfo = findIndexBufferInfo(indices.formatName);
  const DataEntry* vertexData = findData(m_vertexData, vertices.formatName);
  const DataEntry* indexData = findData(m_indexData, indices.formatName);
  if (!primFormat || !indexInfo || !vertexData || !indexData)
    return;
  const auto format = static_cast<IndexFormat>(indexInfo->indexFormat);
  const float density = Moo::Utils::calculateTexelDensity(
    primFormat->m_gpuFormat,
    std::span<const std::byte>(vertexData->data.data() + vertices.info.offsetInBytes, vertices.info.sizeInBytes),
    std::span<const std::byte>(indexData->data.data() + indices.info.offsetInBytes, indices.info.sizeInBytes), format);
  vertices.texelDensity = density;
  indices.texelDensity = density;
}

bool GeometryCompiler::loadCompanionModel(const std::string& path, const std::string& modelName, const char* kind)
{
  (void)modelName;
  std::FILE* file = platform::openFile(path, "rb");
  if (!file)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::loadCompanionModel cannot open '%s'.\n", path.c_str());
    return false;
  }
  std::error_code error;
  const uintmax_t fileSize = std::filesystem::file_size(cstdmf::u8path(path), error);
  if (error || fileSize == 0 || fileSize > std::numeric_limits<uint32_t>::max())
  {
    std::fclose(file);
    ZR_MSG(kError, kCategory, "GeometryCompiler::loadCompanionModel '%s' is empty or too large.\n", path.c_str());
    return false;
  }
  BinaryPtr block(new BinaryBlock(nullptr, static_cast<size_t>(fileSize), "Geometry"));
  const size_t readCount = block->len() == fileSize ? std::fread(block->cdata(), 1, block->len(), file) : 0;
  std::fclose(file);
  if (readCount != fileSize)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::loadCompanionModel read %zu of %zu bytes of '%s'.\n", readCount,
           static_cast<size_t>(fileSize), path.c_str());
    return false;
  }

  const std::string sectionName = cstdmf::toUtf8(cstdmf::u8path(path).filename());
  if (m_statistics)
    m_statistics->companions.push_back({sectionName, kind, static_cast<uint64_t>(fileSize)});
  DataSectionPtr section(new BinSection(sectionName, block));
  const std::string_view kindText = kind;
  if (kindText == "armor")
  {
    m_armorData.push_back(section);
    ZR_MSG(kTrace, kCategory, "GeometryCompiler::loaded %s model: %s\n", "armor", path.c_str());
  }
  else if (kindText == "armorvisual")
  {
    // The visual armor model travels as a collision record named after its file.
    m_collisionData.push_back(section);
    ZR_MSG(kTrace, kCategory, "GeometryCompiler::loaded visual armor model: %s\n", path.c_str());
  }
  else
  {
    m_collisionData.push_back(section);
    ZR_MSG(kTrace, kCategory, "GeometryCompiler::loaded %s model: %s\n", "collision", path.c_str());
  }
  return true;
}

const VertexBufferInfo* GeometryCompiler::findVertexBufferInfo(const std::string& formatName, size_t* index) const
{
  for (size_t i = 0; i < m_verticesDataIndex.size(); ++i)
    if (m_verticesDataIndex[i].first == formatName)
    {
      if (index)
        *index = i;
      return &m_verticesDataIndex[i].second;
    }
  if (index)
    *index = static_cast<size_t>(-1);
  return nullptr;
}

const IndexBufferInfo* GeometryCompiler::findIndexBufferInfo(const std::string& formatName, size_t* index) const
{
  for (size_t i = 0; i < m_indicesDataIndex.size(); ++i)
    if (m_indicesDataIndex[i].first == formatName)
    {
      if (index)
        *index = i;
      return &m_indicesDataIndex[i].second;
    }
  if (index)
    *index = static_cast<size_t>(-1);
  return nullptr;
}

void GeometryCompiler::verifyVertices(const std::string& sectionName, const void* vertices, size_t size,
                                      const Moo::VertexFormat& format)
{
  Verifier verifier;
  verifier.verify(vertices, size, format);
  if (m_statistics)
    m_statistics->verifier.push_back({sectionName, verifier.invalidPositions(), verifier.invalidNormals(),
                                      verifier.invalidTangents(), verifier.invalidBinormals(), verifier.invalidUVs()});
  const char* name = sectionName.c_str();
  if (verifier.invalidPositions() != 0)
    ZR_MSG(kWarning, kCategory, "[Verifier] Found %d vertices with invalid positions in \"%s\".\n",
           verifier.invalidPositions(), name);
  if (verifier.invalidNormals() != 0)
    ZR_MSG(kWarning, kCategory, "[Verifier] Found %d vertices with invalid normals in \"%s\".\n",
           verifier.invalidNormals(), name);
  if (verifier.invalidTangents() != 0)
    ZR_MSG(kWarning, kCategory, "[Verifier] Found %d vertices with invalid tangents in \"%s\".\n",
           verifier.invalidTangents(), name);
  if (verifier.invalidBinormals() != 0)
    ZR_MSG(kWarning, kCategory, "[Verifier] Found %d vertices with invalid binormals in \"%s\".\n",
           verifier.invalidBinormals(), name);
  if (verifier.invalidUVs() != 0)
    ZR_MSG(kWarning, kCategory, "[Verifier] Found %d vertices with invalid UVs in \"%s\".\n", verifier.invalidUVs(),
           name);
}

// ---------------------------------------------------------------------------------------------
// Saving

bool GeometryCompiler::save(const std::string& resourcePath)
{
  ZR_GUARD("GeometryCompiler::save");
  if (m_settings.optimizeMeshes)
    optimizeMesh();
  else if (m_statistics)
    recordRenderSets(gatherMeshTasks(false), false, nullptr);

  SaveState state;
  if (!saveArmor(state, resourcePath))
    return false;
  encodeBuffers(state);
  saveCollisionModels(state);
  saveVerticesData(state);
  saveVerticesMapping(state);
  saveIndicesData(state);
  saveIndicesMapping(state);

  BinaryPtr block = packData(state.prototype);
  if (block && m_statistics)
    m_statistics->outputBytes = block->len();
  return block && writeToFile(resourcePath, block);
}

std::vector<GeometryCompiler::MeshTask> GeometryCompiler::gatherMeshTasks(bool optimizing)
{
  std::vector<MeshTask> tasks;
  for (const MappingEntry& indexMapping : m_indexMappings)
  {
    const std::string& indexName = indexMapping.sectionName;
    const std::string prefix = indexName.substr(0, indexName.size() >= 7 ? indexName.size() - 7 : 0);
    const std::string vertexName = prefix + std::string(kVerticesKind);

    MappingEntry* vertexMapping = findByName(m_vertexMappings, vertexName);
    DataEntry* vertexData = vertexMapping ? findData(m_vertexData, vertexMapping->formatName) : nullptr;
    if (!vertexData)
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::save cannot find vertex entry data for optimization '{}'\n",
                   vertexName);
      continue;
    }
    DataEntry* indexData = findData(m_indexData, indexMapping.formatName);
    if (!indexData)
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::save cannot find index entry data for optimization '{}'\n",
                   indexName);
      continue;
    }

    const uint16_t stride = vertexMapping->strideInBytes;
    const uint32_t vertexCount = stride ? vertexMapping->info.sizeInBytes / stride : 0;
    if (optimizing)
      if (IndexBufferInfo* info = const_cast<IndexBufferInfo*>(findIndexBufferInfo(indexMapping.formatName)))
        info->maxVertexCount = std::max(info->maxVertexCount, vertexCount);

    const std::optional<IndexFormat> format = Moo::getIndexFormatFromName(indexMapping.formatName);
    if (!format)
    {
      if (optimizing)
        ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::Index entry has invalid format '{}'\n", indexMapping.formatName);
      continue;
    }
    if (vertexCount == 0 || indexMapping.info.sizeInBytes == 0)
      continue;
    std::string name = prefix;
    if (!name.empty() && name.back() == '.')
      name.pop_back();
    tasks.push_back(MeshTask{
      std::move(name),
      std::span<std::byte>(vertexData->data.data() + vertexMapping->info.offsetInBytes, vertexMapping->info.sizeInBytes),
      stride,
      std::span<std::byte>(indexData->data.data() + indexMapping.info.offsetInBytes, indexMapping.info.sizeInBytes),
      *format, vertexMapping->texelDensity});
  }
  return tasks;
}

namespace
{
MeshDataOptimizer::MeshStatistics analyzeTask(std::span<const std::byte> vertices, size_t stride,
                                              std::span<const std::byte> indices, IndexFormat format)
{
  const size_t vertexCount = vertices.size() / stride;
  if (format == IndexFormat::LIST)
    return MeshDataOptimizer::analyze<uint16_t>(
      vertices, vertexCount, stride,
      std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(indices.data()), indices.size() / 2));
  return MeshDataOptimizer::analyze<uint32_t>(
    vertices, vertexCount, stride,
    std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(indices.data()), indices.size() / 4));
}
} // namespace

void GeometryCompiler::recordRenderSets(const std::vector<MeshTask>& tasks, bool optimized,
                                        const std::vector<MeshDataOptimizer::MeshStatistics>* before)
{
  for (size_t i = 0; i < tasks.size(); ++i)
  {
    const MeshTask& task = tasks[i];
    CompileStatistics::RenderSet set;
    set.name = task.name;
    set.vertexCount = static_cast<uint32_t>(task.vertices.size() / task.stride);
    set.triangleCount = static_cast<uint32_t>(task.indices.size() / (task.format == IndexFormat::LIST ? 2 : 4) / 3);
    set.strideInBytes = task.stride;
    set.texelDensity = task.texelDensity;
    set.optimized = optimized;
    set.after = analyzeTask(task.vertices, task.stride, task.indices, task.format);
    set.before = before ? (*before)[i] : set.after;
    m_statistics->renderSets.push_back(std::move(set));
  }
}

void GeometryCompiler::optimizeMesh()
{
  const std::vector<MeshTask> tasks = gatherMeshTasks(true);
  std::vector<MeshDataOptimizer::MeshStatistics> before(m_statistics ? tasks.size() : 0);

  // Every pair owns disjoint ranges of the merged buffers, so pairs can be optimised at once.
  cstdmf::parallelFor(tasks.size(), m_jobs, [&](size_t i) {
    const MeshTask& task = tasks[i];
    if (m_statistics)
      before[i] = analyzeTask(task.vertices, task.stride, task.indices, task.format);
    if (task.format == IndexFormat::LIST)
    {
      std::span<uint16_t> indices(reinterpret_cast<uint16_t*>(task.indices.data()), task.indices.size() / 2);
      MeshDataOptimizer::optimizeMeshData<uint16_t>(task.vertices, task.stride, indices);
    }
    else
    {
      std::span<uint32_t> indices(reinterpret_cast<uint32_t*>(task.indices.data()), task.indices.size() / 4);
      MeshDataOptimizer::optimizeMeshData<uint32_t>(task.vertices, task.stride, indices);
    }
  });
  if (m_statistics)
    recordRenderSets(tasks, true, &before);
}

bool GeometryCompiler::saveArmor(SaveState& state, const std::string& resourcePath)
{
  if (m_armorData.size() > 1)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::saveArmor m_armorData.size() > 1 for result resource '%s'.\n",
           resourcePath.c_str());
    return false;
  }
  if (m_armorData.empty())
  {
    state.prototype.armorModelCount = 0;
    state.prototype.armorModels = nullptr;
    return true;
  }
  const DataSectionPtr& section = m_armorData.front();
  const BinaryPtr data = section->asBinary();
  Moo::ArmorDataPrototype record{};
  record.armorData = reinterpret_cast<const std::byte*>(data->data());
  record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(data->len()));
  addToStringPool(section->sectionName(), record.armorModelName);
  state.armorModels.push_back(record);
  state.prototype.armorModelCount = 1;
  state.prototype.armorModels = state.armorModels.data();
  return true;
}

void GeometryCompiler::saveCollisionModels(SaveState& state)
{
  for (const DataSectionPtr& section : m_collisionData)
  {
    const BinaryPtr data = section->asBinary();
    Moo::CollisionModelDataPrototype record{};
    record.cmData = reinterpret_cast<const std::byte*>(data->data());
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(data->len()));
    addToStringPool(section->sectionName(), record.collisionModelName);
    state.collisionModels.push_back(record);
  }
  state.prototype.collisionModelCount = static_cast<uint32_t>(state.collisionModels.size());
  state.prototype.collisionModels = state.collisionModels.empty() ? nullptr : state.collisionModels.data();
}

void GeometryCompiler::encodeBuffers(SaveState& state)
{
  for (const DataEntry& entry : m_vertexData)
    state.rawVertexSizes.push_back(entry.data.size());
  for (const DataEntry& entry : m_indexData)
    state.rawIndexSizes.push_back(entry.data.size());
  state.vertexEncodingFailed.assign(m_vertexData.size(), 0);
  state.indexEncodingFailed.assign(m_indexData.size(), 0);
  if (!m_settings.encodeBuffers)
    return;

  // Every merged buffer is encoded on its own, so vertex and index buffers share one loop.
  const size_t vertexBuffers = m_vertexData.size();
  cstdmf::parallelFor(vertexBuffers + m_indexData.size(), m_jobs, [&](size_t task) {
    if (task < vertexBuffers)
    {
      DataEntry& entry = m_vertexData[task];
      const VertexBufferInfo* info = findVertexBufferInfo(entry.formatName);
      if (!info)
        return; // reported by saveVerticesData
      std::vector<std::byte> encoded = MeshDataOptimizer::encodeVertexData(entry.data, info->strideInBytes);
      state.vertexEncodingFailed[task] = encoded.size() <= sizeof(MeshDataOptimizer::EncodedBufferHeader);
      entry.data = std::move(encoded);
      return;
    }
    const size_t i = task - vertexBuffers;
    DataEntry& entry = m_indexData[i];
    const IndexBufferInfo* info = findIndexBufferInfo(entry.formatName);
    if (!info)
      return; // reported by saveIndicesData
    const bool wide = info->indexFormat == static_cast<uint32_t>(IndexFormat::LIST32);
    const size_t stride = wide ? 4 : 2;
    const size_t indexCount = entry.data.size() / stride;
    // The vertex count only sizes the encoder's worst case; an index range that no vertex range
    // was paired with may still reach past the recorded count, so the bound covers both.
    uint32_t maxIndex = 0;
    for (size_t k = 0; k < indexCount; ++k)
      maxIndex = std::max(maxIndex, readIndex(entry.data.data(), k, static_cast<uint32_t>(stride)));
    const size_t vertexCount =
      std::max<size_t>(info->maxVertexCount, indexCount ? static_cast<size_t>(maxIndex) + 1 : 0);
    std::vector<std::byte> encoded;
    if (wide)
      encoded = MeshDataOptimizer::encodeIndexData(
        std::span<const uint32_t>(reinterpret_cast<const uint32_t*>(entry.data.data()), indexCount), vertexCount);
    else
      encoded = MeshDataOptimizer::encodeIndexData(
        std::span<const uint16_t>(reinterpret_cast<const uint16_t*>(entry.data.data()), indexCount), vertexCount);
    state.indexEncodingFailed[i] = encoded.size() <= sizeof(MeshDataOptimizer::EncodedBufferHeader);
    entry.data = std::move(encoded);
  });
}

void GeometryCompiler::saveVerticesData(SaveState& state)
{
  state.mergedVertices.assign(m_vertexData.size(), Moo::MergedVerticesPrototype{});

  std::vector<const VertexBufferInfo*> infos(m_vertexData.size());
  for (size_t i = 0; i < m_vertexData.size(); ++i)
  {
    auto vertIndexationIt = findVertexBufferInfo(m_vertexData[i].formatName);
    ZR_ASSERT_TEXT(vertIndexationIt != nullptr, "vertIndexationIt != m_mergedGeometry.m_verticesDataIndex.end()");
    infos[i] = vertIndexationIt;
  }

  for (uint8_t failed : state.vertexEncodingFailed)
    if (failed)
      ZR_MSG(kError, kCategory, "GeometryCompiler::saveVerticesData: The Vertex data hasn't been encoded.\n");

  for (size_t i = 0; i < m_vertexData.size(); ++i)
  {
    const DataEntry& entry = m_vertexData[i];
    Moo::MergedVerticesPrototype& record = state.mergedVertices[i];
    record.verticesData = entry.data.empty() ? nullptr : entry.data.data();
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(entry.data.size()));
    record.strideInBytes = infos[i]->strideInBytes;
    record.isSkinned = std::byte{infos[i]->isSkinned ? uint8_t(1) : uint8_t(0)};
    record.isBumped = std::byte{infos[i]->isBumped ? uint8_t(1) : uint8_t(0)};
    addToStringPool(entry.formatName, record.formatName);
    if (m_statistics)
      m_statistics->buffers.push_back({"vertices", entry.formatName, infos[i]->strideInBytes,
                                       state.rawVertexSizes[i] / infos[i]->strideInBytes, state.rawVertexSizes[i],
                                       entry.data.size(),
                                       m_settings.encodeBuffers});
  }
  state.prototype.mergedVerticesCount = static_cast<uint32_t>(state.mergedVertices.size());
  state.prototype.mergedVertices = state.mergedVertices.empty() ? nullptr : state.mergedVertices.data();
}

void GeometryCompiler::saveVerticesMapping(SaveState& state)
{
  for (const MappingEntry& entry : m_vertexMappings)
  {
    size_t vertBufferIndex = 0;
    findVertexBufferInfo(entry.formatName, &vertBufferIndex);
    ZR_ASSERT(vertBufferIndex != static_cast< size_t >( -1 ));
    const uint32_t strideInBytes = entry.strideInBytes;
    ZR_ASSERT_TEXT(strideInBytes != 0, "indexation.second.strideInBytes != 0");
    ZR_ASSERT_TEXT(entry.info.offsetInBytes % strideInBytes == 0,
                   "( indexation.second.info.offsetInBytes ) % indexation.second.strideInBytes == 0");
    ZR_ASSERT_TEXT(entry.info.sizeInBytes % strideInBytes == 0,
                   "( indexation.second.info.sizeInBytes ) % indexation.second.strideInBytes == 0");

    Moo::MappingPrototype record{};
    record.mappingId = cstdmf::makeStringID(entry.sectionName);
    record.mergedBufferIndex = ZR::range_check_cast<uint16_t>(vertBufferIndex);
    record.packedTexelDensity = Moo::packedTexelDensity(entry.texelDensity);
    record.itemsOffset = entry.info.offsetInBytes / strideInBytes;
    record.itemsCount = entry.info.sizeInBytes / strideInBytes;
    state.verticesMapping.push_back(record);
  }
  state.prototype.verticesMappingCount = static_cast<uint32_t>(state.verticesMapping.size());
  state.prototype.verticesMapping = state.verticesMapping.empty() ? nullptr : state.verticesMapping.data();
}

void GeometryCompiler::saveIndicesData(SaveState& state)
{
  state.mergedIndices.assign(m_indexData.size(), Moo::MergedIndicesPrototype{});

  std::vector<const IndexBufferInfo*> infos(m_indexData.size());
  for (size_t i = 0; i < m_indexData.size(); ++i)
  {
    auto vertIndexationIt = findIndexBufferInfo(m_indexData[i].formatName);
    ZR_ASSERT_TEXT(vertIndexationIt != nullptr, "vertIndexationIt != m_mergedGeometry.m_indicesDataIndex.end()");
    infos[i] = vertIndexationIt;
  }

  for (uint8_t failed : state.indexEncodingFailed)
    if (failed)
      ZR_MSG(kError, kCategory, "GeometryCompiler::saveIndicesData: The Index data hasn't been encoded.\n");

  for (size_t i = 0; i < m_indexData.size(); ++i)
  {
    const DataEntry& entry = m_indexData[i];
    Moo::MergedIndicesPrototype& record = state.mergedIndices[i];
    const uint16_t code = static_cast<uint16_t>(infos[i]->indexFormat);
    record.indicesData = entry.data.empty() ? nullptr : entry.data.data();
    record.sizeInBytes = ZR::range_check_cast<uint32_t>(static_cast<uint64_t>(entry.data.size()));
    record.primitiveType = code;
    record.strideInBytes = code == 0 ? 2 : 4;
    if (m_statistics)
      m_statistics->buffers.push_back({"indices", entry.formatName, record.strideInBytes,
                                       state.rawIndexSizes[i] / record.strideInBytes, state.rawIndexSizes[i],
                                       entry.data.size(),
                                       m_settings.encodeBuffers});
  }
  state.prototype.mergedIndicesCount = static_cast<uint32_t>(state.mergedIndices.size());
  state.prototype.mergedIndices = state.mergedIndices.empty() ? nullptr : state.mergedIndices.data();
}

void GeometryCompiler::saveIndicesMapping(SaveState& state)
{
  for (const MappingEntry& entry : m_indexMappings)
  {
    size_t indBufferIndex = 0;
    const IndexBufferInfo* info = findIndexBufferInfo(entry.formatName, &indBufferIndex);
    ZR_ASSERT(indBufferIndex != static_cast< size_t >( -1 ));
    const uint32_t strideInBytes = info->indexFormat == 0 ? 2 : 4;
    ZR_ASSERT_TEXT(entry.info.offsetInBytes % strideInBytes == 0,
                   "indexation.second.info.offsetInBytes % strideInBytes == 0");
    ZR_ASSERT_TEXT(entry.info.sizeInBytes % strideInBytes == 0,
                   "indexation.second.info.sizeInBytes % strideInBytes == 0");

    Moo::MappingPrototype record{};
    record.mappingId = cstdmf::makeStringID(entry.sectionName);
    record.mergedBufferIndex = ZR::range_check_cast<uint16_t>(indBufferIndex);
    record.packedTexelDensity = Moo::packedTexelDensity(entry.texelDensity);
    record.itemsOffset = entry.info.offsetInBytes / strideInBytes;
    record.itemsCount = entry.info.sizeInBytes / strideInBytes;
    state.indicesMapping.push_back(record);
  }
  state.prototype.indicesMappingCount = static_cast<uint32_t>(state.indicesMapping.size());
  state.prototype.indicesMapping = state.indicesMapping.empty() ? nullptr : state.indicesMapping.data();
}

const char* GeometryCompiler::addToStringPool(const std::string& text, red::types::String& record)
{
  char* copy = new char[text.size() + 1];
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  m_stringPool.push_back(copy);
  record.size = static_cast<uint32_t>(text.size() + 1);
  record.text = copy;
  return copy;
}

void GeometryCompiler::clearStringPool()
{
  for (char* text : m_stringPool)
  {
    ZR_ASSERT_TEXT(text != nullptr, "str.text != nullptr");
    delete[] text;
  }
  m_stringPool.clear();
}

BinaryPtr GeometryCompiler::packData(const Moo::MergedGeometryPrototype& prototype)
{
  return Moo::packMergedGeometry(prototype);
}

namespace
{
// The temporary files of the writes in flight, so that a process ending abnormally can remove them.
std::mutex s_temporariesMutex;
std::vector<std::filesystem::path> s_temporaries;

void registerTemporary(const std::filesystem::path& path)
{
  const std::lock_guard<std::mutex> lock(s_temporariesMutex);
  s_temporaries.push_back(path);
}

void forgetTemporary(const std::filesystem::path& path)
{
  const std::lock_guard<std::mutex> lock(s_temporariesMutex);
  const auto found = std::find(s_temporaries.begin(), s_temporaries.end(), path);
  if (found != s_temporaries.end())
    s_temporaries.erase(found);
}
} // namespace

void GeometryCompiler::removeTemporaryFiles()
{
  const std::lock_guard<std::mutex> lock(s_temporariesMutex);
  std::error_code ignored;
  for (const std::filesystem::path& path : s_temporaries)
    std::filesystem::remove(path, ignored);
  s_temporaries.clear();
}

bool GeometryCompiler::writeToFile(const std::string& resourcePath, const BinaryPtr& block)
{
  const std::filesystem::path target = cstdmf::u8path(resourcePath);
  // A short name beside the target (a rename stays within one file system), unique per process
  // and per write; the target's own name may already be as long as names may be.
  static std::atomic<unsigned> s_writeCounter{0};
  const std::filesystem::path temporary =
    target.parent_path() / cstdmf::u8path(".vm" + std::to_string(platform::processId()) + "-" +
                                          std::to_string(s_writeCounter.fetch_add(1)) + ".tmp");
  const std::string temporaryText = cstdmf::toUtf8(temporary);
  registerTemporary(temporary);
  struct Forget
  {
    const std::filesystem::path& path;
    ~Forget() { forgetTemporary(path); }
  } forget{temporary};

  std::FILE* file = platform::openFile(temporaryText, "wb");
  if (!file)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::writeToFile cannot open file '%s'.\n", resourcePath.c_str());
    return false;
  }
  const size_t written = std::fwrite(block->data(), 1, block->len(), file);
  const bool closed = std::fclose(file) == 0;
  std::error_code ignored;
  if (written != block->len() || !closed)
  {
    ZR_MSG(kError, kCategory,
           "GeometryCompiler::writeToFile written size is '%zu' not equal binary size '%zu' for resource '%s'.\n",
           closed ? written : size_t{0}, block->len(), resourcePath.c_str());
    std::filesystem::remove(temporary, ignored);
    return false;
  }
  std::error_code error;
  std::filesystem::rename(temporary, target, error);
  if (error)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::writeToFile cannot replace file '%s': %s\n", resourcePath.c_str(),
           error.message().c_str());
    std::filesystem::remove(temporary, ignored);
    return false;
  }
  return true;
}
