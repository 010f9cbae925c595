#pragma once
// Texel density of a render set: how many texture units a unit of model space covers.

#include "moo/index_format.hpp"

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
} // namespace Utils
} // namespace Moo
