#include "moo/vertex_conversion.hpp"

#include "moo/half_float.hpp"

#include <cstring>
#include <utility>

namespace Moo
{

namespace
{

// All arithmetic below is single precision with these exact factors, so that the packed extremes
// unpack to exactly ±1.
constexpr float kInv255 = 0.003921568859368563f;
constexpr float kInv1023 = 0.0009775171056389809f;
constexpr float kInv511 = 0.001956947147846222f;
constexpr float kInv127 = 0.007874015718698502f;

template <typename T>
T load(const void* src)
{
  T value;
  std::memcpy(&value, src, sizeof(T));
  return value;
}

template <typename T>
void store(void* dest, const T& value)
{
  std::memcpy(dest, &value, sizeof(T));
}

bool almostZero(float value)
{
  return value > -0.0004f && value < 0.0004f;
}

bool almostEqual(float a, float b, float epsilon)
{
  const float difference = a - b;
  return difference > -epsilon && difference < epsilon;
}

// Signed 11-11-10 fields of one 32-bit word, sign-extended by arithmetic shifts.
Vector3 unpackNormal111110(uint32_t word)
{
  const int32_t x = static_cast<int32_t>(word << 21) >> 21;
  const int32_t y = static_cast<int32_t>(word << 10) >> 21;
  const int32_t z = static_cast<int32_t>(word) >> 22;
  return Vector3{static_cast<float>(x) * kInv1023, static_cast<float>(y) * kInv1023,
                 static_cast<float>(z) * kInv511};
}

// GPU weights carry the second source weight in byte 1 and the first in byte 2.
void convBlendWeightToGpu(void* dest, const void* src, uint32_t)
{
  const auto in = load<std::array<uint8_t, 2>>(src);
  store(dest, std::array<uint8_t, 4>{0, in[1], in[0], 0});
}

// Reads bytes 0 and 1, which is not where convBlendWeightToGpu puts the weights; this is how the
// runtime reads them back, and it is kept so.
void convBlendWeightGpuToFloat3(void* dest, const void* src, uint32_t)
{
  const auto in = load<std::array<uint8_t, 4>>(src);
  const float x = static_cast<float>(in[0]) * kInv255;
  const float y = static_cast<float>(in[1]) * kInv255;
  store(dest, Vector3{x, y, 1.0f - x - y});
}

void convBlendIndicesToGpu(void* dest, const void* src, uint32_t)
{
  const auto in = load<std::array<uint8_t, 3>>(src);
  store(dest, std::array<uint8_t, 4>{in[2], in[1], in[0], 0});
}

// Divides by 3 in the same order; it deliberately does not undo convBlendIndicesToGpu.
void convBlendIndicesGpuToUByte3(void* dest, const void* src, uint32_t)
{
  const auto in = load<std::array<uint8_t, 4>>(src);
  store(dest, std::array<uint8_t, 3>{static_cast<uint8_t>(in[0] / 3), static_cast<uint8_t>(in[1] / 3),
                                     static_cast<uint8_t>(in[2] / 3)});
}

void convNormalFloat3To888(void* dest, const void* src, uint32_t)
{
  store(dest, packFloat3toUByte4Normal888(load<Vector3>(src)));
}

void convNormalPackedTo888(void* dest, const void* src, uint32_t)
{
  store(dest, packFloat3toUByte4Normal888(unpackNormal111110(load<uint32_t>(src))));
}

void convNormalPackedToFloat3(void* dest, const void* src, uint32_t)
{
  store(dest, unpackNormal111110(load<uint32_t>(src)));
}

void convNormal888ToFloat3(void* dest, const void* src, uint32_t)
{
  const auto in = load<std::array<uint8_t, 4>>(src);
  store(dest, Vector3{static_cast<float>(in[0] - 127) * kInv127, static_cast<float>(in[1] - 127) * kInv127,
                      static_cast<float>(in[2] - 127) * kInv127});
}

template <size_t Size>
void copyElements(std::byte* dest, size_t destStride, const std::byte* src, size_t srcStride, size_t count)
{
  for (size_t i = 0; i < count; ++i)
    std::memcpy(dest + i * destStride, src + i * srcStride, Size);
}

bool isUnitVectorSemantic(VertexSemantic semantic)
{
  return semantic == VertexSemantic::NORMAL || semantic == VertexSemantic::TANGENT ||
         semantic == VertexSemantic::BINORMAL;
}

} // namespace

bool isPackableUnitVector(const Vector3& v)
{
  const float length = v.length();
  return almostZero(length) || almostEqual(length, 1.0f, 0.01f);
}

bool findUnpackableUnitVector(const VertexFormat& destFormat, const void* srcData, const VertexFormat& srcFormat,
                              size_t vertexCount, size_t& vertex)
{
  if (vertexCount == 0 || destFormat.streams.size() != 1 || srcFormat.streams.size() != 1)
    return false;
  const size_t srcStride = ari::VertexDeclaration::computeStreamDataSize(srcFormat, 0);
  const auto* src = static_cast<const std::byte*>(srcData);
  for (const VertexElement& destElement : destFormat.elements)
  {
    if (!isUnitVectorSemantic(destElement.semantic_) || destElement.type_ != VertexDataType::UBYTE4_NORMAL_888)
      continue;
    for (const VertexElement& srcElement : srcFormat.elements)
    {
      if (srcElement.semantic_ != destElement.semantic_ || srcElement.semanticIndex_ != destElement.semanticIndex_)
        continue;
      if (srcElement.type_ != VertexDataType::FLOAT3 && srcElement.type_ != VertexDataType::PACKED_NORMAL)
        break;
      for (size_t i = 0; i < vertexCount; ++i)
      {
        const std::byte* element = src + i * srcStride + srcElement.offset_;
        const Vector3 value = srcElement.type_ == VertexDataType::FLOAT3 ? load<Vector3>(element)
                                                                          : unpackNormal111110(load<uint32_t>(element));
        if (!isPackableUnitVector(value))
        {
          vertex = i;
          return true;
        }
      }
      break;
    }
  }
  return false;
}

uint32_t packFloat3toUByte4Normal888(const Vector3& unpacked)
{
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wparentheses" // the message literal is always true
#endif
  ZR_ASSERT(almostZero( unpacked.length() ) || almostEqual( unpacked.length(), 1.0f, 0.01f ) && "Normal must be normalized before packing");
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  // The check bounds every component to |c| < 1.01, so the conversions to int are in range.
  const auto pack = [](float c) { return static_cast<uint32_t>(127 - static_cast<int32_t>(c * -127.0f)) & 0xFFu; };
  return pack(unpacked.x) | (pack(unpacked.y) << 8) | (pack(unpacked.z) << 16);
}

void conv_TexCoord_Float2_to_Float16_2(void* dest, const void* src, uint32_t destSize)
{
  ZR_ASSERT(destSize == sizeof( PackedVector2Float16_X2 ));
  const auto uv = load<Vector2>(src);
  store(dest, PackedVector2Float16_X2{floatToHalf(uv.x - 0.5f), floatToHalf(uv.y - 0.5f)});
}

void conv_TexCoord_Float16_2_to_Float2(void* dest, const void* src, uint32_t destSize)
{
  ZR_ASSERT(destSize == sizeof( Vector2 ));
  const auto packed = load<PackedVector2Float16_X2>(src);
  store(dest, Vector2{halfToFloat(packed.x) + 0.5f, halfToFloat(packed.y) + 0.5f});
}

void conv_TexCoord_Float16_2_to_Float3(void* dest, const void* src, uint32_t destSize)
{
  ZR_ASSERT(destSize == sizeof( Vector3 ));
  const auto packed = load<PackedVector2Float16_X2>(src);
  store(dest, Vector3{halfToFloat(packed.x) + 0.5f, halfToFloat(packed.y) + 0.5f, 0.0f});
}

ConversionFunc fetchConversionFunc(VertexSemantic semantic, VertexDataType destType, VertexDataType srcType)
{
  using T = VertexDataType;
  if (semantic == VertexSemantic::BLENDWEIGHT)
  {
    if (destType == T::UBYTE4 && srcType == T::UBYTE2)
      return convBlendWeightToGpu;
    if (destType == T::FLOAT3 && srcType == T::UBYTE4)
      return convBlendWeightGpuToFloat3;
  }
  else if (semantic == VertexSemantic::BLENDINDICES)
  {
    if (destType == T::UBYTE4 && srcType == T::UBYTE3)
      return convBlendIndicesToGpu;
    if (destType == T::UBYTE3 && srcType == T::UBYTE4)
      return convBlendIndicesGpuToUByte3;
  }
  else if (isUnitVectorSemantic(semantic))
  {
    if (destType == T::UBYTE4_NORMAL_888 && srcType == T::FLOAT3)
      return convNormalFloat3To888;
    if (destType == T::UBYTE4_NORMAL_888 && srcType == T::PACKED_NORMAL)
      return convNormalPackedTo888;
    if (destType == T::FLOAT3 && srcType == T::PACKED_NORMAL)
      return convNormalPackedToFloat3;
    if (destType == T::FLOAT3 && srcType == T::UBYTE4_NORMAL_888)
      return convNormal888ToFloat3;
  }
  else if (semantic == VertexSemantic::TEXCOORD)
  {
    if (destType == T::FLOAT16_2 && srcType == T::FLOAT2)
      return conv_TexCoord_Float2_to_Float16_2;
    if (destType == T::FLOAT2 && srcType == T::FLOAT16_2)
      return conv_TexCoord_Float16_2_to_Float2;
    if (destType == T::FLOAT3 && srcType == T::FLOAT16_2)
      return conv_TexCoord_Float16_2_to_Float3;
  }
  return nullptr;
}

namespace
{
template <ConversionFunc Convert>
void convertAll(std::byte* dest, size_t destStride, const std::byte* src, size_t srcStride, size_t count,
                uint32_t destSize)
{
  for (size_t i = 0; i < count; ++i)
    Convert(dest + i * destStride, src + i * srcStride, destSize);
}

using ConversionLoop = void (*)(std::byte*, size_t, const std::byte*, size_t, size_t, uint32_t);

constexpr std::pair<ConversionFunc, ConversionLoop> kConversionLoops[] = {
  {convBlendWeightToGpu, convertAll<convBlendWeightToGpu>},
  {convBlendWeightGpuToFloat3, convertAll<convBlendWeightGpuToFloat3>},
  {convBlendIndicesToGpu, convertAll<convBlendIndicesToGpu>},
  {convBlendIndicesGpuToUByte3, convertAll<convBlendIndicesGpuToUByte3>},
  {convNormalFloat3To888, convertAll<convNormalFloat3To888>},
  {convNormalPackedTo888, convertAll<convNormalPackedTo888>},
  {convNormalPackedToFloat3, convertAll<convNormalPackedToFloat3>},
  {convNormal888ToFloat3, convertAll<convNormal888ToFloat3>},
  {conv_TexCoord_Float2_to_Float16_2, convertAll<conv_TexCoord_Float2_to_Float16_2>},
  {conv_TexCoord_Float16_2_to_Float2, convertAll<conv_TexCoord_Float16_2_to_Float2>},
  {conv_TexCoord_Float16_2_to_Float3, convertAll<conv_TexCoord_Float16_2_to_Float3>},
};
} // namespace

bool convertElements(VertexSemantic semantic, void* destData, VertexDataType destType, size_t destOffset,
                     size_t destStride, const void* srcData, VertexDataType srcType, size_t srcOffset, size_t srcStride,
                     size_t count)
{
  ZR_ASSERT(destData != nullptr);
  ZR_ASSERT(srcData != nullptr);

  auto* dest = static_cast<std::byte*>(destData) + destOffset;
  const auto* src = static_cast<const std::byte*>(srcData) + srcOffset;
  const uint32_t destSize = ari::getVertexDataTypeSize(destType);

  if (destType == srcType)
  {
    // Fixed sizes let the compiler turn each copy into plain moves.
    switch (destSize)
    {
    case 4:
      copyElements<4>(dest, destStride, src, srcStride, count);
      break;
    case 12:
      copyElements<12>(dest, destStride, src, srcStride, count);
      break;
    default:
      for (size_t i = 0; i < count; ++i)
        std::memcpy(dest + i * destStride, src + i * srcStride, destSize);
    }
    return true;
  }

  const ConversionFunc convert = fetchConversionFunc(semantic, destType, srcType);
  if (convert == nullptr)
    return false;
  // Every conversion has a loop of its own, in which it is inlined.
  for (const auto& [func, loop] : kConversionLoops)
    if (func == convert)
    {
      loop(dest, destStride, src, srcStride, count, destSize);
      return true;
    }
  for (size_t i = 0; i < count; ++i)
    convert(dest + i * destStride, src + i * srcStride, destSize);
  return true;
}

bool convertSingleElement(VertexSemantic semantic, void* dest, VertexDataType destType, const void* src,
                          VertexDataType srcType)
{
  return convertElements(semantic, dest, destType, 0, 0, src, srcType, 0, 0, 1);
}

bool convertVertices(void* destData, const VertexFormat& destFormat, const void* srcData, const VertexFormat& srcFormat,
                     size_t vertexCount)
{
  ZR_ASSERT(destFormat.streams.size() == 1);
  ZR_ASSERT(destFormat.streams.size() == srcFormat.streams.size());

  const size_t destStride = ari::VertexDeclaration::computeStreamDataSize(destFormat, 0);
  const size_t srcStride = ari::VertexDeclaration::computeStreamDataSize(srcFormat, 0);

  bool result = true;
  for (const VertexElement& destElement : destFormat.elements)
  {
    const VertexElement* srcElement = nullptr;
    for (const VertexElement& candidate : srcFormat.elements)
      if (candidate.semantic_ == destElement.semantic_ && candidate.semanticIndex_ == destElement.semanticIndex_)
      {
        srcElement = &candidate;
        break;
      }
    if (srcElement == nullptr)
      continue;

    // An empty buffer may have no storage at all; it still fails when a pair has no conversion.
    if (vertexCount == 0)
    {
      result &= destElement.type_ == srcElement->type_ ||
                fetchConversionFunc(destElement.semantic_, destElement.type_, srcElement->type_) != nullptr;
      continue;
    }
    result &= convertElements(destElement.semantic_, destData, destElement.type_, destElement.offset_, destStride,
                              srcData, srcElement->type_, srcElement->offset_, srcStride, vertexCount);
  }
  return result;
}

template <VertexSemantic Semantic>
typename ElementAccessor<Semantic>::T ElementAccessor<Semantic>::get(size_t i) const
{
  ZR_ASSERT(i < vertexCount());
  T ret{};
  ZR_ASSERT(convertSingleElement( Semantic, &ret, VertexElementType< T >::s_type, m_buffer + m_stride * i + m_offset, m_type ));
  return ret;
}

template class ElementAccessor<VertexSemantic::POSITION>;
template class ElementAccessor<VertexSemantic::NORMAL>;
template class ElementAccessor<VertexSemantic::TEXCOORD>;
template class ElementAccessor<VertexSemantic::TANGENT>;
template class ElementAccessor<VertexSemantic::BINORMAL>;

} // namespace Moo
