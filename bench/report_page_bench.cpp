// The report page at scale: a report of 10,000 models (with a preview each, 256 pixels) made into a
// page, which headless Chromium then loads and sorts. Prints the page's size, the time to build it,
// and what the page's self-check measured in the browser: its script's load time and one sort of
// the whole table. Usage: bench_report_page [MODELS] [OUT_DIR] [PREVIEW_SIZE]

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "preview/output_file.hpp"
#include "preview/png_image.hpp"
#include "preview/preview_render.hpp"
#include "report_page/report_page.hpp"

#include <chrono>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <regex>
#include <string>

namespace
{
namespace fs = std::filesystem;

// A lumpy sphere; `seed` changes its shape so the previews differ.
preview::Mesh blob(int seed)
{
  preview::Mesh mesh;
  constexpr int kRings = 24, kSegments = 32;
  for (int r = 0; r <= kRings; ++r)
    for (int s = 0; s <= kSegments; ++s)
    {
      const double theta = std::numbers::pi * r / kRings, phi = 2 * std::numbers::pi * s / kSegments;
      const double radius = 1.0 + 0.15 * std::sin(3 * phi + seed) * std::sin(2 * theta + seed * 0.7);
      const double n[3] = {std::sin(theta) * std::cos(phi), std::cos(theta), std::sin(theta) * std::sin(phi)};
      mesh.positions.insert(mesh.positions.end(), {float(n[0] * radius * (1 + seed % 3 * 0.3)), float(n[1] * radius),
                                                   float(n[2] * radius)});
      mesh.normals.insert(mesh.normals.end(), {float(n[0]), float(n[1]), float(n[2])});
      mesh.uvs.insert(mesh.uvs.end(), {float(s) / kSegments, float(r) / kRings});
    }
  for (uint32_t r = 0; r < kRings; ++r)
    for (uint32_t s = 0; s < kSegments; ++s)
    {
      const uint32_t a = r * (kSegments + 1) + s, b = a + 1, c = a + kSegments + 1, d = c + 1;
      mesh.indices.insert(mesh.indices.end(), {a, c, b, b, c, d});
    }
  mesh.renderSet = uint32_t(seed);
  return mesh;
}

} // namespace

int main(int argc, char** argv)
{
  const int models = argc > 1 ? std::atoi(argv[1]) : 10000;
  const fs::path dir = argc > 2 ? fs::path(argv[2]) : fs::temp_directory_path() / "vertexmill-page-bench";
  const uint32_t previewSize = argc > 3 ? uint32_t(std::atoi(argv[3])) : report_page::kPreviewSize; // 0: no previews
  fs::create_directories(dir);

  // Each model's previews in the page's three render modes.
  std::vector<report_page::ModelPreviews> previews;
  for (int seed = 0; previewSize != 0 && seed < 16; ++seed)
  {
    const preview::Mesh mesh = blob(seed);
    preview::Bounds bounds;
    bounds.add(std::span(&mesh, 1));
    const auto png = [&](preview::Mode mode) {
      std::vector<uint8_t> bytes;
      std::string error;
      if (!preview::encodePng(preview::render(std::span(&mesh, 1), bounds, mode, previewSize, preview::Quality::Compact), bytes, error))
        std::exit(1);
      return bytes;
    };
    const preview::Image cache = preview::render(std::span(&mesh, 1), bounds, preview::Mode::VertexCache, previewSize,
                                                 preview::Quality::Compact);
    const preview::Image panels[2] = {cache, cache};
    std::vector<uint8_t> cachePng;
    std::string error;
    if (!preview::encodePng(preview::sideBySide(panels), cachePng, error))
      return 1;
    previews.push_back({png(preview::Mode::RenderSets), png(preview::Mode::Wireframe), png(preview::Mode::UvDensity),
                        std::move(cachePng)});
  }

  nlohmann::json list = nlohmann::json::array();
  double allTriangles = 0;
  for (int i = 0; i < models; ++i)
  {
    const double triangles = 200 + (i * 7919) % 50000;
    allTriangles += triangles;
    const double acmr = 1.2 + (i % 17) * 0.05;
    nlohmann::json sets = nlohmann::json::array();
    for (int s = 0; s < 1 + i % 3; ++s)
      sets.push_back({{"name", "part" + std::to_string(s)},
                      {"vertices", triangles / 2},
                      {"triangles", triangles / 3},
                      {"before", {{"acmr", acmr}, {"atvr", 2.0}, {"overdraw", 1.3}, {"overfetch", 2.1}}},
                      {"after", {{"acmr", acmr / 1.8}, {"atvr", 1.1}, {"overdraw", 1.1}, {"overfetch", 1.0}}}});
    nlohmann::json model = {
      {"source", "art/set" + std::to_string(i % 97) + "/model" + std::to_string(i) + ".primitives"},
      {"output", "out/set" + std::to_string(i % 97) + "/model" + std::to_string(i) + ".geometry"},
      {"status", i % 500 == 7 ? "failed" : "converted"},
      {"seconds", 0.001 * (i % 300)},
      {"renderSets", sets},
      {"warnings", i % 40 == 3 ? nlohmann::json::array({"WARNING: degenerate triangles"}) : nlohmann::json::array()},
      {"errors", i % 500 == 7 ? nlohmann::json::array({"ERROR: cannot read section"}) : nlohmann::json::array()},
      {"totals", {{"vertices", triangles / 2}, {"triangles", triangles}, {"rawBytes", triangles * 40},
                  {"storedBytes", triangles * 17}, {"outputBytes", triangles * 18}}}};
    list.push_back(std::move(model));
  }
  const nlohmann::json report = {{"schema", "vertexmill-report"},
                                 {"tool", {{"name", "vertexmill"}, {"version", "bench"}}},
                                 {"models", list},
                                 {"totals", {{"models", models}, {"converted", models - models / 500},
                                             {"failed", models / 500}, {"triangles", allTriangles},
                                             {"vertices", allTriangles / 2}, {"rawBytes", allTriangles * 40},
                                             {"storedBytes", allTriangles * 17}, {"outputBytes", allTriangles * 18}}}};

  size_t previewIndex = 0;
  const auto started = std::chrono::steady_clock::now();
  const std::string page = report_page::buildPage(report, [&](const nlohmann::json&, bool allModes) {
    if (previews.empty())
      return report_page::ModelPreviews();
    const report_page::ModelPreviews& shown = previews[previewIndex++ % previews.size()];
    return allModes ? shown : report_page::ModelPreviews{shown.renderSets, {}, {}, {}};
  });
  const double buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const fs::path pagePath = dir / "page.html";
  std::string error;
  if (!preview::writeWholeFile(cstdmf::toUtf8(pagePath), page, error))
  {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::printf("%d models: page %.1f MiB, built in %.2f s\n", models, page.size() / 1048576.0, buildSeconds);

  const fs::path out = dir / "dom.html", err = dir / "browser.log";
  const auto browserStarted = std::chrono::steady_clock::now();
  const auto status = platform::runProcess(
    "/usr/bin/chromium",
    {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
     "--disable-component-update", "--disable-sync", "--user-data-dir=" + (dir / "profile").string(),
     "--virtual-time-budget=2000", "--dump-dom", "file://" + fs::absolute(pagePath).generic_string() + "#selftest"},
    {cstdmf::toUtf8(out), cstdmf::toUtf8(err), ""});
  const double browserSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - browserStarted).count();
  std::ifstream in(out, std::ios::binary);
  const std::string dom((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::smatch found;
  if (!status || *status != 0 || !std::regex_search(dom, found, std::regex("<pre id=\"selftest\">(.*?)</pre>")))
  {
    std::fprintf(stderr, "the browser run failed; see %s\n", err.string().c_str());
    return 1;
  }
  const nlohmann::json check = nlohmann::json::parse(found[1].str(), nullptr, false);
  if (check.value("lastRowDrawn", false) != true || check.value("sortedDescending", false) != true)
    std::printf("the page's self-check failed: %s\n", found[1].str().c_str());
  std::printf("in Chromium: loaded (navigation start to drawn table) in %.0f ms, of which the page script %.0f ms; "
              "previews read at %.0f ms; sort of all rows %.0f ms; whole browser run %.1f s\n",
              check.value("loadMs", -1.0), check.value("scriptMs", -1.0), check.value("previewsMs", -1.0),
              check.value("sortMs", -1.0), browserSeconds);
  return 0;
}
