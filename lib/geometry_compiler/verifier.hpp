#pragma once
// Counts converted vertices whose positions, normals, tangents, binormals or texture coordinates
// are unusable. It only reports; it never changes data.

#include <cstddef>
#include <cstdint>
#include <span>

namespace Moo
{
class VertexFormat;
}

namespace GeometryCompilerDetail
{
struct PositionAndUVColumns;
}

class Verifier
{
public:
  void reset();

  // Resets, then checks every element the format has over `size` bytes of vertices.
  void verify(const void* vertices, size_t size, const Moo::VertexFormat& format);

  // Checks the vertices [first, first + count) of `vertices`, adding to the counts. With
  // `columns`, the positions and texture coordinates it decodes are left in its columns at
  // [first, first + count): each column must then hold one value per vertex of the whole buffer,
  // or be empty when the format lacks the element. Separate ranges may be checked at once by
  // separate verifiers sharing one `columns`; add() then sums their counts.
  void verifyRange(std::span<const std::byte> vertices, const Moo::VertexFormat& format, size_t first, size_t count,
                   GeometryCompilerDetail::PositionAndUVColumns* columns);
  void add(const Verifier& other);

  int32_t invalidPositions() const { return m_invalidPositions; }
  int32_t invalidNormals() const { return m_invalidNormals; }
  int32_t invalidTangents() const { return m_invalidTangents; }
  int32_t invalidBinormals() const { return m_invalidBinormals; }
  int32_t invalidUVs() const { return m_invalidUVs; }

private:
  template <typename Values>
  void verifyPositions(const Values& positions);
  template <typename Values>
  void verifyNormals(const Values& normals, int32_t& counter);
  template <typename Values>
  void verifyUVs(const Values& uvs);

  int32_t m_invalidPositions = 0;
  int32_t m_invalidNormals = 0;
  int32_t m_invalidTangents = 0;
  int32_t m_invalidBinormals = 0;
  int32_t m_invalidUVs = 0;
};
