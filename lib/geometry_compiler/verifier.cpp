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
// Where the decoded values of [first, first + count) go: the caller's column when it keeps one,
// else `scratch`.
template <typename T>
std::span<T> columnOrScratch(std::vector<T>* column, size_t first, size_t count, std::vector<T>& scratch)
{
  if (column && !column->empty())
    return std::span<T>(*column).subspan(first, count);
  scratch.resize(count);
  return scratch;
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
  const std::span<const std::byte> buffer(static_cast<const std::byte*>(vertices), size);
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format, 0);
  verifyRange(buffer, format, 0, stride ? size / stride : 0, nullptr);
}

void Verifier::verifyRange(std::span<const std::byte> vertices, const Moo::VertexFormat& format, size_t first,
                           size_t count, GeometryCompilerDetail::PositionAndUVColumns* columns)
{
  using GeometryCompilerDetail::decodeElementColumnInto;
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format, 0);
  const std::span<const std::byte> range = vertices.subspan(first * stride, count * stride);

  // Each element is converted for all vertices of the range in one pass (what the element
  // accessor does for one vertex), then checked.
  std::vector<Moo::Vector3> vectors;
  const std::span<Moo::Vector3> positions =
    columnOrScratch(columns ? &columns->positions : nullptr, first, count, vectors);
  if (decodeElementColumnInto<Moo::Vector3>(format, VertexSemantic::POSITION, range, positions))
    verifyPositions(positions);

  vectors.resize(count);
  if (decodeElementColumnInto<Moo::Vector3>(format, VertexSemantic::NORMAL, range, std::span<Moo::Vector3>(vectors)))
    verifyNormals(vectors, m_invalidNormals);
  if (decodeElementColumnInto<Moo::Vector3>(format, VertexSemantic::TANGENT, range, std::span<Moo::Vector3>(vectors)))
    verifyNormals(vectors, m_invalidTangents);
  if (decodeElementColumnInto<Moo::Vector3>(format, VertexSemantic::BINORMAL, range, std::span<Moo::Vector3>(vectors)))
    verifyNormals(vectors, m_invalidBinormals);

  std::vector<Moo::Vector2> pairs;
  const std::span<Moo::Vector2> uvs = columnOrScratch(columns ? &columns->uvs : nullptr, first, count, pairs);
  if (decodeElementColumnInto<Moo::Vector2>(format, VertexSemantic::TEXCOORD, range, uvs))
    verifyUVs(uvs);
}

void Verifier::add(const Verifier& other)
{
  m_invalidPositions += other.m_invalidPositions;
  m_invalidNormals += other.m_invalidNormals;
  m_invalidTangents += other.m_invalidTangents;
  m_invalidBinormals += other.m_invalidBinormals;
  m_invalidUVs += other.m_invalidUVs;
}
