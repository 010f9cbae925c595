#pragma once
// How inspections are shown: readable text for a person, and JSON with stable key names for
// scripts. The JSON schema is the one kJsonSchema describes (also printed by --help).

#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/primitives_listing.hpp"

#include <nlohmann/json.hpp>

#include <ostream>

namespace geometry_inspect
{

extern const char* const kJsonSchema;

// Buffers (format, stride, flags, stored and decoded sizes, ratio = stored / decoded), mappings
// (id, buffer, item range, texel density), collision and armor models.
void writeGeometrySummary(std::ostream& out, const GeometryInspection& inspection);
// One line per render set with meshoptimizer's ACMR, ATVR, overdraw and overfetch.
void writeRenderSetStats(std::ostream& out, const GeometryInspection& inspection);
// One line per section: name, size, string id, and the header of vertex and index sections.
void writePrimitivesListing(std::ostream& out, const PrimitivesListing& listing);
// "ERROR: <text>" and "WARNING: <text>" lines, in the order they were found.
void writeIssues(std::ostream& out, const Issues& issues);

nlohmann::json geometryToJson(const GeometryInspection& inspection, bool withStats);
nlohmann::json primitivesToJson(const PrimitivesListing& listing);
// Sets "errors" and "warnings" (arrays of texts) in `document`.
void addIssues(nlohmann::json& document, const Issues& issues);

} // namespace geometry_inspect
