#pragma once
// The in-memory model of an imported mesh: the OBJ attribute pools, triangulated faces grouped
// into render sets, and the small vector helpers the importer computes with.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace objimport
{

struct Vec2
{
  float x = 0.0f;
  float y = 0.0f;

  friend bool operator==(const Vec2&, const Vec2&) = default;
};

struct Vec3
{
  float x = 0.0f;
  float y = 0.0f;
  float z = 0.0f;

  friend bool operator==(const Vec3&, const Vec3&) = default;
};

inline Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline Vec3& operator+=(Vec3& a, Vec3 b) { return a = a + b; }
inline float dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3 cross(Vec3 a, Vec3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline float length(Vec3 a) { return std::sqrt(dot(a, a)); }

// `v` scaled to unit length, or `fallback` when `v` is zero or not finite. The length is taken in
// double precision: squares of float components neither overflow nor underflow there, so even
// very short or very long vectors come out unit length.
inline Vec3 normalizedOr(Vec3 v, Vec3 fallback)
{
  const double x = v.x, y = v.y, z = v.z;
  const double len = std::sqrt(x * x + y * y + z * z);
  if (!(len > 0.0) || !std::isfinite(len))
    return fallback;
  return {static_cast<float>(x / len), static_cast<float>(y / len), static_cast<float>(z / len)};
}

// Marks an absent texture-coordinate or normal reference of a corner.
inline constexpr uint32_t kNoIndex = UINT32_MAX;

// One face corner: zero-based indices into the mesh's pools (kNoIndex when the face gave none).
struct ObjCorner
{
  uint32_t position = 0;
  uint32_t texcoord = kNoIndex;
  uint32_t normal = kNoIndex;

  friend bool operator==(const ObjCorner&, const ObjCorner&) = default;
};

// A run of faces that becomes one render set: triangles [firstTriangle, firstTriangle +
// triangleCount) of the mesh. `name` is unique within the mesh and safe to use in a section name.
struct ObjSet
{
  std::string name;
  size_t firstTriangle = 0;
  size_t triangleCount = 0;
};

struct ObjMesh
{
  std::vector<Vec3> positions;
  std::vector<Vec2> texcoords;
  std::vector<Vec3> normals;
  // Faces, triangulated: every three corners form one triangle. Sets cover them in order.
  std::vector<ObjCorner> corners;
  std::vector<ObjSet> sets; // never empty ones

  size_t triangleCount() const { return corners.size() / 3; }
  // The corners of a set's triangles.
  const ObjCorner* setCorners(const ObjSet& set) const { return corners.data() + set.firstTriangle * 3; }
};

} // namespace objimport
