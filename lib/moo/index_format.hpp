#pragma once
// Index buffer formats ("list": 16-bit, "list32": 32-bit triangle lists) and the header that
// opens every index section of a .primitives file:
//   0   64 bytes  format name, NUL-terminated inside the field, NUL-padded
//   64  uint32    index count, little-endian
//   68  uint32    not interpreted
//   72            indices, little-endian, tightly packed

#include "moo/section_records.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

enum class IndexFormat : uint32_t
{
  LIST = 0,   // "list": unsigned 16-bit indices
  LIST32 = 1, // "list32": unsigned 32-bit indices
};

namespace ari
{

// 2 or 4; any other value fails an assertion.
uint32_t getIndexSize(IndexFormat format);

} // namespace ari

namespace Moo
{

constexpr size_t kIndexSectionHeaderSize = sizeof(IndexSectionHeaderRecord);

// The format named exactly (case-sensitive) "list" or "list32"; no value for any other name.
std::optional<IndexFormat> getIndexFormatFromName(std::string_view name);

// "list" or "list32"; any other value fails an assertion.
std::string_view getIndexFormatName(IndexFormat format);

struct IndexSectionHeader
{
  IndexFormat format = IndexFormat::LIST;
  std::string formatName;
  uint32_t indexCount = 0;
  std::span<const std::byte> indices; // exactly indexCount × index size bytes, inside the section
};

// Reads the header of an index section and locates its indices. Fails (false, an ERROR message
// naming sectionName) when the section is shorter than its 72-byte header, names an unknown
// format, is too short for indexCount indices, or has an index count that is not a multiple of 3
// (the buffers are triangle lists). Never reads outside `section`; bytes after the indices are
// ignored.
[[nodiscard]] bool readIndexSectionHeader(std::span<const std::byte> section, std::string_view sectionName,
                                          IndexSectionHeader& out);

// Writes the header of an index section at the start of `section` (at least
// kIndexSectionHeaderSize bytes, asserted): the format's name NUL-padded, the count and 4 zero bytes.
void writeIndexSectionHeader(std::span<std::byte> section, IndexFormat format, uint32_t indexCount);

} // namespace Moo
