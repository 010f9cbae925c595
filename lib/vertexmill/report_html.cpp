#include "vertexmill/report_html.hpp"

#include "cstdmf/debug.hpp"
#include "geometry_inspect/preview_meshes.hpp"
#include "preview/output_file.hpp"
#include "report_page/report_page.hpp"

#include <nlohmann/json.hpp>

namespace vertexmill
{
namespace
{

constexpr uint32_t kPreviewSize = 160;

} // namespace

bool writeReportPage(const Report& report, const std::string& path)
{
  const nlohmann::json document = nlohmann::json::parse(report.toJson(), nullptr, false);
  const report_page::PreviewSource previews = [](const nlohmann::json& model) -> std::vector<uint8_t> {
    if (model.value("status", "") == "failed" || !model.contains("output") || !model["output"].is_string())
      return {};
    return geometry_inspect::previewPngOfFile(model["output"].get<std::string>(), kPreviewSize);
  };
  const std::string page = report_page::buildPage(document, previews);
  std::string error;
  if (!preview::writeWholeFile(path, page, error))
  {
    ZR_MSG(DebugMessagePriority::Error, "", "%s\n", error.c_str());
    return false;
  }
  return true;
}

} // namespace vertexmill
