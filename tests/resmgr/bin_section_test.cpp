#include "resmgr/bin_section.hpp"

#include "cstdmf/platform.hpp"
#include "test_helpers.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace
{

using resmgr_test::blockOf;
using resmgr_test::Bytes;
using resmgr_test::textOf;
using Entries = std::vector<std::pair<std::string, std::string>>;

struct Parsed
{
  bool ok = false;
  Entries entries;
  std::vector<const char*> payloads;
};

Parsed parse(const BinaryPtr& block)
{
  Parsed result;
  result.ok = parseBinSectionEntries(block, [&](const char* name, int nameLength, const char* data, int dataLength) {
    const char* end = block->data() + block->len();
    EXPECT_TRUE(name >= block->data() && nameLength >= 0 && name + nameLength <= end);
    EXPECT_TRUE(data >= block->data() && dataLength >= 0 && data + dataLength <= end);
    result.entries.emplace_back(std::string(name, nameLength), std::string(data, dataLength));
    result.payloads.push_back(data);
  });
  return result;
}

BinaryPtr write(const Entries& entries)
{
  std::vector<std::pair<std::string, BinaryPtr>> blocks;
  for (const auto& [name, data] : entries)
    blocks.emplace_back(name, blockOf(data));
  return writeBinSectionContainer(blocks);
}

// A current-form container laid out by hand, free of the writer's limits.
std::string handMade(const Entries& entries)
{
  Bytes file, index;
  file.u32(BinSection::kMagic);
  for (const auto& [name, data] : entries)
  {
    file.raw(data).zeros((4 - data.size() % 4) % 4);
    index.u32(static_cast<uint32_t>(data.size())).zeros(16).u32(static_cast<uint32_t>(name.size())).raw(name);
    index.zeros((4 - name.size() % 4) % 4);
  }
  return file.raw(index.text).u32(static_cast<uint32_t>(index.text.size())).text;
}

std::string patched(std::string bytes, size_t offset, uint32_t value)
{
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
  return bytes;
}

const Entries kSample = {{"hull.vertices", std::string("\xEE\xEE\xEE\xEE\xEE", 5)},
                         {"hull.indices", "01234567"},
                         {"a", ""},
                         {"abcd", "x"}};

TEST(BinSectionFormat, WriterLayoutIsExact)
{
  // Magic, the payload and its zero gap, one entry (name padded to 4 bytes), the index length.
  const std::string expected =
    Bytes().raw("\x65\x4E\xA1\x42").raw("hello").zeros(3).u32(5).zeros(16).u32(3).raw("abc").zeros(1).u32(28).text;
  EXPECT_EQ(textOf(write({{"abc", "hello"}})), expected);
  EXPECT_EQ(handMade({{"abc", "hello"}}), expected);
}

TEST(BinSectionFormat, RoundTripKeepsNamesOrderAndPayloads)
{
  BinaryPtr file = write(kSample);
  const Parsed parsed = parse(file);
  ASSERT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.entries, kSample);
  // A 5-byte payload is followed by the next one 8 bytes later.
  EXPECT_EQ(parsed.payloads[1] - parsed.payloads[0], 8);
  EXPECT_EQ(parsed.payloads[0] - file->data(), 4);
}

TEST(BinSectionFormat, LegacyEntriesWithAndWithoutReservedBytes)
{
  // No magic; the first length word has the top bit, so 16 reserved bytes follow it; names are
  // not padded.
  const std::string legacy = Bytes()
                               .raw("hello").zeros(3).raw("xy").zeros(2)
                               .u32(0x80000005u).zeros(16).u32(3).raw("abc")
                               .u32(2).u32(1).raw("z")
                               .u32(36)
                               .text;
  const Parsed parsed = parse(blockOf(legacy));
  ASSERT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.entries, (Entries{{"abc", "hello"}, {"z", "xy"}}));
}

TEST(BinSectionFormat, RejectsAtEachBoundary)
{
  EXPECT_FALSE(parse(nullptr).ok);
  EXPECT_FALSE(parse(blockOf(std::string(11, '\x01'))).ok);

  const std::string valid = handMade({{"abcd", "12345678"}});
  ASSERT_TRUE(parse(blockOf(valid)).ok);
  const size_t lengthWord = valid.size() - 4;
  EXPECT_FALSE(parse(blockOf(patched(valid, lengthWord, 0))).ok);
  EXPECT_FALSE(parse(blockOf(patched(valid, lengthWord, 0xFFFFFFFFu))).ok);
  EXPECT_FALSE(parse(blockOf(patched(valid, 12, 9))).ok);  // payload runs into the index
  EXPECT_FALSE(parse(blockOf(patched(valid, 32, 5))).ok);  // name runs into the length word

  // The index may start right after the magic word, but not inside it.
  const std::string minimal = Bytes().u32(BinSection::kMagic).u32(0).zeros(16).u32(0).u32(24).text;
  const Parsed atFour = parse(blockOf(minimal));
  EXPECT_TRUE(atFour.ok);
  EXPECT_EQ(atFour.entries, (Entries{{"", ""}}));
  EXPECT_FALSE(parse(blockOf(patched(minimal, minimal.size() - 4, 25))).ok);

  EXPECT_TRUE(parse(blockOf(handMade({{std::string(4096, 'n'), "p"}}))).ok);
  EXPECT_FALSE(parse(blockOf(handMade({{std::string(4097, 'n'), "p"}}))).ok);
}

TEST(BinSectionFormat, PayloadLengthLimit)
{
  // Zero-filled blocks are reserved, not touched, so only the index pages cost memory.
  for (const uint32_t length : {BinSection::kMaxDataLength, BinSection::kMaxDataLength + 1})
  {
    const std::string index = Bytes().u32(length).zeros(16).u32(1).raw("p").zeros(3).text;
    const size_t indexStart = 4 + ((size_t(length) + 3) & ~size_t(3));
    BinaryPtr block(new BinaryBlock(nullptr, indexStart + index.size() + 4, "Test"));
    ASSERT_GT(block->len(), 0u);
    const uint32_t magic = BinSection::kMagic, indexLength = static_cast<uint32_t>(index.size());
    std::memcpy(block->cdata(), &magic, 4);
    std::memcpy(block->cdata() + indexStart, index.data(), index.size());
    std::memcpy(block->cdata() + indexStart + index.size(), &indexLength, 4);
    int seen = -1;
    const bool ok = parseBinSectionEntries(block, [&](const char*, int, const char*, int dataLength) { seen = dataLength; });
    EXPECT_EQ(ok, length == BinSection::kMaxDataLength);
    EXPECT_EQ(seen, ok ? static_cast<int>(length) : -1);
  }
}

TEST(BinSectionFormat, EveryTruncatedPrefixStaysInBounds)
{
  // The format has no checksum: a cut file may still parse into garbage entries, but every
  // pointer handed out lies inside the block (parse checks, the sanitizer watches the reads) and
  // no cut file passes for the whole one.
  const std::string file = textOf(write(kSample));
  for (size_t length = 0; length < file.size(); ++length)
  {
    const Parsed parsed = parse(blockOf(file.substr(0, length)));
    EXPECT_FALSE(parsed.ok && parsed.entries == kSample) << length;
  }
}

// What a reader that holds only the file's index (its tail) sees: the outcome, and every entry's
// name and payload position, as the parse of the whole file sees them.
struct IndexOnly
{
  bool ok = false;
  std::vector<std::tuple<std::string, uint64_t, uint32_t>> entries;
  bool operator==(const IndexOnly&) const = default;
};

IndexOnly parseIndexOnly(const std::string& file)
{
  IndexOnly result;
  uint32_t firstWord = 0, lengthWord = 0;
  if (file.size() >= 4)
  {
    std::memcpy(&firstWord, file.data(), 4);
    std::memcpy(&lengthWord, file.data() + file.size() - 4, 4);
  }
  const std::optional<uint64_t> start = binSectionIndexStart(firstWord, file.size(), static_cast<int32_t>(lengthWord));
  if (!start)
    return result;
  const std::string tail = file.substr(static_cast<size_t>(*start));
  result.ok = parseBinSectionIndex(firstWord, file.size(), *start, tail,
                                   [&](const char* name, int nameLength, uint64_t offset, uint32_t length) {
                                     EXPECT_TRUE(name >= tail.data() && name + nameLength <= tail.data() + tail.size());
                                     result.entries.emplace_back(std::string(name, nameLength), offset, length);
                                   });
  return result;
}

IndexOnly parseWhole(const std::string& file)
{
  IndexOnly result;
  const BinaryPtr block = blockOf(file);
  result.ok = parseBinSectionEntries(block, [&](const char* name, int nameLength, const char* data, int length) {
    result.entries.emplace_back(std::string(name, nameLength), static_cast<uint64_t>(data - block->data()),
                                static_cast<uint32_t>(length));
  });
  return result;
}

TEST(BinSectionFormat, TheIndexAloneReadsAsTheWholeFile)
{
  const std::string legacy = Bytes()
                               .raw("hello").zeros(3).raw("xy").zeros(2)
                               .u32(0x80000005u).zeros(16).u32(3).raw("abc")
                               .u32(2).u32(1).raw("z")
                               .u32(36)
                               .text;
  const std::string current = textOf(write(kSample));
  const std::string minimal = Bytes().u32(BinSection::kMagic).u32(0).zeros(16).u32(0).u32(24).text;
  for (const std::string& file : {legacy, current, minimal, patched(current, current.size() - 4, 0xFFFFFFFFu)})
  {
    // Every cut of the file too: the index-only reader refuses or accepts exactly what the whole
    // parse does, with the same entries.
    for (size_t length = 0; length <= file.size(); ++length)
    {
      const std::string cut = file.substr(0, length);
      EXPECT_EQ(parseIndexOnly(cut), parseWhole(cut)) << length << " of " << file.size();
    }
  }
  EXPECT_TRUE(parseIndexOnly(current).ok);
  EXPECT_EQ(parseIndexOnly(legacy).entries.size(), 2u);

  // A tail that does not reach back to the index is refused, not read before its start.
  uint32_t magic = BinSection::kMagic;
  const std::string tail = current.substr(current.size() - 8);
  EXPECT_FALSE(parseBinSectionIndex(magic, current.size(), current.size() - 8, tail,
                                    [](const char*, int, uint64_t, uint32_t) {}));
}

TEST(BinSectionFormat, WriterRefusesOverlongNamesAndMissingBytesAndAnEmptyContainerDoesNotParse)
{
  resmgr_test::CapturedLog log;
  EXPECT_TRUE(write({{std::string(4096, 'n'), ""}}));
  EXPECT_FALSE(write({{std::string(4097, 'n'), ""}}));
  EXPECT_FALSE(writeBinSectionContainer({{"missing", nullptr}}));
  EXPECT_NE(log.text().find("section 'missing' has no bytes"), std::string::npos);
  // No children: an index of length 0, which the reader refuses.
  BinaryPtr empty = writeBinSectionContainer({});
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->len(), 8u);
  EXPECT_FALSE(parse(empty).ok);
}

TEST(BinSection, ChildrenBorrowTheFileBytes)
{
  BinaryPtr file = write(kSample);
  SmartPointer<BinSection> section(new BinSection("model.primitives", file));
  ASSERT_EQ(section->countChildren(), 4);
  EXPECT_FALSE(section->openChild(4));
  EXPECT_FALSE(section->openChild(-1));
  DataSectionPtr child = section->openChild(1);
  EXPECT_EQ(child->sectionName(), "hull.indices");
  BinaryPtr bytes = child->asBinary();
  EXPECT_EQ(bytes->owner().get(), file.get());
  EXPECT_EQ(bytes->data(), file->data() + 12);

  EXPECT_EQ(section->findChild("a"), section->openChild(2));
  EXPECT_FALSE(section->findChild("hull"));
  EXPECT_FALSE(section->findChild("A"));

  section = nullptr;
  file = nullptr;
  EXPECT_EQ(child->parentSection(), nullptr); // no pointer to the dead parent is left
  EXPECT_EQ(textOf(child->asBinary()), "01234567");
}

TEST(BinSection, AFaultyIndexGivesNoChildren)
{
  // The first entry is sound, the second's name runs past the index.
  const std::string file = handMade({{"a", "1"}, {"bcde", "2"}});
  const std::string broken = patched(file, file.size() - 12, 9);
  EXPECT_EQ(parse(blockOf(broken)).entries.size(), 1u);
  SmartPointer<BinSection> section(new BinSection("bad", blockOf(broken)));
  EXPECT_EQ(section->countChildren(), 0);
}

TEST(BinSection, EditsAreWrittenBackBottomUp)
{
  BinaryPtr inner = write({{"leaf", "old"}, {"gone", "x"}});
  BinaryPtr file = writeBinSectionContainer({{"outer", inner}, {"other", blockOf("o")}});
  SmartPointer<BinSection> root(new BinSection("f", file));
  DataSectionPtr outer = root->openChild(0);
  EXPECT_TRUE(outer->findChild("leaf")->setBinary(blockOf("new!")));
  outer->delChild("gone");
  outer->newSection("added")->setBinary(blockOf("+"));

  testing::internal::CaptureStderr();
  BinaryPtr rebuilt = root->asBinary();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // no lock re-entry reported
  ASSERT_TRUE(rebuilt);
  EXPECT_EQ(parse(rebuilt).entries[1], (std::pair<std::string, std::string>("other", "o")));
  SmartPointer<BinSection> reread(new BinSection("f", rebuilt));
  const Parsed nested = parse(reread->openChild(0)->asBinary());
  EXPECT_EQ(nested.entries, (Entries{{"leaf", "new!"}, {"added", "+"}}));
}

TEST(BinSection, SetBinaryAndDeletionReplaceTheChildren)
{
  SmartPointer<BinSection> section(new BinSection("s", write(kSample)));
  DataSectionPtr first = section->openChild(0);
  section->delChild(first);
  EXPECT_EQ(section->countChildren(), 3);
  section->delChildren();
  EXPECT_EQ(section->countChildren(), 0);
  EXPECT_FALSE(parse(section->asBinary()).ok);

  EXPECT_TRUE(section->setBinary(write({{"only", "1"}})));
  EXPECT_EQ(section->countChildren(), 1);
  EXPECT_EQ(section->openChild(0)->sectionName(), "only");
  EXPECT_EQ(section->bytes(), section->asBinary()->len());
}

TEST(BinSection, SavingAndZippingAskTheParent)
{
  resmgr_test::CapturedLog log;
  SmartPointer<BinSection> root(new BinSection("file", write(kSample)));
  EXPECT_FALSE(root->save());
  EXPECT_FALSE(root->openChild(0)->save()); // the root is asked, and has no parent
  EXPECT_FALSE(root->save("elsewhere/file"));
  EXPECT_FALSE(root->convertToZip());
  EXPECT_FALSE(root->openChild(2)->convertToZip()); // the root is asked, and cannot
  EXPECT_EQ(log.text(), "ERROR: [ResMgr] BinSection: Can't save a section without a parent.\n\n"
                        "ERROR: [ResMgr] BinSection: Can't save a section without a parent.\n\n"
                        "ERROR: [ResMgr] BinSection: Parent section for 'elsewhere/file' not found.\n\n"
                        "ERROR: [ResMgr] BinSection: Can't convert to zip without a parent.\n\n"
                        "ERROR: [ResMgr] DataSection::convertChildToZip: 'file' cannot convert its child 'a'.\n\n");
}

// A section loaded from a file saves into that file, also when one of its children is saved; the
// creator's other forms hand out sections held by the given parent.
TEST(BinSection, CreatorAndSavingIntoTheFileReadFrom)
{
  const std::filesystem::path dir =
    std::filesystem::temp_directory_path() / ("bin_section_save_" + std::to_string(platform::processId()));
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "model.primitives").generic_string();
  const BinaryPtr original = write(kSample);
  {
    std::ofstream out(path, std::ios::binary);
    out.write(original->data(), static_cast<std::streamsize>(original->len()));
  }

  SmartPointer<BinSection> file = BinSectionCreator::load(path);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->sectionName(), path);
  EXPECT_EQ(file->filePath(), path);
  EXPECT_EQ(file->countChildren(), 4);
  DataSectionPtr added = file->newSection("added");
  ASSERT_TRUE(added->setBinary(blockOf("new bytes")));
  EXPECT_TRUE(added->save()); // asks the file section, which writes itself
  file->delChild("a");
  EXPECT_TRUE(file->save());

  SmartPointer<BinSection> reread = BinSectionCreator::load(path);
  ASSERT_TRUE(reread);
  const Parsed parsed = parse(reread->asBinary());
  EXPECT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.entries, (Entries{kSample[0], kSample[1], kSample[3], {"added", "new bytes"}}));
  // Nothing but the file itself is left in the directory.
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir))
    ++files;
  EXPECT_EQ(files, 1u);

  resmgr_test::CapturedLog log;
  SmartPointer<BinSection> created = BinSectionCreator::create(file.get(), "fresh");
  EXPECT_EQ(created->parentSection(), file.get());
  EXPECT_EQ(created->countChildren(), 0);
  SmartPointer<BinSection> loaded = BinSectionCreator::load(file.get(), "over", write(kSample));
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->parentSection(), file.get());
  EXPECT_EQ(loaded->countChildren(), 4);
  EXPECT_FALSE(BinSectionCreator::load(nullptr, "none", nullptr));
  EXPECT_FALSE(BinSectionCreator::load((dir / "missing.primitives").generic_string()));
  EXPECT_EQ(log.text(), "ERROR: [ResMgr] BinSectionCreator::load 'none' has no bytes.\n\n"
                        "ERROR: [ResMgr] BinSectionCreator::load cannot read '" +
                          (dir / "missing.primitives").generic_string() + "'.\n\n");
  std::filesystem::remove_all(dir);
}

} // namespace
