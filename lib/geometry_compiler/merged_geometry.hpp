#pragma once
// The merged state of one model: one growable buffer per vertex format and per index format, in
// order of first appearance, and for every source section the range it occupies.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace GeometryCompilerDetail
{

// One merged buffer: the format name it is keyed by and its bytes.
struct DataEntry
{
  std::string formatName;
  std::vector<std::byte> data;
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

} // namespace GeometryCompilerDetail
