#pragma once
// --report-html FILE: the run's report as one self-contained HTML page, with a preview of every
// converted model, made from the same document --report writes.

#include "vertexmill/report.hpp"

#include <string>

namespace vertexmill
{

// Writes the page of `report` to `path` (UTF-8), whole or not at all. Previews are rendered from
// the models' output files. False, after an ERROR message naming the path and the reason, when the
// page cannot be written. Needs the vertex format registry.
[[nodiscard]] bool writeReportPage(const Report& report, const std::string& path);

} // namespace vertexmill
