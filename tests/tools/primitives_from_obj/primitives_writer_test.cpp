#include "primitives_from_obj/primitives_writer.hpp"

#include "primitives_from_obj/procedural_shapes.hpp"
#include "format_registry_environment.hpp"
#include "tools/primitives_from_obj/test_support.hpp"

#include "moo/vertex_conversion.hpp"
#include "moo/vertex_section.hpp"
#include "resmgr/bin_section.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <span>

using namespace objimport;

namespace
{

constexpr std::array<std::string_view, 13> kAllFormats = {
  "xyznuv",     "xyznuv2",     "xyznuvtb",   "xyznuv2tb",  "xyznuviiiww", "xyznuviiiwwtb", "xyznuv2iiiwwtb",
  "xyznuvtbi",  "xyznuv2tbi",  "xyznuvtboi", "xyznuv2tboi", "xyznuvr",     "xyznuviiiwwr",
};

const Moo::PrimitiveVertexFormat& format(std::string_view name)
{
  const Moo::PrimitiveVertexFormat* entry = Moo::PrimitiveVertexFormat::findByFormatName(name);
  EXPECT_NE(entry, nullptr) << name;
  return *entry;
}

std::vector<RenderSet> shape(std::string_view name, bool frames = true)
{
  ObjMesh mesh;
  EXPECT_TRUE(makeProceduralMesh(name, mesh));
  BuildOptions options;
  options.tangentFrames = frames;
  return buildRenderSets(mesh, options);
}

struct Entry
{
  std::string name;
  std::span<const std::byte> bytes;
};

std::vector<Entry> parseContainer(const BinaryPtr& container)
{
  std::vector<Entry> entries;
  const bool ok = parseBinSectionEntries(container, [&](const char* name, int nameLength, const char* data, int size) {
    entries.push_back({std::string(name, static_cast<size_t>(nameLength)),
                       std::span(reinterpret_cast<const std::byte*>(data), static_cast<size_t>(size))});
  });
  EXPECT_TRUE(ok);
  return entries;
}

template <typename T>
T readAt(std::span<const std::byte> bytes, size_t offset)
{
  T value{};
  EXPECT_LE(offset + sizeof(T), bytes.size());
  if (offset + sizeof(T) <= bytes.size())
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

std::string_view text(std::span<const std::byte> bytes, size_t offset, size_t size)
{
  return {reinterpret_cast<const char*>(bytes.data()) + offset, size};
}

TEST(PackedNormal, BitLayoutAndDecoding)
{
  EXPECT_EQ(packNormal111110({1, 0, 0}), 1023u);
  EXPECT_EQ(packNormal111110({-1, 0, 0}), 0x401u); // -1023 in 11 bits
  EXPECT_EQ(packNormal111110({0, 1, 0}), 1023u << 11);
  EXPECT_EQ(packNormal111110({0, 0, 1}), 511u << 22);
  EXPECT_EQ(packNormal111110({0, 0, -1}), 513u << 22); // -511 in 10 bits
  EXPECT_EQ(packNormal111110({3, -3, 2}), packNormal111110({1, -1, 1})); // clamped
  EXPECT_EQ(packNormal111110({0.4f / 1023, 0.6f / 1023, 0}), 1u << 11); // rounded to nearest

  // Decoded exactly as the converter decodes it.
  for (Vec3 v : {Vec3{1, 0, 0}, Vec3{0, -1, 0}, Vec3{0, 0, -1}, normalizedOr({1, -2, 3}, {}),
                 normalizedOr({-0.001f, 0.7f, -0.7f}, {})})
  {
    const uint32_t word = packNormal111110(v);
    Moo::Vector3 decoded;
    ASSERT_TRUE(Moo::convertSingleElement(VertexSemantic::NORMAL, &decoded, VertexDataType::FLOAT3, &word,
                                          VertexDataType::PACKED_NORMAL));
    const Vec3 ours = unpackNormal111110(word);
    EXPECT_FLOAT_EQ(decoded.x, ours.x);
    EXPECT_FLOAT_EQ(decoded.y, ours.y);
    EXPECT_FLOAT_EQ(decoded.z, ours.z);
    EXPECT_NEAR(ours.x, v.x, 0.5f / 1023 + 1e-6f);
    EXPECT_NEAR(ours.z, v.z, 0.5f / 511 + 1e-6f);
  }
}

TEST(PrimitivesWriter, ContainerHoldsOneVertexAndOneIndexSectionPerSet)
{
  const std::vector<RenderSet> sets = shape("cube");
  std::string error;
  const BinaryPtr container = encodePrimitives(sets, format("xyznuvtb"), error);
  ASSERT_TRUE(container) << error;
  const std::vector<Entry> entries = parseContainer(container);
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].name, "sides.vertices");
  EXPECT_EQ(entries[1].name, "sides.indices");
  EXPECT_EQ(entries[2].name, "caps.vertices");
  EXPECT_EQ(entries[3].name, "caps.indices");

  for (size_t s = 0; s < 2; ++s)
  {
    const RenderSet& set = sets[s];
    const auto vertices = entries[2 * s].bytes;
    EXPECT_EQ(text(vertices, 0, 64), std::string("xyznuvtb") + std::string(56, '\0'));
    EXPECT_EQ(readAt<uint32_t>(vertices, 64), set.vertexCount());
    EXPECT_EQ(vertices.size(), 68 + 32 * set.vertexCount());

    const auto indices = entries[2 * s + 1].bytes;
    EXPECT_EQ(text(indices, 0, 64), std::string("list") + std::string(60, '\0'));
    EXPECT_EQ(readAt<uint32_t>(indices, 64), set.indices.size());
    EXPECT_EQ(readAt<uint32_t>(indices, 68), 0u);
    ASSERT_EQ(indices.size(), 72 + 2 * set.indices.size());
    for (size_t i = 0; i < set.indices.size(); ++i)
      EXPECT_EQ(readAt<uint16_t>(indices, 72 + 2 * i), set.indices[i]);
  }
}

TEST(PrimitivesWriter, IndexWidthSwitchesAbove65536Vertices)
{
  for (uint32_t count : {65536u, 65537u})
  {
    SCOPED_TRACE(count);
    RenderSet set;
    set.positions.resize(count);
    set.indices = {0, count - 1, 1};
    std::string error;
    const BinaryPtr block = encodeIndexSection(set, error);
    ASSERT_TRUE(block) << error;
    const std::span bytes(reinterpret_cast<const std::byte*>(block->data()), block->len());
    Moo::IndexSectionHeader header;
    ASSERT_TRUE(Moo::readIndexSectionHeader(bytes, "big.indices", header));
    EXPECT_EQ(header.indexCount, 3u);
    const bool wide = count > 65536;
    EXPECT_EQ(header.formatName, wide ? "list32" : "list");
    EXPECT_EQ(bytes.size(), 72u + (wide ? 12u : 6u));
    EXPECT_EQ(wide ? readAt<uint32_t>(bytes, 76) : readAt<uint16_t>(bytes, 74), count - 1);
  }
}

// Every source format can be written, and what is written converts to the GPU layout (the
// converter asserts on non-unit normals, tangents and binormals).
TEST(PrimitivesWriter, EveryFormatIsWritableAndConvertible)
{
  for (std::string_view name : kAllFormats)
  {
    SCOPED_TRACE(name);
    const Moo::PrimitiveVertexFormat& entry = format(name);
    const std::vector<RenderSet> sets = shape("sphere", needsTangentFrames(entry));
    std::string error;
    const BinaryPtr container = encodePrimitives(sets, entry, error);
    ASSERT_TRUE(container) << error;
    const std::vector<Entry> entries = parseContainer(container);
    ASSERT_EQ(entries.size(), 2u);

    Moo::VertexSectionHeader header;
    const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(entry.m_format, 0);
    ASSERT_TRUE(Moo::readVertexSectionHeader(entries[0].bytes, entries[0].name, header));
    EXPECT_EQ(header.formatName, name);
    ASSERT_TRUE(Moo::checkVertexPayload(header, stride, entries[0].name));
    ASSERT_EQ(header.vertexCount, sets[0].vertexCount());
    ASSERT_EQ(header.payload.size(), size_t(stride) * header.vertexCount);

    const uint32_t gpuStride = ari::VertexDeclaration::computeStreamDataSize(entry.m_gpuFormat, 0);
    std::vector<std::byte> gpu(size_t(gpuStride) * header.vertexCount);
    EXPECT_TRUE(Moo::convertVertices(gpu.data(), entry.m_gpuFormat, header.payload.data(), entry.m_format,
                                     header.vertexCount));

    // The values the OBJ cannot supply.
    for (size_t v = 0; v < header.vertexCount; v += 37)
    {
      const size_t base = stride * v;
      for (const Moo::VertexElement& e : entry.m_format.elements)
      {
        const size_t at = base + e.offset_;
        switch (e.semantic_)
        {
        case VertexSemantic::BLENDINDICES:
          EXPECT_EQ(text(header.payload, at, 3), std::string(3, '\0'));
          break;
        case VertexSemantic::BLENDWEIGHT:
          EXPECT_EQ(text(header.payload, at, 2), std::string("\xFF\0", 2));
          break;
        case VertexSemantic::COLOR:
          EXPECT_EQ(readAt<uint32_t>(header.payload, at), 0xFFFFFFFFu);
          break;
        case VertexSemantic::TEXCOORD:
          if (e.semanticIndex_ == 1 && e.type_ == VertexDataType::FLOAT1)
          {
            EXPECT_EQ(readAt<float>(header.payload, at), 0.0f);
          }
          else if (e.semanticIndex_ == 1)
          {
            const size_t first = base + entry.m_format.findElement(VertexSemantic::TEXCOORD, 0)->offset_;
            EXPECT_EQ(text(header.payload, at, 8), text(header.payload, first, 8));
          }
          break;
        default:
          break;
        }
      }
    }
  }
}

TEST(PrimitivesWriter, RefusesElementsItCannotFill)
{
  Moo::PrimitiveVertexFormat odd = format("xyznuv");
  odd.formatName = "odd";
  odd.m_format.elements.push_back({0, 32, VertexDataType::FLOAT4, 0, VertexSemantic::COLOR, 0});
  std::string error;
  EXPECT_FALSE(encodePrimitives(shape("cube", false), odd, error));
  EXPECT_NE(error.find("vertex format 'odd' has an element"), std::string::npos) << error;
}

} // namespace
