#pragma once
// Texel density of a render set: how many texture units a unit of model space covers.

#include "moo/index_format.hpp"
#include "moo/vertex_conversion.hpp"

#include <cstddef>
#include <span>

namespace Moo
{
class VertexFormat;

namespace Utils
{
// The upper median (element n / 2 in ascending order) over the triangles of `indices` of
// sqrt(texture-space area / position-space area), from the first texture coordinate and the
// positions of `vertices` (in `format`). Triangles with a zero area in either space, or a
// non-finite ratio, do not count; 0 when none counts or the format lacks either element.
// Every index must be below the vertex count (the caller checks).
float calculateTexelDensity(const VertexFormat& format, std::span<const std::byte> vertices,
                            std::span<const std::byte> indices, IndexFormat indexFormat);

// The same from the vertices' decoded positions and texture coordinates (0 when either is
// empty). With jobs > 1 the triangles are measured on up to that many threads; the result does
// not depend on it.
float calculateTexelDensity(std::span<const Vector3> positions, std::span<const Vector2> uvs,
                            std::span<const std::byte> indices, IndexFormat indexFormat, unsigned jobs = 1);
} // namespace Utils
} // namespace Moo
