#include "geometry_compiler/texel_density.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "geometry_compiler/element_columns.hpp"
#include "moo/vertex_conversion.hpp"
#include "moo/vertex_format.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace Moo::Utils
{
namespace
{
float crossLength(float ax, float ay, float az, float bx, float by, float bz)
{
  const float cx = ay * bz - az * by;
  const float cy = az * bx - ax * bz;
  const float cz = ax * by - ay * bx;
  return std::sqrt(cx * cx + cy * cy + cz * cz);
}

uint32_t indexAt(std::span<const std::byte> indices, size_t i, bool wide)
{
  if (wide)
  {
    uint32_t value;
    std::memcpy(&value, indices.data() + i * 4, 4);
    return value;
  }
  uint16_t value;
  std::memcpy(&value, indices.data() + i * 2, 2);
  return value;
}
} // namespace

float calculateTexelDensity(const VertexFormat& format, std::span<const std::byte> vertices,
                            std::span<const std::byte> indices, IndexFormat indexFormat)
{
  // Every vertex is converted once, not once per corner that uses it.
  using GeometryCompilerDetail::decodeElementColumn;
  const std::vector<Vector3> positions = decodeElementColumn<Vector3>(format, VertexSemantic::POSITION, vertices);
  const std::vector<Vector2> uvs = decodeElementColumn<Vector2>(format, VertexSemantic::TEXCOORD, vertices);
  return calculateTexelDensity(positions, uvs, indices, indexFormat);
}

float calculateTexelDensity(std::span<const Vector3> positions, std::span<const Vector2> uvs,
                            std::span<const std::byte> indices, IndexFormat indexFormat, unsigned jobs)
{
  if (positions.empty() || uvs.empty())
    return 0.0f;
  ZR_ASSERT(positions.size() == uvs.size());

  const bool wide = indexFormat == IndexFormat::LIST32;
  const size_t triangleCount = indices.size() / (wide ? 4 : 2) / 3;
  // Triangles are measured in fixed slices whose ratios are gathered in slice order; the median of
  // the gathered values does not depend on how many threads measured them.
  constexpr size_t kSlice = 8192;
  const size_t slices = (triangleCount + kSlice - 1) / kSlice;
  std::vector<std::vector<float>> sliceRatios(slices);
  cstdmf::parallelFor(slices, jobs, [&](size_t slice) {
    const size_t begin = slice * kSlice;
    const size_t end = std::min(triangleCount, begin + kSlice);
    std::vector<float>& ratios = sliceRatios[slice];
    ratios.reserve(end - begin);
    for (size_t t = begin; t < end; ++t)
    {
      const uint32_t i0 = indexAt(indices, 3 * t, wide);
      const uint32_t i1 = indexAt(indices, 3 * t + 1, wide);
      const uint32_t i2 = indexAt(indices, 3 * t + 2, wide);
      ZR_ASSERT(i0 < positions.size() && i1 < positions.size() && i2 < positions.size());
      const Vector3 p0 = positions[i0], p1 = positions[i1], p2 = positions[i2];
      const Vector2 t0 = uvs[i0], t1 = uvs[i1], t2 = uvs[i2];

      const float positionArea =
        0.5f * crossLength(p1.x - p0.x, p1.y - p0.y, p1.z - p0.z, p2.x - p0.x, p2.y - p0.y, p2.z - p0.z);
      const float textureArea = 0.5f * crossLength(t1.x - t0.x, t1.y - t0.y, 0.0f, t2.x - t0.x, t2.y - t0.y, 0.0f);
      if (positionArea == 0.0f || textureArea == 0.0f)
        continue;
      // The density of a triangle is the square root of this quotient of two non-negative areas.
      // The root is monotonic, so the median is taken over the quotients and only its root is
      // computed; a quotient is finite exactly when its root is. A non-finite density has no
      // place in an ordering: such triangles do not count.
      const float squared = textureArea / positionArea;
      if (std::isfinite(squared))
        ratios.push_back(squared);
    }
  });

  std::vector<float> ratios;
  if (slices == 1)
    ratios = std::move(sliceRatios.front());
  else
  {
    size_t total = 0;
    for (const std::vector<float>& slice : sliceRatios)
      total += slice.size();
    ratios.reserve(total);
    for (const std::vector<float>& slice : sliceRatios)
      ratios.insert(ratios.end(), slice.begin(), slice.end());
  }
  if (ratios.empty())
    return 0.0f;
  const auto middle = ratios.begin() + static_cast<std::ptrdiff_t>(ratios.size() / 2);
  std::nth_element(ratios.begin(), middle, ratios.end());
  return std::sqrt(*middle);
}
} // namespace Moo::Utils
