#include "report.hpp"

#include "cstdmf/debug.hpp"
#include "resmgr/file_io.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <span>

#ifndef VERTEXMILL_VERSION
#define VERTEXMILL_VERSION "0.0.0"
#endif

namespace vertexmill
{
namespace
{
using nlohmann::ordered_json;

constexpr int kSchemaVersion = 1;

ordered_json meshStatistics(const MeshDataOptimizer::MeshStatistics& s)
{
  return ordered_json{{"acmr", s.acmr}, {"atvr", s.atvr}, {"overdraw", s.overdraw}, {"overfetch", s.overfetch}};
}

double ratio(double numerator, double denominator)
{
  return denominator > 0.0 ? numerator / denominator : 0.0;
}

// Message texts end in a line feed that adds nothing in a document.
std::string trimmed(std::string_view text)
{
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.remove_suffix(1);
  return std::string(text);
}

ordered_json modelJson(const ModelReport& model)
{
  const CompileStatistics& stats = model.statistics;
  ordered_json sections = ordered_json::array();
  for (const auto& s : stats.sections)
    sections.push_back({{"name", s.name}, {"kind", s.kind}, {"format", s.format}, {"count", s.count}});

  const ModelTotals totals = modelTotals(stats);
  ordered_json renderSets = ordered_json::array();
  for (const auto& r : stats.renderSets)
  {
    renderSets.push_back({{"name", r.name},
                          {"vertices", r.vertexCount},
                          {"triangles", r.triangleCount},
                          {"strideInBytes", r.strideInBytes},
                          {"texelDensity", r.texelDensity},
                          {"optimized", r.optimized},
                          {"before", meshStatistics(r.before)},
                          {"after", meshStatistics(r.after)}});
  }

  ordered_json buffers = ordered_json::array();
  for (const auto& b : stats.buffers)
  {
    buffers.push_back({{"kind", b.kind},
                       {"format", b.format},
                       {"strideInBytes", b.strideInBytes},
                       {"items", b.itemCount},
                       {"rawBytes", b.rawBytes},
                       {"storedBytes", b.storedBytes},
                       {"encoded", b.encoded},
                       {"storedBytesPerItem", ratio(double(b.storedBytes), double(b.itemCount))},
                       {"ratio", ratio(double(b.storedBytes), double(b.rawBytes))}});
  }

  ordered_json companions = ordered_json::array();
  for (const auto& c : stats.companions)
    companions.push_back({{"name", c.name}, {"kind", c.kind}, {"bytes", c.bytes}});

  ordered_json verifier = ordered_json::array();
  for (const auto& v : stats.verifier)
    verifier.push_back({{"section", v.section},
                        {"positions", v.positions},
                        {"normals", v.normals},
                        {"tangents", v.tangents},
                        {"binormals", v.binormals},
                        {"uvs", v.uvs}});

  ordered_json warnings = ordered_json::array(), errors = ordered_json::array();
  for (const auto& w : model.warnings)
    warnings.push_back(trimmed(w));
  for (const auto& e : model.errors)
    errors.push_back(trimmed(e));

  ordered_json result{{"source", model.source},
                      {"output", model.output},
                      {"status", model.status},
                      {"seconds", model.seconds},
                      {"sections", std::move(sections)},
                      {"renderSets", std::move(renderSets)},
                      {"buffers", std::move(buffers)},
                      {"companions", std::move(companions)},
                      {"verifier", std::move(verifier)},
                      {"warnings", std::move(warnings)},
                      {"errors", std::move(errors)},
                      {"totals",
                       {{"vertices", totals.vertices},
                        {"triangles", totals.triangles},
                        {"rawBytes", totals.rawBytes},
                        {"storedBytes", totals.storedBytes},
                        {"inputBytes", totals.inputBytes},
                        {"outputBytes", totals.outputBytes},
                        {"acmr", totals.acmr},
                        {"storedBytesPerVertex", ratio(double(totals.storedVertexBytes), double(totals.vertices))},
                        {"rawBytesPerVertex", ratio(double(totals.rawVertexBytes), double(totals.vertices))},
                        {"outputBytesPerTriangle", ratio(double(totals.outputBytes), double(totals.triangles))}}}};
  // Only with a cache: "hit" (the output came from it) or "miss".
  if (!model.cache.empty())
    result["cache"] = model.cache;
  return result;
}
} // namespace

ModelTotals modelTotals(const CompileStatistics& statistics)
{
  ModelTotals totals;
  double weightedAcmr = 0.0;
  for (const auto& r : statistics.renderSets)
  {
    totals.vertices += r.vertexCount;
    totals.triangles += r.triangleCount;
    weightedAcmr += double(r.after.acmr) * double(r.triangleCount);
  }
  totals.acmr = ratio(weightedAcmr, double(totals.triangles));
  for (const auto& b : statistics.buffers)
  {
    totals.rawBytes += b.rawBytes;
    totals.storedBytes += b.storedBytes;
    if (b.kind == "vertices")
    {
      totals.rawVertexBytes += b.rawBytes;
      totals.storedVertexBytes += b.storedBytes;
    }
  }
  totals.inputBytes = statistics.inputBytes;
  for (const auto& c : statistics.companions)
    totals.inputBytes += c.bytes;
  totals.outputBytes = statistics.outputBytes;
  return totals;
}

std::string statsLine(const ModelReport& model)
{
  const ModelTotals totals = modelTotals(model.statistics);
  return fmt::format("stats: {}: {} triangles={} vertices={} bytes_in={} bytes_out={} acmr={:.3f} seconds={:.3f}",
                     model.source, model.status, totals.triangles, totals.vertices, totals.inputBytes,
                     totals.outputBytes, totals.acmr, model.seconds);
}

void ReportMessageCollector::onMessage(DebugMessagePriority priority, std::string_view, std::string_view text)
{
  if (priority == DebugMessagePriority::Warning)
    m_report.warnings.emplace_back(text);
  else if (priority >= DebugMessagePriority::Error)
    m_report.errors.emplace_back(text);
}

void Report::addModel(size_t order, ModelReport model)
{
  std::lock_guard lock(m_mutex);
  m_models.emplace_back(order, std::move(model));
}

std::string Report::toJson() const
{
  std::vector<const std::pair<size_t, ModelReport>*> models;
  {
    std::lock_guard lock(m_mutex);
    for (const auto& entry : m_models)
      models.push_back(&entry);
  }
  std::stable_sort(models.begin(), models.end(), [](auto* a, auto* b) { return a->first < b->first; });

  ordered_json list = ordered_json::array();
  uint64_t converted = 0, failed = 0, upToDate = 0, vertices = 0, triangles = 0, rawBytes = 0, storedBytes = 0,
           outputBytes = 0;
  double seconds = 0.0;
  for (const auto* entry : models)
  {
    const ModelReport& model = entry->second;
    ordered_json json = modelJson(model);
    converted += model.status == "converted";
    failed += model.status == "failed";
    upToDate += model.status == "up-to-date";
    const auto& totals = json["totals"];
    vertices += totals["vertices"].get<uint64_t>();
    triangles += totals["triangles"].get<uint64_t>();
    rawBytes += totals["rawBytes"].get<uint64_t>();
    storedBytes += totals["storedBytes"].get<uint64_t>();
    outputBytes += totals["outputBytes"].get<uint64_t>();
    seconds += model.seconds;
    list.push_back(std::move(json));
  }

  ordered_json document{{"schema", "vertexmill-report"},
                        {"schemaVersion", kSchemaVersion},
                        {"tool", {{"name", "vertexmill"}, {"version", VERTEXMILL_VERSION}}},
                        {"models", std::move(list)},
                        {"totals",
                         {{"models", models.size()},
                          {"converted", converted},
                          {"failed", failed},
                          {"upToDate", upToDate},
                          {"vertices", vertices},
                          {"triangles", triangles},
                          {"rawBytes", rawBytes},
                          {"storedBytes", storedBytes},
                          {"outputBytes", outputBytes},
                          {"seconds", seconds}}}};
  // Invalid UTF-8 in a path is replaced rather than refused.
  return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

bool Report::write(const std::string& path) const
{
  const std::string text = toJson();
  const fileio::WriteResult written = fileio::writeWholeFile(path, std::as_bytes(std::span<const char>(text)));
  if (!written)
  {
    // The name is the one the user gave, never the temporary one; the reason is the system's.
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot write report '{}': {}\n", path, written.reason);
    return false;
  }
  return true;
}

} // namespace vertexmill
