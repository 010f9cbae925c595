#include "vertexmill/report.hpp"

#include "run_report/run_report.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/version.hpp"
#include "moo/geometry_data.hpp"
#include "resmgr/file_io.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <tuple>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <span>

namespace vertexmill
{
namespace
{
using nlohmann::ordered_json;

constexpr int kSchemaVersion = 2;

ordered_json meshStatistics(const MeshDataOptimizer::MeshStatistics& s)
{
  // Overdraw is only there when it was measured (--report-overdraw).
  ordered_json json{{"acmr", s.acmr}, {"atvr", s.atvr}};
  if (s.overdraw)
    json["overdraw"] = *s.overdraw;
  json["overfetch"] = s.overfetch;
  return json;
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

// An up-to-date model read back from its output has no render sets: its vertex and triangle
// counts come from the file's mappings instead.
ModelTotals totalsOf(const ModelReport& model)
{
  ModelTotals totals = modelTotals(model.statistics);
  if (model.readBack)
  {
    totals.vertices = model.readBackVertices;
    totals.triangles = model.readBackTriangles;
  }
  return totals;
}

ordered_json modelJson(const ModelReport& model)
{
  const CompileStatistics& stats = model.statistics;
  ordered_json sections = ordered_json::array();
  for (const auto& s : stats.sections)
    sections.push_back({{"name", s.name}, {"kind", s.kind}, {"format", s.format}, {"count", s.count}});

  const ModelTotals totals = totalsOf(model);
  ordered_json renderSets = ordered_json::array();
  for (const auto& r : stats.renderSets)
  {
    renderSets.push_back({{"name", r.name},
                          {"vertices", r.vertexCount},
                          {"triangles", r.triangleCount},
                          {"strideInBytes", r.strideInBytes},
                          {"texelDensity", r.texelDensity},
                          {"bones", r.boneCount},
                          {"size", {r.size[0], r.size[1], r.size[2]}},
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
  if (!model.reason.empty())
    result["reason"] = model.reason;
  // Only with --lods.
  if (model.levelsRequested > 0)
  {
    ordered_json levels = ordered_json::array();
    for (const LevelReport& level : model.levels)
      levels.push_back({{"level", level.number},
                        {"output", level.output},
                        {"triangles", level.triangles},
                        {"vertices", level.vertices},
                        {"bytes", level.bytes},
                        {"errorAbsolute", level.errorAbsolute},
                        {"errorRelative", level.errorRelative},
                        {"ratio", level.ratio}});
    result["levels"] = std::move(levels);
    result["levelsRequested"] = model.levelsRequested;
    if (!model.levelsNote.empty())
      result["levelsNote"] = model.levelsNote;
  }
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
  const ModelTotals totals = totalsOf(model);
  std::string line =
    fmt::format("stats: {}: {} triangles={} vertices={} bytes_in={} bytes_out={} acmr={:.3f} seconds={:.3f}",
                model.source, model.status, totals.triangles, totals.vertices, totals.inputBytes, totals.outputBytes,
                totals.acmr, model.seconds);
  if (!model.cache.empty())
    line += " cache=" + model.cache;
  if (model.levelsRequested > 0)
    line += fmt::format(" lods={}/{}", model.levels.size(), model.levelsRequested) +
            (model.levelsNote.empty() ? "" : " lods_note=" + model.levelsNote);
  // Last, quoted: the one field with blanks in it.
  if (!model.reason.empty())
  {
    std::string quoted;
    for (const char c : model.reason)
    {
      if (c == '"' || c == '\\')
        quoted += '\\';
      quoted += c;
    }
    line += " reason=\"" + quoted + "\"";
  }
  for (const LevelReport& level : model.levels)
    line += fmt::format("\nstats: {}: level {} triangles={} vertices={} bytes_out={} error={:.6g} error_relative={:.6g} "
                        "ratio={:.3f}",
                        model.source, level.number, level.triangles, level.vertices, level.bytes, level.errorAbsolute,
                        level.errorRelative, level.ratio);
  return line;
}

std::string modelReportToJson(const ModelReport& model)
{
  ordered_json json = modelJson(model);
  json["readBack"] = model.readBack;
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool readBackStatistics(const std::filesystem::path& output, ModelReport& model)
{
  Moo::GeometryData geometry;
  if (!geometry.load(cstdmf::toUtf8(output)))
    return false;
  CompileStatistics stats;
  stats.outputBytes = geometry.block()->len();
  // A buffer holds as many items as its mappings reach (also when it is stored encoded).
  const auto itemsOf = [](const std::vector<Moo::MappingPrototype>& mappings, size_t buffer) {
    uint64_t items = 0;
    for (const Moo::MappingPrototype& mapping : mappings)
    {
      if (mapping.mergedBufferIndex == buffer)
        items = std::max<uint64_t>(items, uint64_t{mapping.itemsOffset} + mapping.itemsCount);
    }
    return items;
  };
  for (size_t i = 0; i < geometry.vertexBuffers().size(); ++i)
  {
    const auto& buffer = geometry.vertexBuffers()[i];
    const uint64_t items = itemsOf(geometry.verticesMapping(), i);
    stats.buffers.push_back({"vertices", buffer.formatName, buffer.strideInBytes, items,
                             items * buffer.strideInBytes, buffer.sizeInBytes, buffer.encoded});
  }
  for (size_t i = 0; i < geometry.indexBuffers().size(); ++i)
  {
    const auto& buffer = geometry.indexBuffers()[i];
    const uint64_t items = itemsOf(geometry.indicesMapping(), i);
    stats.buffers.push_back({"indices", buffer.primitiveType == 0 ? "list" : "list32", buffer.strideInBytes, items,
                             items * buffer.strideInBytes, buffer.sizeInBytes, buffer.encoded});
  }
  for (const auto& companion : geometry.collisionModels())
    stats.companions.push_back({companion.name, "collision", companion.data.size()});
  for (const auto& companion : geometry.armorModels())
    stats.companions.push_back({companion.name, "armor", companion.data.size()});

  uint64_t vertices = 0, triangles = 0;
  for (const Moo::MappingPrototype& mapping : geometry.verticesMapping())
    vertices += mapping.itemsCount;
  for (const Moo::MappingPrototype& mapping : geometry.indicesMapping())
    triangles += mapping.itemsCount / 3;
  model.statistics = std::move(stats);
  model.readBack = true;
  model.readBackVertices = vertices;
  model.readBackTriangles = triangles;
  return true;
}

bool modelReportFromJson(std::string_view text, ModelReport& model)
{
  const ordered_json json = ordered_json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.is_object())
    return false;
  try
  {
    const auto mesh = [](const ordered_json& j) {
      MeshDataOptimizer::MeshStatistics statistics{j.at("acmr").get<float>(), j.at("atvr").get<float>(), std::nullopt,
                                                   j.at("overfetch").get<float>()};
      if (j.contains("overdraw"))
        statistics.overdraw = j.at("overdraw").get<float>();
      return statistics;
    };
    model.source = json.at("source").get<std::string>();
    model.output = json.at("output").get<std::string>();
    model.status = json.at("status").get<std::string>();
    model.seconds = json.at("seconds").get<double>();
    CompileStatistics& stats = model.statistics;
    for (const auto& s : json.at("sections"))
      stats.sections.push_back({s.at("name").get<std::string>(), s.at("kind").get<std::string>(),
                                s.at("format").get<std::string>(), s.at("count").get<uint32_t>()});
    for (const auto& r : json.at("renderSets"))
    {
      const auto size = r.at("size");
      stats.renderSets.push_back({r.at("name").get<std::string>(), r.at("vertices").get<uint32_t>(),
                                  r.at("triangles").get<uint32_t>(), r.at("strideInBytes").get<uint32_t>(),
                                  r.at("texelDensity").get<float>(), r.at("bones").get<uint32_t>(),
                                  {size.at(0).get<float>(), size.at(1).get<float>(), size.at(2).get<float>()},
                                  r.at("optimized").get<bool>(), mesh(r.at("before")), mesh(r.at("after"))});
    }
    for (const auto& b : json.at("buffers"))
      stats.buffers.push_back({b.at("kind").get<std::string>(), b.at("format").get<std::string>(),
                               b.at("strideInBytes").get<uint32_t>(), b.at("items").get<uint64_t>(),
                               b.at("rawBytes").get<uint64_t>(), b.at("storedBytes").get<uint64_t>(),
                               b.at("encoded").get<bool>()});
    for (const auto& c : json.at("companions"))
      stats.companions.push_back(
        {c.at("name").get<std::string>(), c.at("kind").get<std::string>(), c.at("bytes").get<uint64_t>()});
    for (const auto& v : json.at("verifier"))
      stats.verifier.push_back({v.at("section").get<std::string>(), v.at("positions").get<int32_t>(),
                                v.at("normals").get<int32_t>(), v.at("tangents").get<int32_t>(),
                                v.at("binormals").get<int32_t>(), v.at("uvs").get<int32_t>()});
    stats.outputBytes = json.at("totals").at("outputBytes").get<uint64_t>();
    // The totals count the companions in with the .primitives file's own bytes.
    uint64_t companionBytes = 0;
    for (const auto& c : stats.companions)
      companionBytes += c.bytes;
    const uint64_t inputBytes = json.at("totals").value("inputBytes", uint64_t{0});
    stats.inputBytes = inputBytes > companionBytes ? inputBytes - companionBytes : 0;
    model.readBack = json.value("readBack", false);
    if (model.readBack)
    {
      model.readBackVertices = json.at("totals").at("vertices").get<uint64_t>();
      model.readBackTriangles = json.at("totals").at("triangles").get<uint64_t>();
    }
    for (const auto& w : json.at("warnings"))
      model.warnings.push_back(w.get<std::string>() + "\n");
    for (const auto& e : json.at("errors"))
      model.errors.push_back(e.get<std::string>() + "\n");
    model.reason = json.value("reason", std::string());
    model.cache = json.value("cache", std::string());
    model.levelsRequested = json.value("levelsRequested", 0u);
    model.levelsNote = json.value("levelsNote", std::string());
    if (json.contains("levels"))
      for (const auto& l : json.at("levels"))
        model.levels.push_back({l.at("level").get<unsigned>(), l.at("output").get<std::string>(),
                                l.at("triangles").get<uint64_t>(), l.at("vertices").get<uint64_t>(),
                                l.at("bytes").get<uint64_t>(), l.at("errorAbsolute").get<double>(),
                                l.at("errorRelative").get<double>(), l.at("ratio").get<double>()});
  }
  catch (const nlohmann::json::exception&)
  {
    return false;
  }
  return true;
}

std::vector<ModelReport> Report::takeModels()
{
  std::lock_guard lock(m_mutex);
  std::vector<ModelReport> models;
  for (auto& entry : m_models)
    models.push_back(std::move(entry.second));
  m_models.clear();
  return models;
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
  // By source path, so that the reports of two runs (or two machines, whatever their walk order)
  // compare line by line; the same path twice keeps the walk order.
  std::stable_sort(models.begin(), models.end(), [](auto* a, auto* b) {
    return std::tie(a->second.source, a->first) < std::tie(b->second.source, b->first);
  });

  ordered_json list = ordered_json::array();
  for (const auto* entry : models)
    list.push_back(modelJson(entry->second));

  ordered_json document{{"schema", "vertexmill-report"},
                        {"schemaVersion", kSchemaVersion},
                        {"tool", {{"name", "vertexmill"}, {"version", std::string(cstdmf::toolsVersion())}}}};
  if (m_shard)
  {
    document["shard"] = {{"index", m_shard->first}, {"count", m_shard->second}};
    document["run"] = m_run;
  }
  ordered_json totals = run_report::totalsOf(list);
  document["models"] = std::move(list);
  document["totals"] = std::move(totals);
  // Invalid UTF-8 in a path is replaced rather than refused.
  return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

void Report::setShard(uint32_t index, uint32_t count, ordered_json run)
{
  m_shard.emplace(index, count);
  m_run = std::move(run);
}

std::filesystem::path reportTarget(const std::string& path)
{
  // Written through: the link stays, the file it leads to (existing or not) gets the document.
  // A chain of links is followed as far as the system would follow it.
  std::filesystem::path target = cstdmf::u8path(path);
  for (int hops = 0; hops < 40; ++hops)
  {
    std::error_code error;
    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(target, error)))
      break;
    const std::filesystem::path next = std::filesystem::read_symlink(target, error);
    if (error)
      break;
    target = next.is_absolute() ? next : target.parent_path() / next;
  }
  return target;
}

bool Report::write(const std::string& path) const
{
  const std::string text = toJson();
  if (path == "-")
  {
    std::fflush(stdout);
    const bool ok = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!ok)
      ZR_MSG(DebugMessagePriority::Error, "", "cannot write report to standard output\n");
    return ok;
  }
  // Through a symbolic link to the file it names; whole or not at all.
  const fileio::WriteResult written =
    fileio::writeWholeFile(cstdmf::toUtf8(reportTarget(path)), std::as_bytes(std::span<const char>(text)));
  if (!written)
  {
    // The name is the one the user gave, never the temporary one; the reason is the system's.
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot write report '{}': {}\n", path, written.reason);
    return false;
  }
  return true;
}

} // namespace vertexmill
