#include "primitives_from_obj/primitives_writer.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"
#include "moo/vertex_section.hpp"
#include "resmgr/bin_section.hpp"
#include "resmgr/file_io.hpp"

#include <fmt/format.h>

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <system_error>
#include <utility>

static_assert(std::endian::native == std::endian::little, "sections are written in place, little-endian");

namespace objimport
{

namespace
{

constexpr const char* kAllocationTag = "BinaryBlock/PrimitivesFromObj";

// What one element of the source layout is filled with.
enum class Fill
{
  Position,
  NormalFloat3,
  NormalPacked,
  TangentFloat3,
  TangentPacked,
  BinormalFloat3,
  BinormalPacked,
  TexcoordFloat2,  // the first texture coordinate
  Texcoord2Float2, // the second texture coordinate, or the first again where the set has none
  ZeroFloat1,
  BoneIndices,
  BoneWeights,
  White,
};

struct ElementFill
{
  Fill fill;
  uint32_t offset;
};

bool planElement(const Moo::VertexElement& element, std::vector<ElementFill>& plan)
{
  using T = VertexDataType;
  using S = VertexSemantic;
  const T type = element.type_;
  std::optional<Fill> fill;
  switch (element.semantic_)
  {
  case S::POSITION:
    if (type == T::FLOAT3)
      fill = Fill::Position;
    break;
  case S::NORMAL:
    if (type == T::FLOAT3)
      fill = Fill::NormalFloat3;
    else if (type == T::PACKED_NORMAL)
      fill = Fill::NormalPacked;
    break;
  case S::TANGENT:
    if (type == T::FLOAT3)
      fill = Fill::TangentFloat3;
    else if (type == T::PACKED_NORMAL)
      fill = Fill::TangentPacked;
    break;
  case S::BINORMAL:
    if (type == T::FLOAT3)
      fill = Fill::BinormalFloat3;
    else if (type == T::PACKED_NORMAL)
      fill = Fill::BinormalPacked;
    break;
  case S::TEXCOORD:
    if (type == T::FLOAT2)
      fill = element.semanticIndex_ == 0 ? Fill::TexcoordFloat2 : Fill::Texcoord2Float2;
    else if (type == T::FLOAT1)
      fill = Fill::ZeroFloat1;
    break;
  case S::BLENDINDICES:
    if (type == T::UBYTE3)
      fill = Fill::BoneIndices;
    break;
  case S::BLENDWEIGHT:
    if (type == T::UBYTE2)
      fill = Fill::BoneWeights;
    break;
  case S::COLOR:
    if (type == T::UINT32)
      fill = Fill::White;
    break;
  default:
    break;
  }
  if (!fill)
    return false;
  plan.push_back({*fill, element.offset_});
  return true;
}

void putFloats(char* dest, const float* values, size_t count) { std::memcpy(dest, values, count * sizeof(float)); }

void putVec3(char* dest, Vec3 v)
{
  const float values[3] = {v.x, v.y, v.z};
  putFloats(dest, values, 3);
}

void putPacked(char* dest, Vec3 unit)
{
  const uint32_t word = packNormal111110(unit);
  // The converter refuses vectors that do not decode to unit length; catch that here, where the
  // cause is known, rather than in a later tool.
  ZR_ASSERT(std::fabs(length(unpackNormal111110(word)) - 1.0f) < 0.01f);
  std::memcpy(dest, &word, sizeof(word));
}

int32_t packSigned(float value, float scale, int32_t limit)
{
  if (!std::isfinite(value))
    return 0;
  const float scaled = std::round(value * scale);
  if (scaled >= static_cast<float>(limit))
    return limit;
  if (scaled <= static_cast<float>(-limit))
    return -limit;
  return static_cast<int32_t>(scaled);
}

} // namespace

uint32_t packNormal111110(Vec3 v)
{
  const auto x = static_cast<uint32_t>(packSigned(v.x, 1023.0f, 1023)) & 0x7FFu;
  const auto y = static_cast<uint32_t>(packSigned(v.y, 1023.0f, 1023)) & 0x7FFu;
  const auto z = static_cast<uint32_t>(packSigned(v.z, 511.0f, 511)) & 0x3FFu;
  return x | (y << 11) | (z << 22);
}

Vec3 unpackNormal111110(uint32_t word)
{
  // The converter's own decoding, so that this check sees what the converter will.
  Moo::Vector3 decoded;
  const bool converted = Moo::convertSingleElement(VertexSemantic::NORMAL, &decoded, VertexDataType::FLOAT3, &word,
                                                   VertexDataType::PACKED_NORMAL);
  ZR_ASSERT(converted);
  return {decoded.x, decoded.y, decoded.z};
}

bool needsTangentFrames(const Moo::PrimitiveVertexFormat& format)
{
  return format.m_format.hasElement(VertexSemantic::TANGENT) || format.m_format.hasElement(VertexSemantic::BINORMAL);
}

IndexFormat chooseIndexFormat(size_t vertexCount)
{
  return vertexCount <= kMaxVerticesFor16BitIndices ? IndexFormat::LIST : IndexFormat::LIST32;
}

BinaryPtr encodeVertexSection(const RenderSet& set, const Moo::PrimitiveVertexFormat& format, std::string& error)
{
  std::vector<ElementFill> plan;
  for (const Moo::VertexElement& element : format.m_format.elements)
  {
    if (!planElement(element, plan))
    {
      error = fmt::format("vertex format '{}' has an element (semantic {}, type {}) that cannot be filled from an OBJ",
                          format.formatName, static_cast<int>(element.semantic_), static_cast<int>(element.type_));
      return nullptr;
    }
  }
  const bool wantsFrames = needsTangentFrames(format);
  ZR_ASSERT(!wantsFrames || (set.tangents.size() == set.vertexCount() && set.binormals.size() == set.vertexCount()));
  ZR_ASSERT(set.normals.size() == set.vertexCount() && set.texcoords.size() == set.vertexCount());
  ZR_ASSERT(set.texcoords2.empty() || set.texcoords2.size() == set.vertexCount());
  ZR_ASSERT(set.boneIndices.size() == set.boneWeights.size());
  ZR_ASSERT(set.boneIndices.empty() || set.boneIndices.size() == set.vertexCount());

  const uint64_t stride = ari::VertexDeclaration::computeStreamDataSize(format.m_format, 0);
  const uint64_t count = set.vertexCount();
  const uint64_t size = Moo::kVertexSectionHeaderSize + count * stride;
  if (count > UINT32_MAX || size > BinSection::kMaxDataLength)
  {
    error = fmt::format("render set '{}' has too many vertices ({}) for one section", set.name, count);
    return nullptr;
  }

  BinaryPtr block(new BinaryBlock(nullptr, static_cast<size_t>(size), kAllocationTag));
  if (block->len() != size)
  {
    error = fmt::format("out of memory encoding render set '{}'", set.name);
    return nullptr;
  }
  char* bytes = block->cdata();
  Moo::writeVertexSectionHeader(std::as_writable_bytes(std::span(bytes, block->len())), format.formatName,
                                static_cast<uint32_t>(count));

  char* vertex = bytes + Moo::kVertexSectionHeaderSize;
  for (size_t v = 0; v < count; ++v, vertex += stride)
  {
    for (const ElementFill& element : plan)
    {
      char* dest = vertex + element.offset;
      switch (element.fill)
      {
      case Fill::Position:
        putVec3(dest, set.positions[v]);
        break;
      case Fill::NormalFloat3:
        putVec3(dest, set.normals[v]);
        break;
      case Fill::NormalPacked:
        putPacked(dest, set.normals[v]);
        break;
      case Fill::TangentFloat3:
        putVec3(dest, set.tangents[v]);
        break;
      case Fill::TangentPacked:
        putPacked(dest, set.tangents[v]);
        break;
      case Fill::BinormalFloat3:
        putVec3(dest, set.binormals[v]);
        break;
      case Fill::BinormalPacked:
        putPacked(dest, set.binormals[v]);
        break;
      case Fill::TexcoordFloat2:
      {
        const float uv[2] = {set.texcoords[v].x, set.texcoords[v].y};
        putFloats(dest, uv, 2);
        break;
      }
      case Fill::Texcoord2Float2:
      {
        const Vec2 source = set.texcoords2.empty() ? set.texcoords[v] : set.texcoords2[v];
        const float uv[2] = {source.x, source.y};
        putFloats(dest, uv, 2);
        break;
      }
      case Fill::ZeroFloat1:
        break; // the block is zero-filled, and 0.0f is all zero bits
      case Fill::BoneIndices:
        if (!set.boneIndices.empty()) // else bone 0 three times: zero bytes
          std::memcpy(dest, set.boneIndices[v].data(), 3);
        break;
      case Fill::BoneWeights:
        if (set.boneWeights.empty())
        {
          dest[0] = static_cast<char>(255); // the whole weight on the first bone
          dest[1] = 0;
        }
        else
          std::memcpy(dest, set.boneWeights[v].data(), 2);
        break;
      case Fill::White:
        std::memset(dest, 0xFF, 4);
        break;
      }
    }
  }
  return block;
}

BinaryPtr encodeIndexSection(const RenderSet& set, std::string& error)
{
  const IndexFormat format = chooseIndexFormat(set.vertexCount());
  const uint64_t indexSize = ari::getIndexSize(format);
  const uint64_t count = set.indices.size();
  const uint64_t size = Moo::kIndexSectionHeaderSize + count * indexSize;
  if (count > UINT32_MAX || size > BinSection::kMaxDataLength)
  {
    error = fmt::format("render set '{}' has too many triangles ({}) for one section", set.name, count / 3);
    return nullptr;
  }
  BinaryPtr block(new BinaryBlock(nullptr, static_cast<size_t>(size), kAllocationTag));
  if (block->len() != size)
  {
    error = fmt::format("out of memory encoding render set '{}'", set.name);
    return nullptr;
  }
  char* bytes = block->cdata();
  Moo::writeIndexSectionHeader(std::as_writable_bytes(std::span(bytes, block->len())), format,
                               static_cast<uint32_t>(count));
  char* out = bytes + Moo::kIndexSectionHeaderSize;
  if (format == IndexFormat::LIST32)
  {
    std::memcpy(out, set.indices.data(), count * sizeof(uint32_t));
  }
  else
  {
    for (size_t i = 0; i < count; ++i)
    {
      ZR_ASSERT(set.indices[i] < set.vertexCount());
      const auto index = static_cast<uint16_t>(set.indices[i]);
      std::memcpy(out + i * sizeof(index), &index, sizeof(index));
    }
  }
  return block;
}

BinaryPtr encodePrimitives(const std::vector<RenderSet>& sets, const Moo::PrimitiveVertexFormat& format,
                           std::string& error)
{
  std::vector<std::pair<std::string, BinaryPtr>> entries;
  entries.reserve(sets.size() * 2);
  for (const RenderSet& set : sets)
  {
    BinaryPtr vertices = encodeVertexSection(set, format, error);
    if (!vertices)
      return nullptr;
    BinaryPtr indices = encodeIndexSection(set, error);
    if (!indices)
      return nullptr;
    entries.emplace_back(set.name + ".vertices", std::move(vertices));
    entries.emplace_back(set.name + ".indices", std::move(indices));
  }
  if (entries.empty())
  {
    error = "nothing to write: no render sets";
    return nullptr;
  }
  BinaryPtr container = writeBinSectionContainer(entries);
  if (!container)
    error = "cannot build the section container";
  return container;
}

bool writeFileReplacing(const std::string& path, const void* data, size_t size, std::string& error)
{
  const fileio::WriteResult written =
    fileio::writeWholeFile(path, std::span<const std::byte>(static_cast<const std::byte*>(data), size));
  if (written)
    return true;
  const char* verb = written.status == fileio::WriteStatus::CannotReplace ? "replace" : "write";
  error = fmt::format("cannot {} '{}': {}", verb, path, written.reason);
  return false;
}

} // namespace objimport
