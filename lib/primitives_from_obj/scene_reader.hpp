#pragma once
// Reading the scene formats of the import library (glTF, FBX, Collada, PLY, STL, 3DS, X and the
// rest it knows) into render sets: one per mesh as a node places it, named "<node>_<mesh>"
// (sanitised, made unique in the scene's node order), triangles only (points and lines are
// dropped), normals generated where the file has none.
//
// Transforms: a rigid mesh is moved into the scene's root space by its node's global transform
// (normals by its inverse transpose, winding reversed under a mirroring transform). A skinned mesh
// is kept in its bind space, the space its bones' offset matrices expect.
//
// Skinning: each vertex keeps its three strongest bone influences (packSkin); bone indices are
// positions in the mesh's own bone list as the file orders it, so a set may have at most 256 bones.
//
// The library is not hardened against damaged files: call this only where a crash or a hang cannot
// take the tool down (see import_worker.hpp).

#include "primitives_from_obj/mesh_builder.hpp"

#include <string>
#include <vector>

namespace objimport
{

struct SceneImport
{
  std::vector<RenderSet> sets;
  std::string formatRead;        // the library's name for the format it read
  bool skinned = false;          // some set has bone influences
  bool twoTexcoordSets = false;  // some set has a second texture coordinate
};

// Reads `path` (`flipV` as for OBJ files). Tangent frames are not built here: that depends on the
// format chosen afterwards. Returns false with `error` ("<path>: <reason>") when the library
// cannot read the file, the scene has no triangles, a value is not finite or a mesh has too many
// bones.
[[nodiscard]] bool readScene(const std::string& path, bool flipV, SceneImport& out, std::string& error);

// Whether `path` names a file for the project's own OBJ reader: ".obj" or ".obj.gz" in any case.
bool isObjPath(const std::string& path);

// The source format for what a scene holds: "xyznuviiiwwtb" or "xyznuv2iiiwwtb" when skinned,
// "xyznuv2tb" with two texture coordinates, else "xyznuvtb".
const char* chooseFormatName(bool skinned, bool twoTexcoordSets);

} // namespace objimport
