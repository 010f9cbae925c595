#pragma once
// The run report as one self-contained HTML page: summary, failures first, a sortable and
// filterable table of models, plots of sizes and of the before/after figures, and each model's
// preview and render sets. Styles, script, plots and previews are all inside the page, so it opens
// from disk with no network. The page is built from the JSON report (docs/report.md), so
// vertexmill and geometry_inspect make the same page from the same report.

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace report_page
{

// The previews' size in pixels, square: big enough to judge a model by. Both tools render the
// page's previews at it, so that they make the same page from the same report.
constexpr uint32_t kPreviewSize = 256;
// A page of more models carries the pictures of the other modes for this many of them:
// those with errors or warnings first, then those with the most triangles.
constexpr size_t kModePreviewModels = 300;

// A model's previews as PNG bytes, each empty for none: its render sets, its wireframe, its texel
// density against its median, and its vertex cache before and after optimisation side by side
// (twice as wide). The page switches between them.
struct ModelPreviews
{
  std::vector<uint8_t> renderSets;
  std::vector<uint8_t> wireframe;
  std::vector<uint8_t> uvDensity;
  std::vector<uint8_t> vertexCache;
};

// The previews of a model, given its entry of the report; with `allModes` false (a level of
// detail) only the render sets are wanted.
using PreviewSource = std::function<ModelPreviews(const nlohmann::json& model, bool allModes)>;

// The page for `report`. Models without a preview show none. Fields missing from the report (an
// older or partial one) are shown as blanks rather than refused, so any JSON object gives a page.
// With `changes` (run_report::compareReports against an older report, named `olderName`), the
// page opens with what changed since.
[[nodiscard]] std::string buildPage(const nlohmann::json& report, const PreviewSource& previews,
                                    const nlohmann::json* changes = nullptr, const std::string& olderName = {});

// "data:image/png;base64,..." for the bytes.
[[nodiscard]] std::string pngDataUri(const std::vector<uint8_t>& png);

} // namespace report_page
