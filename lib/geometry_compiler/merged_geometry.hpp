#pragma once
// The merged state of one model: one growable buffer per vertex format and per index format, in
// order of first appearance, and for every source section the range it occupies.

#include "cstdmf/byte_vector.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace GeometryCompilerDetail
{

// One merged buffer: the format name it is keyed by and its bytes.
struct DataEntry
{
  std::string formatName;
  cstdmf::ByteVector data;
};

// Where one source section lives inside a merged buffer.
struct MappingInfo
{
  uint32_t offsetInBytes = 0;
  uint32_t sizeInBytes = 0;
};

struct MappingEntry
{
  std::string sectionName;
  std::string formatName; // of the merged buffer that holds the section
  MappingInfo info;
  uint16_t strideInBytes = 0; // vertices only
  float texelDensity = 0.0f;
  // Indices only: the largest index of the section, measured while it was copied in (none for an
  // empty one), so that neither the range check nor the encoder's bound needs a pass of its own.
  std::optional<uint32_t> maxIndex;
};

// Per merged vertex buffer: what the file stores beside the bytes.
struct VertexBufferInfo
{
  uint16_t strideInBytes = 0;
  bool isSkinned = false;
  bool isBumped = false;
};

// Per merged index buffer.
struct IndexBufferInfo
{
  uint32_t indexFormat = 0;     // IndexFormat value
  uint32_t maxVertexCount = 0;  // largest vertex count of any range optimised against it
};

// The buffers of one kind: merged bytes, the record of each buffer (at the same position) and the
// sections' ranges in the order they were added.
template <typename Info>
struct MergedBuffers
{
  std::vector<DataEntry> data;
  std::vector<std::pair<std::string, Info>> records; // keyed by format name
  std::vector<MappingEntry> mappings;
  // Bytes to reserve for a buffer when it is created (format name, bytes): a buffer that grows to
  // its final size at once is never moved.
  std::vector<std::pair<std::string, size_t>> expectedSizes;

  // Position of the buffer of that format (its merged buffer index), if there is one.
  std::optional<size_t> find(std::string_view formatName) const
  {
    for (size_t i = 0; i < data.size(); ++i)
      if (data[i].formatName == formatName)
        return i;
    return std::nullopt;
  }

  // The first section of that name, or null.
  MappingEntry* findMapping(std::string_view sectionName)
  {
    for (MappingEntry& entry : mappings)
      if (entry.sectionName == sectionName)
        return &entry;
    return nullptr;
  }
  const MappingEntry* findMapping(std::string_view sectionName) const
  {
    return const_cast<MergedBuffers*>(this)->findMapping(sectionName);
  }

  // The bytes of one section inside its buffer; empty when its buffer is gone.
  std::span<std::byte> bytesOf(const MappingEntry& entry)
  {
    const std::optional<size_t> index = find(entry.formatName);
    if (!index)
      return {};
    return std::span<std::byte>(data[*index].data).subspan(entry.info.offsetInBytes, entry.info.sizeInBytes);
  }

  void clear()
  {
    data.clear();
    records.clear();
    mappings.clear();
    expectedSizes.clear();
  }
};

// Gathers the vertex and index sections of one model into shared buffers.
class MergedGeometry
{
public:
  using VertexBuffers = MergedBuffers<VertexBufferInfo>;
  using IndexBuffers = MergedBuffers<IndexBufferInfo>;

  // Appends one section's converted vertices to the buffer of formatName (created with `info` on
  // first use). A section name seen before is reported and ignored (the first wins; true). False
  // (reported) when the buffer would pass 4 GiB.
  [[nodiscard]] bool addVertices(const std::string& sectionName, std::span<const std::byte> data,
                                 const std::string& formatName, const VertexBufferInfo& info);
  // The same for one section's indices, kept unchanged.
  [[nodiscard]] bool addIndices(const std::string& sectionName, std::span<const std::byte> data,
                                const std::string& formatName, const IndexBufferInfo& info);

  // Room for a new section's `size` bytes at the end of the buffer of formatName (created with
  // `info` on first use), recorded as addVertices / addIndices record it, for the caller to fill at
  // once (the span is valid until the next append). Nullopt, with nothing changed or reported, when
  // the section name is taken or the buffer would pass 4 GiB: addVertices / addIndices deal with
  // those.
  [[nodiscard]] std::optional<std::span<std::byte>> appendVertexRoom(const std::string& sectionName, size_t size,
                                                                     const std::string& formatName,
                                                                     const VertexBufferInfo& info);
  [[nodiscard]] std::optional<std::span<std::byte>> appendIndexRoom(const std::string& sectionName, size_t size,
                                                                    const std::string& formatName,
                                                                    const IndexBufferInfo& info);

  // Whether every index of the index section is below the vertex count of the vertex section;
  // reports the first one that is not, naming both sections and resourceName.
  [[nodiscard]] bool checkIndexRange(const MappingEntry& vertices, const MappingEntry& indices,
                                     const std::string& resourceName) const;

  VertexBuffers& vertices() { return m_vertices; }
  const VertexBuffers& vertices() const { return m_vertices; }
  IndexBuffers& indices() { return m_indices; }
  const IndexBuffers& indices() const { return m_indices; }

  void clear()
  {
    m_vertices.clear();
    m_indices.clear();
  }

private:
  // Appends data to the buffer of formatName, creating it (and its record) on first use, and
  // records where the section went.
  template <typename Info>
  static std::span<std::byte> addToContainer(MergedBuffers<Info>& buffers, MappingEntry mapping, size_t size,
                                             const Info& info);

  VertexBuffers m_vertices;
  IndexBuffers m_indices;
};

// The index at position i of a 2- or 4-byte index array.
uint32_t readIndex(const std::byte* indices, size_t i, uint32_t indexSize);

} // namespace GeometryCompilerDetail
