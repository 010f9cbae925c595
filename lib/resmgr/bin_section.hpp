#pragma once
// The binary section container (.primitives and friends): named, opaque payloads followed by an
// index of names at the end of the file, and the data section that exposes the payloads as
// children.

#include "cstdmf/simple_mutex.hpp"
#include "resmgr/binary_block.hpp"
#include "resmgr/data_section.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Walks the container's index and calls `onEntry` once per entry, in index order, with pointers
// into the block's own bytes (the name is not terminated). Reads both the current form (magic
// word first, names padded to 4 bytes) and the legacy form (no magic word, names packed).
// Returns true when the index was walked to its end; false for a null block, a block shorter than
// 12 bytes, an index length that puts the index outside the file, a payload longer than
// kMaxDataLength or running into the index, or a name longer than kMaxNameLength or running past
// the index. Entries delivered before a fault stay delivered. Logs nothing: the caller reports.
[[nodiscard]] bool parseBinSectionEntries(
  const ConstSmartPointer<BinaryBlock>& block,
  const std::function<void(const char* name, int nameLength, const char* data, int dataLength)>& onEntry);

// The same walk over the index alone, for a reader that does not hold the whole file: `firstWord`
// is the file's first 4 bytes (0 when it has fewer), `tail` the file's bytes from `tailOffset` to
// its end, which must hold the whole index and the length word (see binSectionIndexStart). Calls
// `onEntry` with the name (inside `tail`) and where the payload lies in the file. Fails as
// parseBinSectionEntries does, and also when an entry would need bytes before the tail.
[[nodiscard]] bool parseBinSectionIndex(
  uint32_t firstWord, uint64_t fileSize, uint64_t tailOffset, std::span<const char> tail,
  const std::function<void(const char* name, int nameLength, uint64_t dataOffset, uint32_t dataLength)>& onEntry);

// Where the index of a file of fileSize bytes begins, from the file's last 4 bytes (its index
// length); nullopt when the length puts the index outside the file.
[[nodiscard]] std::optional<uint64_t> binSectionIndexStart(uint32_t firstWord, uint64_t fileSize, int32_t indexLength);

// A data section whose value is one block and whose children are the entries of the container
// in that block. Children are read lazily on first use and borrow the parent's bytes (no copies);
// a child keeps the whole file's bytes alive. Edits to children are written back into this
// section's bytes by asBinary. Reading, splitting and rebuilding of all BinSections are serialised
// by one process-wide lock.
class BinSection final : public DataSection
{
public:
  static constexpr uint32_t kMagic = 0x42A14E65;
  static constexpr uint32_t kMaxDataLength = 0x10100000;
  static constexpr uint32_t kMaxNameLength = 4096;

  // `block` may be null for a new container that is filled with newSection.
  BinSection(std::string name, BinaryPtr block);
  ~BinSection() override;

  const std::string& sectionName() const override { return m_name; }

  // A block that is not a valid container gives no children (the fault is not reported here:
  // use parseBinSectionEntries to tell).
  int countChildren() override;
  DataSectionPtr openChild(int index) override;
  DataSectionPtr findChild(std::string_view name) override;
  DataSectionPtr newSection(std::string_view name) override;
  void delChild(std::string_view name) override;
  void delChild(const DataSectionPtr& child) override;
  void delChildren() override;

  // Once the children have been read, the bytes are rebuilt from them (in the current form) and
  // read again, so edits to children are reflected; children opened before are then detached.
  // Null, after logging, when the rebuild fails: a child without bytes, a payload longer than
  // kMaxDataLength, a name longer than kMaxNameLength, or memory running out.
  BinaryPtr asBinary() override;
  // Replaces the bytes and drops all children (they are read again from the new bytes). True.
  bool setBinary(BinaryPtr block) override;
  size_t bytes() override;

  void setParent(DataSection* parent) override { m_parent.store(parent); }
  DataSection* parentSection() const override { return m_parent.load(); }

  // Saves through the parent (the parent is asked to save this child); a section read from a file
  // and held by no other section writes that file, whole or not at all. Without either, or under
  // another name (this library keeps no section tree to find the new holder in), logs and returns
  // false.
  [[nodiscard]] bool save(const std::string& saveAsFileName = std::string()) override;
  // Asks the parent; without one logs and returns null.
  DataSectionPtr convertToZip(const std::string& saveAs = std::string()) override;
  // A child's bytes are part of this section's bytes, so this section saves itself.
  [[nodiscard]] bool saveChild(DataSection& child, bool isBinary) override;

  // The file this section was read from (UTF-8), or empty.
  const std::string& filePath() const { return m_filePath; }
  void setFilePath(std::string path) { m_filePath = std::move(path); }

private:
  using Children = std::vector<SmartPointer<BinSection>>;

  [[nodiscard]] bool writeFile();

  static cstdmf::SimpleMutex& lock();
  // The caller holds lock().
  void introspectLocked();
  void addChildSectionEntry(const char* name, int nameLength, const char* data, int dataLength);
  // Builds one current-form container from the children's bytes. Must not be called under
  // lock(): each child's asBinary takes it.
  static BinaryPtr recollect(const Children& children);
  // Clears the parent pointer of children that leave this section, so none outlives it dangling.
  void detach(const Children& removed);

  const std::string m_name;
  BinaryPtr m_block;
  Children m_children;
  bool m_introspected;
  std::atomic<DataSection*> m_parent{nullptr};
  std::string m_filePath;
};

// Makes container sections for the resource manager.
class BinSectionCreator
{
public:
  // A new, empty container section named `name`, held by `parent` (may be null).
  static SmartPointer<BinSection> create(DataSection* parent, const std::string& name);
  // A container section named `name` over `bytes` (no copy), held by `parent` (may be null).
  // Null, after logging, when `bytes` is null.
  static SmartPointer<BinSection> load(DataSection* parent, const std::string& name, BinaryPtr bytes);
  // The file at `path` (UTF-8) read whole into a container section named `path`, which saves
  // back into that file. Null, after logging, when the file cannot be read.
  static SmartPointer<BinSection> load(const std::string& path);
};

// Builds a container from (name, payload) pairs in order; null, after logging, when a payload is
// null or too long, a name is too long, or memory runs out.
[[nodiscard]] BinaryPtr writeBinSectionContainer(const std::vector<std::pair<std::string, BinaryPtr>>& entries);
