#include "geometry_inspect/inspect_command.hpp"

#include "cstdmf/path_utils.hpp"
#include "fw/arg_parser.hpp"
#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/inspect_report.hpp"
#include "geometry_inspect/obj_export.hpp"
#include "geometry_inspect/primitives_listing.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace GeometryInspect
{
namespace
{

constexpr const char* kDescription =
  "Shows what a compiled .geometry file holds, as the runtime will load it, or lists the sections\n"
  "of a .primitives file.\n"
  "\n"
  "  geometry_inspect FILE                       summary: buffers, mappings, collision and armor models\n"
  "  geometry_inspect --json FILE                the same as JSON\n"
  "  geometry_inspect --validate FILE            decode everything and check it\n"
  "  geometry_inspect --stats FILE               ACMR, ATVR, overdraw and overfetch per render set\n"
  "  geometry_inspect --export-obj OUT.obj FILE  render sets as a Wavefront OBJ\n"
  "\n"
  "Mapping ids are string ids of section names and cannot be turned back into names; render sets\n"
  "are the i-th vertex mapping with the i-th index mapping (the compiler's order). List the\n"
  ".primitives file to see the id of each section.\n"
  "\n"
  "Exit status: 0 the file is sound (warnings allowed), 1 it cannot be read or is not sound or the\n"
  "export failed, 2 bad arguments.\n"
  "\n";

struct Options
{
  bool json = false;
  bool validate = false;
  bool stats = false;
  std::string exportPath;
  std::string file;
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

int runPrimitives(const Options& options, const ConstBinaryPtr& block, std::ostream& out, std::ostream& err)
{
  PrimitivesListing listing;
  if (listing.load(block, options.file) && options.validate)
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
      out << verdict(options.file, listing.issues());
  }
  return listing.issues().hasErrors() ? kExitUnsound : kExitSound;
}

int runGeometry(const Options& options, const ConstBinaryPtr& block, std::ostream& out, std::ostream& err)
{
  GeometryInspection inspection;
  const bool loaded = inspection.load(block, options.file);
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
    printDocument(out, document);
  }
  else
  {
    const bool summary = !options.validate && !options.stats && options.exportPath.empty();
    if (loaded && summary)
      writeGeometrySummary(out, inspection);
    if (loaded && options.stats)
      writeRenderSetStats(out, inspection);
    if (exported)
      out << fmt::format("{}: {} render sets, {} vertices, {} triangles\n", options.exportPath, counts.objects,
                         counts.vertices, counts.triangles);
    if (options.validate)
      out << verdict(options.file, inspection.issues());
  }
  return inspection.issues().hasErrors() ? kExitUnsound : kExitSound;
}

} // namespace

int runInspect(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
  Options options;
  using FW::ArgParser;
  const auto flag = [](const char* name, const char* description, bool& target) {
    return ArgParser::Option{
      .kind = ArgParser::Kind::Flag,
      .longName = name,
      .description = description,
      .callback = [&target](std::string_view) {
        target = true;
        return true;
      },
    };
  };
  const auto registration = [&](ArgParser::Builder& builder) {
    builder.add(flag("json", "print the report as JSON", options.json))
      .add(flag("validate", "decode every buffer and check the file; the exit status says whether it is sound",
                options.validate))
      .add(flag("stats", "print meshoptimizer statistics per render set", options.stats))
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "export-obj",
        .description = "write the render sets to a Wavefront OBJ file",
        .valueName = "OUT.obj",
        .callback = [&](std::string_view value) {
          options.exportPath = std::string(value);
          return !value.empty();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "file",
        .description = "the .geometry or .primitives file to inspect",
        .positionalName = "FILE",
        .valueName = "path",
        .callback = [&](std::string_view value) {
          options.file = std::string(value);
          return !value.empty();
        },
      });
  };
  ArgParser parser(std::string(kDescription) + kJsonSchema, registration,
                   ArgParser::kBuiltinHelp | ArgParser::kStopAfterHelp);
  std::string parseErrors;
  parser.setWriters([&](std::string_view text) { out << text; }, [&](std::string_view text) { parseErrors += text; });
  if (!parser.parse(argc, argv))
  {
    if (!parseErrors.empty() && parseErrors.back() != '\n')
      parseErrors += '\n';
    err << parseErrors << "Run with --help for the usage.\n";
    return kExitBadArguments;
  }
  if (parser.helpShown())
    return kExitSound;

  BinaryPtr block;
  std::string error;
  if (!readWholeFile(options.file, block, error))
  {
    err << "ERROR: " << options.file << ": " << error << '\n';
    return kExitUnsound;
  }
  if (detectKind(options.file, block) == FileKind::Primitives)
  {
    if (options.stats || !options.exportPath.empty())
    {
      err << "ERROR: --stats and --export-obj need a .geometry file; " << options.file
          << " is a .primitives container\n";
      return kExitBadArguments;
    }
    return runPrimitives(options, block, out, err);
  }
  return runGeometry(options, block, out, err);
}

} // namespace GeometryInspect
