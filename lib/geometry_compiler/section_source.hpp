#pragma once
// Where the packing takes a container's sections from: the blocks of a file that was read whole,
// or the file itself, read one section at a time into one reused buffer, so that a model never
// holds its whole source file in memory.

#include "cstdmf/byte_vector.hpp"
#include "resmgr/binary_block.hpp"
#include "resmgr/file_io.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace GeometryCompilerDetail
{

class SectionSource
{
public:
  virtual ~SectionSource() = default;
  virtual size_t count() const = 0;
  virtual const std::string& name(size_t i) const = 0;
  virtual size_t sectionSize(size_t i) const = 0;
  // Up to the first `size` bytes of section i (all of them when it is shorter), for a look at its
  // header; valid until the next call. Empty when they cannot be read.
  virtual std::span<const std::byte> head(size_t i, size_t size) = 0;
  // All bytes of section i, valid until the next call; nullopt (reported, naming the section and
  // the file) when they cannot be read.
  virtual std::optional<std::span<const std::byte>> bytes(size_t i) = 0;
};

// The children of a file read whole.
class BlockSections final : public SectionSource
{
public:
  explicit BlockSections(const std::vector<std::pair<std::string, BinaryPtr>>& children) : m_children(children) {}
  size_t count() const override { return m_children.size(); }
  const std::string& name(size_t i) const override { return m_children[i].first; }
  size_t sectionSize(size_t i) const override { return all(i).size(); }
  std::span<const std::byte> head(size_t i, size_t size) override { return all(i).first(std::min(size, all(i).size())); }
  std::optional<std::span<const std::byte>> bytes(size_t i) override { return all(i); }

private:
  std::span<const std::byte> all(size_t i) const;
  const std::vector<std::pair<std::string, BinaryPtr>>& m_children;
};

// A container file read section by section. open() reads only its index.
class FileSections final : public SectionSource
{
public:
  // Why open() failed, for the caller's message.
  enum class Failure
  {
    None,
    Read,   // see readStatus(), reason(), bytesRead()
    Empty,  // the file has no bytes
    Index,  // the index is not a valid container index
    NoSections, // a valid index without entries
  };

  [[nodiscard]] Failure open(const std::string& utf8Path);
  fileio::ReadStatus readStatus() const { return m_readStatus; }
  const std::string& reason() const { return m_reason.empty() ? m_file.reason() : m_reason; }
  size_t bytesRead() const { return m_file.bytesRead(); }
  uint64_t fileSize() const { return m_file.size(); }

  size_t count() const override { return m_entries.size(); }
  const std::string& name(size_t i) const override { return m_entries[i].name; }
  size_t sectionSize(size_t i) const override { return m_entries[i].length; }
  std::span<const std::byte> head(size_t i, size_t size) override;
  std::optional<std::span<const std::byte>> bytes(size_t i) override;

private:
  struct Entry
  {
    std::string name;
    uint64_t offset = 0;
    uint32_t length = 0;
  };
  // Sizes `buffer`; false (reason set) when memory runs out.
  bool allocate(cstdmf::ByteVector& buffer, size_t size);
  bool readInto(const Entry& entry, size_t size, cstdmf::ByteVector& buffer);

  std::string m_path;
  fileio::FileReader m_file;
  fileio::ReadStatus m_readStatus = fileio::ReadStatus::Ok;
  std::vector<Entry> m_entries;
  std::string m_reason; // of the last failure that was not the file's own
  cstdmf::ByteVector m_buffer; // the section being packed
  cstdmf::ByteVector m_head;
};

} // namespace GeometryCompilerDetail
