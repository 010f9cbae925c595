#pragma once
// The registered vertex formats written out independently of the registry: each layout is a
// string of element tokens, tightly packed in token order.
//
// Source tokens: P position FLOAT3, N normal FLOAT3, n normal PACKED_NORMAL, U texcoord 0 FLOAT2,
// V texcoord 1 FLOAT2, t tangent PACKED_NORMAL, b binormal PACKED_NORMAL, i bone indices UBYTE3,
// w bone weights UBYTE2, c colour UINT32, r texcoord 1 FLOAT1.
// GPU tokens: P position FLOAT3, N normal 888, U texcoord 0 FLOAT16_2, V texcoord 1 FLOAT16_2,
// T tangent 888, B binormal 888, I bone indices UBYTE4, W bone weights UBYTE4, c colour UINT32,
// r texcoord 1 FLOAT1.

#include "moo/vertex_format.hpp"

#include <array>
#include <string_view>

namespace formats_test
{

struct FormatRow
{
  std::string_view name;
  std::string_view sourceTokens;
  uint32_t sourceStride;
  std::string_view gpuName;
  std::string_view gpuTokens;
  uint32_t gpuStride;
};

inline constexpr std::array<FormatRow, 13> kFormatRows = {{
  {"xyznuv", "PNU", 32, "set3/xyznuvpc", "PNU", 20},
  {"xyznuv2", "PNUV", 40, "set3/xyznuv2pc", "PNUV", 24},
  {"xyznuvtb", "PnUtb", 32, "set3/xyznuvtbpc", "PNUTB", 28},
  {"xyznuv2tb", "PnUVtb", 40, "set3/xyznuv2tbpc", "PNUVTB", 32},
  {"xyznuviiiww", "PnUiw", 29, "set3/xyznuviiiwwpc", "PNUIW", 28},
  {"xyznuviiiwwtb", "PnUiwtb", 37, "set3/xyznuviiiwwtbpc", "PNUIWTB", 36},
  {"xyznuv2iiiwwtb", "PnUViwtb", 45, "set3/xyznuv2iiiwwtbpc", "PNUVIWTB", 40},
  {"xyznuvtbi", "PnUtbc", 36, "set3/xyznuvtbipc", "PNUTBc", 32},
  {"xyznuv2tbi", "PnUVtbc", 44, "set3/xyznuv2tbipc", "PNUVTBc", 36},
  {"xyznuvtboi", "PnUtbc", 36, "set3/xyznuvtboi", "PNUTBc", 32},
  {"xyznuv2tboi", "PnUVtbc", 44, "set3/xyznuv2tboi", "PNUVTBc", 36},
  {"xyznuvr", "PNUr", 36, "set3/xyznuvrpc", "PNUr", 24},
  {"xyznuviiiwwr", "PnUiwr", 33, "set3/xyznuviiiwwr", "PNUIWr", 32},
}};

struct TokenElement
{
  VertexSemantic semantic;
  uint8_t semanticIndex;
  VertexDataType type;
  uint32_t size;
};

inline TokenElement sourceToken(char token)
{
  using S = VertexSemantic;
  using T = VertexDataType;
  switch (token)
  {
  case 'P': return {S::POSITION, 0, T::FLOAT3, 12};
  case 'N': return {S::NORMAL, 0, T::FLOAT3, 12};
  case 'n': return {S::NORMAL, 0, T::PACKED_NORMAL, 4};
  case 'U': return {S::TEXCOORD, 0, T::FLOAT2, 8};
  case 'V': return {S::TEXCOORD, 1, T::FLOAT2, 8};
  case 't': return {S::TANGENT, 0, T::PACKED_NORMAL, 4};
  case 'b': return {S::BINORMAL, 0, T::PACKED_NORMAL, 4};
  case 'i': return {S::BLENDINDICES, 0, T::UBYTE3, 3};
  case 'w': return {S::BLENDWEIGHT, 0, T::UBYTE2, 2};
  case 'c': return {S::COLOR, 0, T::UINT32, 4};
  case 'r': return {S::TEXCOORD, 1, T::FLOAT1, 4};
  }
  return {S::POSITION, 0, T::UNKNOWN, 0};
}

inline TokenElement gpuToken(char token)
{
  using S = VertexSemantic;
  using T = VertexDataType;
  switch (token)
  {
  case 'P': return {S::POSITION, 0, T::FLOAT3, 12};
  case 'N': return {S::NORMAL, 0, T::UBYTE4_NORMAL_888, 4};
  case 'U': return {S::TEXCOORD, 0, T::FLOAT16_2, 4};
  case 'V': return {S::TEXCOORD, 1, T::FLOAT16_2, 4};
  case 'T': return {S::TANGENT, 0, T::UBYTE4_NORMAL_888, 4};
  case 'B': return {S::BINORMAL, 0, T::UBYTE4_NORMAL_888, 4};
  case 'I': return {S::BLENDINDICES, 0, T::UBYTE4, 4};
  case 'W': return {S::BLENDWEIGHT, 0, T::UBYTE4, 4};
  case 'c': return {S::COLOR, 0, T::UINT32, 4};
  case 'r': return {S::TEXCOORD, 1, T::FLOAT1, 4};
  }
  return {S::POSITION, 0, T::UNKNOWN, 0};
}

} // namespace formats_test
