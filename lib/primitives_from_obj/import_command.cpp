#include "primitives_from_obj/import_command.hpp"

#include "fw/bounded_number.hpp"
#include "primitives_from_obj/import_worker.hpp"
#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"
#include "primitives_from_obj/procedural_shapes.hpp"
#include "primitives_from_obj/scene_reader.hpp"

#include "cstdmf/exit_status.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/version.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "resmgr/file_io.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace objimport
{
namespace
{

using enum cstdmf::ExitStatus;

constexpr std::string_view kObjFormat = "xyznuvtb";
constexpr unsigned kDefaultTimeLimit = 120;

// The thirteen source formats, for messages. The registry is the authority; this list is only
// shown to people.
constexpr std::string_view kFormatNames = "xyznuv xyznuv2 xyznuvtb xyznuv2tb xyznuviiiww xyznuviiiwwtb "
                                          "xyznuv2iiiwwtb xyznuvtbi xyznuv2tbi xyznuvtboi xyznuv2tboi xyznuvr "
                                          "xyznuviiiwwr";

void printUsage(std::FILE* stream, std::string_view toolName)
{
  fmt::print(stream,
             "usage: {0} INPUT OUTPUT.primitives [--format NAME] [--flip-v] [--time-limit SECONDS]\n"
             "                         [--memory-limit MIB]\n"
             "       {0} --procedural SHAPE OUTPUT.primitives [--format NAME]\n"
             "\n"
             "Converts a mesh file into a .primitives file. Wavefront OBJ (.obj, .obj.gz): one render set\n"
             "per object, group or material. glTF, FBX, Collada, PLY, STL, 3DS, X and the other formats of\n"
             "the import library: one render set per mesh as a node places it, named <node>_<mesh>; rigid\n"
             "meshes moved by their node transforms, skinned meshes kept in bind space with their three\n"
             "strongest bone influences. Normals are generated where the file has none, tangent frames\n"
             "built for formats that carry them; 32-bit indices only for sets over 65536 vertices.\n"
             "\n"
             "  --format NAME        source vertex format: xyznuv xyznuv2 xyznuvtb xyznuv2tb xyznuviiiww\n"
             "                       xyznuviiiwwtb xyznuv2iiiwwtb xyznuvtbi xyznuv2tbi xyznuvtboi\n"
             "                       xyznuv2tboi xyznuvr xyznuviiiwwr (default: by content, xyznuvtb;\n"
             "                       xyznuv2tb with two texture coordinates; xyznuviiiwwtb or\n"
             "                       xyznuv2iiiwwtb when skinned)\n"
             "  --flip-v             store 1 - v as texture coordinate v\n"
             "  --time-limit SECONDS stop reading a non-OBJ file after this long (default {1}; 0: none)\n"
             "  --memory-limit MIB   memory that reading a non-OBJ file may use (default {2}; 0: none)\n"
             "  --procedural SHAPE   write a built-in shape (cube, sphere, torus) instead of reading\n"
             "  -h, --help           show this text\n"
             "  -V, --version        show the tool's name and version\n"
             "\n"
             "Exit status: 0 success, 1 bad arguments, 2 a path cannot be used (nothing done),\n"
             "3 the import failed or the output could not be written.\n",
             toolName, kDefaultTimeLimit,
             platform::kDefaultChildMemoryBytes == 0 ? std::string("none") : std::to_string(platform::kDefaultChildMemoryBytes >> 20));
}

struct Arguments
{
  std::string input;
  std::string output;
  std::string format; // empty: by content
  std::optional<std::string> procedural;
  unsigned timeLimit = kDefaultTimeLimit;
  unsigned long long memoryLimitMiB = platform::kDefaultChildMemoryBytes >> 20;
  bool flipV = false;
  bool help = false;
  bool version = false;
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
    else if (arg == "--version" || arg == "-V")
      args.version = true;
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
    else if (is("--time-limit"))
    {
      std::string text;
      const bool given = value("--time-limit", text);
      const std::optional<uint64_t> seconds = FW::parseBoundedNumber(text, 0, 86400);
      if (!given || !seconds)
      {
        error = fmt::format("invalid value '{}' for --time-limit: expected a whole number of seconds from 0 to 86400",
                            text);
        return false;
      }
      args.timeLimit = static_cast<unsigned>(*seconds);
    }
    else if (is("--memory-limit"))
    {
      std::string text;
      const bool given = value("--memory-limit", text);
      const std::optional<uint64_t> mebibytes = FW::parseBoundedNumber(text, 0, 1u << 20);
      if (!given || !mebibytes)
      {
        error = fmt::format("invalid value '{}' for --memory-limit: expected a whole number of MiB from 0 to 1048576",
                            text);
        return false;
      }
      args.memoryLimitMiB = *mebibytes;
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
  if (args.help || args.version)
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
  fmt::print(stderr, "ERROR: {}\n", message);
  return status;
}

// Whether the output can be written, checked before any reading: its directory exists and a
// file can be created in it (a temporary file like the write's, made and removed again; an
// existing file is never touched).
bool outputIsWritable(const std::string& output, std::string& error)
{
  std::error_code ec;
  const std::filesystem::path path = cstdmf::u8path(output);
  if (std::filesystem::is_directory(path, ec))
  {
    error = fmt::format("cannot write '{}': Is a directory", output);
    return false;
  }
  if (const std::string problem = fileio::creationProblem(output); !problem.empty())
  {
    error = fmt::format("cannot write '{}': {}", output, problem);
    return false;
  }
  return true;
}

bool inputIsReadable(const std::string& input, std::string& error)
{
  std::error_code ec;
  if (std::filesystem::is_directory(cstdmf::u8path(input), ec))
  {
    error = fmt::format("cannot read '{}': Is a directory", input);
    return false;
  }
  std::FILE* file = platform::openFile(input, "rb");
  if (file == nullptr)
  {
    error = fmt::format("cannot read '{}': {}", input, std::strerror(errno));
    return false;
  }
  std::fclose(file);
  return true;
}

int run(int argc, char** argv, std::string_view toolName)
{
  if (argc > 1 && std::string_view(argv[1]) == objimport::kWorkerOption)
  {
    // The worker ends at once: the library's state is not worth tearing down (and some of its
    // readers leave memory behind that a leak checker would report as a failure of the run).
    int status = 3;
    try
    {
      status = objimport::runImportWorker(argc, argv);
    }
    catch (const std::bad_alloc&)
    {
      // Past the memory bound the parent set: named, so that the parent can say which bound.
      std::fprintf(stderr, "ERROR: %s: out of memory\n", argc > 2 ? argv[2] : "");
    }
    std::fflush(stdout);
    std::fflush(stderr);
    platform::exitProcess(status);
  }

  Arguments args;
  std::string error;
  if (!parseArguments(argc, argv, args, error))
  {
    fmt::print(stderr, "ERROR: {}\n", error);
    printUsage(stderr, toolName);
    return kExitBadCommandLine;
  }
  if (args.help)
  {
    printUsage(stdout, toolName);
    return kExitSuccess;
  }
  if (args.version)
  {
    fmt::print("{} {}\n", toolName, cstdmf::toolsVersion());
    return kExitSuccess;
  }

  // Assertions and library warnings reach the console as in the main tool.
  cstdmf::setupConsoleLogging(1);
  FormatRegistry registry;
  if (!args.format.empty() && Moo::PrimitiveVertexFormat::findByFormatName(args.format) == nullptr)
    return fail(kExitBadCommandLine, fmt::format("unknown vertex format '{}'; known formats: {}", args.format, kFormatNames));

  objimport::ObjMesh mesh;
  if (args.procedural && !objimport::makeProceduralMesh(*args.procedural, mesh))
    return fail(kExitBadCommandLine, fmt::format("unknown shape '{}' (cube, sphere or torus)", *args.procedural));
  if (!outputIsWritable(args.output, error))
    return fail(kExitBadPath, error);
  if (!args.procedural && !inputIsReadable(args.input, error))
    return fail(kExitBadPath, error);

  BinaryPtr container;
  std::string formatName;
  std::string readAs; // for scene files: the library's reader, and whether the scene is skinned
  size_t setCount = 0, vertices = 0, triangles = 0;
  if (args.procedural || objimport::isObjPath(args.input))
  {
    if (!args.procedural && !objimport::loadObj(args.input, mesh, error))
      return fail(kExitFailed, error);
    formatName = args.format.empty() ? std::string(kObjFormat) : args.format;
    const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(formatName);
    objimport::BuildOptions options;
    options.tangentFrames = objimport::needsTangentFrames(*format);
    options.flipV = args.flipV;
    const std::vector<objimport::RenderSet> sets = objimport::buildRenderSets(mesh, options);
    container = objimport::encodePrimitives(sets, *format, error);
    if (!container)
      return fail(kExitFailed, fmt::format("{}: {}", args.procedural ? *args.procedural : args.input, error));
    setCount = sets.size();
    for (const objimport::RenderSet& set : sets)
    {
      vertices += set.vertexCount();
      triangles += set.indices.size() / 3;
    }
  }
  else
  {
    const std::string self = platform::executablePath();
    if (self.empty())
      return fail(kExitFailed, fmt::format("{}: cannot find this program's own path to start the import", args.input));
    objimport::WorkerSummary summary;
    container = objimport::importInChild(self, {args.input, args.format, args.flipV, args.timeLimit, args.memoryLimitMiB << 20}, summary, error);
    if (!container)
    {
      fmt::print(stderr, "{}\n", error);
      return kExitFailed;
    }
    formatName = summary.formatName;
    readAs = fmt::format(" ({}{})", summary.formatRead, summary.skinned ? ", skinned" : "");
    setCount = summary.sets;
    vertices = summary.vertices;
    triangles = summary.triangles;
  }
  if (!objimport::writeFileReplacing(args.output, container->data(), container->len(), error))
    return fail(kExitFailed, error);

  fmt::print("{}: {} set{}, {} vertices, {} triangles, format {}, {} bytes{}\n", args.output, setCount,
             setCount == 1 ? "" : "s", vertices, triangles, formatName, container->len(), readAs);
  return kExitSuccess;
}

} // namespace

int runImport(int argc, char** argv, std::string_view toolName)
{
  // Nothing in the import throws on bad input; this only keeps an allocation failure from
  // escaping as an unexplained abort.
  try
  {
    return run(argc, argv, toolName);
  }
  catch (const std::bad_alloc&)
  {
    return fail(kExitFailed, "out of memory");
  }
}

} // namespace objimport
