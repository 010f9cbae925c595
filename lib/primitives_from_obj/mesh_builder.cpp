#include "primitives_from_obj/mesh_builder.hpp"

#include <cmath>

namespace objimport
{

namespace
{

constexpr Vec3 kDefaultNormal{0.0f, 0.0f, 1.0f};

// Open-addressing map from a corner's (v, vt, vn) triple to its vertex index within one set. The
// keys live in the caller's list of distinct corners; the table only stores indices into it.
class CornerTable
{
public:
  explicit CornerTable(size_t maxEntries)
  {
    size_t capacity = 16;
    while (capacity < maxEntries * 2)
      capacity *= 2;
    m_slots.assign(capacity, kNoIndex);
    m_mask = capacity - 1;
  }

  // The index of `corner` in `distinct`, appending it first when it is new.
  uint32_t findOrAdd(const ObjCorner& corner, std::vector<ObjCorner>& distinct)
  {
    for (size_t slot = hash(corner) & m_mask;; slot = (slot + 1) & m_mask)
    {
      const uint32_t index = m_slots[slot];
      if (index == kNoIndex)
      {
        const auto added = static_cast<uint32_t>(distinct.size());
        distinct.push_back(corner);
        m_slots[slot] = added;
        return added;
      }
      if (distinct[index] == corner)
        return index;
    }
  }

private:
  static size_t hash(const ObjCorner& c)
  {
    uint64_t h = c.position * 0x9E3779B97F4A7C15ull;
    h ^= (h >> 29) ^ (uint64_t(c.texcoord) * 0xC2B2AE3D27D4EB4Full);
    h ^= (h >> 31) ^ (uint64_t(c.normal) * 0x165667B19E3779F9ull);
    h ^= h >> 32;
    return static_cast<size_t>(h);
  }

  std::vector<uint32_t> m_slots;
  size_t m_mask = 0;
};

bool anyCornerWithoutNormal(const ObjMesh& mesh)
{
  for (const ObjCorner& corner : mesh.corners)
    if (corner.normal == kNoIndex)
      return true;
  return false;
}

} // namespace

Vec3 anyPerpendicular(Vec3 n)
{
  // Project the axis least aligned with n out of it: the remainder is long enough (at least
  // about 0.8) to normalise without losing precision.
  const float ax = std::fabs(n.x), ay = std::fabs(n.y), az = std::fabs(n.z);
  Vec3 axis{1.0f, 0.0f, 0.0f};
  if (ay <= ax && ay <= az)
    axis = {0.0f, 1.0f, 0.0f};
  else if (az <= ax && az <= ay)
    axis = {0.0f, 0.0f, 1.0f};
  return normalizedOr(axis - n * dot(n, axis), {1.0f, 0.0f, 0.0f});
}

std::vector<Vec3> computePositionNormals(const ObjMesh& mesh)
{
  std::vector<Vec3> sums(mesh.positions.size());
  const size_t triangles = mesh.triangleCount();
  for (size_t t = 0; t < triangles; ++t)
  {
    const ObjCorner* c = mesh.corners.data() + t * 3;
    const Vec3 p0 = mesh.positions[c[0].position];
    // The cross product's length is twice the triangle's area: larger faces weigh more.
    const Vec3 faceNormal = cross(mesh.positions[c[1].position] - p0, mesh.positions[c[2].position] - p0);
    sums[c[0].position] += faceNormal;
    sums[c[1].position] += faceNormal;
    sums[c[2].position] += faceNormal;
  }
  for (Vec3& n : sums)
    n = normalizedOr(n, kDefaultNormal);
  return sums;
}

void computeTangentFrames(RenderSet& set)
{
  const size_t count = set.vertexCount();
  std::vector<Vec3> uDirections(count);
  std::vector<Vec3> vDirections(count);
  for (size_t i = 0; i + 2 < set.indices.size(); i += 3)
  {
    const uint32_t i0 = set.indices[i], i1 = set.indices[i + 1], i2 = set.indices[i + 2];
    const Vec3 e1 = set.positions[i1] - set.positions[i0];
    const Vec3 e2 = set.positions[i2] - set.positions[i0];
    const float du1 = set.texcoords[i1].x - set.texcoords[i0].x, dv1 = set.texcoords[i1].y - set.texcoords[i0].y;
    const float du2 = set.texcoords[i2].x - set.texcoords[i0].x, dv2 = set.texcoords[i2].y - set.texcoords[i0].y;
    const float det = du1 * dv2 - du2 * dv1;
    if (!(std::fabs(det) > 1e-20f))
      continue; // no texture-space direction on this triangle
    const float r = 1.0f / det;
    const Vec3 uDir = (e1 * dv2 - e2 * dv1) * r;
    const Vec3 vDir = (e2 * du1 - e1 * du2) * r;
    if (!std::isfinite(dot(uDir, uDir)) || !std::isfinite(dot(vDir, vDir)))
      continue;
    for (uint32_t v : {i0, i1, i2})
    {
      uDirections[v] += uDir;
      vDirections[v] += vDir;
    }
  }

  set.tangents.resize(count);
  set.binormals.resize(count);
  for (size_t v = 0; v < count; ++v)
  {
    const Vec3 n = set.normals[v];
    // Gram-Schmidt: the part of the texture's u direction that lies in the tangent plane. When u
    // is (nearly) along the normal, or absent, the remainder carries no usable direction.
    const Vec3 u = normalizedOr(uDirections[v], {});
    const Vec3 inPlane = u - n * dot(n, u);
    Vec3 t = length(inPlane) > 1e-4f ? normalizedOr(inPlane, anyPerpendicular(n)) : anyPerpendicular(n);
    // Re-orthogonalise once more so that rounding in the normalisation leaves no tilt.
    t = normalizedOr(t - n * dot(n, t), anyPerpendicular(n));
    const Vec3 b = cross(n, t);
    const bool mirrored = dot(b, vDirections[v]) < 0.0f;
    set.tangents[v] = t;
    set.binormals[v] = mirrored ? b * -1.0f : b;
  }
}

std::vector<RenderSet> buildRenderSets(const ObjMesh& mesh, const BuildOptions& options)
{
  std::vector<Vec3> positionNormals;
  if (anyCornerWithoutNormal(mesh))
    positionNormals = computePositionNormals(mesh);

  std::vector<RenderSet> sets;
  sets.reserve(mesh.sets.size());
  std::vector<ObjCorner> distinct;
  for (const ObjSet& objSet : mesh.sets)
  {
    RenderSet& set = sets.emplace_back();
    set.name = objSet.name;
    const size_t cornerCount = objSet.triangleCount * 3;
    const ObjCorner* corners = mesh.setCorners(objSet);

    distinct.clear();
    distinct.reserve(cornerCount);
    set.indices.resize(cornerCount);
    {
      CornerTable table(cornerCount);
      for (size_t i = 0; i < cornerCount; ++i)
        set.indices[i] = table.findOrAdd(corners[i], distinct);
    }

    const size_t count = distinct.size();
    set.positions.resize(count);
    set.normals.resize(count);
    set.texcoords.resize(count);
    for (size_t v = 0; v < count; ++v)
    {
      const ObjCorner& c = distinct[v];
      set.positions[v] = mesh.positions[c.position];
      set.normals[v] =
        c.normal != kNoIndex ? normalizedOr(mesh.normals[c.normal], kDefaultNormal) : positionNormals[c.position];
      if (c.texcoord != kNoIndex)
      {
        Vec2 uv = mesh.texcoords[c.texcoord];
        if (options.flipV)
          uv.y = 1.0f - uv.y;
        set.texcoords[v] = uv;
      }
    }
    if (options.tangentFrames)
      computeTangentFrames(set);
  }
  return sets;
}

} // namespace objimport
