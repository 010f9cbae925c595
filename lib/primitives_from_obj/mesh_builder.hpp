#pragma once
// Turns a parsed OBJ mesh into render sets ready to encode: one vertex per distinct
// (position, texture coordinate, normal) corner, a triangle list over those vertices, unit normals
// (generated where the file has none) and, on request, unit tangent frames.

#include "primitives_from_obj/obj_mesh.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace objimport
{

struct RenderSet
{
  std::string name;
  std::vector<Vec3> positions;
  std::vector<Vec3> normals;   // unit length
  std::vector<Vec2> texcoords; // (0, 0) for corners that had none
  // Unit length and perpendicular to the normal; filled only when tangent frames were asked for.
  std::vector<Vec3> tangents;
  std::vector<Vec3> binormals;
  std::vector<uint32_t> indices; // triangle list
  // A second texture coordinate per vertex; empty when the source has none (a format with two
  // then repeats the first).
  std::vector<Vec2> texcoords2;
  // Skinning, per vertex, in the layout of the skinned source formats: three bone indices (into
  // the set's own bone list) and the weights of the first two, in 255ths; the third weight is
  // what the two leave of 255. Empty for a rigid set (then bone 0 carries the whole weight).
  std::vector<std::array<uint8_t, 3>> boneIndices;
  std::vector<std::array<uint8_t, 2>> boneWeights;

  size_t vertexCount() const { return positions.size(); }
};

struct BuildOptions
{
  bool tangentFrames = true;
  bool flipV = false; // v becomes 1 - v (for textures addressed from the top row)
};

// One render set per set of `mesh`, in order. Normals: the corner's own normal from the file,
// normalised (a zero one becomes (0, 0, 1)); for corners without one, the normalised sum of the
// area-weighted normals of all faces that share the corner's position, or (0, 0, 1) when that sum
// is zero.
std::vector<RenderSet> buildRenderSets(const ObjMesh& mesh, const BuildOptions& options);

// Per position of `mesh`: the normalised sum of the (area-weighted) normals of the triangles that
// use it; (0, 0, 1) where the sum is zero or the position is unused.
std::vector<Vec3> computePositionNormals(const ObjMesh& mesh);

// Fills `set.tangents` and `set.binormals` from its positions, texture coordinates, normals and
// indices: per-triangle texture-space derivatives accumulated per vertex, made perpendicular to the
// normal and normalised; the binormal is normal × tangent, flipped where the texture is mirrored.
// Where the texture coordinates give no direction (missing, degenerate or cancelling), the tangent
// is some unit vector perpendicular to the normal. Normals must be unit length.
void computeTangentFrames(RenderSet& set);

// A unit vector perpendicular to the unit vector `n`.
Vec3 anyPerpendicular(Vec3 n);

} // namespace objimport
