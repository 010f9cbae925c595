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

// The values of the element (semantic, semantic index 0, stream 0) of every whole vertex of
// `buffer`, as T (Moo::Vector3 or Moo::Vector2). Empty when the format has no such element or the
// buffer holds no vertex. An element that cannot be converted to T is a programming error.
template <typename T>
std::vector<T> decodeElementColumn(const Moo::VertexFormat& format, VertexSemantic semantic,
                                   std::span<const std::byte> buffer)
{
  const Moo::VertexElement* element = format.findElement(semantic, 0, 0);
  if (!element || buffer.empty())
    return {};
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format, 0);
  const size_t count = buffer.size() / stride;
  std::vector<T> values(count);
  if (count == 0)
    return values;
  const bool converted =
    Moo::convertElements(semantic, values.data(), Moo::VertexElementType<T>::s_type, 0, sizeof(T), buffer.data(),
                         element->type_, element->offset_, stride, count);
  ZR_ASSERT(converted);
  return values;
}

} // namespace GeometryCompilerDetail
