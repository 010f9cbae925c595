#include "resmgr/bin_section.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/span_reader.hpp"
#include "resmgr/file_io.hpp"
#include "resmgr/file_system.hpp"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <span>
#include <type_traits>

namespace
{

// One index entry as the writer lays it out; the name and its zero padding follow. The legacy
// form drops the reserved bytes of entries whose length word lacks the top bit, so the reader
// takes the fields one by one rather than as this record.
struct IndexEntryHeader
{
  uint32_t dataLength;
  uint8_t reserved[16];
  int32_t nameLength;
};
static_assert(sizeof(IndexEntryHeader) == 24);
static_assert(offsetof(IndexEntryHeader, dataLength) == 0);
static_assert(offsetof(IndexEntryHeader, reserved) == 4);
static_assert(offsetof(IndexEntryHeader, nameLength) == 20);
static_assert(std::is_trivially_copyable_v<IndexEntryHeader>);

constexpr uint64_t kReservedBytes = sizeof(IndexEntryHeader::reserved);
constexpr uint32_t kLegacyReservedFlag = 0x80000000u;
constexpr const char* kAllocationTag = "BinaryBlock/BinSection";

constexpr uint64_t roundUp4(uint64_t value)
{
  return (value + 3) & ~uint64_t(3);
}

} // namespace

std::optional<uint64_t> binSectionIndexStart(uint32_t firstWord, uint64_t fileSize, int32_t indexLength)
{
  if (fileSize < 12)
    return std::nullopt;
  const uint64_t firstPayloadOffset = firstWord == BinSection::kMagic ? 4 : 0;
  // A non-positive index length puts the index at or past the length word; a huge one puts it
  // before the payloads.
  const int64_t indexStart = static_cast<int64_t>(fileSize) - indexLength - 4;
  if (indexStart < static_cast<int64_t>(firstPayloadOffset) || static_cast<uint64_t>(indexStart) >= fileSize - 4)
    return std::nullopt;
  return static_cast<uint64_t>(indexStart);
}

bool parseBinSectionIndex(
  uint32_t firstWord, uint64_t fileSize, uint64_t tailOffset, std::span<const char> tail,
  const std::function<void(const char* name, int nameLength, uint64_t dataOffset, uint32_t dataLength)>& onEntry)
{
  if (fileSize < 12 || tailOffset > fileSize - 4 || tail.size() != fileSize - tailOffset)
    return false;
  const uint64_t size = fileSize;
  // Reads at file positions; nothing before the tail is read.
  cstdmf::SpanReader tailReader(tail.data(), tail.size());
  bool inTail = true;
  const auto readAt = [&](uint64_t pos, auto value) {
    if (pos < tailOffset)
    {
      inTail = false;
      return decltype(value){};
    }
    return tailReader.readAt<decltype(value)>(static_cast<size_t>(pos - tailOffset));
  };

  const bool current = firstWord == BinSection::kMagic;
  const uint64_t nameMask = current ? 3 : 0;
  const uint64_t firstPayloadOffset = current ? 4 : 0;

  const std::optional<uint64_t> indexStart = binSectionIndexStart(firstWord, size, readAt(size - 4, int32_t{}));
  if (!indexStart)
    return false;
  const uint64_t payloadEnd = *indexStart;

  uint64_t pos = payloadEnd;
  uint64_t dataOffset = firstPayloadOffset;
  // The bound is the file end, not the index end: a well-formed index ends at size - 4, where
  // no further entry fits.
  while (pos <= size - 12)
  {
    uint32_t dataLength = readAt(pos, uint32_t{});
    pos += 4;
    // Without room for the reserved bytes the flag stays set and the length check refuses it.
    if (((dataLength & kLegacyReservedFlag) != 0 || current) && pos + kReservedBytes <= size - 8)
    {
      pos += kReservedBytes;
      dataLength &= ~kLegacyReservedFlag;
    }
    const auto nameLength = static_cast<uint32_t>(readAt(pos, int32_t{}));
    pos += 4;
    if (!inTail || !tailReader.ok() || dataLength > BinSection::kMaxDataLength || dataOffset + dataLength > payloadEnd ||
        nameLength > BinSection::kMaxNameLength || pos + nameLength > size - 4 || pos < tailOffset)
      return false;

    onEntry(tail.data() + (pos - tailOffset), static_cast<int>(nameLength), dataOffset, dataLength);

    pos += (nameLength + nameMask) & ~nameMask;
    dataOffset += roundUp4(dataLength);
  }
  return true;
}

bool parseBinSectionEntries(
  const ConstSmartPointer<BinaryBlock>& block,
  const std::function<void(const char* name, int nameLength, const char* data, int dataLength)>& onEntry)
{
  if (!block || block->len() < 12)
    return false;
  const char* bytes = block->data();
  uint32_t firstWord = 0;
  std::memcpy(&firstWord, bytes, sizeof(firstWord));
  return parseBinSectionIndex(firstWord, block->len(), 0, std::span<const char>(bytes, block->len()),
                              [&](const char* name, int nameLength, uint64_t dataOffset, uint32_t dataLength) {
                                onEntry(name, nameLength, bytes + dataOffset, static_cast<int>(dataLength));
                              });
}

BinSection::BinSection(std::string name, BinaryPtr block)
  : m_name(std::move(name)), m_block(std::move(block)), m_introspected(!m_block)
{
  // Without a block there is nothing to split: the section is a new container to be filled.
}

BinSection::~BinSection()
{
  detach(m_children);
}

cstdmf::SimpleMutex& BinSection::lock()
{
  static cstdmf::SimpleMutex s_lock;
  return s_lock;
}

void BinSection::introspectLocked()
{
  if (m_introspected)
    return;
  m_introspected = true;
  // The callback only makes blocks and sections; it never reaches code that takes the lock.
  const bool complete =
    parseBinSectionEntries(m_block, [this](const char* name, int nameLength, const char* data, int dataLength) {
      addChildSectionEntry(name, nameLength, data, dataLength);
    });
  if (!complete)
  {
    Children partial;
    partial.swap(m_children);
    detach(partial);
  }
}

void BinSection::addChildSectionEntry(const char* name, int nameLength, const char* data, int dataLength)
{
  BinaryPtr block(new BinaryBlock(data, static_cast<size_t>(dataLength), kAllocationTag, m_block));
  SmartPointer<BinSection> child(new BinSection(std::string(name, static_cast<size_t>(nameLength)), block));
  child->setParent(this);
  m_children.push_back(std::move(child));
}

void BinSection::detach(const Children& removed)
{
  for (const SmartPointer<BinSection>& child : removed)
  {
    DataSection* self = this;
    child->m_parent.compare_exchange_strong(self, nullptr);
  }
}

int BinSection::countChildren()
{
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  return static_cast<int>(m_children.size());
}

DataSectionPtr BinSection::openChild(int index)
{
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  const auto position = static_cast<uint32_t>(index);
  if (position >= m_children.size())
    return nullptr;
  return m_children[position];
}

DataSectionPtr BinSection::findChild(std::string_view name)
{
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  for (const SmartPointer<BinSection>& child : m_children)
  {
    if (child->m_name == name)
      return child;
  }
  return nullptr;
}

DataSectionPtr BinSection::newSection(std::string_view name)
{
  SmartPointer<BinSection> child(new BinSection(std::string(name), new BinaryBlock(nullptr, 0, kAllocationTag)));
  child->setParent(this);
  cstdmf::SimpleMutexHolder holder(lock());
  // Read the existing children first, or they would be read after the new one.
  introspectLocked();
  m_children.push_back(child);
  return child;
}

void BinSection::delChild(std::string_view name)
{
  Children removed;
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  for (auto it = m_children.begin(); it != m_children.end(); ++it)
  {
    if ((*it)->m_name == name)
    {
      removed.push_back(std::move(*it));
      m_children.erase(it);
      break;
    }
  }
  detach(removed);
}

void BinSection::delChild(const DataSectionPtr& child)
{
  Children removed;
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  for (auto it = m_children.begin(); it != m_children.end(); ++it)
  {
    if (static_cast<DataSection*>(it->get()) == child.get())
    {
      removed.push_back(std::move(*it));
      m_children.erase(it);
      break;
    }
  }
  detach(removed);
}

void BinSection::delChildren()
{
  Children removed;
  cstdmf::SimpleMutexHolder holder(lock());
  // Marked as read, so the removed children are not read again from the old bytes.
  introspectLocked();
  removed.swap(m_children);
  detach(removed);
}

BinaryPtr BinSection::asBinary()
{
  Children children;
  {
    cstdmf::SimpleMutexHolder holder(lock());
    if (!m_introspected)
      return m_block;
    children = m_children;
  }
  // Rebuilt outside the lock, because every child's asBinary takes it in turn.
  BinaryPtr block = recollect(children);
  if (!block)
    return nullptr;
  (void)setBinary(block);
  cstdmf::SimpleMutexHolder holder(lock());
  introspectLocked();
  return block;
}

bool BinSection::setBinary(BinaryPtr block)
{
  Children removed;
  cstdmf::SimpleMutexHolder holder(lock());
  m_block = std::move(block);
  m_introspected = false;
  removed.swap(m_children);
  detach(removed);
  return true;
}

size_t BinSection::bytes()
{
  cstdmf::SimpleMutexHolder holder(lock());
  return m_block ? m_block->len() : 0;
}

bool BinSection::save(const std::string& saveAsFileName)
{
  if (!saveAsFileName.empty())
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "ResMgr", "BinSection: Parent section for '{}' not found.\n",
               saveAsFileName);
    return false;
  }
  DataSection* parent = parentSection();
  if (parent == nullptr && !m_filePath.empty())
    return writeFile();
  if (parent == nullptr)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection: Can't save a section without a parent.\n");
    return false;
  }
  return parent->saveChild(*this, true);
}

bool BinSection::writeFile()
{
  const BinaryPtr block = asBinary();
  if (!block)
    return false; // asBinary has said why
  // Whole or not at all: a failed save leaves the old file as it was.
  const fileio::WriteResult written = fileio::writeWholeFile(
    m_filePath, std::span<const std::byte>(reinterpret_cast<const std::byte*>(block->data()), block->len()));
  if (!written)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection::save cannot write '%s': %s.\n", m_filePath.c_str(),
           written.reason.c_str());
    return false;
  }
  return true;
}

DataSectionPtr BinSection::convertToZip(const std::string& saveAs)
{
  DataSection* parent = parentSection();
  if (parent == nullptr)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection: Can't convert to zip without a parent.\n");
    return nullptr;
  }
  return parent->convertChildToZip(*this, saveAs);
}

bool BinSection::saveChild(DataSection& /*child*/, bool /*isBinary*/)
{
  return save();
}

BinaryPtr BinSection::recollect(const Children& children)
{
  struct Piece
  {
    BinaryPtr bytes;
    const std::string* name;
  };
  std::vector<Piece> pieces;
  pieces.reserve(children.size());
  uint64_t payloadTotal = 4; // the magic word
  uint64_t indexLength = 0;
  for (const SmartPointer<BinSection>& child : children)
  {
    BinaryPtr bytes = child->asBinary();
    const std::string& name = child->sectionName();
    if (!bytes)
    {
      ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection::recollect: section '%s' has no bytes to write.\n",
             name.c_str());
      return nullptr;
    }
    // What the reader would refuse is not written.
    if (bytes->len() > kMaxDataLength)
    {
      ZR_MSG(DebugMessagePriority::Error, "ResMgr",
             "BinSection::recollect: section '%s' holds %zu bytes, more than the %u an entry can hold.\n",
             name.c_str(), bytes->len(), kMaxDataLength);
      return nullptr;
    }
    if (name.size() > kMaxNameLength)
    {
      ZR_MSG(DebugMessagePriority::Error, "ResMgr",
             "BinSection::recollect: a section name of %zu bytes is longer than the %u an entry can hold.\n",
             name.size(), kMaxNameLength);
      return nullptr;
    }
    payloadTotal += roundUp4(bytes->len());
    indexLength += sizeof(IndexEntryHeader) + roundUp4(name.size());
    pieces.push_back({std::move(bytes), &name});
  }
  const uint64_t total = payloadTotal + indexLength + 4;
  if (indexLength > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()) || total > SIZE_MAX)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSection::recollect: %zu sections are too many for one container.\n",
           children.size());
    return nullptr;
  }

  // A fresh block is zero-filled, so the gaps after unaligned payloads and names are zeros.
  BinaryPtr block(new BinaryBlock(nullptr, static_cast<size_t>(total), kAllocationTag));
  if (block->len() != total)
    return nullptr; // the block has logged the failed allocation
  char* out = block->cdata();
  const uint32_t magic = kMagic;
  std::memcpy(out, &magic, sizeof(magic));
  size_t offset = 4;
  for (const Piece& piece : pieces)
  {
    std::memcpy(out + offset, piece.bytes->data(), piece.bytes->len());
    offset += static_cast<size_t>(roundUp4(piece.bytes->len()));
  }
  for (const Piece& piece : pieces)
  {
    IndexEntryHeader header{};
    header.dataLength = static_cast<uint32_t>(piece.bytes->len());
    header.nameLength = static_cast<int32_t>(piece.name->size());
    std::memcpy(out + offset, &header, sizeof(header));
    offset += sizeof(header);
    std::memcpy(out + offset, piece.name->data(), piece.name->size());
    offset += static_cast<size_t>(roundUp4(piece.name->size()));
  }
  const auto indexLengthWord = static_cast<int32_t>(indexLength);
  std::memcpy(out + offset, &indexLengthWord, sizeof(indexLengthWord));
  return block;
}

BinaryPtr writeBinSectionContainer(const std::vector<std::pair<std::string, BinaryPtr>>& entries)
{
  SmartPointer<BinSection> root(new BinSection("", nullptr));
  for (const auto& [name, payload] : entries)
  {
    DataSectionPtr child = root->newSection(name);
    (void)child->setBinary(payload);
  }
  return root->asBinary();
}

SmartPointer<BinSection> BinSectionCreator::create(DataSection* parent, const std::string& name)
{
  SmartPointer<BinSection> section(new BinSection(name, nullptr));
  section->setParent(parent);
  return section;
}

SmartPointer<BinSection> BinSectionCreator::load(DataSection* parent, const std::string& name, BinaryPtr bytes)
{
  if (!bytes)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSectionCreator::load '%s' has no bytes.\n", name.c_str());
    return nullptr;
  }
  SmartPointer<BinSection> section(new BinSection(name, std::move(bytes)));
  section->setParent(parent);
  return section;
}

SmartPointer<BinSection> BinSectionCreator::load(const std::string& path)
{
  BinaryPtr bytes = NativeFileSystem().readFile(path);
  if (!bytes)
  {
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "BinSectionCreator::load cannot read '%s'.\n", path.c_str());
    return nullptr;
  }
  SmartPointer<BinSection> section = load(nullptr, path, std::move(bytes));
  section->setFilePath(path);
  return section;
}
