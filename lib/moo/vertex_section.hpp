#pragma once
// The header that opens every vertex section of a .primitives file:
//   0   64 bytes  source format name, NUL-terminated inside the field, NUL-padded
//   64  uint32    vertex count, little-endian
//   68            vertices, tightly packed in the source layout
// A section that starts with "BPVT" was processed by an earlier run: a 68-byte block opening with
// that magic comes first, then the header above at 68, and the vertices from 136.
//
// Reading takes two steps so that the caller can look the format up in between:
// readVertexSectionHeader, then (knowing the source stride) checkVertexPayload.

#include "moo/section_records.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Moo
{

constexpr size_t kVertexSectionHeaderSize = sizeof(VertexSectionHeaderRecord);
constexpr size_t kProcessedVertexSectionHeaderSize = 2 * kVertexSectionHeaderSize;

struct VertexSectionHeader
{
  std::string formatName;               // up to the field's first NUL
  uint32_t vertexCount = 0;
  bool processed = false;               // the section carried the "BPVT" block
  std::span<const std::byte> payload;   // every byte after the header; exactly the vertices after checkVertexPayload
};

// Reads the header of `section`. Fails (false, an ERROR message naming sectionName and the sizes)
// when the section is shorter than its header: 68 bytes, or 136 for the processed form. Never
// reads outside `section`; `out.payload` points into it. Reporting the processed form is the
// caller's business.
[[nodiscard]] bool readVertexSectionHeader(std::span<const std::byte> section, std::string_view sectionName,
                                           VertexSectionHeader& out);

// Checks that header.vertexCount vertices of sourceStride bytes (> 0, asserted) fit in the
// payload, computing in 64 bits; on success narrows header.payload to exactly those bytes (any
// bytes after them are ignored). Fails (false, an ERROR message naming sectionName, the count and
// the bytes available) when they do not fit; header is then unchanged.
[[nodiscard]] bool checkVertexPayload(VertexSectionHeader& header, uint32_t sourceStride,
                                      std::string_view sectionName);

// readVertexSectionHeader without a message: false when the section is shorter than its header.
[[nodiscard]] bool peekVertexSectionHeader(std::span<const std::byte> section, VertexSectionHeader& out);

// Writes the header of a vertex section at the start of `section` (at least
// kVertexSectionHeaderSize bytes, asserted): the name (shorter than its field, asserted) NUL-padded
// and the count. The reader of what it writes is readVertexSectionHeader.
void writeVertexSectionHeader(std::span<std::byte> section, std::string_view formatName, uint32_t vertexCount);

} // namespace Moo
