#pragma once
// The render sets of a .geometry file, and of the .primitives file it was compiled from, as meshes
// for the preview renderer; and the preview of a file as PNG bytes.

#include "report_page/report_page.hpp"
#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/primitives_listing.hpp"
#include "preview/preview_render.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace geometry_inspect
{

// Every usable render set of a loaded file, in render set order (Mesh::renderSet is its index).
// Sets that cannot be drawn (see RenderSet::usable) are left out.
[[nodiscard]] std::vector<preview::Mesh> geometryMeshes(const GeometryInspection& inspection);

// The source ranges of the same render sets: for each usable render set of `inspection`, the
// vertex and index sections of `source` whose names' string ids are the set's mapping ids, as they
// were before the compiler reordered them. Sets with no matching readable sections are left out.
[[nodiscard]] std::vector<preview::Mesh> sourceMeshes(const GeometryInspection& inspection,
                                                      const PrimitivesListing& source);

struct PreviewRequest
{
  preview::Mode mode = preview::Mode::Shaded;
  uint32_t size = 384; // pixels per panel
  preview::Quality quality = preview::Quality::Smooth;
  // When set, the source's panel (before optimisation) is placed left of the file's (after).
  const PrimitivesListing* source = nullptr;
};

// The preview of a loaded file as an image: one panel, or two side by side with a source. Both
// panels share the file's bounds, so they line up.
[[nodiscard]] preview::Image renderPreview(const GeometryInspection& inspection, const PreviewRequest& request);

// The previews of the .geometry file at `path` as PNG bytes, for report pages: the render sets, and
// with `allModes` the wireframe, the texel density and, when `sourcePath` names the .primitives
// file it was made from, the vertex cache before and after. Empty when the file cannot be read or
// loaded (a report page shows no preview then, and says nothing); a source that cannot be read
// only leaves the vertex cache out.
[[nodiscard]] report_page::ModelPreviews previewPngsOfFile(const std::string& path, uint32_t size, bool allModes,
                                                           const std::string& sourcePath = {});

} // namespace geometry_inspect
