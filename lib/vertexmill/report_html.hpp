#pragma once
// --report-html FILE: the run's report as one self-contained HTML page, with a preview of every
// converted model, made from the same document --report writes.

#include "vertexmill/report.hpp"
#include "vertexmill/tool_options.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace vertexmill
{

// Writes the page of `report` to `path` (UTF-8), whole or not at all. Previews are rendered from
// the models' output files. False, after an ERROR message naming the path and the reason, when the
// page cannot be written. Needs the vertex format registry. With `older` (an earlier run's report,
// read from `olderPath`), the page opens with what changed since.
[[nodiscard]] bool writeReportPage(const Report& report, const std::string& path,
                                   const nlohmann::json* older = nullptr, const std::string& olderPath = {});

// The report given to --compare, read and checked before any model is converted. Nothing, after an
// ERROR line, when one of the files the run's `options` ask for would take its place (`status` 1,
// as for any refused output), or when it cannot be read or is not a report (`status` 2).
[[nodiscard]] std::optional<nlohmann::json> readComparedReport(const ToolOptions& options, int& status);

} // namespace vertexmill
