#pragma once
// Reader of .geometry files: one packed MergedGeometryPrototype (see moo_prototypes.hpp).
//
// The whole file is held in one block. Before anything is trusted, every count and offset is
// checked against the file: an array's offset is counted from its own record and must leave
// count × element size bytes inside the file; a non-empty array never has offset 0 and an empty
// one always has offset 0 (the archive writes nothing else); strings end in their zero byte; the
// file ends where its last array ends; mappings name an existing buffer and, for buffers that are
// not encoded, a range inside the buffer's items. The records are then copied out into the plain
// structures below; data spans point into the held block. Encoded buffers are not decoded here.

#include "cstdmf/string_id.hpp"
#include "moo/moo_prototypes.hpp"
#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Moo
{

class GeometryData
{
public:
  // The checks made after one buffer has been made per merged-buffer record, reported with these
  // texts when they fail.
  static constexpr const char* kVertexBufferCountCheck = "proto.mergedVerticesCount == mergedVertices_.size()";
  static constexpr const char* kIndexBufferCountCheck = "proto.mergedIndicesCount == mergedIndices_.size()";

  struct VertexBuffer
  {
    std::string formatName;
    std::span<const std::byte> data; // sizeInBytes bytes
    uint32_t sizeInBytes = 0;
    uint16_t strideInBytes = 0;
    bool isSkinned = false;
    bool isBumped = false;
    bool encoded = false; // data starts with "ENCD": an encoded buffer, sizeInBytes is its length
  };

  struct IndexBuffer
  {
    std::span<const std::byte> data; // sizeInBytes bytes
    uint32_t sizeInBytes = 0;
    uint16_t primitiveType = 0; // 0: 16-bit indices, 1: 32-bit indices
    uint16_t strideInBytes = 0; // 2 or 4, matching primitiveType
    bool encoded = false;
  };

  // A collision or armor model: its name and its opaque bytes.
  struct ModelData
  {
    std::string name;
    std::span<const std::byte> data;
  };

  struct VertexRange
  {
    MappingPrototype mapping{};
    const VertexBuffer* buffer = nullptr;
  };

  // A triangle list: primitiveCount triangles from index mapping.itemsOffset of the buffer.
  struct IndexRange
  {
    MappingPrototype mapping{};
    const IndexBuffer* buffer = nullptr;
    uint32_t startIndex = 0;
    uint32_t primitiveCount = 0;
  };

  static constexpr size_t kNotFound = static_cast<size_t>(-1);

  // Reads the file at `path` (UTF-8) whole and loads it as below. Returns false after logging,
  // with the reader left empty, when the file cannot be read or is refused.
  [[nodiscard]] bool load(const std::string& path);

  // Loads the packed bytes of `block` and keeps the block. `name` (a file name) is used in
  // messages. Returns false after logging what is wrong, with the reader left empty, when any
  // check fails; nothing is read outside the block, whatever its bytes. With `problem`, what is
  // wrong is put there instead of logged.
  [[nodiscard]] bool load(ConstBinaryPtr block, std::string_view name, std::string* problem = nullptr);

  void clear();
  bool isLoaded() const { return m_block != nullptr; }
  const std::string& name() const { return m_name; }
  const ConstBinaryPtr& block() const { return m_block; }

  const std::vector<VertexBuffer>& vertexBuffers() const { return m_vertexBuffers; }
  const std::vector<IndexBuffer>& indexBuffers() const { return m_indexBuffers; }
  const std::vector<MappingPrototype>& verticesMapping() const { return m_verticesMapping; }
  const std::vector<MappingPrototype>& indicesMapping() const { return m_indicesMapping; }
  const std::vector<ModelData>& collisionModels() const { return m_collisionModels; }
  const std::vector<ModelData>& armorModels() const { return m_armorModels; }

  // Position of the first mapping with this id: `hint` is tried first, then every record in
  // order. kNotFound when there is none.
  static size_t findMapping(std::span<const MappingPrototype> mappings, StringID mappingId, size_t hint);

  // The vertex range of the source section `sectionName` (looked up by its string id). Returns
  // false after logging "GeometryData::fetchVertices: could not find indices <name>" when there is
  // no such mapping, or "... corrupted merged buffer index <name>" when it names no buffer.
  [[nodiscard]] bool fetchVertices(std::string_view sectionName, VertexRange& range, size_t hint = 0) const;
  // As fetchVertices, by mapping id; messages name the id as 0x%08x.
  [[nodiscard]] bool fetchVerticesById(StringID mappingId, VertexRange& range, size_t hint = 0) const;

  // The index range of the source section `sectionName`, as a triangle list. Returns false after
  // logging "GeometryData::fetchIndices: could not find indices <name>", "... corrupted merged
  // buffer index <name>", or that the index count is not a whole number of triangles.
  [[nodiscard]] bool fetchIndices(std::string_view sectionName, IndexRange& range, size_t hint = 0) const;
  [[nodiscard]] bool fetchIndicesById(StringID mappingId, IndexRange& range, size_t hint = 0) const;

  // Triangles of a triangle list of `itemsCount` indices. False when the count is not a multiple
  // of 3.
  [[nodiscard]] static bool trianglePrimitiveCount(uint32_t itemsCount, uint32_t& primitiveCount);

private:
  bool fetchVerticesImpl(StringID mappingId, const char* label, VertexRange& range, size_t hint) const;
  bool fetchIndicesImpl(StringID mappingId, const char* label, IndexRange& range, size_t hint) const;

  std::string m_name;
  ConstBinaryPtr m_block;
  std::vector<VertexBuffer> m_vertexBuffers;
  std::vector<IndexBuffer> m_indexBuffers;
  std::vector<MappingPrototype> m_verticesMapping;
  std::vector<MappingPrototype> m_indicesMapping;
  std::vector<ModelData> m_collisionModels;
  std::vector<ModelData> m_armorModels;
};

} // namespace Moo
