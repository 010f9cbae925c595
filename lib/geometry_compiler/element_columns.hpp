#pragma once
// One element of every vertex of a buffer, converted to floats in one pass: the same conversion
// an element accessor applies to one vertex, with the conversion function looked up once.

#include "cstdmf/debug.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"

#include <span>
#include <vector>

namespace GeometryCompilerDetail
{

// Converts the element (semantic, semantic index 0, stream 0) of the whole vertices of `buffer`
// into `values` (one per vertex, T = Moo::Vector3 or Moo::Vector2). False, with `values`
// untouched, when the format has no such element. An element that cannot be converted to T is a
// programming error.
template <typename T>
bool decodeElementColumnInto(const Moo::VertexFormat& format, VertexSemantic semantic,
                             std::span<const std::byte> buffer, std::span<T> values)
{
  const Moo::VertexElement* element = format.findElement(semantic, 0, 0);
  if (!element)
    return false;
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format, 0);
  ZR_ASSERT(values.size() == buffer.size() / stride);
  if (values.empty())
    return true;
  const bool converted =
    Moo::convertElements(semantic, values.data(), Moo::VertexElementType<T>::s_type, 0, sizeof(T), buffer.data(),
                         element->type_, element->offset_, stride, values.size());
  ZR_ASSERT(converted);
  return true;
}

// The same as a new vector; empty when the format has no such element or the buffer holds no
// vertex.
template <typename T>
std::vector<T> decodeElementColumn(const Moo::VertexFormat& format, VertexSemantic semantic,
                                   std::span<const std::byte> buffer)
{
  if (!format.findElement(semantic, 0, 0) || buffer.empty())
    return {};
  std::vector<T> values(buffer.size() / ari::VertexDeclaration::computeStreamDataSize(format, 0));
  decodeElementColumnInto<T>(format, semantic, buffer, values);
  return values;
}

// The positions and first texture coordinates of a buffer's vertices, as the verifier decodes
// them and texel density needs them: decoded once, used twice. A column the format lacks is empty.
struct PositionAndUVColumns
{
  std::vector<Moo::Vector3> positions;
  std::vector<Moo::Vector2> uvs;
};

} // namespace GeometryCompilerDetail
