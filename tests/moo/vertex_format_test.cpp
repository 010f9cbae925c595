#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_format.hpp"

#include "cstdmf/log_sinks.hpp"
#include "moo/format_table.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{

using formats_test::kFormatRows;
using Moo::PrimitiveVertexFormat;

#define EXPECT_ASSERTION(statement, text)                                                                              \
  EXPECT_EXIT(                                                                                                         \
    {                                                                                                                  \
      cstdmf::setupConsoleLogging(1);                                                                                  \
      statement;                                                                                                       \
    },                                                                                                                 \
    testing::ExitedWithCode(255), text)

Moo::VertexElement makeElement(VertexSemantic semantic, VertexDataType type, uint16_t offset, int16_t stream = 0)
{
  Moo::VertexElement element;
  element.stream_ = stream;
  element.offset_ = offset;
  element.type_ = type;
  element.semantic_ = semantic;
  return element;
}

// Elements of a token layout, in token order and tightly packed; also returns the stride.
template <typename TokenMap>
Moo::VertexFormat::Elements expectedElements(std::string_view tokens, TokenMap map, uint32_t& stride)
{
  Moo::VertexFormat::Elements elements;
  stride = 0;
  for (char token : tokens)
  {
    const formats_test::TokenElement t = map(token);
    Moo::VertexElement element = makeElement(t.semantic, t.type, static_cast<uint16_t>(stride));
    element.semanticIndex_ = t.semanticIndex;
    elements.push_back(element);
    stride += t.size;
  }
  return elements;
}

TEST(VertexDataType, SizesOfEveryValue)
{
  const uint32_t expected[29] = {4, 8, 12, 16, 4, 1, 4, 2, 4, 8, 4, 4, 4, 8, 4,
                                 8, 4, 4, 2, 4, 8, 4, 4, 8, 12, 16, 3, 2, 0};
  for (uint32_t value = 0; value < 29; ++value)
    EXPECT_EQ(ari::getVertexDataTypeSize(static_cast<VertexDataType>(value)), expected[value]) << value;
  EXPECT_ASSERTION((void)ari::getVertexDataTypeSize(static_cast<VertexDataType>(29)), "Unknown vertex data type");
}

TEST(SmallVector, SpillsToHeapAndKeepsOrder)
{
  Moo::SmallVector<uint32_t, 4> values{1, 2, 3};
  EXPECT_TRUE(values.isInline());
  for (uint32_t v = 4; v <= 20; ++v)
    values.push_back(v);
  EXPECT_FALSE(values.isInline());
  ASSERT_EQ(values.size(), 20u);
  for (uint32_t i = 0; i < 20; ++i)
    EXPECT_EQ(values[i], i + 1);
  const Moo::SmallVector<uint32_t, 4> copy = values;
  EXPECT_TRUE(copy == values);
  values.clear();
  values.push_back(7);
  EXPECT_TRUE(values.isInline());
  EXPECT_EQ(values[0], 7u);
  EXPECT_ASSERTION((void)values[1], "i < m_size");
}

TEST(VertexFormat, StrideIsLargestEndOffsetOfTheStream)
{
  Moo::VertexFormat format;
  format.elements.push_back(makeElement(VertexSemantic::TEXCOORD, VertexDataType::FLOAT2, 24));
  format.elements.push_back(makeElement(VertexSemantic::POSITION, VertexDataType::FLOAT3, 0));
  format.elements.push_back(makeElement(VertexSemantic::COLOR, VertexDataType::UINT32, 40, 1));
  EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(format, 0), 32u);
  EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(format, 1), 44u);
  EXPECT_ASSERTION((void)ari::VertexDeclaration::computeStreamDataSize(format, 2), "Vertex stream has no elements");
  EXPECT_ASSERTION((void)ari::VertexDeclaration::computeStreamDataSize(format, -1), "streamIndex >= 0");
}

TEST(VertexFormat, CombineAppendsInstancingElementsAndStreams)
{
  Moo::VertexFormat vertex;
  vertex.elements.push_back(makeElement(VertexSemantic::POSITION, VertexDataType::FLOAT3, 0));
  vertex.streams.push_back({0, ari::VertexInputProgressionMode::VERTEX_DATA, 1});
  Moo::VertexFormat instancing;
  instancing.elements.push_back(makeElement(VertexSemantic::TEXCOORD, VertexDataType::FLOAT4, 0, 1));
  instancing.streams.push_back({1, ari::VertexInputProgressionMode::INSTANCE_DATA, 1});

  const Moo::VertexFormat combined = Moo::combineVertexFormats(vertex, instancing);
  ASSERT_EQ(combined.elements.size(), 2u);
  EXPECT_TRUE(combined.elements[0] == vertex.elements[0]);
  EXPECT_TRUE(combined.elements[1] == instancing.elements[0]);
  ASSERT_EQ(combined.streams.size(), 2u);
  EXPECT_EQ(combined.streams[1].progressionMode_, ari::VertexInputProgressionMode::INSTANCE_DATA);
  EXPECT_TRUE(Moo::combineVertexFormats(vertex, Moo::VertexFormat{}) == vertex);

  Moo::VertexFormat sameStream = instancing;
  sameStream.streams[0].stream_ = 0;
  sameStream.elements[0].stream_ = 0;
  EXPECT_ASSERTION((void)Moo::combineVertexFormats(vertex, sameStream), "vStreamInfo.stream_ != iStreamInfo.stream_");
  Moo::VertexFormat wrongMode = instancing;
  wrongMode.streams[0].progressionMode_ = ari::VertexInputProgressionMode::VERTEX_DATA;
  EXPECT_ASSERTION((void)Moo::combineVertexFormats(vertex, wrongMode), "instancingFormat.streams.size\\(\\) == 0");
  Moo::VertexFormat strayElement = vertex;
  strayElement.elements[0].stream_ = 3;
  EXPECT_ASSERTION((void)Moo::combineVertexFormats(strayElement, instancing),
                   "e.stream_ == vertexFormat.streams\\[ 0 \\].stream_");
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
  for (const auto& row : kFormatRows)
  {
    SCOPED_TRACE(std::string(row.name));
    const PrimitiveVertexFormat* entry = PrimitiveVertexFormat::findByFormatName(row.name);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->formatName, row.name);
    EXPECT_EQ(entry->gpuFormatName, row.gpuName);
    EXPECT_EQ(PrimitiveVertexFormat::findByGPUFormatName(row.gpuName), entry);

    uint32_t sourceStride = 0;
    uint32_t gpuStride = 0;
    EXPECT_TRUE(entry->m_format.elements == expectedElements(row.sourceTokens, formats_test::sourceToken, sourceStride));
    EXPECT_TRUE(entry->m_gpuFormat.elements == expectedElements(row.gpuTokens, formats_test::gpuToken, gpuStride));
    EXPECT_EQ(sourceStride, row.sourceStride);
    EXPECT_EQ(gpuStride, row.gpuStride);
    EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(entry->m_format, 0), row.sourceStride);
    EXPECT_EQ(ari::VertexDeclaration::computeStreamDataSize(entry->m_gpuFormat, 0), row.gpuStride);

    for (const Moo::VertexFormat* format : {&entry->m_format, &entry->m_gpuFormat})
    {
      ASSERT_EQ(format->streams.size(), 1u);
      EXPECT_TRUE(format->streams[0] == (Moo::VertexStream{0, ari::VertexInputProgressionMode::VERTEX_DATA, 1}));
    }
    EXPECT_EQ(entry->m_gpuFormat.isSkinned(), row.gpuTokens.find('I') != std::string_view::npos);
    EXPECT_EQ(entry->m_gpuFormat.isBumped(), row.gpuTokens.find('T') != std::string_view::npos);
    EXPECT_EQ(entry->m_vertexDecl, nullptr);
  }
}

TEST_F(Registry, LookupsAreExactAndCaseSensitive)
{
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName("set3/xyznuvpc"), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByGPUFormatName("set3/xyznuvpc"), PrimitiveVertexFormat::findByFormatName("xyznuv"));
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName("XYZNUV"), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName("xyznu"), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName(std::string_view("xyznuv\0", 7)), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByFormatName(""), nullptr);
  EXPECT_EQ(PrimitiveVertexFormat::findByGPUFormatName("xyznuv"), nullptr);

  const PrimitiveVertexFormat* tbi = PrimitiveVertexFormat::findByFormatName("xyznuvtbi");
  const PrimitiveVertexFormat* tboi = PrimitiveVertexFormat::findByFormatName("xyznuvtboi");
  ASSERT_TRUE(tbi && tboi);
  EXPECT_NE(tbi, tboi);
  EXPECT_TRUE(tbi->m_format == tboi->m_format);
  EXPECT_TRUE(tbi->m_gpuFormat == tboi->m_gpuFormat);
}

TEST_F(Registry, RedefinitionsAssert)
{
  const PrimitiveVertexFormat* xyznuv = PrimitiveVertexFormat::findByFormatName("xyznuv");
  ASSERT_NE(xyznuv, nullptr);
  EXPECT_ASSERTION(
    PrimitiveVertexFormat::registerFormat("xyznuv", xyznuv->m_format, "set3/other", xyznuv->m_gpuFormat),
    "Format redefinition");
  EXPECT_ASSERTION(
    PrimitiveVertexFormat::registerFormat("other", xyznuv->m_format, "set3/xyznuvpc", xyznuv->m_gpuFormat),
    "GPU format redefinition");
}

TEST_F(Registry, AccessorsReadElementsAsFloats)
{
  const PrimitiveVertexFormat* entry = PrimitiveVertexFormat::findByFormatName("xyznuv");
  ASSERT_NE(entry, nullptr);
  // Two GPU vertices of "set3/xyznuvpc": position, normal 888 (0, 0, 1), texcoord halves (1.0, -0.5).
  std::vector<std::byte> buffer(2 * 20);
  const float position[3] = {1.0f, -2.0f, 3.5f};
  const uint8_t normal[4] = {127, 127, 254, 0};
  const uint16_t uv[2] = {0x3C00, 0xB800};
  for (size_t v = 0; v < 2; ++v)
  {
    std::memcpy(buffer.data() + v * 20, position, 12);
    std::memcpy(buffer.data() + v * 20 + 12, normal, 4);
    std::memcpy(buffer.data() + v * 20 + 16, uv, 4);
  }
  buffer.resize(2 * 20 + 7); // a partial vertex at the end is not a vertex

  const Moo::VertexFormat& gpu = entry->m_gpuFormat;
  const auto positions = gpu.getAccessor<VertexSemantic::POSITION>(buffer);
  ASSERT_TRUE(positions);
  EXPECT_EQ(positions.vertexCount(), 2u);
  EXPECT_EQ(positions.get(1).y, -2.0f);
  const Moo::Vector3 n = gpu.getAccessor<VertexSemantic::NORMAL>(buffer).get(0);
  EXPECT_EQ(n.x, 0.0f);
  EXPECT_EQ(n.z, 1.0f);
  const Moo::Vector2 t = gpu.getAccessor<VertexSemantic::TEXCOORD>(buffer).get(1);
  EXPECT_EQ(t.x, 1.5f);
  EXPECT_EQ(t.y, 0.0f);

  EXPECT_FALSE(gpu.getAccessor<VertexSemantic::TANGENT>(buffer));
  EXPECT_FALSE(gpu.getAccessor<VertexSemantic::TEXCOORD>(buffer, 0, 1));
  EXPECT_FALSE(gpu.getAccessor<VertexSemantic::POSITION>({}));
  EXPECT_ASSERTION((void)positions.get(2), "i < vertexCount\\(\\)");
  // A source-layout texture coordinate of "xyznuvr" (FLOAT1) has no conversion to floats.
  const Moo::VertexFormat& r = PrimitiveVertexFormat::findByFormatName("xyznuvr")->m_format;
  std::vector<std::byte> rBuffer(36);
  EXPECT_ASSERTION((void)r.getAccessor<VertexSemantic::TEXCOORD>(rBuffer, 0, 1).get(0),
                   "convertSingleElement\\( Semantic, &ret, VertexElementType< T >::s_type");
}

} // namespace
