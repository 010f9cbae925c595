#pragma once
// Simple shapes built in code, for example models and tests: the same mesh model an OBJ file
// gives, so they go through the same build and encoding steps.

#include "primitives_from_obj/obj_mesh.hpp"

#include <span>
#include <string_view>

namespace objimport
{

// "cube", "sphere", "torus".
std::span<const std::string_view> proceduralShapeNames();

// Fills `mesh` with the named shape, one unit across, centred on the origin, with normals and
// texture coordinates:
//   cube:   flat faces, two render sets "sides" and "caps", each face mapped to the whole texture;
//   sphere: 32 segments by 16 rings, one set "surface" (latitude/longitude mapping with a seam);
//   torus:  outer diameter 1, tube diameter 0.4, 32 by 16 segments, one set "ring".
// Returns false for any other name.
[[nodiscard]] bool makeProceduralMesh(std::string_view shape, ObjMesh& mesh);

} // namespace objimport
