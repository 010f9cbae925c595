#include "moo/index_format.hpp"
#include "moo/vertex_section.hpp"

#include "cstdmf/debug.hpp"
#include "log_capture.hpp"
#include "moo/formats_test_support.hpp"

#include <gtest/gtest.h>
#include <spdlog/logger.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using formats_test::Bytes;

// Captures ERROR messages while alive.
struct CapturedErrors : testutil::LogCapture
{
  CapturedErrors() : testutil::LogCapture("%l: %v", DebugMessagePriority::Error) {}

  // The logged lines; the sink ends each record with its own newline after the message's.
  std::string text() const
  {
    std::string result = stream.str();
    for (size_t at = result.find("\n\n"); at != std::string::npos; at = result.find("\n\n", at + 1))
      result.erase(at, 1);
    return result;
  }
};

// An exactly sized heap copy of a prefix, so that reading past its end is caught.
struct Prefix
{
  std::unique_ptr<std::byte[]> bytes;
  size_t size;
  Prefix(const Bytes& whole, size_t length) : bytes(std::make_unique<std::byte[]>(length)), size(length)
  {
    std::memcpy(bytes.get(), whole.data(), length);
  }
  std::span<const std::byte> span() const { return {bytes.get(), size}; }
};

Bytes header(std::string_view name, uint32_t count, size_t fieldSize = 64)
{
  Bytes out(fieldSize + 4);
  std::memcpy(out.data(), name.data(), name.size());
  std::memcpy(out.data() + fieldSize, &count, 4);
  return out;
}

Bytes concat(std::initializer_list<Bytes> parts)
{
  Bytes out;
  for (const Bytes& part : parts)
    out.insert(out.end(), part.begin(), part.end());
  return out;
}

Bytes pattern(size_t size)
{
  Bytes out(size);
  for (size_t i = 0; i < size; ++i)
    out[i] = static_cast<std::byte>(i * 7 + 1);
  return out;
}

TEST(VertexSection, PlainHeaderAndExactPayload)
{
  const Bytes vertices = pattern(3 * 29);
  const Bytes section = concat({header("xyznuviiiww", 3), vertices, Bytes(5, std::byte{0xEE})});
  Moo::VertexSectionHeader h;
  ASSERT_TRUE(Moo::readVertexSectionHeader(section, "a.vertices", h));
  EXPECT_EQ(h.formatName, "xyznuviiiww");
  EXPECT_EQ(h.vertexCount, 3u);
  EXPECT_FALSE(h.processed);
  EXPECT_EQ(h.payload.data(), section.data() + 68);
  ASSERT_TRUE(Moo::checkVertexPayload(h, 29, "a.vertices"));
  ASSERT_EQ(h.payload.size(), 87u); // trailing bytes are not part of the vertices
  EXPECT_TRUE(std::equal(h.payload.begin(), h.payload.end(), vertices.begin()));

  // Vertices processed by an earlier run: a "BPVT" block, then the header, then the vertices.
  const Bytes processed = concat({header("BPVT-anything", 0x12345678), header("xyznuv", 2), pattern(64)});
  ASSERT_TRUE(Moo::readVertexSectionHeader(processed, "p.vertices", h));
  EXPECT_TRUE(h.processed);
  EXPECT_EQ(h.formatName, "xyznuv");
  EXPECT_EQ(h.vertexCount, 2u);
  EXPECT_EQ(h.payload.data(), processed.data() + 136);
  EXPECT_TRUE(Moo::checkVertexPayload(h, 32, "p.vertices"));

  // A name that fills its whole field is taken whole.
  const std::string longName(64, 'x');
  ASSERT_TRUE(Moo::readVertexSectionHeader(header(longName, 0), "b.vertices", h));
  EXPECT_EQ(h.formatName, longName);
  EXPECT_TRUE(h.payload.empty());
  EXPECT_TRUE(Moo::checkVertexPayload(h, 32, "b.vertices"));
}

TEST(VertexSection, EveryTruncationIsRefused)
{
  for (const Bytes& whole : {concat({header("xyznuviiiww", 3), pattern(87)}),
                             concat({header("BPVT", 0), header("xyznuviiiww", 3), pattern(87)})})
  {
    for (size_t length = 0; length < whole.size(); ++length)
    {
      const Prefix prefix(whole, length);
      Moo::VertexSectionHeader h;
      if (Moo::readVertexSectionHeader(prefix.span(), "t.vertices", h))
      {
        EXPECT_FALSE(Moo::checkVertexPayload(h, 29, "t.vertices")) << length;
      }
    }
    const Prefix full(whole, whole.size());
    Moo::VertexSectionHeader h;
    ASSERT_TRUE(Moo::readVertexSectionHeader(full.span(), "t.vertices", h));
    EXPECT_TRUE(Moo::checkVertexPayload(h, 29, "t.vertices"));
  }
}

TEST(VertexSection, RefusalsNameTheSectionCountAndBytes)
{
  CapturedErrors errors;
  Moo::VertexSectionHeader h;
  EXPECT_FALSE(Moo::readVertexSectionHeader(Bytes(67), "short.vertices", h));
  EXPECT_FALSE(Moo::readVertexSectionHeader(concat({header("BPVT", 0), Bytes(60)}), "bpvt.vertices", h));

  const Bytes huge = concat({header("xyznuv2iiiwwtb", 0xFFFFFFFFu), pattern(45)});
  ASSERT_TRUE(Moo::readVertexSectionHeader(huge, "huge.vertices", h));
  EXPECT_FALSE(Moo::checkVertexPayload(h, 45, "huge.vertices"));
  EXPECT_EQ(h.payload.size(), 45u);
  EXPECT_EQ(errors.text(),
            "ERROR: Moo::readVertexSectionHeader section 'short.vertices' has 67 bytes, fewer than its 68-byte header.\n"
            "ERROR: Moo::readVertexSectionHeader section 'bpvt.vertices' has 128 bytes, fewer than its 136-byte "
            "processed-vertices header.\n"
            "ERROR: Moo::checkVertexPayload section 'huge.vertices' declares 4294967295 vertices of 45 bytes "
            "(193273528275 bytes) but only 45 bytes follow its header.\n");
}

TEST(IndexFormat, NamesAndSizes)
{
  EXPECT_EQ(Moo::getIndexFormatFromName("list"), IndexFormat::LIST);
  EXPECT_EQ(Moo::getIndexFormatFromName("list32"), IndexFormat::LIST32);
  for (std::string_view other : {"List", "", "list16", "list32 ", "lis"})
    EXPECT_FALSE(Moo::getIndexFormatFromName(other).has_value()) << other;
  EXPECT_EQ(Moo::getIndexFormatName(IndexFormat::LIST), "list");
  EXPECT_EQ(Moo::getIndexFormatName(IndexFormat::LIST32), "list32");
  EXPECT_EQ(ari::getIndexSize(IndexFormat::LIST), 2u);
  EXPECT_EQ(ari::getIndexSize(IndexFormat::LIST32), 4u);
  EXPECT_ASSERTION((void)Moo::getIndexFormatName(static_cast<IndexFormat>(2)), "!\"Unexpected index format\"");
  EXPECT_ASSERTION((void)ari::getIndexSize(static_cast<IndexFormat>(7)), "false && \"Unhandled type. \"");
}

Bytes indexSection(std::string_view name, uint32_t count, const Bytes& indices)
{
  return concat({header(name, count), Bytes{std::byte{0xAB}, std::byte{0xCD}, std::byte{0xEF}, std::byte{0x01}},
                 indices});
}

TEST(IndexSection, ReadsFormatCountAndExactIndices)
{
  const Bytes indices = pattern(24);
  const Bytes section = concat({indexSection("list32", 6, indices), Bytes(3)});
  Moo::IndexSectionHeader h;
  ASSERT_TRUE(Moo::readIndexSectionHeader(section, "a.indices", h));
  EXPECT_EQ(h.format, IndexFormat::LIST32);
  EXPECT_EQ(h.formatName, "list32");
  EXPECT_EQ(h.indexCount, 6u);
  ASSERT_EQ(h.indices.size(), 24u);
  EXPECT_EQ(h.indices.data(), section.data() + 72);

  ASSERT_TRUE(Moo::readIndexSectionHeader(indexSection("list", 3, pattern(6)), "b.indices", h));
  EXPECT_EQ(h.format, IndexFormat::LIST);
  EXPECT_EQ(h.indices.size(), 6u);
  ASSERT_TRUE(Moo::readIndexSectionHeader(indexSection("list", 0, {}), "c.indices", h));
  EXPECT_TRUE(h.indices.empty());
}

TEST(IndexSection, RefusesBadHeadersWithReasons)
{
  CapturedErrors errors;
  Moo::IndexSectionHeader h;
  EXPECT_FALSE(Moo::readIndexSectionHeader(Bytes(71), "short.indices", h));
  EXPECT_FALSE(Moo::readIndexSectionHeader(indexSection("List", 3, pattern(6)), "case.indices", h));
  EXPECT_FALSE(Moo::readIndexSectionHeader(indexSection("", 0, {}), "empty.indices", h));
  EXPECT_FALSE(Moo::readIndexSectionHeader(indexSection("list", 4, pattern(8)), "quad.indices", h));
  EXPECT_FALSE(Moo::readIndexSectionHeader(indexSection("list32", 0xFFFFFFFFu, pattern(12)), "huge.indices", h));
  EXPECT_EQ(errors.text(),
            "ERROR: Moo::readIndexSectionHeader section 'short.indices' has 71 bytes, fewer than its 72-byte header.\n"
            "ERROR: Moo::readIndexSectionHeader section 'case.indices' has unknown index format 'List'.\n"
            "ERROR: Moo::readIndexSectionHeader section 'empty.indices' has unknown index format ''.\n"
            "ERROR: Moo::readIndexSectionHeader section 'quad.indices' has 4 indices, which is not a whole number of "
            "triangles.\n"
            "ERROR: Moo::readIndexSectionHeader section 'huge.indices' declares 4294967295 indices of format "
            "'list32' (17179869180 bytes) but only 12 bytes follow its header.\n");
}

TEST(IndexSection, EveryTruncationIsRefused)
{
  for (const Bytes& whole : {indexSection("list", 6, pattern(12)), indexSection("list32", 3, pattern(12))})
  {
    for (size_t length = 0; length < whole.size(); ++length)
    {
      const Prefix prefix(whole, length);
      Moo::IndexSectionHeader h;
      EXPECT_FALSE(Moo::readIndexSectionHeader(prefix.span(), "t.indices", h)) << length;
    }
    const Prefix full(whole, whole.size());
    Moo::IndexSectionHeader h;
    EXPECT_TRUE(Moo::readIndexSectionHeader(full.span(), "t.indices", h));
  }
}

} // namespace

namespace
{

// What the writers put down is what the readers take up, byte for byte where the layout is fixed.
TEST(SectionHeaders, WritersAndReadersAgree)
{
  std::vector<std::byte> vertexSection(Moo::kVertexSectionHeaderSize + 2 * 29, std::byte{0x5A});
  const std::string longest(Moo::kSectionFormatNameSize - 1, 'x');
  Moo::writeVertexSectionHeader(vertexSection, longest, 7);
  EXPECT_EQ(vertexSection[63], std::byte{0}); // the longest name still ends inside its field
  EXPECT_EQ(vertexSection[64], std::byte{7});
  EXPECT_EQ(vertexSection[68], std::byte{0x5A}); // nothing past the header is touched
  Moo::writeVertexSectionHeader(vertexSection, "xyznuviiiww", 2);
  for (size_t i = 11; i < 64; ++i)
    ASSERT_EQ(vertexSection[i], std::byte{0}) << i; // NUL-padded over the longer name
  Moo::VertexSectionHeader vertexHeader;
  ASSERT_TRUE(Moo::readVertexSectionHeader(vertexSection, "v", vertexHeader));
  EXPECT_EQ(vertexHeader.formatName, "xyznuviiiww");
  EXPECT_EQ(vertexHeader.vertexCount, 2u);
  EXPECT_TRUE(Moo::checkVertexPayload(vertexHeader, 29, "v"));

  std::vector<std::byte> indexSection(Moo::kIndexSectionHeaderSize + 3 * 4, std::byte{0x5A});
  Moo::writeIndexSectionHeader(indexSection, IndexFormat::LIST32, 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(indexSection.data())), "list32");
  for (size_t i = 68; i < 72; ++i)
    EXPECT_EQ(indexSection[i], std::byte{0}) << i;
  Moo::IndexSectionHeader indexHeader;
  ASSERT_TRUE(Moo::readIndexSectionHeader(indexSection, "i", indexHeader));
  EXPECT_EQ(indexHeader.format, IndexFormat::LIST32);
  EXPECT_EQ(indexHeader.indexCount, 3u);
  EXPECT_EQ(indexHeader.indices.data(), indexSection.data() + 72);
}

} // namespace
