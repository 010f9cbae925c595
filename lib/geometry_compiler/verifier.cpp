#include "geometry_compiler/verifier.hpp"

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

template <typename Accessor>
void Verifier::verifyPositions(const Accessor& accessor)
{
  for (size_t i = 0; i < accessor.vertexCount(); ++i)
    if (!finite3(accessor.get(i)))
      ++m_invalidPositions;
}

template <typename Accessor>
void Verifier::verifyNormals(const Accessor& accessor, int32_t& counter)
{
  for (size_t i = 0; i < accessor.vertexCount(); ++i)
  {
    const Moo::Vector3 v = accessor.get(i);
    // A non-finite component also makes the length non-finite; one vertex counts once.
    const float length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    if (!finite3(v) || !(std::fabs(length - 1.0f) < 0.1f))
      ++counter;
  }
}

template <typename Accessor>
void Verifier::verifyUVs(const Accessor& accessor)
{
  for (size_t i = 0; i < accessor.vertexCount(); ++i)
  {
    const Moo::Vector2 uv = accessor.get(i);
    if (!std::isfinite(uv.x) || !std::isfinite(uv.y))
      ++m_invalidUVs;
  }
}

void Verifier::verify(const void* vertices, size_t size, const Moo::VertexFormat& format)
{
  reset();
  const std::span<const std::byte> buffer(static_cast<const std::byte*>(vertices), size);
  if (auto positions = format.getAccessor<VertexSemantic::POSITION>(buffer))
    verifyPositions(positions);
  if (auto normals = format.getAccessor<VertexSemantic::NORMAL>(buffer))
    verifyNormals(normals, m_invalidNormals);
  if (auto tangents = format.getAccessor<VertexSemantic::TANGENT>(buffer))
    verifyNormals(tangents, m_invalidTangents);
  if (auto binormals = format.getAccessor<VertexSemantic::BINORMAL>(buffer))
    verifyNormals(binormals, m_invalidBinormals);
  if (auto uvs = format.getAccessor<VertexSemantic::TEXCOORD>(buffer))
    verifyUVs(uvs);
}
