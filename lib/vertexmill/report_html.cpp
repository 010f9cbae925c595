#include "vertexmill/report_html.hpp"

#include "cstdmf/debug.hpp"
#include "geometry_inspect/preview_meshes.hpp"
#include "preview/output_file.hpp"
#include "content_cache/file_io.hpp"
#include "cstdmf/path_utils.hpp"
#include "report_page/report_page.hpp"
#include "run_report/compare.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/exit_status.hpp"
#include "vertexmill/output_checks.hpp"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>

namespace vertexmill
{
namespace
{

constexpr uint32_t kPreviewSize = report_page::kPreviewSize;

} // namespace

std::optional<nlohmann::json> readComparedReport(const ToolOptions& options, int& status)
{
  const std::string& path = options.comparePath;
  const auto place = [](const std::string& text) { return cstdmf::resolvedPath(cstdmf::u8path(text)); };
  for (const RequestedOutput& output : requestedOutputs(options))
    if (output.path != "-" && place(output.path) == place(path))
    {
      std::fprintf(stderr, "ERROR: cannot write %.*s '%s': it is the report given to --compare\n",
                   static_cast<int>(output.what.size()), output.what.data(), toDisplayText(output.path).c_str());
      status = kExitBadCommandLine;
      return std::nullopt;
    }
  status = kExitBadPath;
  std::string bytes, problem;
  if (!content_cache::readWholeFile(cstdmf::u8path(path), bytes, problem))
  {
    std::fprintf(stderr, "ERROR: cannot read '%s': %s\n", toDisplayText(path).c_str(), problem.c_str());
    return std::nullopt;
  }
  nlohmann::json older = nlohmann::json::parse(bytes, nullptr, false);
  if (older.is_discarded() || !older.is_object() || !older.contains("models") || !older["models"].is_array())
  {
    std::fprintf(stderr, "ERROR: '%s' is not a vertexmill report (a JSON object with a \"models\" array)\n",
                 toDisplayText(path).c_str());
    return std::nullopt;
  }
  return older;
}

bool writeReportPage(const Report& report, const std::string& path, const nlohmann::json* older,
                     const std::string& olderPath)
{
  const nlohmann::json document = nlohmann::json::parse(report.toJson(), nullptr, false);
  const report_page::PreviewSource previews = [](const nlohmann::json& model,
                                                  bool allModes) -> report_page::ModelPreviews {
    if (model.value("status", "") == "failed" || !model.contains("output") || !model["output"].is_string())
      return {};
    const std::string source = model.contains("source") && model["source"].is_string() ? model["source"].get<std::string>()
                                                                                         : std::string();
    return geometry_inspect::previewPngsOfFile(model["output"].get<std::string>(), kPreviewSize, allModes, source);
  };
  const nlohmann::json changes = older ? run_report::compareReports(document, *older) : nlohmann::json();
  const std::string page = report_page::buildPage(document, previews, older ? &changes : nullptr, olderPath);
  std::string error;
  if (!preview::writeWholeFile(path, page, error))
  {
    ZR_MSG(DebugMessagePriority::Error, "", "%s\n", error.c_str());
    return false;
  }
  return true;
}

} // namespace vertexmill
