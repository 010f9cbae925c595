#include "moo/vertex_conversion.hpp"

#include "moo/formats_test_support.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <tuple>
#include <type_traits>

namespace
{

using namespace formats_test;

template <size_t N>
Bytes bytesOf(const std::array<uint8_t, N>& values)
{
  return Bytes(reinterpret_cast<const std::byte*>(values.data()), reinterpret_cast<const std::byte*>(values.data()) + N);
}

// Converts one element of `src` and returns the destination bytes (starting from 0xCD filler).
template <typename Source>
Bytes convertOne(S semantic, T destType, const Source& src, T srcType, bool expectOk = true)
{
  Bytes dest(ari::getVertexDataTypeSize(destType), std::byte{0xCD});
  const void* srcData = &src;
  if constexpr (std::is_same_v<Source, Bytes>)
    srcData = src.data();
  EXPECT_EQ(Moo::convertSingleElement(semantic, dest.data(), destType, srcData, srcType), expectOk);
  return dest;
}

template <typename Value>
Value as(const Bytes& bytes)
{
  Value value{};
  EXPECT_EQ(bytes.size(), sizeof(Value));
  std::memcpy(&value, bytes.data(), sizeof(Value));
  return value;
}

TEST(ConversionTable, HasExactlyTheListedPairs)
{
  std::set<std::tuple<S, T, T>> expected = {
    {S::BLENDWEIGHT, T::UBYTE4, T::UBYTE2},         {S::BLENDWEIGHT, T::FLOAT3, T::UBYTE4},
    {S::BLENDINDICES, T::UBYTE4, T::UBYTE3},        {S::BLENDINDICES, T::UBYTE3, T::UBYTE4},
    {S::TEXCOORD, T::FLOAT16_2, T::FLOAT2},         {S::TEXCOORD, T::FLOAT2, T::FLOAT16_2},
    {S::TEXCOORD, T::FLOAT3, T::FLOAT16_2},
  };
  for (S semantic : {S::NORMAL, S::TANGENT, S::BINORMAL})
  {
    expected.insert({semantic, T::UBYTE4_NORMAL_888, T::FLOAT3});
    expected.insert({semantic, T::UBYTE4_NORMAL_888, T::PACKED_NORMAL});
    expected.insert({semantic, T::FLOAT3, T::PACKED_NORMAL});
    expected.insert({semantic, T::FLOAT3, T::UBYTE4_NORMAL_888});
  }
  std::set<std::tuple<S, T, T>> found;
  for (int semantic = 0; semantic <= 13; ++semantic)
    for (int dest = 0; dest <= 28; ++dest)
      for (int src = 0; src <= 28; ++src)
        if (Moo::fetchConversionFunc(static_cast<S>(semantic), static_cast<T>(dest), static_cast<T>(src)) != nullptr)
          found.insert({static_cast<S>(semantic), static_cast<T>(dest), static_cast<T>(src)});
  EXPECT_EQ(found, expected);
}

// The source-to-GPU directions are checked on whole sections of every format (WholeSections);
// these cover the way back, the edges of the normal check and the missing pairs.
TEST(ConversionFunctions, BonesAndWeightsBack)
{
  const std::array<uint8_t, 4> gpuIndices = {9, 6, 3, 77};
  EXPECT_EQ(convertOne(S::BLENDINDICES, T::UBYTE3, gpuIndices, T::UBYTE4), bytesOf<3>({3, 2, 1}));

  // Reads bytes 0 and 1, not where the weights were put.
  const auto floats = as<Moo::Vector3>(convertOne(S::BLENDWEIGHT, T::FLOAT3, bytesOf<4>({51, 102, 200, 0}), T::UBYTE4));
  EXPECT_FLOAT_EQ(floats.x, 0.2f);
  EXPECT_FLOAT_EQ(floats.y, 0.4f);
  EXPECT_EQ(floats.z, 1.0f - floats.x - floats.y);
  const auto fromGpu = as<Moo::Vector3>(convertOne(S::BLENDWEIGHT, T::FLOAT3, bytesOf<4>({0, 55, 200, 0}), T::UBYTE4));
  EXPECT_EQ(fromGpu.x, 0.0f);
  EXPECT_EQ(fromGpu.y, 55 * 0.003921568859368563f);
}

TEST(ConversionFunctions, NormalPacking)
{
  EXPECT_EQ(Moo::packFloat3toUByte4Normal888({0, 0, -1}), 0x00007F7Fu); // 127, 127, 0, 0
  EXPECT_EQ(Moo::packFloat3toUByte4Normal888({0, 0, 0}), 0x007F7F7Fu);
  EXPECT_EQ(Moo::packFloat3toUByte4Normal888({0.995f, 0, 0}), 0x007F7FFDu); // trunc(-126.365) = -126
  EXPECT_EQ(Moo::packFloat3toUByte4Normal888({0.0003f, 0, 0}), 0x007F7F7Fu);
  EXPECT_ASSERTION((void)Moo::packFloat3toUByte4Normal888({0, 0.98f, 0}),
                   "ASSERTION FAILED: almostZero\\( unpacked.length\\(\\) \\) \\|\\| almostEqual\\( "
                   "unpacked.length\\(\\), 1.0f, 0.01f \\) && \"Normal must be normalized before packing\"");
  EXPECT_ASSERTION((void)Moo::packFloat3toUByte4Normal888({0, 0.001f, 0}), "Normal must be normalized");
}

TEST(ConversionFunctions, PackedNormals)
{
  const auto x = as<Moo::Vector3>(convertOne(S::NORMAL, T::FLOAT3, uint32_t{1023}, T::PACKED_NORMAL));
  EXPECT_EQ(x.x, 1.0f);
  EXPECT_EQ(x.y, 0.0f);
  EXPECT_EQ(x.z, 0.0f);
  // Sign extension of every field: -1023 in x, -1 in y, -511 in z.
  const uint32_t negative = 0x401u | (0x7FFu << 11) | (0x201u << 22);
  const auto n = as<Moo::Vector3>(convertOne(S::BINORMAL, T::FLOAT3, negative, T::PACKED_NORMAL));
  EXPECT_EQ(n.x, -1.0f);
  EXPECT_EQ(n.y, -0.0009775171056389809f);
  EXPECT_EQ(n.z, -1.0f);
  // A source normal far from unit length stops the conversion.
  EXPECT_ASSERTION((void)convertOne(S::NORMAL, T::UBYTE4_NORMAL_888, uint32_t{1023u | (1023u << 11)}, T::PACKED_NORMAL),
                   "Normal must be normalized before packing");

  const auto unpacked = as<Moo::Vector3>(convertOne(S::NORMAL, T::FLOAT3, bytesOf<4>({254, 127, 0, 9}), T::UBYTE4_NORMAL_888));
  EXPECT_EQ(unpacked.x, 1.0f);
  EXPECT_EQ(unpacked.y, 0.0f);
  EXPECT_EQ(unpacked.z, -1.0f);
}

TEST(ConversionFunctions, TextureCoordinatesAreHalvesCentredOnOneHalf)
{
  const float uv[2] = {0.5f, 1.5f};
  const Bytes halves = convertOne(S::TEXCOORD, T::FLOAT16_2, uv, T::FLOAT2);
  EXPECT_EQ(as<Moo::PackedVector2Float16_X2>(halves).x, 0x0000);
  EXPECT_EQ(as<Moo::PackedVector2Float16_X2>(halves).y, 0x3C00);
  const auto back2 = as<Moo::Vector2>(convertOne(S::TEXCOORD, T::FLOAT2, as<uint32_t>(halves), T::FLOAT16_2));
  EXPECT_EQ(back2.x, 0.5f);
  EXPECT_EQ(back2.y, 1.5f);
  const auto back3 = as<Moo::Vector3>(convertOne(S::TEXCOORD, T::FLOAT3, as<uint32_t>(halves), T::FLOAT16_2));
  EXPECT_EQ(back3.x, 0.5f);
  EXPECT_EQ(back3.y, 1.5f);
  EXPECT_EQ(back3.z, 0.0f);

  uint32_t scratch[4] = {};
  EXPECT_ASSERTION(Moo::conv_TexCoord_Float2_to_Float16_2(scratch, uv, 8), "destSize == sizeof\\( PackedVector2Float16_X2 \\)");
}

TEST(ConversionFunctions, MissingPairsAndEqualTypes)
{
  const float normal[3] = {0, 0, 1};
  const Bytes untouched = convertOne(S::NORMAL, T::FLOAT16_2, normal, T::FLOAT3, false);
  EXPECT_EQ(untouched, Bytes(4, std::byte{0xCD}));
  (void)convertOne(S::TEXCOORD, T::FLOAT3, normal, T::FLOAT2, false);
  (void)convertOne(S::COLOR, T::UBYTE4, uint32_t{}, T::UBYTE2, false);
  // Equal types are copied whatever the semantic.
  EXPECT_EQ(convertOne(S::FOG, T::UBYTE3, bytesOf<3>({1, 2, 3}), T::UBYTE3), bytesOf<3>({1, 2, 3}));

  uint32_t value = 0;
  EXPECT_ASSERTION((void)Moo::convertElements(S::COLOR, nullptr, T::UINT32, 0, 4, &value, T::UINT32, 0, 4, 1),
                   "destData != nullptr");
}

Moo::VertexFormat singleStreamFormat(std::initializer_list<std::tuple<S, T, uint16_t>> elements)
{
  Moo::VertexFormat format;
  for (const auto& [semantic, type, offset] : elements)
  {
    Moo::VertexElement element;
    element.semantic_ = semantic;
    element.type_ = type;
    element.offset_ = offset;
    format.elements.push_back(element);
  }
  format.streams.push_back({0, ari::VertexInputProgressionMode::VERTEX_DATA, 1});
  return format;
}

TEST(ConvertVertices, UnmatchedElementsAreLeftAndFailuresDoNotStopTheRest)
{
  const Moo::VertexFormat source = singleStreamFormat({{S::POSITION, T::FLOAT3, 0}, {S::NORMAL, T::FLOAT3, 12}});
  const Moo::VertexFormat withColour = singleStreamFormat({{S::POSITION, T::FLOAT3, 0}, {S::COLOR, T::UINT32, 12}});
  const Moo::VertexFormat badNormal =
    singleStreamFormat({{S::NORMAL, T::FLOAT16_2, 0}, {S::POSITION, T::FLOAT3, 4}, {S::COLOR, T::UINT32, 16}});

  const float src[2][6] = {{1, 2, 3, 0, 0, 1}, {4, 5, 6, 1, 0, 0}};
  Bytes dest(2 * 20, std::byte{0xCD});
  ASSERT_TRUE(Moo::convertVertices(dest.data(), withColour, src, source, 2));
  Bytes expected(2 * 16, std::byte{0xCD});
  std::memcpy(expected.data(), src[0], 12);
  std::memcpy(expected.data() + 16, src[1], 12);
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), dest.begin()));
  EXPECT_EQ(dest[32], std::byte{0xCD}); // nothing written past the two vertices

  std::fill(dest.begin(), dest.end(), std::byte{0xCD});
  EXPECT_FALSE(Moo::convertVertices(dest.data(), badNormal, src, source, 2));
  expected.assign(2 * 20, std::byte{0xCD});
  std::memcpy(expected.data() + 4, src[0], 12);
  std::memcpy(expected.data() + 24, src[1], 12);
  EXPECT_EQ(dest, expected);

  // No vertices: no storage needed, but a missing pair still fails.
  EXPECT_TRUE(Moo::convertVertices(nullptr, withColour, nullptr, source, 0));
  EXPECT_FALSE(Moo::convertVertices(nullptr, badNormal, nullptr, source, 0));

  Moo::VertexFormat twoStreams = withColour;
  twoStreams.streams.push_back({1, ari::VertexInputProgressionMode::INSTANCE_DATA, 1});
  EXPECT_ASSERTION((void)Moo::convertVertices(dest.data(), twoStreams, src, source, 1),
                   "destFormat.streams.size\\(\\) == 1");
}

class WholeSections : public testing::Test
{
protected:
  static void SetUpTestSuite() { Moo::PrimitiveVertexFormat::init(0); }
  static void TearDownTestSuite() { Moo::PrimitiveVertexFormat::fini(); }
};

TEST_F(WholeSections, EverySourceFormatConvertsToItsGpuBytes)
{
  for (const FormatRow& row : kFormatRows)
  {
    SCOPED_TRACE(std::string(row.name));
    Bytes source;
    Bytes expected;
    for (const SampleVertex& sample : kSamples)
    {
      const Bytes s = vertexBytes(sample, kSourceTokens, row.sourceTokens);
      const Bytes g = vertexBytes(sample, kGpuTokens, row.gpuTokens);
      ASSERT_EQ(s.size(), row.sourceStride);
      ASSERT_EQ(g.size(), row.gpuStride);
      source.insert(source.end(), s.begin(), s.end());
      expected.insert(expected.end(), g.begin(), g.end());
    }
    const Moo::PrimitiveVertexFormat* entry = Moo::PrimitiveVertexFormat::findByFormatName(row.name);
    ASSERT_NE(entry, nullptr);
    // Exactly sized heap copies, so that any read or write past either buffer is caught.
    auto src = std::make_unique<std::byte[]>(source.size());
    std::memcpy(src.get(), source.data(), source.size());
    Bytes dest(expected.size(), std::byte{0xCD});
    ASSERT_TRUE(Moo::convertVertices(dest.data(), entry->m_gpuFormat, src.get(), entry->m_format, std::size(kSamples)));
    EXPECT_EQ(dest, expected);
  }
}

} // namespace
