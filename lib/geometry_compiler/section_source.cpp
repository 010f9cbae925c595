#include "geometry_compiler/section_source.hpp"

#include "cstdmf/debug.hpp"
#include "resmgr/bin_section.hpp"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

namespace GeometryCompilerDetail
{

std::span<const std::byte> BlockSections::all(size_t i) const
{
  const BinaryPtr& block = m_children[i].second;
  if (!block)
    return {};
  return {reinterpret_cast<const std::byte*>(block->data()), block->len()};
}

FileSections::Failure FileSections::open(const std::string& utf8Path)
{
  m_path = utf8Path;
  m_entries.clear();
  m_reason.clear();
  m_readStatus = m_file.open(utf8Path);
  if (m_readStatus != fileio::ReadStatus::Ok)
    return Failure::Read;
  const uint64_t size = m_file.size();
  if (size == 0)
    return Failure::Empty;

  // The first word tells the container's form, the last one the index's length; the index is all
  // that is read now.
  uint32_t firstWord = 0;
  int32_t indexLength = 0;
  if (size >= 4)
  {
    std::byte word[4];
    if (!m_file.readAt(0, word))
      return m_readStatus = fileio::ReadStatus::ShortRead, Failure::Read;
    std::memcpy(&firstWord, word, 4);
    if (!m_file.readAt(size - 4, word))
      return m_readStatus = fileio::ReadStatus::ShortRead, Failure::Read;
    std::memcpy(&indexLength, word, 4);
  }
  const std::optional<uint64_t> indexStart = binSectionIndexStart(firstWord, size, indexLength);
  if (!indexStart)
    return Failure::Index;
  cstdmf::ByteVector tail;
  if (!allocate(tail, static_cast<size_t>(size - *indexStart)))
    return m_readStatus = fileio::ReadStatus::OutOfMemory, Failure::Read;
  if (!m_file.readAt(*indexStart, tail))
    return m_readStatus = fileio::ReadStatus::ShortRead, Failure::Read;
  const bool parsed = parseBinSectionIndex(
    firstWord, size, *indexStart, std::span<const char>(reinterpret_cast<const char*>(tail.data()), tail.size()), [&](const char* name, int nameLength, uint64_t offset, uint32_t length) {
      m_entries.push_back({std::string(name, static_cast<size_t>(nameLength)), offset, length});
    });
  if (!parsed)
    return Failure::Index;
  return m_entries.empty() ? Failure::NoSections : Failure::None;
}

bool FileSections::allocate(cstdmf::ByteVector& buffer, size_t size)
{
  try
  {
    buffer.resize(size);
    return true;
  }
  catch (const std::bad_alloc&)
  {
    m_reason = "out of memory for " + std::to_string(size) + " bytes";
    return false;
  }
}

bool FileSections::readInto(const Entry& entry, size_t size, cstdmf::ByteVector& buffer)
{
  if (!allocate(buffer, size))
    return false;
  if (m_file.readAt(entry.offset, buffer))
    return true;
  m_reason = m_file.reason();
  return false;
}

std::span<const std::byte> FileSections::head(size_t i, size_t size)
{
  const Entry& entry = m_entries[i];
  if (!readInto(entry, std::min<size_t>(size, entry.length), m_head))
    return {};
  return m_head;
}

std::optional<std::span<const std::byte>> FileSections::bytes(size_t i)
{
  const Entry& entry = m_entries[i];
  if (!readInto(entry, entry.length, m_buffer))
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryCompiler::load cannot read section '%s' of '%s': %s.\n",
           entry.name.c_str(), m_path.c_str(), m_reason.c_str());
    return std::nullopt;
  }
  return std::span<const std::byte>(m_buffer);
}

} // namespace GeometryCompilerDetail
