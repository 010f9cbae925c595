#include "report_page/report_page.hpp"

#include "preview/preview_render.hpp"
#include "report_page/page_assets.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <cmath>
#include <string_view>

namespace report_page
{
namespace
{

using nlohmann::json;

// Most models of a large tree are small; the plots keep the largest this many by name.
constexpr size_t kLargestShown = 40;
constexpr size_t kPaletteSize = 10;
// Failures listed with their messages at the top; the table lists them all.
constexpr size_t kFailuresListed = 500;

std::string escapeHtml(std::string_view text)
{
  std::string out;
  out.reserve(text.size());
  for (char c : text)
  {
    switch (c)
    {
    case '&': out += "&amp;"; break;
    case '<': out += "&lt;"; break;
    case '>': out += "&gt;"; break;
    case '"': out += "&quot;"; break;
    default: out += c;
    }
  }
  return out;
}

// JSON placed inside a <script> element: "<" cannot end the element when written as \u003c, which
// JSON reads back as the same character.
std::string scriptJson(const json& value)
{
  const std::string text = value.dump(-1, ' ', false, json::error_handler_t::replace);
  std::string out;
  out.reserve(text.size());
  for (char c : text)
  {
    if (c == '<')
      out += "\\u003c";
    else
      out += c;
  }
  return out;
}

double number(const json& object, std::string_view key, double fallback = 0.0)
{
  if (!object.is_object())
    return fallback;
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? found->get<double>() : fallback;
}

json numberOrNull(const json& object, std::string_view key)
{
  if (!object.is_object())
    return nullptr;
  const auto found = object.find(key);
  return found != object.end() && found->is_number() ? *found : json(nullptr);
}

std::string string(const json& object, std::string_view key)
{
  if (!object.is_object())
    return {};
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

const json& array(const json& object, std::string_view key)
{
  static const json kEmpty = json::array();
  if (!object.is_object())
    return kEmpty;
  const auto found = object.find(key);
  return found != object.end() && found->is_array() ? *found : kEmpty;
}

// A figure of the model's render sets, weighted by their triangles; null when none has it.
json weighted(const json& model, const char* when, const char* figure)
{
  double sum = 0.0, weight = 0.0;
  for (const json& set : array(model, "renderSets"))
  {
    const json& side = set.is_object() && set.contains(when) ? set[when] : json();
    const double triangles = number(set, "triangles");
    const json value = numberOrNull(side, figure);
    if (value.is_null() || triangles <= 0.0)
      continue;
    sum += value.get<double>() * triangles;
    weight += triangles;
  }
  return weight > 0.0 ? json(sum / weight) : json(nullptr);
}

std::string humanBytes(double bytes)
{
  if (bytes >= 1024.0 * 1024.0 * 1024.0)
    return fmt::format("{:.2f} GiB", bytes / (1024.0 * 1024.0 * 1024.0));
  if (bytes >= 1024.0 * 1024.0)
    return fmt::format("{:.2f} MiB", bytes / (1024.0 * 1024.0));
  if (bytes >= 1024.0)
    return fmt::format("{:.1f} KiB", bytes / 1024.0);
  return fmt::format("{:.0f} B", bytes);
}

std::string base64(const std::vector<uint8_t>& bytes)
{
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3)
  {
    const uint32_t v = (uint32_t(bytes[i]) << 16) | (uint32_t(bytes[i + 1]) << 8) | bytes[i + 2];
    out += kDigits[v >> 18];
    out += kDigits[(v >> 12) & 63];
    out += kDigits[(v >> 6) & 63];
    out += kDigits[v & 63];
  }
  if (i < bytes.size())
  {
    const uint32_t v = (uint32_t(bytes[i]) << 16) | (i + 1 < bytes.size() ? uint32_t(bytes[i + 1]) << 8 : 0);
    out += kDigits[v >> 18];
    out += kDigits[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? kDigits[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

struct Column
{
  const char* title;
  const char* hint;
  bool numeric;
  int digits; // -1: integer
};

// The table's columns, in row order.
constexpr Column kColumns[] = {
  {"source", "the .primitives file", false, -1},
  {"output", "the .geometry file", false, -1},
  {"status", "converted, converted with errors (written without what could not be read), failed or up-to-date",
   false, -1},
  {"triangles", "", true, -1},
  {"vertices", "", true, -1},
  {"raw bytes", "vertex and index buffers unpacked", true, -1},
  {"stored bytes", "the buffers as the file holds them", true, -1},
  {"output bytes", "the whole .geometry file", true, -1},
  {"ratio", "stored / raw", true, 3},
  {"ACMR before", "vertices transformed per triangle, 16-entry FIFO cache", true, 3},
  {"ACMR after", "", true, 3},
  {"overdraw before", "shaded pixels per covered pixel", true, 3},
  {"overdraw after", "", true, 3},
  {"fetch before", "vertex bytes fetched per byte", true, 3},
  {"fetch after", "", true, 3},
  {"seconds", "conversion time", true, 3},
  {"warnings", "", true, -1},
  {"cache", "with a cache: hit (the output and its figures came from it) or miss", false, -1},
};
enum ColumnIndex
{
  kSource,
  kOutput,
  kStatus,
  kTriangles,
  kVertices,
  kRawBytes,
  kStoredBytes,
  kOutputBytes,
  kRatio,
  kColumnCount = 18,
};
static_assert(std::size(kColumns) == kColumnCount);

// What changed since an older report: counts, then one line per model, largest change first.
std::string changesSection(const json& changes, const std::string& olderName)
{
  constexpr size_t kListed = 500;
  const json& counts = changes.is_object() && changes.contains("counts") ? changes["counts"] : json();
  std::string section = fmt::format("<h2>Changes since {}</h2>\n<div class=\"muted\">figures that moved by more "
                                    "than {:.0f}% of their earlier value</div>\n<div class=\"cards\">",
                                    escapeHtml(olderName.empty() ? std::string("the older report") : olderName),
                                    number(changes, "threshold") * 100.0);
  const std::pair<const char*, const char*> kinds[] = {{"failedSince", "failed since"}, {"added", "added"},
                                                       {"removed", "removed"},          {"fixed", "working again"},
                                                       {"changed", "changed"},          {"unchanged", "unchanged"}};
  for (const auto& [key, label] : kinds)
  {
    const double value = number(counts, key);
    section += fmt::format("<div class=\"card{}\"><b>{:.0f}</b>{}</div>",
                           std::string_view(key) == "failedSince" && value > 0 ? " bad" : "", value, label);
  }
  section += "</div>\n";
  const json& listed = array(changes, "models");
  if (listed.empty())
    return section + "<p class=\"muted\">No model changed.</p>\n";
  section += "<div class=\"changes-box\"><table class=\"changes\"><thead><tr><th>change</th><th>source</th>"
             "<th>what changed</th></tr></thead><tbody>\n";
  size_t shown = 0;
  for (const json& model : listed)
  {
    if (++shown > kListed)
      break;
    const std::string change = string(model, "change");
    std::string what;
    for (const json& figure : array(model, "figures"))
    {
      const double before = number(figure, "before"), after = number(figure, "after");
      const bool bytes = string(figure, "name").find("Bytes") != std::string::npos;
      const auto shownValue = [&](double value) {
        return bytes ? humanBytes(value) : std::floor(value) == value ? fmt::format("{:.0f}", value) : fmt::format("{:.3f}", value);
      };
      what += fmt::format("{}{} {} → {} ({:+.1f}%)", what.empty() ? "" : "; ", escapeHtml(string(figure, "name")),
                          shownValue(before), shownValue(after), number(figure, "relative") * 100.0);
    }
    for (const json& text : array(model, "messages"))
      if (text.is_string())
        what += (what.empty() ? "" : "<br>") + escapeHtml(text.get<std::string>());
    section += fmt::format("<tr class=\"{}\"><td>{}</td><td>{}</td><td>{}</td></tr>\n", escapeHtml(change),
                           change == "failed-since" ? "failed since" : change == "fixed" ? "working again" : escapeHtml(change),
                           escapeHtml(string(model, "source")), what);
  }
  section += "</tbody></table></div>\n";
  if (listed.size() > kListed)
    section += fmt::format("<p class=\"muted\">and {} more.</p>\n", listed.size() - kListed);
  return section;
}

// Horizontal bars, one per model: the largest models by output size.
std::string sizePlot(const json& rows)
{
  // Failed models wrote nothing: they are not among the largest.
  std::vector<size_t> order;
  for (size_t i = 0; i < rows.size(); ++i)
    if (rows[i][kStatus] != "failed")
      order.push_back(i);
  const auto bytes = [&](size_t i) { return rows[i][kOutputBytes].is_number() ? rows[i][kOutputBytes].get<double>() : 0.0; };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return bytes(a) > bytes(b); });
  order.resize(std::min(order.size(), kLargestShown));
  const double largest = order.empty() ? 0.0 : bytes(order.front());
  constexpr int kBar = 14, kLabel = 220, kWidth = 520;
  const int height = int(order.size()) * kBar + 24;
  std::string svg = fmt::format(R"(<svg xmlns="http://www.w3.org/2000/svg" width="{}" height="{}" role="img">)", kWidth, height);
  svg += fmt::format(R"(<text x="0" y="12">output bytes, the {} largest models</text>)", order.size());
  for (size_t k = 0; k < order.size(); ++k)
  {
    const size_t i = order[k];
    const double width = largest > 0.0 ? bytes(i) / largest * (kWidth - kLabel - 70) : 0.0;
    const int y = 20 + int(k) * kBar;
    std::string name = rows[i][kSource].is_string() ? rows[i][kSource].get<std::string>() : std::string();
    if (name.size() > 34)
      name = "\xE2\x80\xA6" + name.substr(name.size() - 33);
    svg += fmt::format(R"(<text x="{}" y="{}" text-anchor="end">{}</text>)", kLabel - 6, y + 10, escapeHtml(name));
    svg += fmt::format(R"(<rect data-model="{}" x="{}" y="{}" width="{:.1f}" height="{}" fill="#4c78a8"><title>{}: {}</title></rect>)", i,
                       kLabel, y + 1, width, kBar - 3, escapeHtml(name), humanBytes(bytes(i)));
    svg += fmt::format(R"(<text x="{:.1f}" y="{}">{}</text>)", kLabel + width + 4, y + 10, humanBytes(bytes(i)));
  }
  return svg + "</svg>";
}

// Before against after for one figure, one dot per model; dots under the diagonal got better.
std::string scatterPlot(const json& rows, int beforeColumn, const char* title, const char* whyEmpty)
{
  double top = 0.0;
  for (const json& row : rows)
    for (int column : {beforeColumn, beforeColumn + 1})
      if (row[column].is_number() && std::isfinite(row[column].get<double>()))
        top = std::max(top, row[column].get<double>());
  top = top > 0.0 ? top * 1.05 : 1.0;
  constexpr int kSize = 240, kPad = 34;
  // The page's script names the point under the pointer from the same geometry.
  std::string svg = fmt::format(R"(<svg xmlns="http://www.w3.org/2000/svg" width="{}" height="{}" role="img" )"
                                R"(class="scatter" data-column="{}" data-top="{}" data-pad="{}" data-size="{}">)",
                                kSize + kPad + 8, kSize + kPad + 18, beforeColumn, top, kPad, kSize);
  svg += fmt::format(R"(<text x="0" y="12">{}: before (across) and after (up)</text>)", title);
  const auto x = [&](double v) { return kPad + v / top * kSize; };
  const auto y = [&](double v) { return 18 + kSize - v / top * kSize; };
  svg += fmt::format(R"(<rect x="{}" y="18" width="{}" height="{}" fill="none" stroke="#d9dee5"/>)", kPad, kSize, kSize);
  svg += fmt::format(R"(<line x1="{:.1f}" y1="{:.1f}" x2="{:.1f}" y2="{:.1f}" stroke="#bbb" stroke-dasharray="4 3"/>)",
                     x(0), y(0), x(top), y(top));
  svg += fmt::format(R"(<text x="{}" y="{}">0</text><text x="{}" y="{}" text-anchor="end">{:.2f}</text>)", kPad - 10,
                     18 + kSize + 12, kPad + kSize, 18 + kSize + 12, top);
  // One path for every dot keeps the page light with thousands of models.
  std::string dots;
  for (const json& row : rows)
  {
    if (!row[beforeColumn].is_number() || !row[beforeColumn + 1].is_number())
      continue;
    dots += fmt::format("M{:.1f} {:.1f}h3v3h-3z", x(row[beforeColumn].get<double>()) - 1.5,
                        y(row[beforeColumn + 1].get<double>()) - 1.5);
  }
  svg += fmt::format(R"(<path d="{}" fill="#e45756" fill-opacity="0.7"/>)", dots);
  // An empty plot says why, rather than looking like a failure.
  if (dots.empty())
    svg += fmt::format(R"(<text x="{}" y="{}" text-anchor="middle">{}</text>)", kPad + kSize / 2, 18 + kSize / 2,
                       escapeHtml(whyEmpty));
  return svg + "</svg>";
}

} // namespace

std::string pngDataUri(const std::vector<uint8_t>& png)
{
  return "data:image/png;base64," + base64(png);
}

namespace
{

// The models whose pictures in the other modes (wireframe, texel density, vertex cache) the page
// carries (each model has its render-set picture): every model of a page of up to
// kModePreviewModels, else the models with errors or warnings first, then the most triangles.
// Those pictures hold every edge and colour step, several times the bytes of the render sets: for
// all of a 10,000-model page they would make it ten times the size.
std::vector<bool> modelsWithAllModes(const json& models)
{
  std::vector<bool> chosen(models.size(), models.size() <= kModePreviewModels);
  if (models.size() <= kModePreviewModels)
    return chosen;
  std::vector<size_t> order(models.size());
  std::iota(order.begin(), order.end(), size_t{0});
  const auto troubled = [&](size_t i) {
    return !array(models[i], "errors").empty() || !array(models[i], "warnings").empty();
  };
  const auto triangles = [&](size_t i) {
    const json& model = models[i];
    return number(model.is_object() && model.contains("totals") ? model["totals"] : json(), "triangles");
  };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    if (troubled(a) != troubled(b))
      return troubled(a);
    return triangles(a) > triangles(b);
  });
  for (size_t k = 0; k < kModePreviewModels; ++k)
    chosen[order[k]] = true;
  return chosen;
}

} // namespace

std::string buildPage(const json& report, const PreviewSource& previews, const json* changes,
                      const std::string& olderName)
{
  const json& models = array(report, "models");
  const std::vector<bool> allModes = modelsWithAllModes(models);
  size_t modelIndex = 0;
  json rows = json::array();
  json sets = json::array();
  json messages = json::array();
  json companions = json::array();
  std::string previewLines, wireframeLines, uvDensityLines, vertexCacheLines;
  size_t mostRenderSets = 0;
  json levels = json::array(), levelNotes = json::array();
  std::string levelPreviewLines;
  size_t levelPreviewCount = 0;
  size_t failed = 0, withErrors = 0;
  std::string failures, errorsOfWritten;
  for (const json& model : models)
  {
    const json& totals = model.is_object() && model.contains("totals") ? model["totals"] : json();
    const double raw = number(totals, "rawBytes");
    const double stored = number(totals, "storedBytes");
    const std::string status = string(model, "status");
    // A failed model wrote nothing: it has no output to name.
    json row = json::array({string(model, "source"), status == "failed" ? std::string() : string(model, "output"),
                            status == "converted-with-errors" ? std::string("converted with errors") : status,
                            numberOrNull(totals, "triangles"), numberOrNull(totals, "vertices"),
                            numberOrNull(totals, "rawBytes"), numberOrNull(totals, "storedBytes"),
                            numberOrNull(totals, "outputBytes"), raw > 0.0 ? json(stored / raw) : json(nullptr),
                            weighted(model, "before", "acmr"), weighted(model, "after", "acmr"),
                            weighted(model, "before", "overdraw"), weighted(model, "after", "overdraw"),
                            weighted(model, "before", "overfetch"), weighted(model, "after", "overfetch"),
                            numberOrNull(model, "seconds"), array(model, "warnings").size(),
                            string(model, "cache")});
    rows.push_back(std::move(row));

    json modelSets = json::array();
    mostRenderSets = std::max(mostRenderSets, array(model, "renderSets").size());
    for (const json& set : array(model, "renderSets"))
    {
      const json before = set.is_object() && set.contains("before") ? set["before"] : json();
      const json after = set.is_object() && set.contains("after") ? set["after"] : json();
      // The set's vertex format is its vertex section's; blend indices ("ii…") make it skinned.
      std::string format;
      for (const json& section : array(model, "sections"))
        if (string(section, "name") == string(set, "name") + ".vertices")
          format = string(section, "format");
      modelSets.push_back(json::array({string(set, "name"), number(set, "vertices"), number(set, "triangles"),
                                       numberOrNull(before, "acmr"), numberOrNull(after, "acmr"),
                                       numberOrNull(before, "overdraw"), numberOrNull(after, "overdraw"), format,
                                       numberOrNull(set, "strideInBytes"), format.find("ii") != std::string::npos,
                                       numberOrNull(set, "texelDensity"), numberOrNull(set, "bones"),
                                       set.is_object() && set.contains("size") ? set["size"] : json()}));
    }
    sets.push_back(std::move(modelSets));
    json attached = json::array();
    for (const json& companion : array(model, "companions"))
      attached.push_back(companion.is_string() ? companion.get<std::string>() : string(companion, "name"));
    companions.push_back(std::move(attached));

    json modelMessages = json::array();
    for (const char* key : {"errors", "warnings"})
      for (const json& text : array(model, key))
        if (text.is_string())
          modelMessages.push_back(text);
    const auto listErrors = [&](std::string& list) {
      list += "<div class=\"failure\"><b>" + escapeHtml(string(model, "source")) + "</b><ul>";
      for (const json& text : array(model, "errors"))
        if (text.is_string())
          list += "<li>" + escapeHtml(text.get<std::string>()) + "</li>";
      if (const std::string reason = string(model, "reason"); !reason.empty())
        list += "<li>the system said: " + escapeHtml(reason) + "</li>";
      list += "</ul></div>\n";
    };
    if (status == "failed" && ++failed <= kFailuresListed)
      listErrors(failures);
    if (status == "converted-with-errors" && ++withErrors <= kFailuresListed)
      listErrors(errorsOfWritten);
    messages.push_back(std::move(modelMessages));

    // One line per model, in order; the page splits them only when a preview is first shown.
    previewLines += '\n';
    wireframeLines += '\n';
    uvDensityLines += '\n';
    vertexCacheLines += '\n';
    if (previews)
    {
      const ModelPreviews shown = previews(model, allModes[modelIndex]);
      previewLines += base64(shown.renderSets);
      wireframeLines += base64(shown.wireframe);
      uvDensityLines += base64(shown.uvDensity);
      vertexCacheLines += base64(shown.vertexCache);
    }

    // The model's levels of detail (--lods), each with its preview on a line of its own.
    json modelLevels = json::array();
    for (const json& level : array(model, "levels"))
    {
      modelLevels.push_back(json::array({number(level, "level"), number(level, "triangles"), number(level, "vertices"),
                                         number(level, "bytes"), numberOrNull(level, "errorAbsolute"),
                                         numberOrNull(level, "errorRelative"), numberOrNull(level, "ratio"),
                                         levelPreviewCount++}));
      levelPreviewLines += '\n';
      if (previews)
        levelPreviewLines += base64(previews(level, false).renderSets);
    }
    levels.push_back(std::move(modelLevels));
    levelNotes.push_back(string(model, "levelsNote"));
    ++modelIndex;
  }

  json columns = json::array();
  for (const Column& column : kColumns)
  {
    json entry = {{"title", column.title}, {"hint", column.hint}, {"numeric", column.numeric}};
    if (column.digits >= 0)
      entry["digits"] = column.digits;
    columns.push_back(std::move(entry));
  }
  json palette = json::array();
  for (size_t i = 0; i < std::max(kPaletteSize, mostRenderSets); ++i)
  {
    const auto rgb = preview::renderSetColour(i);
    palette.push_back(fmt::format("#{:02x}{:02x}{:02x}", rgb[0], rgb[1], rgb[2]));
  }
  const json data = {{"columns", columns},
                     {"rows", rows},
                     {"sets", sets},
                     {"messages", messages},
                     {"companions", companions},
                     {"levels", levels},
                     {"levelNotes", levelNotes},
                     {"palette", palette},
                     {"sourceColumn", kSource},
                     {"outputColumn", kOutput},
                     {"statusColumn", kStatus},
                     {"cacheColumn", kColumnCount - 1},
                     {"trianglesColumn", kTriangles},
                     {"warningsColumn", kColumnCount - 2}};

  const json& totals = report.is_object() && report.contains("totals") ? report["totals"] : json();
  const json& tool = report.is_object() && report.contains("tool") ? report["tool"] : json();
  const auto card = [](const std::string& label, const std::string& value, bool bad = false) {
    return fmt::format("<div class=\"card{}\"><b>{}</b>{}</div>", bad ? " bad" : "", escapeHtml(value), escapeHtml(label));
  };
  const double raw = number(totals, "rawBytes");
  const double stored = number(totals, "storedBytes");
  std::string page;
  page.reserve(previewLines.size() + wireframeLines.size() + uvDensityLines.size() + vertexCacheLines.size() +
               levelPreviewLines.size() + 4096 +
               rows.size() * 200);
  page += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  // Nothing may be fetched: everything the page shows is inside it.
  page += "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
          "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n";
  page += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  page += "<title>vertexmill report</title>\n<style>" + std::string(kPageStyle) + "</style>\n</head>\n<body>\n";
  page += fmt::format("<h1>vertexmill report</h1>\n<div class=\"muted\">{} {} &middot; <span id=\"load-time\"></span></div>\n",
                      escapeHtml(string(tool, "name")), escapeHtml(string(tool, "version")));
  page += "<div class=\"cards\">";
  page += card("models", fmt::format("{}", models.size()));
  page += card("converted", fmt::format("{:.0f}", number(totals, "converted")));
  page += card("converted with errors", fmt::format("{}", withErrors), withErrors != 0);
  page += card("failed", fmt::format("{}", failed), failed != 0);
  page += card("up to date", fmt::format("{:.0f}", number(totals, "upToDate")));
  page += card("triangles", fmt::format("{:.0f}", number(totals, "triangles")));
  page += card("vertices", fmt::format("{:.0f}", number(totals, "vertices")));
  page += card("raw → stored", humanBytes(raw) + " → " + humanBytes(stored));
  page += card("ratio", raw > 0.0 ? fmt::format("{:.3f}", stored / raw) : std::string("-"));
  page += card("output", humanBytes(number(totals, "outputBytes")));
  page += card("seconds", fmt::format("{:.2f}", number(totals, "seconds")));
  page += "</div>\n";
  if (changes)
    page += changesSection(*changes, olderName);
  if (failed != 0)
  {
    page += fmt::format("<h2>Failures ({})</h2>\n<div class=\"failures\">", failed) + failures;
    if (failed > kFailuresListed)
      page += fmt::format("<p class=\"muted\">and {} more: filter the table by \"failed\".</p>", failed - kFailuresListed);
    page += "</div>\n";
  }
  if (withErrors != 0)
  {
    page += fmt::format("<h2>Converted with errors ({})</h2>\n<div class=\"failures\">", withErrors) + errorsOfWritten;
    if (withErrors > kFailuresListed)
      page += fmt::format("<p class=\"muted\">and {} more: filter the table by \"with errors\".</p>",
                          withErrors - kFailuresListed);
    page += "</div>\n";
  }
  page += "<h2>Models</h2>\n<div class=\"controls\"><input id=\"filter\" type=\"search\" placeholder=\"filter by path or status\">"
          "<label><input id=\"only-problems\" type=\"checkbox\"> failures, errors and warnings only</label>"
          "<span id=\"shown\" class=\"muted\"></span><span class=\"muted\">click a column to sort, a row for its "
          "preview and render sets</span></div>\n";
  page += "<div id=\"cache-legend\" class=\"muted\" hidden>cache: <span class=\"cache-hit\">hit</span> the output and its "
          "figures came from the cache <span class=\"cache-miss\">miss</span> converted, and the result stored</div>\n";
  page += "<div id=\"scroller\"><table id=\"models\"><thead><tr><th></th></tr></thead><tbody></tbody></table></div>\n";
  page += "<div id=\"detail\" hidden></div>\n<div id=\"thumb-tip\" hidden></div>\n";
  page += "<h2>Plots</h2>\n<div class=\"muted\">point at a dot or bar for its model, click it for its "
          "preview and render sets</div>\n<div id=\"plot-tip\" hidden></div>\n<div class=\"plots\">";
  page += "<div class=\"plot\">" + sizePlot(rows) + "</div>";
  constexpr const char* kNoFigures = "no model of this run has these figures";
  page += "<div class=\"plot\">" + scatterPlot(rows, 9, "ACMR", kNoFigures) + "</div>";
  page += "<div class=\"plot\">" + scatterPlot(rows, 11, "overdraw", "measured only with --report-overdraw") + "</div>";
  page += "<div class=\"plot\">" + scatterPlot(rows, 13, "overfetch", kNoFigures) + "</div>";
  page += "</div>\n";
  page += "<script type=\"application/json\" id=\"report-data\">" + scriptJson(data) + "</script>\n";
  // The script before the previews: the table is drawn while the browser still reads them.
  page += "<script>" + std::string(kPageScript) + "</script>\n";
  page += "<script type=\"text/plain\" id=\"previews\">" + previewLines + "\n</script>\n";
  page += "<script type=\"text/plain\" id=\"level-previews\">" + levelPreviewLines + "\n</script>\n";
  page += "<script type=\"text/plain\" id=\"wireframe-previews\">" + wireframeLines + "\n</script>\n";
  page += "<script type=\"text/plain\" id=\"uv-previews\">" + uvDensityLines + "\n</script>\n";
  page += "<script type=\"text/plain\" id=\"cache-previews\">" + vertexCacheLines + "\n</script>\n";
  page += "</body>\n</html>\n";
  return page;
}

} // namespace report_page
