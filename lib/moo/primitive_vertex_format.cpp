#include "moo/primitive_vertex_format.hpp"

namespace Moo
{

std::atomic<bool> PrimitiveVertexFormat::s_inited{false};
std::deque<PrimitiveVertexFormat> PrimitiveVertexFormat::s_formats;

namespace
{

using T = VertexDataType;
using S = VertexSemantic;

VertexElement element(S semantic, T type, uint16_t offset, uint8_t semanticIndex = 0)
{
  VertexElement result;
  result.stream_ = 0;
  result.offset_ = offset;
  result.type_ = type;
  result.method_ = 0;
  result.semantic_ = semantic;
  result.semanticIndex_ = semanticIndex;
  return result;
}

VertexFormat singleStream(std::initializer_list<VertexElement> elements)
{
  VertexFormat format;
  for (const VertexElement& e : elements)
    format.elements.push_back(e);
  format.streams.push_back(VertexStream{0, ari::VertexInputProgressionMode::VERTEX_DATA, 1});
  return format;
}

void registerBuiltInFormats()
{
  // Every GPU layout packs normals to 888 bytes and texture coordinates to half floats; the
  // source layouts are irregular (odd strides in the skinned ones), so all are written out.
  const VertexFormat xyznuv = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::FLOAT3, 12),
    element(S::TEXCOORD, T::FLOAT2, 24),
  });
  const VertexFormat xyznuvGpu = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
    element(S::TEXCOORD, T::FLOAT16_2, 16),
  });
  PrimitiveVertexFormat::registerFormat("xyznuv", xyznuv, "set3/xyznuvpc", xyznuvGpu);

  PrimitiveVertexFormat::registerFormat("xyznuv2",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::FLOAT3, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 24),
                                          element(S::TEXCOORD, T::FLOAT2, 32, 1),
                                        }),
                                        "set3/xyznuv2pc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::TEXCOORD, T::FLOAT16_2, 20, 1),
                                        }));

  PrimitiveVertexFormat::registerFormat("xyznuvtb",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::TANGENT, T::PACKED_NORMAL, 24),
                                          element(S::BINORMAL, T::PACKED_NORMAL, 28),
                                        }),
                                        "set3/xyznuvtbpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::TANGENT, T::UBYTE4_NORMAL_888, 20),
                                          element(S::BINORMAL, T::UBYTE4_NORMAL_888, 24),
                                        }));

  PrimitiveVertexFormat::registerFormat("xyznuv2tb",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::TEXCOORD, T::FLOAT2, 24, 1),
                                          element(S::TANGENT, T::PACKED_NORMAL, 32),
                                          element(S::BINORMAL, T::PACKED_NORMAL, 36),
                                        }),
                                        "set3/xyznuv2tbpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::TEXCOORD, T::FLOAT16_2, 20, 1),
                                          element(S::TANGENT, T::UBYTE4_NORMAL_888, 24),
                                          element(S::BINORMAL, T::UBYTE4_NORMAL_888, 28),
                                        }));

  PrimitiveVertexFormat::registerFormat("xyznuviiiww",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::BLENDINDICES, T::UBYTE3, 24),
                                          element(S::BLENDWEIGHT, T::UBYTE2, 27),
                                        }),
                                        "set3/xyznuviiiwwpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::BLENDINDICES, T::UBYTE4, 20),
                                          element(S::BLENDWEIGHT, T::UBYTE4, 24),
                                        }));

  PrimitiveVertexFormat::registerFormat("xyznuviiiwwtb",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::BLENDINDICES, T::UBYTE3, 24),
                                          element(S::BLENDWEIGHT, T::UBYTE2, 27),
                                          element(S::TANGENT, T::PACKED_NORMAL, 29),
                                          element(S::BINORMAL, T::PACKED_NORMAL, 33),
                                        }),
                                        "set3/xyznuviiiwwtbpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::BLENDINDICES, T::UBYTE4, 20),
                                          element(S::BLENDWEIGHT, T::UBYTE4, 24),
                                          element(S::TANGENT, T::UBYTE4_NORMAL_888, 28),
                                          element(S::BINORMAL, T::UBYTE4_NORMAL_888, 32),
                                        }));

  PrimitiveVertexFormat::registerFormat("xyznuv2iiiwwtb",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::TEXCOORD, T::FLOAT2, 24, 1),
                                          element(S::BLENDINDICES, T::UBYTE3, 32),
                                          element(S::BLENDWEIGHT, T::UBYTE2, 35),
                                          element(S::TANGENT, T::PACKED_NORMAL, 37),
                                          element(S::BINORMAL, T::PACKED_NORMAL, 41),
                                        }),
                                        "set3/xyznuv2iiiwwtbpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::TEXCOORD, T::FLOAT16_2, 20, 1),
                                          element(S::BLENDINDICES, T::UBYTE4, 24),
                                          element(S::BLENDWEIGHT, T::UBYTE4, 28),
                                          element(S::TANGENT, T::UBYTE4_NORMAL_888, 32),
                                          element(S::BINORMAL, T::UBYTE4_NORMAL_888, 36),
                                        }));

  const VertexFormat xyznuvtbi = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::PACKED_NORMAL, 12),
    element(S::TEXCOORD, T::FLOAT2, 16),
    element(S::TANGENT, T::PACKED_NORMAL, 24),
    element(S::BINORMAL, T::PACKED_NORMAL, 28),
    element(S::COLOR, T::UINT32, 32),
  });
  const VertexFormat xyznuvtbiGpu = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
    element(S::TEXCOORD, T::FLOAT16_2, 16),
    element(S::TANGENT, T::UBYTE4_NORMAL_888, 20),
    element(S::BINORMAL, T::UBYTE4_NORMAL_888, 24),
    element(S::COLOR, T::UINT32, 28),
  });
  PrimitiveVertexFormat::registerFormat("xyznuvtbi", xyznuvtbi, "set3/xyznuvtbipc", xyznuvtbiGpu);

  const VertexFormat xyznuv2tbi = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::PACKED_NORMAL, 12),
    element(S::TEXCOORD, T::FLOAT2, 16),
    element(S::TEXCOORD, T::FLOAT2, 24, 1),
    element(S::TANGENT, T::PACKED_NORMAL, 32),
    element(S::BINORMAL, T::PACKED_NORMAL, 36),
    element(S::COLOR, T::UINT32, 40),
  });
  const VertexFormat xyznuv2tbiGpu = singleStream({
    element(S::POSITION, T::FLOAT3, 0),
    element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
    element(S::TEXCOORD, T::FLOAT16_2, 16),
    element(S::TEXCOORD, T::FLOAT16_2, 20, 1),
    element(S::TANGENT, T::UBYTE4_NORMAL_888, 24),
    element(S::BINORMAL, T::UBYTE4_NORMAL_888, 28),
    element(S::COLOR, T::UINT32, 32),
  });
  PrimitiveVertexFormat::registerFormat("xyznuv2tbi", xyznuv2tbi, "set3/xyznuv2tbipc", xyznuv2tbiGpu);

  // The "tboi" formats are the "tbi" layouts under their own names, and their GPU names lack the
  // "pc" suffix; files in circulation use these names as they are.
  PrimitiveVertexFormat::registerFormat("xyznuvtboi", xyznuvtbi, "set3/xyznuvtboi", xyznuvtbiGpu);
  PrimitiveVertexFormat::registerFormat("xyznuv2tboi", xyznuv2tbi, "set3/xyznuv2tboi", xyznuv2tbiGpu);

  PrimitiveVertexFormat::registerFormat("xyznuvr",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::FLOAT3, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 24),
                                          element(S::TEXCOORD, T::FLOAT1, 32, 1),
                                        }),
                                        "set3/xyznuvrpc",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::TEXCOORD, T::FLOAT1, 20, 1),
                                        }));

  // Like the "tboi" pair, this GPU name has no "pc" suffix.
  PrimitiveVertexFormat::registerFormat("xyznuviiiwwr",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::PACKED_NORMAL, 12),
                                          element(S::TEXCOORD, T::FLOAT2, 16),
                                          element(S::BLENDINDICES, T::UBYTE3, 24),
                                          element(S::BLENDWEIGHT, T::UBYTE2, 27),
                                          element(S::TEXCOORD, T::FLOAT1, 29, 1),
                                        }),
                                        "set3/xyznuviiiwwr",
                                        singleStream({
                                          element(S::POSITION, T::FLOAT3, 0),
                                          element(S::NORMAL, T::UBYTE4_NORMAL_888, 12),
                                          element(S::TEXCOORD, T::FLOAT16_2, 16),
                                          element(S::BLENDINDICES, T::UBYTE4, 20),
                                          element(S::BLENDWEIGHT, T::UBYTE4, 24),
                                          element(S::TEXCOORD, T::FLOAT1, 28, 1),
                                        }));
}

} // namespace

void PrimitiveVertexFormat::init(int /*options*/)
{
  ZR_ASSERT(s_inited.exchange( true ) == false);
  registerBuiltInFormats();
  // The runtime would create m_vertexDecl and m_instancedVertexDecl here (and assert them); this
  // program has no graphics runtime, so they stay empty.
}

void PrimitiveVertexFormat::fini()
{
  ZR_ASSERT(s_inited.exchange( false ) == true);
  s_formats.clear();
}

void PrimitiveVertexFormat::registerFormat(std::string_view formatName, const VertexFormat& format,
                                           std::string_view gpuFormatName, const VertexFormat& gpuFormat)
{
  ZR_ASSERT(s_inited);
  ZR_ASSERT(findByFormatName( formatName ) == nullptr && "Format redefinition");
  ZR_ASSERT(findByGPUFormatName( gpuFormatName ) == nullptr && "GPU format redefinition");

  PrimitiveVertexFormat& entry = s_formats.emplace_back();
  entry.formatName = formatName;
  entry.m_format = format;
  entry.gpuFormatName = gpuFormatName;
  entry.m_gpuFormat = gpuFormat;
}

const PrimitiveVertexFormat* PrimitiveVertexFormat::findByFormatName(std::string_view name)
{
  ZR_ASSERT(s_inited);
  for (const PrimitiveVertexFormat& entry : s_formats)
    if (entry.formatName == name)
      return &entry;
  return nullptr;
}

const PrimitiveVertexFormat* PrimitiveVertexFormat::findByGPUFormatName(std::string_view name)
{
  ZR_ASSERT(s_inited);
  for (const PrimitiveVertexFormat& entry : s_formats)
    if (entry.gpuFormatName == name)
      return &entry;
  return nullptr;
}

} // namespace Moo
