#include "moo/vertex_format.hpp"

#include <algorithm>

namespace
{

constexpr size_t kVertexDataTypeCount = static_cast<size_t>(VertexDataType::UNKNOWN) + 1;

constexpr std::array<uint8_t, kVertexDataTypeCount> kVertexDataTypeSizes = {
  4,  8, 12, 16, 4, 1, 4, 2, 4, 8, // 0..9
  4,  4, 4,  8,  4, 8, 4, 4, 2, 4, // 10..19
  8,  4, 4,  8,  12, 16, 3, 2, 0,  // 20..28
};
static_assert(kVertexDataTypeSizes.size() == kVertexDataTypeCount, "one size per element type");
static_assert(kVertexDataTypeSizes[static_cast<size_t>(VertexDataType::FLOAT16_2)] == 4);
static_assert(kVertexDataTypeSizes[static_cast<size_t>(VertexDataType::UBYTE4_NORMAL_888)] == 4);
static_assert(kVertexDataTypeSizes[static_cast<size_t>(VertexDataType::UBYTE3)] == 3);
static_assert(kVertexDataTypeSizes[static_cast<size_t>(VertexDataType::UNKNOWN)] == 0);

} // namespace

namespace ari
{

uint32_t getVertexDataTypeSize(VertexDataType type)
{
  const size_t index = static_cast<size_t>(type);
  ZR_ASSERT(index < kVertexDataTypeCount && "Unknown vertex data type");
  return kVertexDataTypeSizes[index];
}

uint32_t VertexDeclaration::computeStreamDataSize(const Moo::VertexFormat& format, int streamIndex)
{
  ZR_ASSERT(streamIndex >= 0);
  uint32_t size = 0;
  for (const Moo::VertexElement& element : format.elements)
  {
    if (static_cast<size_t>(element.type_) >= kVertexDataTypeCount)
      break;
    if (element.stream_ != streamIndex)
      continue;
    size = std::max(size, element.offset_ + getVertexDataTypeSize(element.type_));
  }
  ZR_ASSERT(size > 0 && "Vertex stream has no elements");
  return size;
}

} // namespace ari

namespace Moo
{

const VertexElement* VertexFormat::findElement(VertexSemantic semantic, uint8_t semanticIndex, int streamIndex) const
{
  for (const VertexElement& element : elements)
    if (element.semantic_ == semantic && element.semanticIndex_ == semanticIndex && element.stream_ == streamIndex)
      return &element;
  return nullptr;
}

bool VertexFormat::hasElement(VertexSemantic semantic) const
{
  return std::any_of(elements.begin(), elements.end(),
                     [semantic](const VertexElement& element) { return element.semantic_ == semantic; });
}

VertexFormat combineVertexFormats(const VertexFormat& vertexFormat, const VertexFormat& instancingFormat)
{
  ZR_ASSERT(vertexFormat.streams.size() == 1 && vertexFormat.streams[ 0 ].progressionMode_ == ari::VertexInputProgressionMode::VERTEX_DATA);
  ZR_ASSERT(instancingFormat.streams.size() == 0 || ( instancingFormat.streams.size() == 1 && instancingFormat.streams[ 0 ].progressionMode_ == ari::VertexInputProgressionMode::INSTANCE_DATA ));
  for (const VertexElement& e : vertexFormat.elements)
    ZR_ASSERT(e.stream_ == vertexFormat.streams[ 0 ].stream_);
  for (const VertexElement& e : instancingFormat.elements)
    ZR_ASSERT(e.stream_ == instancingFormat.streams[ 0 ].stream_);
  for (const VertexStream& vStreamInfo : vertexFormat.streams)
    for (const VertexStream& iStreamInfo : instancingFormat.streams)
      ZR_ASSERT(vStreamInfo.stream_ != iStreamInfo.stream_);

  VertexFormat combined = vertexFormat;
  for (const VertexElement& element : instancingFormat.elements)
    combined.elements.push_back(element);
  for (const VertexStream& stream : instancingFormat.streams)
    combined.streams.push_back(stream);
  return combined;
}

} // namespace Moo
