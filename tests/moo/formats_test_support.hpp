#pragma once
// Shared by the vertex and index format tests: the registered formats written out independently
// of the registry, sample vertices in every encoding with their GPU bytes worked out by hand, and
// an assertion expectation.

#include "cstdmf/log_sinks.hpp"
#include "fatal_exit_status.hpp"
#include "moo/vertex_format.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

// The statement must end the process through a failed assertion whose text matches `text`.
#define EXPECT_ASSERTION(statement, text)                                                                              \
  EXPECT_EXIT(                                                                                                         \
    {                                                                                                                  \
      cstdmf::setupConsoleLogging(1);                                                                                  \
      statement;                                                                                                       \
    },                                                                                                                 \
    testing::ExitedWithCode(kFatalExitStatus), text)

namespace formats_test
{

using Bytes = std::vector<std::byte>;

// One vertex's values in every encoding the formats use.
struct SampleVertex
{
  float position[3];
  float normal[3];
  uint32_t packedNormal; // the same direction as `normal`, 11-11-10
  std::array<uint8_t, 4> normal888;
  float uv0[2];
  uint16_t uv0Half[2];
  float uv1[2];
  uint16_t uv1Half[2];
  uint32_t packedTangent;
  std::array<uint8_t, 4> tangent888;
  uint32_t packedBinormal;
  std::array<uint8_t, 4> binormal888;
  std::array<uint8_t, 3> indices;
  std::array<uint8_t, 4> gpuIndices;
  std::array<uint8_t, 2> weights;
  std::array<uint8_t, 4> gpuWeights;
  uint32_t colour;
  float r;
};

inline const SampleVertex kSamples[] = {
  {{1, 2, 3}, {0, 0, 1}, 511u << 22, {127, 127, 254, 0},
   {0.5f, 1.5f}, {0x0000, 0x3C00}, {0.0f, 1.0f}, {0xB800, 0x3800},
   1023u, {254, 127, 127, 0}, 1023u << 11, {127, 254, 127, 0},
   {3, 6, 9}, {9, 6, 3, 0}, {200, 55}, {0, 55, 200, 0}, 0xAABBCCDDu, 0.25f},
  {{-1.5f, 0.25f, 1000}, {-1, 0, 0}, 0x401u, {0, 127, 127, 0},
   {0.75f, 0.25f}, {0x3400, 0xB400}, {2.5f, -1.0f}, {0x4000, 0xBE00},
   0x401u << 11, {127, 0, 127, 0}, 0x201u << 22, {127, 127, 0, 0},
   {0, 1, 255}, {255, 1, 0, 0}, {0, 255}, {0, 255, 0, 0}, 0x01020304u, -7.0f},
  {{0.1f, 0.2f, 0.3f}, {0, 0.6f, 0.8f}, (614u << 11) | (409u << 22), {127, 203, 228, 0},
   {0.1f, 0.9f}, {0xB666, 0x3666}, {100.0f, 0.50000095367431640625f}, {0x5638, 0x0010},
   614u | (818u << 11), {203, 228, 127, 0}, (2048u - 614u) | ((1024u - 409u) << 22), {51, 127, 26, 0},
   {10, 20, 30}, {30, 20, 10, 0}, {128, 127}, {0, 127, 128, 0}, 0xFFFFFFFFu, 1e-40f},
};

// A layout is a string of tokens, tightly packed in token order. Each token is one element and
// the sample field that holds its bytes.
struct Token
{
  char name;
  VertexSemantic semantic;
  uint8_t semanticIndex;
  VertexDataType type;
  size_t field;
  size_t size;
};

using S = VertexSemantic;
using T = VertexDataType;

inline constexpr Token kSourceTokens[] = {
  {'P', S::POSITION, 0, T::FLOAT3, offsetof(SampleVertex, position), 12},
  {'N', S::NORMAL, 0, T::FLOAT3, offsetof(SampleVertex, normal), 12},
  {'n', S::NORMAL, 0, T::PACKED_NORMAL, offsetof(SampleVertex, packedNormal), 4},
  {'U', S::TEXCOORD, 0, T::FLOAT2, offsetof(SampleVertex, uv0), 8},
  {'V', S::TEXCOORD, 1, T::FLOAT2, offsetof(SampleVertex, uv1), 8},
  {'t', S::TANGENT, 0, T::PACKED_NORMAL, offsetof(SampleVertex, packedTangent), 4},
  {'b', S::BINORMAL, 0, T::PACKED_NORMAL, offsetof(SampleVertex, packedBinormal), 4},
  {'i', S::BLENDINDICES, 0, T::UBYTE3, offsetof(SampleVertex, indices), 3},
  {'w', S::BLENDWEIGHT, 0, T::UBYTE2, offsetof(SampleVertex, weights), 2},
  {'c', S::COLOR, 0, T::UINT32, offsetof(SampleVertex, colour), 4},
  {'r', S::TEXCOORD, 1, T::FLOAT1, offsetof(SampleVertex, r), 4},
};

inline constexpr Token kGpuTokens[] = {
  {'P', S::POSITION, 0, T::FLOAT3, offsetof(SampleVertex, position), 12},
  {'N', S::NORMAL, 0, T::UBYTE4_NORMAL_888, offsetof(SampleVertex, normal888), 4},
  {'U', S::TEXCOORD, 0, T::FLOAT16_2, offsetof(SampleVertex, uv0Half), 4},
  {'V', S::TEXCOORD, 1, T::FLOAT16_2, offsetof(SampleVertex, uv1Half), 4},
  {'T', S::TANGENT, 0, T::UBYTE4_NORMAL_888, offsetof(SampleVertex, tangent888), 4},
  {'B', S::BINORMAL, 0, T::UBYTE4_NORMAL_888, offsetof(SampleVertex, binormal888), 4},
  {'I', S::BLENDINDICES, 0, T::UBYTE4, offsetof(SampleVertex, gpuIndices), 4},
  {'W', S::BLENDWEIGHT, 0, T::UBYTE4, offsetof(SampleVertex, gpuWeights), 4},
  {'c', S::COLOR, 0, T::UINT32, offsetof(SampleVertex, colour), 4},
  {'r', S::TEXCOORD, 1, T::FLOAT1, offsetof(SampleVertex, r), 4},
};

struct FormatRow
{
  std::string_view name;
  std::string_view sourceTokens;
  uint32_t sourceStride;
  std::string_view gpuName;
  std::string_view gpuTokens;
  uint32_t gpuStride;
};

inline constexpr FormatRow kFormatRows[] = {
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
};

template <size_t N>
const Token& findToken(const Token (&tokens)[N], char name)
{
  const Token* found = std::find_if(tokens, tokens + N, [name](const Token& t) { return t.name == name; });
  EXPECT_NE(found, tokens + N) << "unknown token " << name;
  return found == tokens + N ? tokens[0] : *found;
}

// The bytes of one sample vertex in a token layout.
template <size_t N>
Bytes vertexBytes(const SampleVertex& sample, const Token (&tokens)[N], std::string_view layout)
{
  Bytes out;
  for (char name : layout)
  {
    const Token& token = findToken(tokens, name);
    const auto* field = reinterpret_cast<const std::byte*>(&sample) + token.field;
    out.insert(out.end(), field, field + token.size);
  }
  return out;
}

} // namespace formats_test
