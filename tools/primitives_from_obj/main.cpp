// primitives_from_obj: converts a Wavefront OBJ mesh (optionally gzip-compressed) into a
// .primitives file, or writes a built-in shape.
//
// Exit status: 0 success, 1 bad command line, 2 unreadable or malformed input, 3 output not written.

#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"
#include "primitives_from_obj/procedural_shapes.hpp"

#include "cstdmf/log_sinks.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <fmt/format.h>

#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace
{

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitBadInput = 2;
constexpr int kExitWriteFailed = 3;

constexpr std::string_view kDefaultFormat = "xyznuvtb";

// The thirteen source formats, for messages. The registry is the authority; this list is only
// shown to people.
constexpr std::string_view kFormatNames = "xyznuv xyznuv2 xyznuvtb xyznuv2tb xyznuviiiww xyznuviiiwwtb "
                                          "xyznuv2iiiwwtb xyznuvtbi xyznuv2tbi xyznuvtboi xyznuv2tboi xyznuvr "
                                          "xyznuviiiwwr";

void printUsage(std::FILE* stream)
{
  fmt::print(stream,
             "usage: primitives_from_obj INPUT.obj[.gz] OUTPUT.primitives [--format NAME] [--flip-v]\n"
             "       primitives_from_obj --procedural SHAPE OUTPUT.primitives [--format NAME]\n"
             "\n"
             "Converts a Wavefront OBJ mesh into a .primitives file: one render set per object,\n"
             "group or material, vertices de-duplicated per corner, normals generated where the\n"
             "file has none, tangent frames built for formats that carry them.\n"
             "\n"
             "  --format NAME       source vertex format (default {}): xyznuv xyznuv2\n"
             "                      xyznuvtb xyznuv2tb xyznuviiiww xyznuviiiwwtb xyznuv2iiiwwtb\n"
             "                      xyznuvtbi xyznuv2tbi xyznuvtboi xyznuv2tboi xyznuvr xyznuviiiwwr\n"
             "  --flip-v            store 1 - v as texture coordinate v\n"
             "  --procedural SHAPE  write a built-in shape (cube, sphere, torus) instead of reading\n"
             "  --help              show this text\n"
             "\n"
             "Exit status: 0 success, 1 bad arguments, 2 unreadable or malformed input, 3 write failure.\n",
             kDefaultFormat);
}

struct Arguments
{
  std::string input;
  std::string output;
  std::string format{kDefaultFormat};
  std::optional<std::string> procedural;
  bool flipV = false;
  bool help = false;
};

// Fills `args`; returns false with `error` set on a bad command line.
bool parseArguments(int argc, char** argv, Arguments& args, std::string& error)
{
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i)
  {
    const std::string_view arg = argv[i];
    // "--option VALUE" or "--option=VALUE".
    const auto is = [&](std::string_view option) {
      return arg.substr(0, option.size()) == option && (arg.size() == option.size() || arg[option.size()] == '=');
    };
    const auto value = [&](std::string_view option, std::string& out) {
      if (arg.size() > option.size())
        out = std::string(arg.substr(option.size() + 1));
      else if (i + 1 < argc)
        out = argv[++i];
      else
        return false;
      return !out.empty();
    };
    if (arg == "--help" || arg == "-h")
      args.help = true;
    else if (arg == "--flip-v")
      args.flipV = true;
    else if (is("--format"))
    {
      if (!value("--format", args.format))
      {
        error = "--format needs a format name";
        return false;
      }
    }
    else if (is("--procedural"))
    {
      std::string shape;
      if (!value("--procedural", shape))
      {
        error = "--procedural needs a shape name";
        return false;
      }
      args.procedural = shape;
    }
    else if (arg.size() > 1 && arg[0] == '-')
    {
      error = fmt::format("unknown option '{}'", arg);
      return false;
    }
    else if (arg.empty())
    {
      error = "empty path argument";
      return false;
    }
    else
      positional.emplace_back(arg);
  }
  if (args.help)
    return true;
  const size_t expected = args.procedural ? 1 : 2;
  if (positional.size() != expected)
  {
    error = args.procedural ? "expected one output path after --procedural SHAPE" : "expected an input and an output path";
    return false;
  }
  if (args.procedural)
    args.output = positional[0];
  else
  {
    args.input = positional[0];
    args.output = positional[1];
  }
  return true;
}

// Keeps the format registry alive for the run.
struct FormatRegistry
{
  FormatRegistry() { Moo::PrimitiveVertexFormat::init(0); }
  ~FormatRegistry() { Moo::PrimitiveVertexFormat::fini(); }
  FormatRegistry(const FormatRegistry&) = delete;
  FormatRegistry& operator=(const FormatRegistry&) = delete;
};

int fail(int status, std::string_view message)
{
  fmt::print(stderr, "primitives_from_obj: {}\n", message);
  return status;
}

int run(int argc, char** argv)
{
  Arguments args;
  std::string error;
  if (!parseArguments(argc, argv, args, error))
  {
    fmt::print(stderr, "primitives_from_obj: {}\n", error);
    printUsage(stderr);
    return kExitUsage;
  }
  if (args.help)
  {
    printUsage(stdout);
    return kExitOk;
  }

  // Assertions and library warnings reach the console as in the main tool.
  cstdmf::setupConsoleLogging(1);
  FormatRegistry registry;
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(args.format);
  if (format == nullptr)
    return fail(kExitUsage, fmt::format("unknown vertex format '{}'; known formats: {}", args.format, kFormatNames));

  objimport::ObjMesh mesh;
  if (args.procedural)
  {
    if (!objimport::makeProceduralMesh(*args.procedural, mesh))
      return fail(kExitUsage, fmt::format("unknown shape '{}' (cube, sphere or torus)", *args.procedural));
  }
  else if (!objimport::loadObj(args.input, mesh, error))
    return fail(kExitBadInput, error);

  objimport::BuildOptions options;
  options.tangentFrames = objimport::needsTangentFrames(*format);
  options.flipV = args.flipV;
  const std::vector<objimport::RenderSet> sets = objimport::buildRenderSets(mesh, options);

  BinaryPtr container = objimport::encodePrimitives(sets, *format, error);
  if (!container)
    return fail(kExitBadInput, fmt::format("{}: {}", args.procedural ? *args.procedural : args.input, error));
  if (!objimport::writeFileReplacing(args.output, container->data(), container->len(), error))
    return fail(kExitWriteFailed, error);

  size_t vertices = 0, triangles = 0;
  for (const objimport::RenderSet& set : sets)
  {
    vertices += set.vertexCount();
    triangles += set.indices.size() / 3;
  }
  fmt::print("{}: {} set{}, {} vertices, {} triangles, format {}, {} bytes\n", args.output, sets.size(),
             sets.size() == 1 ? "" : "s", vertices, triangles, format->formatName, container->len());
  return kExitOk;
}

} // namespace

int main(int argc, char** argv)
{
  // Nothing in the import throws on bad input; this only keeps an allocation failure from
  // escaping as an unexplained abort.
  try
  {
    return run(argc, argv);
  }
  catch (const std::bad_alloc&)
  {
    return fail(kExitBadInput, "out of memory");
  }
}
