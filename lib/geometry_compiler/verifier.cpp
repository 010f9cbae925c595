#include "geometry_compiler/verifier.hpp"

#include "geometry_compiler/element_columns.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"

#include <cmath>

namespace
{
bool finite3(const Moo::Vector3& v)
{
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}
} // namespace

void Verifier::reset()
{
  m_invalidPositions = 0;
  m_invalidNormals = 0;
  m_invalidTangents = 0;
  m_invalidBinormals = 0;
  m_invalidUVs = 0;
}

template <typename Values>
void Verifier::verifyPositions(const Values& positions)
{
  for (const Moo::Vector3& p : positions)
    if (!finite3(p))
      ++m_invalidPositions;
}

template <typename Values>
void Verifier::verifyNormals(const Values& normals, int32_t& counter)
{
  for (const Moo::Vector3& v : normals)
  {
    // A non-finite component also makes the length non-finite; one vertex counts once.
    const float length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    if (!finite3(v) || !(std::fabs(length - 1.0f) < 0.1f))
      ++counter;
  }
}

template <typename Values>
void Verifier::verifyUVs(const Values& uvs)
{
  for (const Moo::Vector2& uv : uvs)
    if (!std::isfinite(uv.x) || !std::isfinite(uv.y))
      ++m_invalidUVs;
}

void Verifier::verify(const void* vertices, size_t size, const Moo::VertexFormat& format)
{
  reset();
  // Each element is converted for all vertices in one pass (what the element accessor does for
  // one vertex), then checked.
  using GeometryCompilerDetail::decodeElementColumn;
  const std::span<const std::byte> buffer(static_cast<const std::byte*>(vertices), size);
  verifyPositions(decodeElementColumn<Moo::Vector3>(format, VertexSemantic::POSITION, buffer));
  verifyNormals(decodeElementColumn<Moo::Vector3>(format, VertexSemantic::NORMAL, buffer), m_invalidNormals);
  verifyNormals(decodeElementColumn<Moo::Vector3>(format, VertexSemantic::TANGENT, buffer), m_invalidTangents);
  verifyNormals(decodeElementColumn<Moo::Vector3>(format, VertexSemantic::BINORMAL, buffer), m_invalidBinormals);
  verifyUVs(decodeElementColumn<Moo::Vector2>(format, VertexSemantic::TEXCOORD, buffer));
}
