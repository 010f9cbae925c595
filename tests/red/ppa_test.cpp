#include "red/ppa.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using red::ppa::FieldDescription;
using red::ppa::FieldKind;
using red::ppa::TypeDescription;

// A record with a byte array in front of a nested string, like the geometry's model records.
struct Blob
{
  uint32_t size;
  uint32_t padding;
  const std::byte* data;
  red::types::String name;
};

struct Holder
{
  uint32_t blobCount;
  uint32_t padding;
  const Blob* blobs;
};

constexpr FieldDescription kBlobFields[] = {
  {"size", FieldKind::Scalar, offsetof(Blob, size), 0, &red::ppa::kUInt32Type},
  {"data", FieldKind::Array, offsetof(Blob, data), offsetof(Blob, size), &red::ppa::kByteType},
  {"name", FieldKind::Record, offsetof(Blob, name), 0, &red::ppa::kStringType},
};
constexpr TypeDescription kBlobType{"test::Blob", sizeof(Blob), kBlobFields};

constexpr FieldDescription kHolderFields[] = {
  {"blobCount", FieldKind::Scalar, offsetof(Holder, blobCount), 0, &red::ppa::kUInt32Type},
  {"blobs", FieldKind::Array, offsetof(Holder, blobs), offsetof(Holder, blobCount), &kBlobType},
};
constexpr TypeDescription kHolderType{"test::Holder", sizeof(Holder), kHolderFields};
static_assert(red::ppa::isWellFormed(kHolderType));

// A record type that holds an array of itself, to build walks of any depth.
struct Node
{
  uint32_t childCount;
  uint32_t padding;
  const Node* children;
};

} // namespace

// Self-referencing descriptions need external declarations ahead of their field tables.
namespace ppa_test
{
extern const TypeDescription kNodeType;
extern const TypeDescription kLongNameNodeType;
const FieldDescription kNodeFields[] = {
  {"children", FieldKind::Array, offsetof(Node, children), offsetof(Node, childCount), &kNodeType}};
const TypeDescription kNodeType{"test::Node", sizeof(Node), kNodeFields};
const FieldDescription kLongNameNodeFields[] = {
  {"children", FieldKind::Array, offsetof(Node, children), offsetof(Node, childCount), &kLongNameNodeType}};
const TypeDescription kLongNameNodeType{
  "test::ANodeWhoseTypeNameIsLongEnoughToOverflowTheTracebackTextWellBeforeAllFramesArePrinted", sizeof(Node),
  kLongNameNodeFields};
} // namespace ppa_test

namespace
{

uint32_t readU32(const std::vector<std::byte>& block, size_t offset)
{
  uint32_t value = 0;
  std::memcpy(&value, block.data() + offset, sizeof(value));
  return value;
}

uint64_t readU64(const std::vector<std::byte>& block, size_t offset)
{
  uint64_t value = 0;
  std::memcpy(&value, block.data() + offset, sizeof(value));
  return value;
}

std::string textAt(const std::vector<std::byte>& block, size_t offset, size_t size)
{
  return std::string(reinterpret_cast<const char*>(block.data() + offset), size);
}

struct PackResult
{
  std::vector<std::byte> block;
  size_t used = 0;
  std::string traceback;
};

PackResult packWithCapacity(const TypeDescription& type, const void* root, size_t capacity)
{
  PackResult result;
  result.block.assign(capacity, std::byte{0xEE});
  char text[red::ppa::kTracebackTextCapacity];
  result.used = red::ppa::pack(type, root, result.block.data(), capacity, text, sizeof(text));
  if (result.used == 0)
    result.traceback = text;
  return result;
}

PackResult packExact(const TypeDescription& type, const void* root)
{
  red::ppa::Traceback traceback;
  const size_t size = red::ppa::computeSize(type, root, traceback);
  EXPECT_FALSE(traceback.failed()) << traceback.error;
  return packWithCapacity(type, root, size);
}

const std::byte kBytesA[] = {std::byte{1}, std::byte{2}, std::byte{3}};
const std::byte kBytesB[] = {std::byte{4}, std::byte{5}, std::byte{6}};

TEST(PackedArchive, NestedArraysAreDepthFirstAndCountedFromTheirOwnRecords)
{
  // Element 0 has a 5-byte name ("abcd" and its zero), which leaves element 1's data at an odd
  // offset; both elements carry equal 3-byte data arrays.
  const Blob blobs[2] = {
    Blob{3, 0, kBytesA, red::types::String{5, 0, "abcd"}},
    Blob{3, 0, kBytesB, red::types::String{3, 0, "xy"}},
  };
  const Holder holder{2, 0, blobs};

  const PackResult packed = packExact(kHolderType, &holder);
  // holder 16, blobs 2 x 32 at 16, blob 0: data 3 at 80 and name 5 at 83, blob 1: data 3 at 88,
  // name 3 at 91.
  ASSERT_EQ(packed.used, 94u) << packed.traceback;
  ASSERT_EQ(packed.block.size(), 94u);

  EXPECT_EQ(readU32(packed.block, 0), 2u);
  EXPECT_EQ(readU64(packed.block, 8), 16u);

  const size_t blob0 = 16;
  const size_t blob1 = 48;
  EXPECT_EQ(readU64(packed.block, blob0 + 8), 80u - blob0);
  EXPECT_EQ(readU32(packed.block, blob0 + 16), 5u);
  EXPECT_EQ(readU64(packed.block, blob0 + 24), 83u - (blob0 + 16)); // counted from the String
  EXPECT_EQ(readU64(packed.block, blob1 + 8), 88u - blob1);
  EXPECT_EQ(readU64(packed.block, blob1 + 24), 91u - (blob1 + 16));
  // Equal arrays of elements 0 and 1: offsets differ by what lies between them minus the stride.
  EXPECT_EQ(readU64(packed.block, blob0 + 8) - readU64(packed.block, blob1 + 8), 32u - (88u - 80u));

  EXPECT_EQ(std::memcmp(packed.block.data() + 80, kBytesA, 3), 0);
  EXPECT_EQ(textAt(packed.block, 83, 5), std::string("abcd\0", 5));
  EXPECT_EQ(std::memcmp(packed.block.data() + 88, kBytesB, 3), 0);
  EXPECT_EQ(textAt(packed.block, 91, 3), std::string("xy\0", 3));
}

TEST(PackedArchive, BadCountsFailBothWalksWithTheCountMessage)
{
  const Blob goodBlob{3, 0, kBytesA, red::types::String{3, 0, "xy"}};
  // A zero count with a pointer is caught by the size walk, before any relocation check.
  const Blob zeroCountBlob{0, 0, kBytesA, red::types::String{3, 0, "xy"}};
  // 0x80000000 is negative when read as a signed 32-bit count.
  const Blob negativeNameBlob{3, 0, kBytesA, red::types::String{0x80000000u, 0, "xy"}};

  struct Case
  {
    Holder holder;
    const char* traceback;
  };
  const Blob twoBlobsZero[2] = {goodBlob, zeroCountBlob};
  const Case cases[] = {
    {Holder{0, 0, &goodBlob},
     "Negative or zero count on non-zero array\n"
     "\t-> test::Holder::blobs\n"},
    {Holder{0x80000000u, 0, nullptr},
     "Negative or zero count on non-zero array\n"
     "\t-> test::Holder::blobs\n"},
    {Holder{2, 0, twoBlobsZero},
     "Negative or zero count on non-zero array\n"
     "\t-> test::Blob::data\n"
     "\t-> test::Holder::blobs[1]\n"},
    {Holder{1, 0, &negativeNameBlob},
     "Negative or zero count on non-zero array\n"
     "\t-> red::types::String::text\n"
     "\t-> test::Blob::name\n"
     "\t-> test::Holder::blobs[0]\n"},
  };
  for (const Case& c : cases)
  {
    red::ppa::Traceback traceback;
    EXPECT_EQ(red::ppa::computeSize(kHolderType, &c.holder, traceback), 0u);
    ASSERT_TRUE(traceback.failed());
    char text[red::ppa::kTracebackTextCapacity];
    red::ppa::formatTraceback(traceback, text, sizeof(text));
    EXPECT_EQ(std::string(text), c.traceback);

    const PackResult packed = packWithCapacity(kHolderType, &c.holder, 4096);
    EXPECT_EQ(packed.used, 0u);
    EXPECT_EQ(packed.traceback, c.traceback);
  }
}

TEST(PackedArchive, OutOfSpace)
{
  const Blob blob{3, 0, kBytesA, red::types::String{3, 0, "xy"}};
  const Holder holder{1, 0, &blob};
  // Exactly 16 + 32 + 3 + 3 = 54 bytes fit; one byte less runs out on the name.
  EXPECT_EQ(packWithCapacity(kHolderType, &holder, 54).used, 54u);
  const PackResult shortByOne = packWithCapacity(kHolderType, &holder, 53);
  EXPECT_EQ(shortByOne.used, 0u);
  EXPECT_EQ(shortByOne.traceback, "Out of space\n"
                                  "\t-> red::types::String::text\n"
                                  "\t-> test::Blob::name\n"
                                  "\t-> test::Holder::blobs[0]\n");
  EXPECT_EQ(packWithCapacity(kHolderType, &holder, 40).traceback, "Out of space\n\t-> test::Holder::blobs\n");
  // Too small for the root record itself: no frames.
  EXPECT_EQ(packWithCapacity(kHolderType, &holder, 15).traceback, "Out of space\n");
}

// Hand-made packed copies (absolute pointers) for the relocation walk's own checks: a Holder at
// `holderAt` whose array of `count` blobs is at `blobsAt`, relocated with the used space ending at
// `usedEnd`.
std::string relocateHandMade(size_t holderAt, uint32_t count, size_t blobsAt, size_t usedEnd, bool nullPointer,
                             bool brokenBlob)
{
  alignas(8) std::byte buffer[256]{};
  const Holder holder{count, 0, nullPointer ? nullptr : reinterpret_cast<const Blob*>(buffer + blobsAt)};
  std::memcpy(buffer + holderAt, &holder, sizeof(holder));
  if (brokenBlob)
  {
    const Blob blob{2, 0, nullptr, red::types::String{0, 0, nullptr}};
    std::memcpy(buffer + blobsAt, &blob, sizeof(blob));
  }
  red::ppa::Traceback traceback;
  if (red::ppa::relocate(kHolderType, buffer + holderAt, buffer + usedEnd, traceback))
  {
    uint64_t offset = 0;
    std::memcpy(&offset, buffer + holderAt + offsetof(Holder, blobs), sizeof(offset));
    return "offset " + std::to_string(offset);
  }
  char text[red::ppa::kTracebackTextCapacity];
  red::ppa::formatTraceback(traceback, text, sizeof(text));
  return text;
}

TEST(PackedArchive, RelocationWalkChecks)
{
  EXPECT_EQ(relocateHandMade(0, 1, 16, 48, true, false),
            "Non-zero count for a null array\n\t-> test::Holder::blobs\n");
  EXPECT_EQ(relocateHandMade(0, 0, 16, 48, false, false),
            "Zero count for a non-null array\n\t-> test::Holder::blobs\n");
  EXPECT_EQ(relocateHandMade(0, 1, 16, 15, false, false),
            "Pointer is referencing outside of bounds\n\t-> test::Holder::blobs\n");
  // A pointer exactly at the end of the used space is accepted.
  EXPECT_EQ(relocateHandMade(0, 1, 16, 16, false, false), "offset 16");
  EXPECT_EQ(relocateHandMade(64, 1, 16, 128, false, false),
            "Pointer is referencing behind the base\n\t-> test::Holder::blobs\n");
  // Elements are relocated before their array's own (out of bounds) pointer is checked.
  EXPECT_EQ(relocateHandMade(0, 1, 16, 8, false, true),
            "Non-zero count for a null array\n\t-> test::Blob::data\n\t-> test::Holder::blobs[0]\n");
}

// A chain of `depth` nodes whose innermost has a zero count with a pointer.
std::vector<Node> makeBrokenChain(size_t depth)
{
  std::vector<Node> nodes(depth);
  for (size_t i = 0; i + 1 < depth; ++i)
    nodes[i] = Node{1, 0, &nodes[i + 1]};
  nodes[depth - 1] = Node{0, 0, &nodes[0]};
  return nodes;
}

TEST(PackedArchive, TracebackKeepsTheInnermostFrames)
{
  const std::vector<Node> nodes = makeBrokenChain(200);
  red::ppa::Traceback traceback;
  EXPECT_EQ(red::ppa::computeSize(ppa_test::kNodeType, nodes.data(), traceback), 0u);
  ASSERT_EQ(traceback.frameCount, red::ppa::kMaxTracebackFrames);
  // The innermost frame is the failing field itself; the 127 above it are elements [0].
  EXPECT_EQ(traceback.frames[0].index, -1);
  for (size_t i = 1; i < traceback.frameCount; ++i)
    EXPECT_EQ(traceback.frames[i].index, 0);

  char text[red::ppa::kTracebackTextCapacity];
  const size_t length = red::ppa::formatTraceback(traceback, text, sizeof(text));
  std::string expected = "Negative or zero count on non-zero array\n\t-> test::Node::children\n";
  for (int i = 1; i < 128; ++i)
    expected += "\t-> test::Node::children[0]\n";
  EXPECT_EQ(std::string(text), expected);
  EXPECT_EQ(length, expected.size());
}

TEST(PackedArchive, TracebackTextIsCutAt4095Characters)
{
  const std::vector<Node> nodes = makeBrokenChain(150);
  red::ppa::Traceback traceback;
  EXPECT_EQ(red::ppa::computeSize(ppa_test::kLongNameNodeType, nodes.data(), traceback), 0u);

  std::string full = std::string(traceback.error) + "\n";
  for (size_t i = 0; i < traceback.frameCount; ++i)
  {
    full += std::string("\t-> ") + ppa_test::kLongNameNodeType.name + "::children";
    full += i == 0 ? "\n" : "[0]\n";
  }
  ASSERT_GT(full.size(), 4095u);

  std::vector<char> text(red::ppa::kTracebackTextCapacity + 16, 'Z');
  EXPECT_EQ(red::ppa::formatTraceback(traceback, text.data(), red::ppa::kTracebackTextCapacity), 4095u);
  EXPECT_EQ(std::string(text.data()), full.substr(0, 4095));
  EXPECT_EQ(text[red::ppa::kTracebackTextCapacity], 'Z');

  // The pack walk reports through the caller's buffer with the same cut.
  char packText[red::ppa::kTracebackTextCapacity];
  std::vector<std::byte> block(1 << 16);
  EXPECT_EQ(red::ppa::pack(ppa_test::kLongNameNodeType, nodes.data(), block.data(), block.size(), packText,
                           sizeof(packText)),
            0u);
  EXPECT_EQ(std::string(packText), full.substr(0, 4095));
}

} // namespace
