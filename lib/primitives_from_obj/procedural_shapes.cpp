#include "primitives_from_obj/procedural_shapes.hpp"

#include <array>
#include <cmath>
#include <numbers>
#include <string>

namespace objimport
{

namespace
{

constexpr std::array<std::string_view, 3> kShapeNames{"cube", "sphere", "torus"};
constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;

// Adds one attribute triple (position, texture coordinate, normal) and returns the corner that
// refers to it.
ObjCorner addVertex(ObjMesh& mesh, Vec3 position, Vec2 uv, Vec3 normal)
{
  const auto index = static_cast<uint32_t>(mesh.positions.size());
  mesh.positions.push_back(position);
  mesh.texcoords.push_back(uv);
  mesh.normals.push_back(normal);
  return {index, index, index};
}

// Appends a triangle wound counter-clockwise as seen from the side its normals point to, and
// skips triangles without area (the collapsed quads at a sphere's poles).
void addTriangle(ObjMesh& mesh, ObjCorner a, ObjCorner b, ObjCorner c)
{
  const Vec3 pa = mesh.positions[a.position];
  const Vec3 faceNormal = cross(mesh.positions[b.position] - pa, mesh.positions[c.position] - pa);
  if (length(faceNormal) < 1e-12f)
    return;
  const Vec3 vertexNormals = mesh.normals[a.normal] + mesh.normals[b.normal] + mesh.normals[c.normal];
  if (dot(faceNormal, vertexNormals) < 0.0f)
    std::swap(b, c);
  mesh.corners.push_back(a);
  mesh.corners.push_back(b);
  mesh.corners.push_back(c);
}

void openSet(ObjMesh& mesh, const char* name)
{
  mesh.sets.push_back(ObjSet{name, mesh.corners.size() / 3, 0});
}

void closeSet(ObjMesh& mesh)
{
  ObjSet& set = mesh.sets.back();
  set.triangleCount = mesh.corners.size() / 3 - set.firstTriangle;
}

// A (columns + 1) × (rows + 1) grid of vertices from `surface(u, v)` with u, v in [0, 1]; the
// last column repeats the first with u = 1, so the texture has a seam rather than a wrap.
template <typename Surface>
void addGrid(ObjMesh& mesh, int columns, int rows, Surface surface)
{
  const auto first = static_cast<uint32_t>(mesh.positions.size());
  for (int row = 0; row <= rows; ++row)
  {
    for (int column = 0; column <= columns; ++column)
    {
      const float u = static_cast<float>(column) / static_cast<float>(columns);
      const float v = static_cast<float>(row) / static_cast<float>(rows);
      Vec3 position, normal;
      surface(u, v, position, normal);
      addVertex(mesh, position, {u, v}, normal);
    }
  }
  const auto at = [&](int column, int row) {
    const uint32_t i = first + static_cast<uint32_t>(row * (columns + 1) + column);
    return ObjCorner{i, i, i};
  };
  for (int row = 0; row < rows; ++row)
  {
    for (int column = 0; column < columns; ++column)
    {
      addTriangle(mesh, at(column, row), at(column + 1, row), at(column + 1, row + 1));
      addTriangle(mesh, at(column, row), at(column + 1, row + 1), at(column, row + 1));
    }
  }
}

void makeCube(ObjMesh& mesh)
{
  struct Face
  {
    Vec3 normal, right, up;
  };
  // Sides first, then the two caps.
  const Face faces[6] = {
    {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}},  {{1, 0, 0}, {0, 0, -1}, {0, 1, 0}}, {{0, 0, -1}, {-1, 0, 0}, {0, 1, 0}},
    {{-1, 0, 0}, {0, 0, 1}, {0, 1, 0}}, {{0, 1, 0}, {1, 0, 0}, {0, 0, -1}}, {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}},
  };
  for (int f = 0; f < 6; ++f)
  {
    if (f == 0)
      openSet(mesh, "sides");
    if (f == 4)
    {
      closeSet(mesh);
      openSet(mesh, "caps");
    }
    const Face& face = faces[f];
    ObjCorner corners[4];
    for (int c = 0; c < 4; ++c)
    {
      const float s = (c == 1 || c == 2) ? 1.0f : 0.0f;
      const float t = (c >= 2) ? 1.0f : 0.0f;
      const Vec3 position = face.normal * 0.5f + face.right * (s - 0.5f) + face.up * (t - 0.5f);
      corners[c] = addVertex(mesh, position, {s, t}, face.normal);
    }
    addTriangle(mesh, corners[0], corners[1], corners[2]);
    addTriangle(mesh, corners[0], corners[2], corners[3]);
  }
  closeSet(mesh);
}

void makeSphere(ObjMesh& mesh)
{
  openSet(mesh, "surface");
  addGrid(mesh, 32, 16, [](float u, float v, Vec3& position, Vec3& normal) {
    const float longitude = u * kTwoPi;
    const float colatitude = (1.0f - v) * std::numbers::pi_v<float>; // v = 1 at the north pole
    normal = {std::sin(colatitude) * std::cos(longitude), std::cos(colatitude),
              -std::sin(colatitude) * std::sin(longitude)};
    position = normal * 0.5f;
  });
  closeSet(mesh);
}

void makeTorus(ObjMesh& mesh)
{
  constexpr float kMajorRadius = 0.3f, kMinorRadius = 0.2f;
  openSet(mesh, "ring");
  addGrid(mesh, 32, 16, [](float u, float v, Vec3& position, Vec3& normal) {
    const float around = u * kTwoPi, tube = v * kTwoPi;
    const Vec3 radial{std::cos(around), 0.0f, -std::sin(around)};
    normal = radial * std::cos(tube) + Vec3{0.0f, std::sin(tube), 0.0f};
    position = radial * kMajorRadius + normal * kMinorRadius;
  });
  closeSet(mesh);
}

} // namespace

std::span<const std::string_view> proceduralShapeNames() { return kShapeNames; }

bool makeProceduralMesh(std::string_view shape, ObjMesh& mesh)
{
  mesh = ObjMesh{};
  if (shape == "cube")
    makeCube(mesh);
  else if (shape == "sphere")
    makeSphere(mesh);
  else if (shape == "torus")
    makeTorus(mesh);
  else
    return false;
  return true;
}

} // namespace objimport
