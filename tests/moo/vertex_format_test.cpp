#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_format.hpp"

#include "moo/formats_test_support.hpp"

#include <gtest/gtest.h>

namespace
{

using namespace formats_test;
using Moo::PrimitiveVertexFormat;

Moo::VertexElement makeElement(S semantic, T type, uint16_t offset, int16_t stream = 0, uint8_t semanticIndex = 0)
{
  return Moo::VertexElement{stream, offset, type, 0, semantic, semanticIndex};
}

template <size_t N>
Moo::VertexFormat::Elements expectedElements(const Token (&tokens)[N], std::string_view layout)
{
  Moo::VertexFormat::Elements elements;
  uint16_t offset = 0;
  for (char name : layout)
  {
    const Token& token = findToken(tokens, name);
    elements.push_back(makeElement(token.semantic, token.type, offset, 0, token.semanticIndex));
    offset = static_cast<uint16_t>(offset + token.size);
  }
  return elements;
}

TEST(VertexFormat, TypeSizesAndStrides)
{
  const uint32_t expected[29] = {4, 8, 12, 16, 4, 1, 4, 2, 4, 8, 4, 4, 4, 8, 4, 8, 4, 4, 2, 4, 8, 4, 4, 8, 12, 16, 3, 2, 0};
  for (uint32_t value = 0; value < 29; ++value)
    EXPECT_EQ(ari::getVertexDataTypeSize(static_cast<T>(value)), expected[value]) << value;
  EXPECT_ASSERTION((void)ari::getVertexDataTypeSize(static_cast<T>(29)), "Unknown vertex data type");

  Moo::VertexFormat format;
  format.elements.push_back(makeElement(S::TEXCOORD, T::FLOAT2, 24));
  format.elements.push_back(makeElement(S::POSITION, T::FLOAT3, 0));
  format.elements.push_back(makeElement(S::COLOR, T::UINT32, 40, 1));
  EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(format, 0), 32u);
  EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(format, 1), 44u);
  EXPECT_ASSERTION((void)ari::VertexDeclaration::computeStreamDataSize(format, 2), "Vertex stream has no elements");
}

TEST(VertexFormat, SmallVectorSpillsToTheHeapInOrder)
{
  Moo::SmallVector<uint32_t, 4> values{1, 2, 3};
  for (uint32_t v = 4; v <= 20; ++v)
    values.push_back(v);
  EXPECT_FALSE(values.isInline());
  ASSERT_EQ(values.size(), 20u);
  for (uint32_t i = 0; i < 20; ++i)
    EXPECT_EQ(values[i], i + 1);
  values.clear();
  values.push_back(7);
  EXPECT_TRUE(values.isInline());
  EXPECT_EQ(values[0], 7u);
}

TEST(VertexFormat, CombineAppendsInstancingElementsAndStreams)
{
  Moo::VertexFormat vertex;
  vertex.elements.push_back(makeElement(S::POSITION, T::FLOAT3, 0));
  vertex.streams.push_back({0, ari::VertexInputProgressionMode::VERTEX_DATA, 1});
  Moo::VertexFormat instancing;
  instancing.elements.push_back(makeElement(S::TEXCOORD, T::FLOAT4, 0, 1));
  instancing.streams.push_back({1, ari::VertexInputProgressionMode::INSTANCE_DATA, 1});

  const Moo::VertexFormat combined = Moo::combineVertexFormats(vertex, instancing);
  ASSERT_EQ(combined.elements.size(), 2u);
  EXPECT_TRUE(combined.elements[1] == instancing.elements[0]);
  ASSERT_EQ(combined.streams.size(), 2u);
  EXPECT_TRUE(combined.streams[1] == instancing.streams[0]);
  EXPECT_TRUE(Moo::combineVertexFormats(vertex, Moo::VertexFormat{}) == vertex);

  instancing.streams[0].stream_ = 0;
  instancing.elements[0].stream_ = 0;
  EXPECT_ASSERTION((void)Moo::combineVertexFormats(vertex, instancing), "vStreamInfo.stream_ != iStreamInfo.stream_");
}

TEST(PrimitiveVertexFormatDeathTest, UseOutsideInitFini)
{
  EXPECT_ASSERTION((void)PrimitiveVertexFormat::findByFormatName("xyznuv"), "ASSERTION FAILED: s_inited");
  EXPECT_ASSERTION(PrimitiveVertexFormat::fini(), "s_inited.exchange\\( false \\) == true");
  EXPECT_ASSERTION(
    {
      PrimitiveVertexFormat::init(0);
      PrimitiveVertexFormat::init(0);
    },
    "s_inited.exchange\\( true \\) == false");
}

class Registry : public testing::Test
{
protected:
  static void SetUpTestSuite() { PrimitiveVertexFormat::init(0); }
  static void TearDownTestSuite() { PrimitiveVertexFormat::fini(); }
};

TEST_F(Registry, EveryRowHasItsNamesLayoutsAndStrides)
{
  for (const FormatRow& row : kFormatRows)
  {
    SCOPED_TRACE(std::string(row.name));
    const PrimitiveVertexFormat* entry = PrimitiveVertexFormat::findByFormatName(row.name);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->formatName, row.name);
    EXPECT_EQ(entry->gpuFormatName, row.gpuName);
    EXPECT_EQ(PrimitiveVertexFormat::findByGPUFormatName(row.gpuName), entry);
    EXPECT_TRUE(entry->m_format.elements == expectedElements(kSourceTokens, row.sourceTokens));
    EXPECT_TRUE(entry->m_gpuFormat.elements == expectedElements(kGpuTokens, row.gpuTokens));
    EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(entry->m_format, 0), row.sourceStride);
    EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(entry->m_gpuFormat, 0), row.gpuStride);
    const Moo::VertexStream stream{0, ari::VertexInputProgressionMode::VERTEX_DATA, 1};
    EXPECT_TRUE(entry->m_format.streams == Moo::VertexFormat::Streams{stream});
    EXPECT_TRUE(entry->m_gpuFormat.streams == Moo::VertexFormat::Streams{stream});
    EXPECT_EQ(entry->m_gpuFormat.isSkinned(), row.gpuTokens.find('I') != std::string_view::npos);
    EXPECT_EQ(entry->m_gpuFormat.isBumped(), row.gpuTokens.find('T') != std::string_view::npos);
  }
}

TEST_F(Registry, LookupsAreExactAndCaseSensitive)
{
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName("set3/xyznuvpc"), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByGPUFormatName("xyznuv"), nullptr);
  for (std::string_view near : {"XYZNUV", "xyznu", "", "xyznuvpc"})
    EXPECT_EQ(PrimitiveVertexFormat::findByFormatName(near), nullptr) << near;
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName(std::string_view("xyznuv\0", 7)), nullptr);

  const PrimitiveVertexFormat* tbi = PrimitiveVertexFormat::findByFormatName("xyznuvtbi");
  const PrimitiveVertexFormat* tboi = PrimitiveVertexFormat::findByFormatName("xyznuvtboi");
  ASSERT_TRUE(tbi && tboi);
  EXPECT_NE(tbi, tboi);
  EXPECT_TRUE(tbi->m_format == tboi->m_format && tbi->m_gpuFormat == tboi->m_gpuFormat);

  const PrimitiveVertexFormat& xyznuv = *PrimitiveVertexFormat::findByFormatName("xyznuv");
  EXPECT_ASSERTION(PrimitiveVertexFormat::registerFormat("xyznuv", xyznuv.m_format, "set3/new", xyznuv.m_gpuFormat),
                   "Format redefinition");
  EXPECT_ASSERTION(PrimitiveVertexFormat::registerFormat("new", xyznuv.m_format, "set3/xyznuvpc", xyznuv.m_gpuFormat),
                   "GPU format redefinition");
}

TEST_F(Registry, AccessorsReadElementsAsFloats)
{
  const SampleVertex& sample = kSamples[1];
  const Moo::VertexFormat& gpu = PrimitiveVertexFormat::findByFormatName("xyznuv")->m_gpuFormat;
  Bytes buffer = vertexBytes(kSamples[0], kGpuTokens, "PNU");
  const Bytes second = vertexBytes(sample, kGpuTokens, "PNU");
  buffer.insert(buffer.end(), second.begin(), second.end());
  buffer.resize(buffer.size() + 7); // a partial vertex at the end is not a vertex

  const auto positions = gpu.getAccessor<S::POSITION>(buffer);
  ASSERT_TRUE(positions);
  EXPECT_EQ(positions.vertexCount(), 2u);
  EXPECT_EQ(positions.get(1).z, sample.position[2]);
  const Moo::Vector3 normal = gpu.getAccessor<S::NORMAL>(buffer).get(1);
  EXPECT_EQ(normal.x, -1.0f);
  EXPECT_EQ(normal.y, 0.0f);
  const Moo::Vector2 uv = gpu.getAccessor<S::TEXCOORD>(buffer).get(1);
  EXPECT_EQ(uv.x, sample.uv0[0]);
  EXPECT_EQ(uv.y, sample.uv0[1]);

  EXPECT_FALSE(gpu.getAccessor<S::TANGENT>(buffer));
  EXPECT_FALSE(gpu.getAccessor<S::TEXCOORD>(buffer, 0, 1));
  EXPECT_FALSE(gpu.getAccessor<S::POSITION>({}));
  EXPECT_ASSERTION((void)positions.get(2), "i < vertexCount\\(\\)");
  // The FLOAT1 second texture coordinate of "xyznuvr" has no conversion to two floats.
  const Moo::VertexFormat& r = PrimitiveVertexFormat::findByFormatName("xyznuvr")->m_format;
  const Bytes rBuffer(36);
  EXPECT_ASSERTION((void)r.getAccessor<S::TEXCOORD>(rBuffer, 0, 1).get(0),
                   "convertSingleElement\\( Semantic, &ret, VertexElementType< T >::s_type");
}

} // namespace
