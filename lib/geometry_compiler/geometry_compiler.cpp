#include "geometry_compiler/geometry_compiler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/span_reader.hpp"
#include "geometry_compiler/texel_density.hpp"
#include "geometry_compiler/verifier.hpp"
#include "moo/index_format.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"
#include "moo/vertex_section.hpp"
#include "resmgr/file_io.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

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

} // namespace

GeometryCompiler::GeometryCompiler() = default;
GeometryCompiler::~GeometryCompiler() = default;

bool GeometryCompiler::compile(const Request& request, const std::string& outputPath, bool encode, bool optimize,
                               bool verify)
{
  CompileOptions options;
  options.encodeBuffers = encode;
  options.optimizeMeshes = optimize;
  options.verifyVertices = verify;
  return compile(request, outputPath, options);
}

bool GeometryCompiler::compile(const Request& request, const std::string& outputPath, const CompileOptions& options)
{
  ZR_GUARD("GeometryCompiler::compile");
  startCompile(options);
  if (request.primitivesPath.empty())
    return false;
  const bool written = compileModel(request, outputPath);
  if (m_statistics)
    gatherStatistics();
  return written;
}

BinaryPtr GeometryCompiler::compileBytes(const ModelBytes& model, const std::string& outputPath,
                                         const CompileOptions& options)
{
  startCompile(options);
  if (model.primitivesPath.empty())
    return nullptr;
  BinaryPtr packed; // stays null unless the whole compile succeeds
  (void)compileModel(model.request(), outputPath, &model, &packed);
  if (m_statistics)
    gatherStatistics();
  return packed;
}

void GeometryCompiler::startCompile(const CompileOptions& options)
{
  clear();
  m_systemReason.clear();
  m_settings = options;
}

bool GeometryCompiler::compileModel(const Request& request, const std::string& outputPath, const ModelBytes* model,
                                    BinaryPtr* packed)
{
  bool loaded = false;
  if (model)
  {
    // The bytes in memory stand for the file: split as a file read whole is.
    BinFile binFile;
    if (takeFile(request.primitivesPath, model->primitives, binFile))
    {
      loaded = packLOD(binFile);
      if (!loaded)
        ZR_MSG(kError, kCategory, "GeometryCompiler::load packLOD failed for '%s'.\n", request.primitivesPath.c_str());
    }
  }
  else
    loaded = loadPrimitives(request);
  if (!loaded)
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
  const ModelBytes::Companion* inMemory[] = {model ? &model->collision : nullptr, model ? &model->armor : nullptr,
                                             model ? &model->armorVisual : nullptr};
  for (size_t i = 0; i < std::size(companions); ++i)
  {
    const Companion& companion = companions[i];
    if (companion.path.empty())
      continue;
    ZR_MSG(kTrace, kCategory, companion.traceFormat, companion.path.c_str(), request.modelName.c_str());
    const bool taken = inMemory[i] ? takeCompanionModel(companion.path, request.modelName, companion.kind,
                                                        inMemory[i]->bytes)
                                   : loadCompanionModel(companion.path, request.modelName, companion.kind);
    if (!taken)
      ZR_MSG(kError, kCategory, "GeometryCompiler::compile loading '%s' failed.\n", companion.path.c_str());
  }

  // Saving encodes the merged buffers in place: the levels start from a copy taken before.
  std::optional<MergedGeometry> base;
  if (m_settings.lods.levels > 0)
    base = m_mergedGeometry;
  bool saved = false;
  if (!packed)
    saved = save(outputPath);
  else
  {
    std::optional<StoredMeasurement> measurement;
    *packed = saveToBlock(outputPath, measurement);
    if (measurement)
      measurement->finish();
    saved = *packed != nullptr;
  }
  if (saved && base)
    makeLevels(*base, outputPath);
  return saved;
}

void GeometryCompiler::clear()
{
  m_resourceName.clear();
  m_mergedGeometry.clear();
  m_pendingColumns.clear();
  m_collisionData.clear();
  m_armorData.clear();
  m_stringPool.clear();
  m_progress = CompileStatistics{};
  m_rawBufferSizes.reset();
  m_levels.clear();
  m_written = nullptr;
}

bool GeometryCompiler::loadPrimitives(const Request& request)
{
  ZR_GUARD("GeometryCompiler::loadPrimitives");
  // The file is read one section at a time: a model never holds its whole source in memory.
  m_resourceName = request.primitivesPath;
  const std::string& path = request.primitivesPath;
  FileSections sections;
  const FileSections::Failure failure = sections.open(path);
  if (failure != FileSections::Failure::Read && failure != FileSections::Failure::Empty && m_statistics)
    m_statistics->inputBytes = sections.fileSize();
  if (failure != FileSections::Failure::None)
  {
    reportLoadFailure(path, failure,
                      {sections.readStatus(), nullptr, sections.fileSize(), sections.bytesRead(), sections.reason()});
    return false;
  }
  if (!packSections(sections))
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::load packLOD failed for '%s'.\n", path.c_str());
    return false;
  }
  return true;
}

void GeometryCompiler::reportLoadFailure(const std::string& path, FileSections::Failure failure,
                                         const fileio::ReadResult& read)
{
  if (failure == FileSections::Failure::Read)
    m_systemReason = read.reason;
  switch (failure)
  {
  case FileSections::Failure::None:
    break;
  case FileSections::Failure::Read:
    switch (read.status)
    {
    case fileio::ReadStatus::Ok:
      break;
    case fileio::ReadStatus::CannotOpen:
      ZR_MSG(kError, kCategory, "GeometryCompiler::load file '%s' failed to open.\n", path.c_str());
      break;
    case fileio::ReadStatus::CannotSize:
    case fileio::ReadStatus::TooLarge:
    case fileio::ReadStatus::OutOfMemory:
      ZR_MSG(kError, kCategory, "GeometryCompiler::load file '%s' cannot be read: %s.\n", path.c_str(),
             read.reason.c_str());
      break;
    case fileio::ReadStatus::ShortRead:
      ZR_MSG(kError, kCategory,
             "GeometryCompiler::load file read '%d' bytes which is different with filesize '%d' for resource '%s'.\n",
             static_cast<int>(read.bytesRead), static_cast<int>(read.fileSize), path.c_str());
      break;
    }
    break;
  case FileSections::Failure::Empty:
    ZR_MSG(kError, kCategory, "GeometryCompiler::load file size is 0 for resource '%s'.\n", path.c_str());
    break;
  case FileSections::Failure::Index:
    ZR_MSG(kError, kCategory, "GeometryCompiler::load parseBinSectionEntries for resource '%s' failed.\n", path.c_str());
    break;
  case FileSections::Failure::NoSections:
    ZR_MSG(kError, kCategory, "GeometryCompiler::load binFile.children is empty for '%s'!.\n", path.c_str());
    break;
  }
}

bool GeometryCompiler::readFile(const std::string& path, BinFile& binFile)
{
  binFile.children.clear();
  binFile.resourceName = path;
  m_resourceName = path;

  const fileio::ReadResult read = fileio::readWholeFile(path, "Geometry");
  if (!read)
  {
    reportLoadFailure(path, FileSections::Failure::Read, read);
    return false;
  }
  return takeFile(path, read.block, binFile);
}

bool GeometryCompiler::takeFile(const std::string& path, const BinaryPtr& block, BinFile& binFile)
{
  binFile.children.clear();
  binFile.resourceName = path;
  m_resourceName = path;
  const auto failed = [&](FileSections::Failure failure) {
    reportLoadFailure(path, failure, fileio::ReadResult{fileio::ReadStatus::Ok, block, block ? block->len() : 0});
    return false;
  };
  if (!block || block->len() == 0)
    return failed(FileSections::Failure::Empty);
  if (m_statistics)
    m_statistics->inputBytes = block->len();

  const bool parsed = parseBinSectionEntries(
    block, [&](const char* name, int nameLength, const char* data, int dataLength) {
      BinaryPtr child(new BinaryBlock(data, static_cast<size_t>(dataLength), "BinaryBlock/BinSection", block));
      binFile.children.emplace_back(std::string(name, static_cast<size_t>(nameLength)), std::move(child));
    });
  if (!parsed)
    return failed(FileSections::Failure::Index);
  if (binFile.children.empty())
    return failed(FileSections::Failure::NoSections);
  return true;
}

bool GeometryCompiler::packLOD(const BinFile& binFile)
{
  m_resourceName = binFile.resourceName;
  BlockSections sections(binFile.children);
  return packSections(sections);
}

bool GeometryCompiler::packSections(SectionSource& sections)
{
  reserveMergedBuffers(sections);
  for (size_t i = 0; i < sections.count(); ++i)
  {
    const std::string& name = sections.name(i);
    if (name.empty())
    {
      ZR_MSG(kWarning, kCategory,
             "GeometryCompiler::packLOD found a section with the empty name for file '%s'! Ignoring it.\n",
             m_resourceName.c_str());
      continue;
    }

    const std::string_view kind = sectionKind(name);
    if (kind == kVerticesKind)
    {
      const std::optional<std::span<const std::byte>> bytes = sections.bytes(i);
      if (!bytes || !packVertices(name, *bytes))
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
      const std::optional<std::span<const std::byte>> bytes = sections.bytes(i);
      if (!bytes || !packIndices(name, *bytes))
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
             name.c_str(), m_resourceName.c_str());
    }
  }
  return true;
}

bool GeometryCompiler::packVertices(const std::string& sectionName, std::span<const std::byte> section)
{
  Moo::VertexSectionHeader header;
  if (!Moo::readVertexSectionHeader(section, sectionName, header))
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

  m_progress.sections.push_back({sectionName, "vertices", header.formatName, header.vertexCount});

  size_t convertedSize = 0;
  if (!cstdmf::checkedMultiply(header.vertexCount, gpuStride, convertedSize) ||
      convertedSize > std::numeric_limits<uint32_t>::max())
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::packVertices section '%s' of '%s' holds too many vertices (%u).\n",
           sectionName.c_str(), m_resourceName.c_str(), header.vertexCount);
    return false;
  }

  size_t badVertex = 0;
  if (m_settings.refuseUnpackableNormals && Moo::findUnpackableUnitVector(primFormat->m_gpuFormat, header.payload.data(),
                                                                 primFormat->m_format, header.vertexCount, badVertex))
  {
    ZR_MSG(kError, kCategory,
           "GeometryCompiler::packVertices section '%s' of '%s': vertex %zu has a normal that is neither unit length "
           "nor zero.\n",
           sectionName.c_str(), m_resourceName.c_str(), badVertex);
    return false;
  }

  const VertexBufferInfo info{static_cast<uint16_t>(gpuStride), primFormat->m_gpuFormat.isSkinned(),
                              primFormat->m_gpuFormat.isBumped()};
  // A new section is converted straight into its merged buffer. One the merged buffers will not
  // take (a repeated name, a buffer past 4 GiB) is still converted and verified on its own, and
  // addVertices then says why it is left out.
  const std::optional<std::span<std::byte>> room =
    m_mergedGeometry.appendVertexRoom(sectionName, convertedSize, primFormat->gpuFormatName, info);
  cstdmf::ByteVector converted;
  if (!room)
    converted.resize(convertedSize);
  const std::span<std::byte> destination = room ? *room : std::span<std::byte>(converted);

  const bool verifying = m_settings.verifyVertices && header.vertexCount > 0;
  Verifier verifier;
  PositionAndUVColumns columns;
  if (verifying && room)
  {
    if (primFormat->m_gpuFormat.findElement(VertexSemantic::POSITION, 0, 0))
      columns.positions.resize(header.vertexCount);
    if (primFormat->m_gpuFormat.findElement(VertexSemantic::TEXCOORD, 0, 0))
      columns.uvs.resize(header.vertexCount);
  }
  if (header.vertexCount > 0 && !convertAndVerify(destination, header.payload, *primFormat, header.vertexCount,
                                                  verifying ? &verifier : nullptr, room ? &columns : nullptr))
  {
    ZR_MSG_FMT(kError, kCategory, "GeometryCompiler::packVertices convertVertices for formats '{}'->'{}' failed.\n",
               primFormat->formatName, primFormat->gpuFormatName);
    return false;
  }
  if (verifying)
    reportVerifier(sectionName, verifier);

  if (!room)
    return m_mergedGeometry.addVertices(sectionName, converted, primFormat->gpuFormatName, info);
  if (!columns.positions.empty() && !columns.uvs.empty())
    m_pendingColumns.emplace_back(sectionName, std::move(columns));
  return true;
}

bool GeometryCompiler::convertAndVerify(std::span<std::byte> destination, std::span<const std::byte> source,
                                        const Moo::PrimitiveVertexFormat& format, uint32_t vertexCount,
                                        Verifier* verifier, PositionAndUVColumns* columns)
{
  const size_t sourceStride = ari::VertexDeclaration::computeStreamDataSize(format.m_format, 0);
  const size_t gpuStride = ari::VertexDeclaration::computeStreamDataSize(format.m_gpuFormat, 0);
  // Slices small enough that a slice's source and converted bytes stay in the cache while it is
  // converted and then checked.
  constexpr size_t kSliceVertices = 4096;
  const size_t slices = (size_t{vertexCount} + kSliceVertices - 1) / kSliceVertices;
  std::vector<uint8_t> converted(slices, 0);
  std::vector<Verifier> verifiers(verifier ? slices : 0);
  cstdmf::parallelFor(slices, m_jobs, [&](size_t slice) {
    const size_t first = slice * kSliceVertices;
    const size_t count = std::min<size_t>(kSliceVertices, vertexCount - first);
    converted[slice] = Moo::convertVertices(destination.data() + first * gpuStride, format.m_gpuFormat,
                                            source.data() + first * sourceStride, format.m_format, count);
    if (converted[slice] && verifier)
      verifiers[slice].verifyRange(destination, format.m_gpuFormat, first, count, columns);
  });
  if (std::find(converted.begin(), converted.end(), 0) != converted.end())
    return false;
  for (const Verifier& slice : verifiers)
    verifier->add(slice);
  return true;
}

void GeometryCompiler::reserveMergedBuffers(SectionSource& sections)
{
  MergedGeometry::VertexBuffers& vertices = m_mergedGeometry.vertices();
  MergedGeometry::IndexBuffers& indices = m_mergedGeometry.indices();
  const auto expect = [](auto& buffers, const std::string& formatName, uint64_t bytes) {
    for (auto& [name, size] : buffers.expectedSizes)
      if (name == formatName)
      {
        size += bytes;
        return;
      }
    buffers.expectedSizes.emplace_back(formatName, bytes);
  };
  for (size_t i = 0; i < sections.count(); ++i)
  {
    const std::string_view kind = sectionKind(sections.name(i));
    if (kind == kVerticesKind)
    {
      Moo::VertexSectionHeader header;
      const size_t sectionSize = sections.sectionSize(i);
      if (!Moo::peekVertexSectionHeader(sections.head(i, Moo::kProcessedVertexSectionHeaderSize), header))
        continue;
      const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(header.formatName);
      if (!format || format->m_format.streams.size() != 1 || format->m_gpuFormat.streams.size() != 1)
        continue;
      const uint64_t sourceStride = ari::VertexDeclaration::computeStreamDataSize(format->m_format, 0);
      const size_t headerSize =
        header.processed ? Moo::kProcessedVertexSectionHeaderSize : Moo::kVertexSectionHeaderSize;
      if (uint64_t{header.vertexCount} * sourceStride > sectionSize - headerSize)
        continue;
      expect(vertices, format->gpuFormatName,
             uint64_t{header.vertexCount} * ari::VertexDeclaration::computeStreamDataSize(format->m_gpuFormat, 0));
    }
    else if (kind == kIndicesKind)
    {
      const std::span<const std::byte> section = sections.head(i, sizeof(Moo::IndexSectionHeaderRecord));
      if (section.size() < sizeof(Moo::IndexSectionHeaderRecord))
        continue;
      Moo::IndexSectionHeaderRecord record;
      std::memcpy(&record, section.data(), sizeof(record));
      const std::optional<IndexFormat> format =
        Moo::getIndexFormatFromName(std::string_view(record.formatName, strnlen(record.formatName, sizeof(record.formatName))));
      if (!format)
        continue;
      const uint64_t bytes = uint64_t{record.indexCount} * ari::getIndexSize(*format);
      if (bytes <= sections.sectionSize(i) - sizeof(record))
        expect(indices, std::string(Moo::getIndexFormatName(*format)), bytes);
    }
  }
  // A buffer that could not be addressed anyway is left to grow (and be refused) as it goes.
  std::erase_if(vertices.expectedSizes, [](const auto& entry) { return entry.second > std::numeric_limits<uint32_t>::max(); });
  std::erase_if(indices.expectedSizes, [](const auto& entry) { return entry.second > std::numeric_limits<uint32_t>::max(); });
}

bool GeometryCompiler::packIndices(const std::string& sectionName, std::span<const std::byte> section)
{
  Moo::IndexSectionHeader header;
  if (!Moo::readIndexSectionHeader(section, sectionName, header))
    return false;
  m_progress.sections.push_back({sectionName, "indices", header.formatName, header.indexCount});
  const std::string formatName(Moo::getIndexFormatName(header.format));
  const IndexBufferInfo info{static_cast<uint32_t>(header.format), 0};
  const std::optional<std::span<std::byte>> room =
    m_mergedGeometry.appendIndexRoom(sectionName, header.indices.size(), formatName, info);
  if (!room)
    return m_mergedGeometry.addIndices(sectionName, header.indices, formatName, info);

  // Copied in slices, each measured while it is still in the cache, so that the range check
  // needs no pass of its own; with several jobs the slices are shared out.
  const uint32_t indexSize = ari::getIndexSize(header.format);
  constexpr size_t kSliceBytes = 65536;
  const size_t slices = (header.indices.size() + kSliceBytes - 1) / kSliceBytes;
  std::vector<uint32_t> sliceMax(slices, 0);
  cstdmf::parallelFor(slices, m_jobs, [&](size_t slice) {
    const size_t offset = slice * kSliceBytes;
    const size_t size = std::min(kSliceBytes, header.indices.size() - offset);
    std::memcpy(room->data() + offset, header.indices.data() + offset, size);
    if (indexSize == 2)
    {
      const auto* indices = reinterpret_cast<const uint16_t*>(room->data() + offset);
      sliceMax[slice] = *std::max_element(indices, indices + size / 2);
    }
    else
    {
      const auto* indices = reinterpret_cast<const uint32_t*>(room->data() + offset);
      sliceMax[slice] = *std::max_element(indices, indices + size / 4);
    }
  });
  const uint32_t maxIndex = sliceMax.empty() ? 0 : *std::max_element(sliceMax.begin(), sliceMax.end());
  // The room's mapping is the one added last.
  if (header.indexCount > 0)
    m_mergedGeometry.indices().mappings.back().maxIndex = maxIndex;
  return true;
}

bool GeometryCompiler::updateCorrespondingBuffers(const std::string& verticesName, const std::string& indicesName)
{
  MappingEntry* vertices = m_mergedGeometry.vertices().findMapping(verticesName);
  MappingEntry* indices = m_mergedGeometry.indices().findMapping(indicesName);
  if (!vertices || !indices)
    return true;
  // Nothing may read a vertex through an index before the indices are known to be in range.
  if (!m_mergedGeometry.checkIndexRange(*vertices, *indices, m_resourceName))
    return false;
  updateTexelDensity(*vertices, *indices);
  return true;
}

void GeometryCompiler::updateTexelDensity(MappingEntry& vertices, MappingEntry& indices)
{
  const Moo::PrimitiveVertexFormat* primFormat = Moo::PrimitiveVertexFormat::findByGPUFormatName(vertices.formatName);
  const std::optional<size_t> indexBuffer = m_mergedGeometry.indices().find(indices.formatName);
  if (!primFormat || !indexBuffer || !m_mergedGeometry.vertices().find(vertices.formatName))
    return;
  const auto format = static_cast<IndexFormat>(m_mergedGeometry.indices().records[*indexBuffer].second.indexFormat);
  const std::span<const std::byte> indexBytes = m_mergedGeometry.indices().bytesOf(indices);
  const auto pending = std::find_if(m_pendingColumns.begin(), m_pendingColumns.end(),
                                    [&](const auto& entry) { return entry.first == vertices.sectionName; });
  float density = 0.0f;
  if (pending != m_pendingColumns.end())
  {
    density = Moo::Utils::calculateTexelDensity(pending->second.positions, pending->second.uvs, indexBytes, format,
                                                m_jobs);
    m_pendingColumns.erase(pending);
  }
  else
  {
    density = Moo::Utils::calculateTexelDensity(primFormat->m_gpuFormat, m_mergedGeometry.vertices().bytesOf(vertices),
                                                indexBytes, format);
  }
  vertices.texelDensity = density;
  indices.texelDensity = density;
}

bool GeometryCompiler::loadCompanionModel(const std::string& path, const std::string& modelName, const char* kind)
{
  // A companion is one byte array of the packed file, whose counts are signed 32-bit: a larger
  // file could never be saved, so it is not read at all.
  constexpr uint64_t kMaxCompanionBytes = std::numeric_limits<int32_t>::max();
  const fileio::ReadResult read = fileio::readWholeFile(path, "Geometry", kMaxCompanionBytes);
  if (!read)
  {
    m_systemReason = read.status == fileio::ReadStatus::TooLarge
                       ? "the file is " + std::to_string(read.fileSize) + " bytes; a .geometry file holds at most " +
                           std::to_string(kMaxCompanionBytes) + " bytes of one companion"
                       : read.reason;
    ZR_MSG(kError, kCategory, "GeometryCompiler::loadCompanionModel cannot read the %s model '%s' of model '%s': %s.\n",
           kind, path.c_str(), modelName.c_str(), m_systemReason.c_str());
    return false;
  }
  return takeCompanionModel(path, modelName, kind, read.block);
}

bool GeometryCompiler::takeCompanionModel(const std::string& path, const std::string& modelName, const char* kind,
                                          const BinaryPtr& block)
{
  if (!block || block->len() == 0)
  {
    ZR_MSG(kError, kCategory, "GeometryCompiler::loadCompanionModel the %s model '%s' of model '%s' is empty.\n", kind,
           path.c_str(), modelName.c_str());
    return false;
  }
  const uint64_t fileSize = block->len();

  const std::string sectionName = cstdmf::toUtf8(cstdmf::u8path(path).filename());
  m_progress.companions.push_back({sectionName, kind, fileSize});
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

void GeometryCompiler::verifyVertices(const std::string& sectionName, const void* vertices, size_t size,
                                      const Moo::VertexFormat& format)
{
  Verifier verifier;
  verifier.verify(vertices, size, format);
  reportVerifier(sectionName, verifier);
}

void GeometryCompiler::reportVerifier(const std::string& sectionName, const Verifier& verifier)
{
  m_progress.verifier.push_back({sectionName, verifier.invalidPositions(), verifier.invalidNormals(),
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
