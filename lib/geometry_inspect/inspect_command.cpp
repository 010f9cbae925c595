#include "geometry_inspect/inspect_command.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/version.hpp"
#include "fw/arg_parser.hpp"
#include "fw/bounded_number.hpp"
#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/inspect_report.hpp"
#include "geometry_inspect/obj_export.hpp"
#include "geometry_inspect/preview_meshes.hpp"
#include "geometry_inspect/primitives_listing.hpp"
#include "preview/output_file.hpp"
#include "preview/png_image.hpp"
#include "report_page/report_page.hpp"
#include "run_report/compare.hpp"
#include "run_report/run_report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace geometry_inspect
{
namespace
{
namespace fs = std::filesystem;

constexpr const char* kToolName = "geometry_inspect";
constexpr uint32_t kPagePreviewSize = report_page::kPreviewSize;
constexpr uint32_t kMinRenderSize = 16;
constexpr uint32_t kMaxRenderSize = 4096;

constexpr const char* kDescription =
  "Shows what a compiled .geometry file holds, as the runtime will load it, or lists the sections\n"
  "of a .primitives file.\n"
  "\n"
  "  geometry_inspect FILE                       summary: buffers, mappings, collision and armor models\n"
  "  geometry_inspect FILE|DIR ...               check every file (folders: every .geometry file in\n"
  "                                              them), one line each and a total\n"
  "  geometry_inspect --json FILE                the same as JSON\n"
  "  geometry_inspect --validate FILE            decode everything and check it\n"
  "  geometry_inspect --stats FILE               ACMR, ATVR, overdraw and overfetch per render set\n"
  "  geometry_inspect --export-obj OUT.obj FILE  render sets as a Wavefront OBJ\n"
  "  geometry_inspect --render OUT.png FILE      a preview image; --source SRC.primitives adds the\n"
  "                                              model before optimisation on the left\n"
  "  geometry_inspect --report-html OUT.html REPORT.json\n"
  "                                              the HTML page of a vertexmill --report file\n"
  "  geometry_inspect --merge-reports OUT.json PART.json...\n"
  "                                              one report of the shards of a run (vertexmill\n"
  "                                              --shard K/N --report PART.json); with --report-html\n"
  "                                              also its page; status 3 when a model failed\n"
  "  geometry_inspect --report-html OUT.html REPORT.json --compare OLD.json\n"
  "                                              the page opens with what changed since OLD.json:\n"
  "                                              models added, removed, failed since, working again\n"
  "                                              and changed by more than 1% in triangles, vertices,\n"
  "                                              bytes or ACMR (also with --merge-reports)\n"
  "\n"
  "Mapping ids are string ids of section names. The names are shown beside the ids, and name the\n"
  "exported objects, when the source .primitives file is given with --names or lies beside the\n"
  ".geometry file under the same stem. Render sets are the i-th vertex mapping with the i-th index\n"
  "mapping (the compiler's order).\n"
  "\n"
  "Previews: a fixed three-quarter view fitted to the model, lit by its normals. --render-mode\n"
  "shaded (grey), sets (each render set in its own colour), cache (each triangle by the vertices it\n"
  "adds to a 16-entry FIFO cache: green 0, yellow 1, orange 2, red 3), wireframe (shaded, with the\n"
  "visible triangles' edges) or uv (each triangle by its texel density against the model's median:\n"
  "blue half or less, green the median, red double or more; grey without UVs).\n"
  "\n"
  "Exit status: 0 every file is sound (warnings allowed), 1 bad command line, 2 an input cannot be\n"
  "read or an output folder cannot be used (nothing was done), 3 a file is not sound or an export\n"
  "or render failed.\n"
  "\n";

struct Options
{
  bool json = false;
  bool validate = false;
  bool stats = false;
  bool version = false;
  std::string exportPath;
  std::string renderPath;
  preview::Mode renderMode = preview::Mode::Shaded;
  uint32_t renderSize = 384;
  std::string sourcePath; // before/after previews
  std::string namesPath;
  std::string reportHtmlPath;
  std::string mergePath;
  std::string comparePath; // an older report: the page says what changed since
  std::vector<std::string> inputs;
};

enum class FileKind
{
  Geometry,
  Primitives,
};

std::string lowerExtension(const std::string& path)
{
  std::string extension = cstdmf::toUtf8(cstdmf::u8path(path).extension());
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

FileKind detectKind(const std::string& path, const ConstBinaryPtr& block)
{
  const std::string extension = lowerExtension(path);
  if (extension == ".primitives")
    return FileKind::Primitives;
  if (extension == ".geometry")
    return FileKind::Geometry;
  return looksLikeContainer(block) ? FileKind::Primitives : FileKind::Geometry;
}

void printDocument(std::ostream& out, const nlohmann::json& document)
{
  out << document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

std::string verdict(const std::string& path, const Issues& issues)
{
  const size_t errors = issues.count(Severity::Error);
  const size_t warnings = issues.count(Severity::Warning);
  if (errors == 0)
    return fmt::format("{}: sound ({} warnings)\n", path, warnings);
  return fmt::format("{}: NOT sound ({} errors, {} warnings)\n", path, errors, warnings);
}

// The names of every section of a .primitives file by string id. False with `error` set when the
// file cannot be read or is not a container.
bool loadSectionNames(const std::string& path, std::map<uint32_t, std::string>& names, std::string& error)
{
  BinaryPtr block;
  if (!readWholeFile(path, block, error))
    return false;
  PrimitivesListing listing;
  if (!listing.load(block, path))
  {
    error = "not a .primitives container";
    return false;
  }
  for (const SectionInfo& section : listing.sections())
    names.emplace(section.id, section.name);
  return true;
}

// The .primitives file beside a .geometry file under the same stem, if there is one.
std::string companionSource(const std::string& geometryPath)
{
  fs::path candidate = cstdmf::u8path(geometryPath);
  candidate.replace_extension(".primitives");
  std::error_code error;
  return fs::is_regular_file(candidate, error) ? cstdmf::toUtf8(candidate) : std::string();
}

// Names from --names, or quietly from the companion source when there is one.
void attachNames(const Options& options, GeometryInspection& inspection)
{
  const std::string path = options.namesPath.empty() ? companionSource(inspection.path()) : options.namesPath;
  if (path.empty())
    return;
  std::map<uint32_t, std::string> names;
  std::string error;
  if (loadSectionNames(path, names, error))
    inspection.setSectionNames(std::move(names));
  else if (!options.namesPath.empty())
    inspection.issues().warning(fmt::format("{}: no section names: {}", path, error));
}

int runPrimitives(const Options& options, const std::string& file, const ConstBinaryPtr& block, std::ostream& out,
                  std::ostream& err)
{
  PrimitivesListing listing;
  if (listing.load(block, file) && options.validate)
    listing.validate();

  writeIssues(err, listing.issues());
  if (options.json)
  {
    nlohmann::json document = primitivesToJson(listing);
    addIssues(document, listing.issues());
    if (options.validate)
      document["sound"] = !listing.issues().hasErrors();
    printDocument(out, document);
  }
  else
  {
    if (listing.isValidContainer() && !options.validate)
      writePrimitivesListing(out, listing);
    if (options.validate)
      out << verdict(file, listing.issues());
  }
  return listing.issues().hasErrors() ? kExitFailed : kExitSuccess;
}

bool renderToFile(const Options& options, GeometryInspection& inspection, std::string& error)
{
  PrimitivesListing source;
  PreviewRequest request{.mode = options.renderMode, .size = options.renderSize};
  if (!options.sourcePath.empty())
  {
    BinaryPtr block;
    if (!readWholeFile(options.sourcePath, block, error))
      return false;
    if (!source.load(block, options.sourcePath))
    {
      error = "'" + options.sourcePath + "' is not a .primitives container";
      return false;
    }
    request.source = &source;
  }
  const preview::Image image = renderPreview(inspection, request);
  std::vector<uint8_t> png;
  if (!preview::encodePng(image, png, error))
    return false;
  return preview::writeWholeFile(options.renderPath,
                                 std::span<const char>(reinterpret_cast<const char*>(png.data()), png.size()), error);
}

int runGeometry(const Options& options, const std::string& file, const ConstBinaryPtr& block, std::ostream& out,
                std::ostream& err)
{
  GeometryInspection inspection;
  const bool loaded = inspection.load(block, file);
  attachNames(options, inspection);
  if (loaded && options.validate)
    inspection.validate();

  ObjExportCounts counts;
  bool exported = false;
  if (loaded && !options.exportPath.empty())
  {
    std::string error;
    exported = exportObj(inspection, options.exportPath, counts, error);
    if (!exported)
      inspection.issues().error(inspection.located("cannot export to '" + options.exportPath + "': " + error));
  }
  bool rendered = false;
  if (loaded && !options.renderPath.empty())
  {
    std::string error;
    rendered = renderToFile(options, inspection, error);
    if (!rendered)
      inspection.issues().error(inspection.located("cannot render the preview: " + error));
  }

  writeIssues(err, inspection.issues());
  if (options.json)
  {
    nlohmann::json document = geometryToJson(inspection, options.stats);
    addIssues(document, inspection.issues());
    if (options.validate)
      document["sound"] = !inspection.issues().hasErrors();
    if (exported)
      document["export"] = {{"path", options.exportPath},
                            {"objects", counts.objects},
                            {"vertices", counts.vertices},
                            {"triangles", counts.triangles}};
    if (rendered)
      document["render"] = {{"path", options.renderPath}};
    printDocument(out, document);
  }
  else
  {
    const bool summary = !options.validate && !options.stats && options.exportPath.empty() && options.renderPath.empty();
    if (loaded && summary)
      writeGeometrySummary(out, inspection);
    if (loaded && options.stats)
      writeRenderSetStats(out, inspection);
    if (exported)
      out << fmt::format("{}: {} render sets, {} vertices, {} triangles\n", options.exportPath, counts.objects,
                         counts.vertices, counts.triangles);
    if (rendered)
      out << fmt::format("{}: preview of {}\n", options.renderPath, file);
    if (options.validate)
      out << verdict(file, inspection.issues());
  }
  return inspection.issues().hasErrors() ? kExitFailed : kExitSuccess;
}

// One input given as a file: everything the switches ask for.
int runOneFile(const Options& options, const std::string& file, std::ostream& out, std::ostream& err)
{
  BinaryPtr block;
  std::string error;
  if (!readWholeFile(file, block, error))
  {
    err << "ERROR: cannot read '" << file << "': " << error << '\n';
    return kExitBadPath;
  }
  if (detectKind(file, block) == FileKind::Primitives)
  {
    if (options.stats || !options.exportPath.empty() || !options.renderPath.empty())
    {
      err << "ERROR: --stats, --export-obj and --render need a .geometry file; '" << file
          << "' is a .primitives container\n";
      return kExitBadCommandLine;
    }
    return runPrimitives(options, file, block, out, err);
  }
  return runGeometry(options, file, block, out, err);
}

// Every .geometry file under `dir`, sorted so runs agree. False with `error` set when the folder
// cannot be walked.
bool findGeometryFiles(const std::string& dir, std::vector<std::string>& files, std::string& error)
{
  std::vector<std::string> found;
  std::error_code code;
  fs::recursive_directory_iterator it(cstdmf::u8path(dir), fs::directory_options::none, code);
  for (; !code && it != fs::recursive_directory_iterator(); it.increment(code))
  {
    std::error_code ignored;
    if (it->is_regular_file(ignored) && lowerExtension(cstdmf::toUtf8(it->path())) == ".geometry")
      found.push_back(cstdmf::toUtf8(it->path()));
  }
  if (code)
  {
    error = "cannot search '" + dir + "': " + code.message();
    return false;
  }
  std::sort(found.begin(), found.end());
  files.insert(files.end(), found.begin(), found.end());
  return true;
}

// Several inputs or folders: each file checked, one line each, and a total.
int runMany(const Options& options, std::ostream& out, std::ostream& err)
{
  std::vector<std::string> files;
  for (const std::string& input : options.inputs)
  {
    std::error_code code;
    if (fs::is_directory(cstdmf::u8path(input), code))
    {
      std::string error;
      if (!findGeometryFiles(input, files, error))
      {
        err << "ERROR: " << error << '\n';
        return kExitBadPath;
      }
    }
    else
      files.push_back(input);
  }

  size_t unsound = 0;
  uint64_t totalVertices = 0, totalTriangles = 0, totalBytes = 0;
  nlohmann::json documents = nlohmann::json::array();
  for (const std::string& file : files)
  {
    BinaryPtr block;
    std::string error;
    if (!readWholeFile(file, block, error))
    {
      err << "ERROR: cannot read '" << file << "': " << error << '\n';
      out << fmt::format("{}: NOT sound (cannot be read)\n", file);
      ++unsound;
      continue;
    }
    if (detectKind(file, block) == FileKind::Primitives)
    {
      PrimitivesListing listing;
      if (listing.load(block, file))
        listing.validate();
      writeIssues(err, listing.issues());
      unsound += listing.issues().hasErrors();
      if (options.json)
      {
        nlohmann::json document = primitivesToJson(listing);
        addIssues(document, listing.issues());
        document["sound"] = !listing.issues().hasErrors();
        documents.push_back(std::move(document));
      }
      else
        out << verdict(file, listing.issues());
      continue;
    }

    GeometryInspection inspection;
    if (inspection.load(block, file))
      inspection.validate();
    // Names only show in the JSON documents and the statistics lines.
    if (options.json || options.stats)
      attachNames(options, inspection);
    writeIssues(err, inspection.issues());
    const bool sound = !inspection.issues().hasErrors();
    unsound += !sound;
    uint64_t vertices = 0, triangles = 0;
    for (const RenderSet& set : inspection.renderSets())
    {
      vertices += set.vertices.itemsCount;
      triangles += set.indices.itemsCount / 3;
    }
    totalVertices += vertices;
    totalTriangles += triangles;
    totalBytes += inspection.fileSize();
    if (options.json)
    {
      nlohmann::json document = geometryToJson(inspection, options.stats);
      addIssues(document, inspection.issues());
      document["sound"] = sound;
      documents.push_back(std::move(document));
      continue;
    }
    const size_t errors = inspection.issues().count(Severity::Error);
    const size_t warnings = inspection.issues().count(Severity::Warning);
    const std::string state = sound ? fmt::format("sound ({} warnings)", warnings)
                                    : fmt::format("NOT sound ({} errors, {} warnings)", errors, warnings);
    out << fmt::format("{}: {}, {} render sets, {} vertices, {} triangles, {} B\n", file, state,
                       inspection.isLoaded() ? inspection.renderSets().size() : 0, vertices, triangles,
                       inspection.fileSize());
    if (sound && options.stats)
      writeRenderSetStats(out, inspection);
  }
  if (options.json)
    printDocument(out, documents);
  else
    out << fmt::format("total: {} files, {} sound, {} not sound; {} vertices, {} triangles, {} B\n", files.size(),
                       files.size() - unsound, unsound, totalVertices, totalTriangles, totalBytes);
  return unsound != 0 ? kExitFailed : kExitSuccess;
}

// The folder an output file goes into must exist; otherwise nothing is done (status 2).
bool checkOutputFolder(const std::string& option, const std::string& path, std::ostream& err)
{
  const fs::path parent = cstdmf::u8path(path).parent_path();
  if (parent.empty())
    return true;
  std::error_code code;
  const bool isFolder = fs::is_directory(parent, code);
  if (isFolder)
    return true;
  const std::string reason =
    code ? code.message() : (fs::exists(parent, code) ? "Not a directory" : std::make_error_code(std::errc::no_such_file_or_directory).message());
  err << "ERROR: cannot write " << option << " '" << path << "': " << reason << '\n';
  return false;
}

// Whether two paths name one file, whether or not it exists yet.
bool samePath(const std::string& a, const std::string& b)
{
  if (a.empty() || b.empty())
    return false;
  return cstdmf::resolvedPath(cstdmf::u8path(a)) == cstdmf::resolvedPath(cstdmf::u8path(b));
}

// The HTML page of `report` (read from, or written to, reportPath) into pagePath.
int writeReportPage(const nlohmann::json& report, const std::string& reportPath, const std::string& pagePath,
                    const std::optional<nlohmann::ordered_json>& older, const std::string& olderPath,
                    std::ostream& out, std::ostream& err)
{
  // Outputs are named as vertexmill was given them: relative to where it ran, which is usually
  // here, or else beside the report.
  const fs::path reportFolder = cstdmf::u8path(reportPath).parent_path();
  const report_page::PreviewSource previews = [&](const nlohmann::json& model,
                                                   bool allModes) -> report_page::ModelPreviews {
    if (!model.contains("output") || !model["output"].is_string() || model.value("status", "") == "failed")
      return {};
    // Where a path of the report is: as given, or else beside the report.
    const auto found = [&](const std::string& named) -> std::string {
      std::error_code code;
      if (fs::is_regular_file(cstdmf::u8path(named), code))
        return named;
      const fs::path beside = reportFolder / cstdmf::u8path(named);
      return !reportFolder.empty() && fs::is_regular_file(beside, code) ? cstdmf::toUtf8(beside) : std::string();
    };
    const std::string output = found(model["output"].get<std::string>());
    if (output.empty())
      return {};
    const std::string source = model.contains("source") && model["source"].is_string()
                                 ? found(model["source"].get<std::string>())
                                 : std::string();
    return previewPngsOfFile(output, kPagePreviewSize, allModes, source);
  };
  const nlohmann::json changes =
    older ? run_report::compareReports(report, nlohmann::json(*older)) : nlohmann::json();
  const std::string page = report_page::buildPage(report, previews, older ? &changes : nullptr, olderPath);
  std::string error;
  if (!preview::writeWholeFile(pagePath, page, error))
  {
    err << "ERROR: " << error << '\n';
    return kExitFailed;
  }
  out << fmt::format("{}: report page of {} ({} models)\n", pagePath, reportPath, report["models"].size());
  if (older)
    out << fmt::format("{}: {} models changed since {}\n", pagePath, changes["models"].size(), olderPath);
  return kExitSuccess;
}

// A report file as JSON; nothing (after an ERROR naming it) when it cannot be read or is not JSON.
std::optional<nlohmann::ordered_json> readReport(const std::string& path, std::ostream& err, int& status)
{
  BinaryPtr block;
  std::string error;
  if (!readWholeFile(path, block, error))
  {
    err << "ERROR: cannot read '" << path << "': " << error << '\n';
    status = kExitBadPath;
    return std::nullopt;
  }
  nlohmann::ordered_json report = nlohmann::ordered_json::parse(std::string_view(block->cdata(), block->len()), nullptr, false);
  if (report.is_discarded() || !report.is_object() || !report.contains("models") || !report["models"].is_array())
  {
    err << "ERROR: '" << path << "' is not a vertexmill report (a JSON object with a \"models\" array)\n";
    status = kExitFailed;
    return std::nullopt;
  }
  return report;
}

// geometry_inspect --report-html OUT.html REPORT.json
int runReportHtml(const Options& options, std::ostream& out, std::ostream& err)
{
  int status = kExitSuccess;
  const std::optional<nlohmann::ordered_json> report = readReport(options.inputs.front(), err, status);
  if (!report)
    return status;
  std::optional<nlohmann::ordered_json> older;
  if (!options.comparePath.empty() && !(older = readReport(options.comparePath, err, status)))
    return status;
  return writeReportPage(nlohmann::json(*report), options.inputs.front(), options.reportHtmlPath, older,
                         options.comparePath, out, err);
}

// geometry_inspect --merge-reports OUT.json PART.json... [--report-html OUT.html]
int runMergeReports(const Options& options, std::ostream& out, std::ostream& err)
{
  std::optional<nlohmann::ordered_json> older;
  if (int status = kExitSuccess; !options.comparePath.empty() && !(older = readReport(options.comparePath, err, status)))
    return status;
  std::vector<run_report::Part> parts;
  for (const std::string& input : options.inputs)
  {
    int status = kExitSuccess;
    std::optional<nlohmann::ordered_json> part = readReport(input, err, status);
    if (!part)
      return status;
    parts.push_back({input, std::move(*part)});
  }
  std::string problem;
  const std::optional<nlohmann::ordered_json> merged = run_report::mergeParts(parts, problem);
  if (!merged)
  {
    err << "ERROR: cannot merge the reports: " << problem << '\n';
    return kExitFailed;
  }
  const std::string text = merged->dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::string error;
  if (!preview::writeWholeFile(options.mergePath, text, error))
  {
    err << "ERROR: " << error << '\n';
    return kExitFailed;
  }
  const uint64_t failed = (*merged)["totals"].value("failed", uint64_t{0});
  out << fmt::format("{}: {} models from {} parts, {} failed\n", options.mergePath, (*merged)["models"].size(),
                     parts.size(), failed);
  if (!options.reportHtmlPath.empty())
    if (const int status = writeReportPage(nlohmann::json(*merged), options.mergePath, options.reportHtmlPath, older,
                                           options.comparePath, out, err);
        status != kExitSuccess)
      return status;
  // A run with a failed model is not a success, merged or not.
  return failed == 0 ? kExitSuccess : kExitFailed;
}

std::optional<preview::Mode> parseMode(std::string_view text)
{
  if (text == "shaded")
    return preview::Mode::Shaded;
  if (text == "sets")
    return preview::Mode::RenderSets;
  if (text == "cache")
    return preview::Mode::VertexCache;
  if (text == "wireframe")
    return preview::Mode::Wireframe;
  if (text == "uv")
    return preview::Mode::UvDensity;
  return std::nullopt;
}

} // namespace

int runInspect(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
  Options options;
  std::string badValue; // the message of a refused value, which the parser does not explain
  using FW::ArgParser;
  const auto flag = [](const char* name, char shortName, const char* description, bool& target) {
    return ArgParser::Option{
      .kind = ArgParser::Kind::Flag,
      .longName = name,
      .shortName = shortName,
      .description = description,
      .callback = [&target](std::string_view) {
        target = true;
        return true;
      },
    };
  };
  const auto path = [&](const char* name, const char* valueName, const char* description, std::string& target) {
    return ArgParser::Option{
      .kind = ArgParser::Kind::Value,
      .longName = name,
      .description = description,
      .valueName = valueName,
      .callback = [&target, &badValue, name](std::string_view value) {
        target = std::string(value);
        if (value.empty())
          badValue = fmt::format("ERROR: invalid value '' for --{}: expected a path\n", name);
        return !value.empty();
      },
    };
  };
  const auto registration = [&](ArgParser::Builder& builder) {
    builder.add(flag("json", 0, "print the report as JSON", options.json))
      .add(flag("validate", 0, "decode every buffer and check the file; the exit status says whether it is sound",
                options.validate))
      .add(flag("stats", 0, "print meshoptimizer statistics per render set", options.stats))
      .add(flag("version", 'V', "print the version and exit", options.version))
      .add(path("export-obj", "OUT.obj", "write the render sets to a Wavefront OBJ file", options.exportPath))
      .add(path("render", "OUT.png", "write a preview image of the file (PNG)", options.renderPath))
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "render-mode",
        .description = "preview colours: shaded, sets, cache, wireframe or uv (default shaded)",
        .valueName = "MODE",
        .callback = [&](std::string_view value) {
          const auto mode = parseMode(value);
          if (!mode)
            badValue = fmt::format("ERROR: invalid value '{}' for --render-mode: expected shaded, sets, cache, wireframe or uv\n", value);
          options.renderMode = mode.value_or(preview::Mode::Shaded);
          return mode.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "render-size",
        .description = "preview panel size in pixels (default 384)",
        .valueName = "N",
        .callback = [&](std::string_view value) {
          const std::optional<uint64_t> size = FW::parseBoundedNumber(value, kMinRenderSize, kMaxRenderSize);
          if (!size)
            badValue = fmt::format("ERROR: invalid value '{}' for --render-size: expected a whole number from {} to {}\n",
                                   value, kMinRenderSize, kMaxRenderSize);
          else
            options.renderSize = static_cast<uint32_t>(*size);
          return size.has_value();
        },
      })
      .add(path("source", "SRC.primitives", "with --render: the model before optimisation beside the file's",
                options.sourcePath))
      .add(path("names", "SRC.primitives", "take section names from this .primitives file", options.namesPath))
      .add(path("report-html", "OUT.html", "write the HTML page of a vertexmill report given as the input",
                options.reportHtmlPath))
      .add(path("compare", "OLD.json", "with --report-html: open the page with what changed since this older report",
                options.comparePath))
      .add(path("merge-reports", "OUT.json",
                "merge the reports of the shards of one run (vertexmill --shard K/N --report) given as the inputs",
                options.mergePath))
      .extraPositionals("FILE|DIR...", [&](std::string_view value) {
        options.inputs.emplace_back(value);
        return !value.empty();
      });
  };
  ArgParser parser(std::string(kDescription) + kJsonSchema, registration,
                   ArgParser::kBuiltinHelp | ArgParser::kStopAfterHelp);
  std::string parseErrors;
  parser.setWriters([&](std::string_view text) { out << text; }, [&](std::string_view text) { parseErrors += text; });
  const auto refuse = [&](const std::string& text) {
    err << text << (text.ends_with('\n') ? "" : "\n") << "Run with --help for the usage.\n";
    return kExitBadCommandLine;
  };
  if (!parser.parse(argc, argv))
    return refuse(badValue.empty() ? parseErrors : badValue);
  if (parser.helpShown())
    return kExitSuccess;
  if (options.version)
  {
    out << kToolName << ' ' << cstdmf::toolsVersion() << '\n';
    return kExitSuccess;
  }
  if (options.inputs.empty())
    return refuse("ERROR: no input given: name a .geometry or .primitives file, or a folder");

  const bool oneFileOutput = !options.exportPath.empty() || !options.renderPath.empty();
  if (!options.mergePath.empty())
  {
    if (oneFileOutput || options.json || options.validate || options.stats)
      return refuse("ERROR: --merge-reports takes report files, and no other switch but --report-html");
  }
  else if (!options.reportHtmlPath.empty())
  {
    if (options.inputs.size() != 1 || oneFileOutput || options.json || options.validate || options.stats)
      return refuse("ERROR: --report-html takes one report file and no other switch");
  }
  else if ((oneFileOutput || !options.namesPath.empty()) && options.inputs.size() != 1)
    return refuse("ERROR: --export-obj, --render and --names take one input file");
  if ((!options.sourcePath.empty() || options.renderMode != preview::Mode::Shaded) && options.renderPath.empty())
    return refuse("ERROR: --source and --render-mode need --render");
  if (!options.comparePath.empty() && options.reportHtmlPath.empty())
    return refuse("ERROR: --compare needs --report-html");
  // The older report is read, never written: no output may take its place.
  for (const auto& [option, output] : {std::pair<const char*, const std::string&>{"--report-html", options.reportHtmlPath},
                                       {"--merge-reports", options.mergePath}})
    if (!options.comparePath.empty() && samePath(output, options.comparePath))
    {
      err << "ERROR: cannot write " << option << " '" << output << "': it is the report given to --compare\n";
      return kExitBadPath;
    }

  // Paths: every input must exist and every output folder too, before anything is done.
  for (const std::string& input : options.inputs)
  {
    std::error_code code;
    if (!fs::exists(cstdmf::u8path(input), code))
    {
      const std::string reason = code ? code.message() : std::make_error_code(std::errc::no_such_file_or_directory).message();
      err << "ERROR: cannot read '" << input << "': " << reason << '\n';
      return kExitBadPath;
    }
  }
  for (const auto& [option, output] : {std::pair<const char*, const std::string&>{"--export-obj", options.exportPath},
                                       {"--render", options.renderPath},
                                       {"--report-html", options.reportHtmlPath},
                                       {"--merge-reports", options.mergePath}})
    if (!output.empty() && !checkOutputFolder(option, output, err))
      return kExitBadPath;
  for (const std::string* input : {&options.namesPath, &options.sourcePath, &options.comparePath})
  {
    std::error_code code;
    if (!input->empty() && !fs::is_regular_file(cstdmf::u8path(*input), code))
    {
      err << "ERROR: cannot read '" << *input << "': "
          << (code ? code.message() : std::make_error_code(std::errc::no_such_file_or_directory).message()) << '\n';
      return kExitBadPath;
    }
  }

  if (!options.mergePath.empty())
    return runMergeReports(options, out, err);
  if (!options.reportHtmlPath.empty())
    return runReportHtml(options, out, err);
  std::error_code code;
  if (options.inputs.size() == 1 && !fs::is_directory(cstdmf::u8path(options.inputs.front()), code))
    return runOneFile(options, options.inputs.front(), out, err);
  if (oneFileOutput || !options.namesPath.empty())
    return refuse("ERROR: --export-obj, --render and --names take one input file, not a folder");
  return runMany(options, out, err);
}

} // namespace geometry_inspect
