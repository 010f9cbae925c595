#pragma once
// The headers that open the vertex and index sections of a .primitives file, as byte records.
// Both are little-endian and unaligned in the file: copy them in and out with memcpy (the readers
// in vertex_section.cpp and index_format.cpp, the writers beside them).
//
// Vertex section:  0 format name (64 bytes), 64 vertex count; vertices from 68.
// Index section:   0 format name (64 bytes), 64 index count, 68 not interpreted (written 0);
//                  indices from 72.
// The format name is ASCII, NUL-terminated inside its field and NUL-padded.

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Moo
{

inline constexpr size_t kSectionFormatNameSize = 64;

struct VertexSectionHeaderRecord
{
  char formatName[kSectionFormatNameSize];
  uint32_t vertexCount;
};
static_assert(sizeof(VertexSectionHeaderRecord) == 68);
static_assert(offsetof(VertexSectionHeaderRecord, formatName) == 0);
static_assert(offsetof(VertexSectionHeaderRecord, vertexCount) == 64);

struct IndexSectionHeaderRecord
{
  char formatName[kSectionFormatNameSize];
  uint32_t indexCount;
  uint32_t reserved;
};
static_assert(sizeof(IndexSectionHeaderRecord) == 72);
static_assert(offsetof(IndexSectionHeaderRecord, formatName) == 0);
static_assert(offsetof(IndexSectionHeaderRecord, indexCount) == 64);
static_assert(offsetof(IndexSectionHeaderRecord, reserved) == 68);

static_assert(std::endian::native == std::endian::little, "the records are copied as they lie in the file");

} // namespace Moo
