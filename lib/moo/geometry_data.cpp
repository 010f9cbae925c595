#include "moo/geometry_data.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/span_reader.hpp"
#include "resmgr/file_io.hpp"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Moo
{
namespace
{

constexpr char kEncodedMagic[4] = {'E', 'N', 'C', 'D'};

bool startsWithEncodedMagic(std::span<const std::byte> data)
{
  return data.size() >= sizeof(kEncodedMagic) && std::memcmp(data.data(), kEncodedMagic, sizeof(kEncodedMagic)) == 0;
}

// Walks the packed records of one file. Each array is resolved (checked against the file) before
// any of its elements is read; every read goes through the bounds-checked reader as well.
class PackedFileParser
{
public:
  PackedFileParser(std::span<const std::byte> file, const std::string& name, std::string* problem)
    : m_file(file), m_reader(file), m_name(name), m_problem(problem)
  {
  }

  template <typename T>
  T read(uint64_t position)
  {
    return m_reader.readAt<T>(static_cast<size_t>(position));
  }

  // Reads the offset at `fieldPosition` of the array owned by the record at `recordPosition` and
  // checks that `count` elements of `elementSize` bytes lie inside the file. Gives the array's
  // file position.
  bool resolveArray(const std::string& what, uint64_t recordPosition, uint64_t fieldPosition, uint32_t count,
                    size_t elementSize, uint64_t& position)
  {
    const uint64_t offset = read<uint64_t>(fieldPosition);
    if (!m_reader.ok())
      return fail("{} lies outside the file", what);
    const uint64_t fileSize = m_file.size();
    position = 0;
    if (count == 0)
    {
      if (offset != 0)
        return fail("{} is empty but has offset {}", what, offset);
      return true;
    }
    if (offset == 0)
      return fail("{} has {} elements but offset 0", what, count);
    if (recordPosition > fileSize || offset > fileSize - recordPosition)
      return fail("{} points outside the file", what);
    position = recordPosition + offset;
    const uint64_t bytes = static_cast<uint64_t>(count) * elementSize; // at most 2^32 × 72: no overflow
    if (bytes > fileSize - position)
      return fail("{} ({} elements of {} bytes at position {}) runs past the end of the file", what, count,
                  elementSize, position);
    m_usedEnd = std::max(m_usedEnd, position + bytes);
    return true;
  }

  // A red::types::String record at `stringPosition` (inside the file).
  bool readString(const std::string& what, uint64_t stringPosition, std::string& text)
  {
    const uint32_t size = read<uint32_t>(stringPosition + offsetof(red::types::String, size));
    uint64_t position = 0;
    if (!resolveArray(what + ".text", stringPosition, stringPosition + offsetof(red::types::String, text), size, 1,
                      position))
      return false;
    text.clear();
    if (size == 0)
      return true;
    const auto* chars = reinterpret_cast<const char*>(m_file.data() + position);
    if (chars[size - 1] != '\0')
      return fail("{}.text is not zero-terminated", what);
    text.assign(chars, std::strlen(chars)); // stops at the last byte at the latest
    return true;
  }

  std::span<const std::byte> bytesAt(uint64_t position, uint32_t size) const
  {
    return m_file.subspan(static_cast<size_t>(position), size);
  }

  bool checkUsedEnd()
  {
    if (m_usedEnd < m_file.size())
      return fail("{} unused bytes after the last array", m_file.size() - m_usedEnd);
    return true;
  }

  bool ok() const { return m_reader.ok(); }
  void noteUsed(uint64_t end) { m_usedEnd = std::max(m_usedEnd, end); }

  template <typename... Args>
  bool fail(fmt::format_string<Args...> format, Args&&... args)
  {
    std::string text = fmt::format(format, std::forward<Args>(args)...);
    if (m_problem)
    {
      if (m_problem->empty())
        *m_problem = std::move(text);
    }
    else
      ZR_MSG_FMT(DebugMessagePriority::Error, "Other", "GeometryData: '{}': {}\n", m_name, text);
    return false;
  }

private:
  std::span<const std::byte> m_file;
  cstdmf::SpanReader m_reader;
  const std::string& m_name;
  std::string* m_problem; // null: failures are logged
  uint64_t m_usedEnd = 0;
};

std::string element(const char* array, size_t index)
{
  return fmt::format("{}[{}]", array, index);
}

// Items of a buffer that is not encoded; 0 for an empty one.
uint64_t itemCount(uint32_t sizeInBytes, uint16_t strideInBytes)
{
  return strideInBytes == 0 ? 0 : sizeInBytes / strideInBytes;
}

std::string idLabel(StringID mappingId)
{
  return fmt::format("0x{:08x}", mappingId);
}

} // namespace

void GeometryData::clear()
{
  m_name.clear();
  m_block = nullptr;
  m_vertexBuffers.clear();
  m_indexBuffers.clear();
  m_verticesMapping.clear();
  m_indicesMapping.clear();
  m_collisionModels.clear();
  m_armorModels.clear();
}

bool GeometryData::load(const std::string& pathText)
{
  const std::string path(pathText); // may be our own name, which clear() empties
  clear();
  const fileio::ReadResult read = fileio::readWholeFile(path, "Geometry");
  switch (read.status)
  {
  case fileio::ReadStatus::Ok:
    break;
  case fileio::ReadStatus::CannotOpen:
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData: cannot open '%s'.\n", path.c_str());
    return false;
  case fileio::ReadStatus::CannotSize:
  case fileio::ReadStatus::TooLarge:
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData: cannot read the size of '%s'.\n", path.c_str());
    return false;
  case fileio::ReadStatus::OutOfMemory:
    return false; // the block has logged the failed allocation
  case fileio::ReadStatus::ShortRead:
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData: cannot read '%s'.\n", path.c_str());
    return false;
  }
  const BinaryPtr& block = read.block;
  return load(block, path);
}

bool GeometryData::load(ConstBinaryPtr block, std::string_view name, std::string* problem)
{
  std::string nameCopy(name); // may view our own name, which clear() empties
  clear();
  ZR_ASSERT(block != nullptr);
  m_name = std::move(nameCopy);
  const std::span<const std::byte> file(reinterpret_cast<const std::byte*>(block->data()), block->len());
  PackedFileParser parser(file, m_name, problem);
  const auto refuse = [this]() {
    clear();
    return false;
  };

  using Root = MergedGeometryPrototype;
  if (file.size() < sizeof(Root))
  {
    (void)parser.fail("the file has {} bytes, fewer than the {}-byte root record", file.size(), sizeof(Root));
    return refuse();
  }
  parser.noteUsed(sizeof(Root));
  Root proto{};
  proto.mergedVerticesCount = parser.read<uint32_t>(offsetof(Root, mergedVerticesCount));
  proto.mergedIndicesCount = parser.read<uint32_t>(offsetof(Root, mergedIndicesCount));
  proto.verticesMappingCount = parser.read<uint32_t>(offsetof(Root, verticesMappingCount));
  proto.indicesMappingCount = parser.read<uint32_t>(offsetof(Root, indicesMappingCount));
  proto.collisionModelCount = parser.read<uint32_t>(offsetof(Root, collisionModelCount));
  proto.armorModelCount = parser.read<uint32_t>(offsetof(Root, armorModelCount));

  // Arrays in the order the archive places them.
  uint64_t verticesMappingAt = 0;
  uint64_t indicesMappingAt = 0;
  if (!parser.resolveArray("verticesMapping", 0, offsetof(Root, verticesMapping), proto.verticesMappingCount,
                           sizeof(MappingPrototype), verticesMappingAt) ||
      !parser.resolveArray("indicesMapping", 0, offsetof(Root, indicesMapping), proto.indicesMappingCount,
                           sizeof(MappingPrototype), indicesMappingAt))
    return refuse();
  const auto readMappings = [&](uint64_t position, uint32_t count, std::vector<MappingPrototype>& mappings) {
    mappings.resize(count);
    for (uint32_t i = 0; i < count; ++i)
      mappings[i] = parser.read<MappingPrototype>(position + uint64_t{i} * sizeof(MappingPrototype));
  };
  readMappings(verticesMappingAt, proto.verticesMappingCount, m_verticesMapping);
  readMappings(indicesMappingAt, proto.indicesMappingCount, m_indicesMapping);

  uint64_t verticesAt = 0;
  if (!parser.resolveArray("mergedVertices", 0, offsetof(Root, mergedVertices), proto.mergedVerticesCount,
                           sizeof(MergedVerticesPrototype), verticesAt))
    return refuse();
  m_vertexBuffers.reserve(proto.mergedVerticesCount);
  for (uint32_t i = 0; i < proto.mergedVerticesCount; ++i)
  {
    using Record = MergedVerticesPrototype;
    const uint64_t at = verticesAt + uint64_t{i} * sizeof(Record);
    const std::string what = element("mergedVertices", i);
    VertexBuffer buffer;
    buffer.sizeInBytes = parser.read<uint32_t>(at + offsetof(Record, sizeInBytes));
    buffer.strideInBytes = parser.read<uint16_t>(at + offsetof(Record, strideInBytes));
    buffer.isSkinned = parser.read<std::byte>(at + offsetof(Record, isSkinned)) != std::byte{0};
    buffer.isBumped = parser.read<std::byte>(at + offsetof(Record, isBumped)) != std::byte{0};
    uint64_t dataAt = 0;
    if (!parser.resolveArray(what + ".verticesData", at, at + offsetof(Record, verticesData), buffer.sizeInBytes, 1,
                             dataAt) ||
        !parser.readString(what + ".formatName", at + offsetof(Record, formatName), buffer.formatName))
      return refuse();
    buffer.data = parser.bytesAt(dataAt, buffer.sizeInBytes);
    buffer.encoded = startsWithEncodedMagic(buffer.data);
    if (!buffer.encoded && buffer.sizeInBytes != 0 &&
        (buffer.strideInBytes == 0 || buffer.sizeInBytes % buffer.strideInBytes != 0))
    {
      (void)parser.fail("{} has {} bytes, not a whole number of {}-byte vertices", what, buffer.sizeInBytes,
                        buffer.strideInBytes);
      return refuse();
    }
    m_vertexBuffers.push_back(std::move(buffer));
  }
  ZR_ASSERT_TEXT(proto.mergedVerticesCount == m_vertexBuffers.size(), kVertexBufferCountCheck);

  uint64_t indicesAt = 0;
  if (!parser.resolveArray("mergedIndices", 0, offsetof(Root, mergedIndices), proto.mergedIndicesCount,
                           sizeof(MergedIndicesPrototype), indicesAt))
    return refuse();
  m_indexBuffers.reserve(proto.mergedIndicesCount);
  for (uint32_t i = 0; i < proto.mergedIndicesCount; ++i)
  {
    using Record = MergedIndicesPrototype;
    const uint64_t at = indicesAt + uint64_t{i} * sizeof(Record);
    const std::string what = element("mergedIndices", i);
    IndexBuffer buffer;
    buffer.sizeInBytes = parser.read<uint32_t>(at + offsetof(Record, sizeInBytes));
    buffer.primitiveType = parser.read<uint16_t>(at + offsetof(Record, primitiveType));
    buffer.strideInBytes = parser.read<uint16_t>(at + offsetof(Record, strideInBytes));
    uint64_t dataAt = 0;
    if (!parser.resolveArray(what + ".indicesData", at, at + offsetof(Record, indicesData), buffer.sizeInBytes, 1,
                             dataAt))
      return refuse();
    if (buffer.primitiveType > 1 || buffer.strideInBytes != (buffer.primitiveType == 0 ? 2 : 4))
    {
      (void)parser.fail("{} has primitive type {} with stride {}", what, buffer.primitiveType, buffer.strideInBytes);
      return refuse();
    }
    buffer.data = parser.bytesAt(dataAt, buffer.sizeInBytes);
    buffer.encoded = startsWithEncodedMagic(buffer.data);
    if (!buffer.encoded && buffer.sizeInBytes % buffer.strideInBytes != 0)
    {
      (void)parser.fail("{} has {} bytes, not a whole number of {}-byte indices", what, buffer.sizeInBytes,
                        buffer.strideInBytes);
      return refuse();
    }
    m_indexBuffers.push_back(buffer);
  }
  ZR_ASSERT_TEXT(proto.mergedIndicesCount == m_indexBuffers.size(), kIndexBufferCountCheck);

  // Collision and armor records have the same shape.
  const auto readModels = [&](const char* arrayName, size_t arrayField, uint32_t count, size_t dataField,
                              const char* dataName, size_t nameField, const char* nameName,
                              std::vector<ModelData>& models) {
    uint64_t modelsAt = 0;
    if (!parser.resolveArray(arrayName, 0, arrayField, count, sizeof(CollisionModelDataPrototype), modelsAt))
      return false;
    models.reserve(count);
    for (uint32_t i = 0; i < count; ++i)
    {
      const uint64_t at = modelsAt + uint64_t{i} * sizeof(CollisionModelDataPrototype);
      const std::string what = element(arrayName, i);
      ModelData model;
      const uint32_t sizeInBytes = parser.read<uint32_t>(at + offsetof(CollisionModelDataPrototype, sizeInBytes));
      uint64_t dataAt = 0;
      if (!parser.resolveArray(what + "." + dataName, at, at + dataField, sizeInBytes, 1, dataAt) ||
          !parser.readString(what + "." + nameName, at + nameField, model.name))
        return false;
      model.data = parser.bytesAt(dataAt, sizeInBytes);
      models.push_back(std::move(model));
    }
    return true;
  };
  static_assert(sizeof(CollisionModelDataPrototype) == sizeof(ArmorDataPrototype));
  static_assert(offsetof(CollisionModelDataPrototype, sizeInBytes) == offsetof(ArmorDataPrototype, sizeInBytes));
  if (!readModels("collisionModels", offsetof(Root, collisionModels), proto.collisionModelCount,
                  offsetof(CollisionModelDataPrototype, cmData), "cmData",
                  offsetof(CollisionModelDataPrototype, collisionModelName), "collisionModelName",
                  m_collisionModels) ||
      !readModels("armorModels", offsetof(Root, armorModels), proto.armorModelCount,
                  offsetof(ArmorDataPrototype, armorData), "armorData", offsetof(ArmorDataPrototype, armorModelName),
                  "armorModelName", m_armorModels))
    return refuse();

  if (!parser.checkUsedEnd())
    return refuse();

  // Mappings last: they refer to the buffers.
  const auto checkMappings = [&](const char* arrayName, const std::vector<MappingPrototype>& mappings,
                                 size_t bufferCount, const auto& itemsOfBuffer) {
    for (size_t i = 0; i < mappings.size(); ++i)
    {
      const MappingPrototype& mapping = mappings[i];
      if (mapping.mergedBufferIndex >= bufferCount)
        return parser.fail("{}.mergedBufferIndex {} is not below the buffer count {}", element(arrayName, i),
                           mapping.mergedBufferIndex, bufferCount);
      uint64_t items = 0;
      if (itemsOfBuffer(mapping.mergedBufferIndex, items) &&
          uint64_t{mapping.itemsOffset} + mapping.itemsCount > items)
        return parser.fail("{} covers items {} to {}, beyond the {} items of its buffer", element(arrayName, i),
                           mapping.itemsOffset, uint64_t{mapping.itemsOffset} + mapping.itemsCount, items);
    }
    return true;
  };
  // Encoded buffers keep their item count inside the codec stream, which is not decoded here.
  const auto vertexItems = [this](size_t index, uint64_t& items) {
    const VertexBuffer& buffer = m_vertexBuffers[index];
    items = itemCount(buffer.sizeInBytes, buffer.strideInBytes);
    return !buffer.encoded;
  };
  const auto indexItems = [this](size_t index, uint64_t& items) {
    const IndexBuffer& buffer = m_indexBuffers[index];
    items = itemCount(buffer.sizeInBytes, buffer.strideInBytes);
    return !buffer.encoded;
  };
  if (!checkMappings("verticesMapping", m_verticesMapping, m_vertexBuffers.size(), vertexItems) ||
      !checkMappings("indicesMapping", m_indicesMapping, m_indexBuffers.size(), indexItems))
    return refuse();

  if (!parser.ok())
  {
    (void)parser.fail("a record lies outside the file");
    return refuse();
  }
  m_block = std::move(block);
  return true;
}

size_t GeometryData::findMapping(std::span<const MappingPrototype> mappings, StringID mappingId, size_t hint)
{
  if (hint < mappings.size() && mappings[hint].mappingId == mappingId)
    return hint;
  for (size_t i = 0; i < mappings.size(); ++i)
  {
    if (mappings[i].mappingId == mappingId)
      return i;
  }
  return kNotFound;
}

bool GeometryData::trianglePrimitiveCount(uint32_t itemsCount, uint32_t& primitiveCount)
{
  if (itemsCount % 3 != 0)
    return false;
  primitiveCount = itemsCount / 3;
  return true;
}

bool GeometryData::fetchVertices(std::string_view sectionName, VertexRange& range, size_t hint) const
{
  const std::string label(sectionName);
  return fetchVerticesImpl(cstdmf::makeStringID(sectionName), label.c_str(), range, hint);
}

bool GeometryData::fetchVerticesById(StringID mappingId, VertexRange& range, size_t hint) const
{
  return fetchVerticesImpl(mappingId, idLabel(mappingId).c_str(), range, hint);
}

bool GeometryData::fetchIndices(std::string_view sectionName, IndexRange& range, size_t hint) const
{
  const std::string label(sectionName);
  return fetchIndicesImpl(cstdmf::makeStringID(sectionName), label.c_str(), range, hint);
}

bool GeometryData::fetchIndicesById(StringID mappingId, IndexRange& range, size_t hint) const
{
  return fetchIndicesImpl(mappingId, idLabel(mappingId).c_str(), range, hint);
}

bool GeometryData::fetchVerticesImpl(StringID mappingId, const char* label, VertexRange& range, size_t hint) const
{
  const size_t position = findMapping(m_verticesMapping, mappingId, hint);
  if (position == kNotFound)
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData::fetchVertices: could not find indices %s\n", label);
    return false;
  }
  const MappingPrototype& mapping = m_verticesMapping[position];
  // load() refuses such files; kept for data that did not come through it.
  if (mapping.mergedBufferIndex >= m_vertexBuffers.size())
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData::fetchVertices: corrupted merged buffer index %s\n",
           label);
    return false;
  }
  range.mapping = mapping;
  range.buffer = &m_vertexBuffers[mapping.mergedBufferIndex];
  return true;
}

bool GeometryData::fetchIndicesImpl(StringID mappingId, const char* label, IndexRange& range, size_t hint) const
{
  const size_t position = findMapping(m_indicesMapping, mappingId, hint);
  if (position == kNotFound)
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData::fetchIndices: could not find indices %s\n", label);
    return false;
  }
  const MappingPrototype& mapping = m_indicesMapping[position];
  if (mapping.mergedBufferIndex >= m_indexBuffers.size())
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryData::fetchIndices: corrupted merged buffer index %s\n",
           label);
    return false;
  }
  uint32_t primitiveCount = 0;
  if (!trianglePrimitiveCount(mapping.itemsCount, primitiveCount))
  {
    ZR_MSG(DebugMessagePriority::Error, "Other",
           "GeometryData::fetchIndices: %u indices of %s are not a whole number of triangles\n", mapping.itemsCount,
           label);
    return false;
  }
  range.mapping = mapping;
  range.buffer = &m_indexBuffers[mapping.mergedBufferIndex];
  range.startIndex = mapping.itemsOffset;
  range.primitiveCount = primitiveCount;
  return true;
}

} // namespace Moo
