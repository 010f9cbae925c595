#pragma once
// Wavefront OBJ export of the render sets of a .geometry file, so a person can look at what the
// runtime will draw. One object ("o renderset<i>_<vertex mapping id>") per render set, paired by
// position as GeometryInspection::renderSets() does; positions, normals and texture coordinates
// as the runtime reads them (the stored uv is a half float of uv - 0.5; the texture coordinate
// accessor adds the 0.5 back), and faces with 1-based indices.

#include "geometry_inspect/geometry_inspection.hpp"

#include <cstddef>
#include <string>

namespace geometry_inspect
{

struct ObjExportCounts
{
  size_t objects = 0;
  size_t vertices = 0;
  size_t triangles = 0;
};

// The OBJ text of every render set. Returns false with `error` set when the mappings cannot be
// paired or a render set is not usable (unknown format, range outside its buffer, an index past its
// vertex range); nothing is produced then.
[[nodiscard]] bool buildObjText(const GeometryInspection& inspection, std::string& text, ObjExportCounts& counts,
                                std::string& error);

// Writes buildObjText's result to `outPath` (UTF-8) through a temporary file beside it that is then
// renamed over it, so the path holds either its previous contents or the whole export. Returns
// false with `error` set when the text cannot be built or the file cannot be written.
[[nodiscard]] bool exportObj(const GeometryInspection& inspection, const std::string& outPath,
                             ObjExportCounts& counts, std::string& error);

} // namespace geometry_inspect
