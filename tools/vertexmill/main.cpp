// vertexmill: converts .primitives models into packed .geometry files, one file or a whole tree.
//
// Exit status: 0 every model converted, 1 bad command line, 2 a path check failed, 3 a model failed
// to convert, 4 a file-system error (unreadable directory, symbolic-link loop, ...) ended the run
// abnormally; -1 (255) when an assertion or critical error ended the process.

#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"
#include "fw/arg_parser.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "resmgr/zrresource.hpp"

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#ifndef VERTEXMILL_VERSION
#define VERTEXMILL_VERSION "unknown"
#endif

namespace
{
namespace fs = std::filesystem;

constexpr const char* kToolName = "vertexmill";

constexpr const char* kDescription =
  "Convert primitives file(s) to single geometry file or all primitives found recursively to respective geometry "
  "files in tree mode.\n"
  "Main primitive file should be named as 'MODEL_NAME.primitives'\n"
  "without '_lod' or '_Full' in it's MODEL_NAME.\n"
  "All additional geometry files must be placed in 'lods' directory near main file and named as "
  "MODEL_NAME_Full.geometry or MODEL_NAME_lod<n>.geometry (where <n> is number of lod).";

constexpr std::string_view kPrimitivesExtension = ".primitives";
constexpr std::string_view kGeometryExtension = ".geometry";

enum ExitStatus : int
{
  kExitSuccess = 0,
  kExitBadCommandLine = 1,
  kExitBadPath = 2,
  kExitConversionFailed = 3,
  kExitFilesystemError = 4,
};

// Companion files beside a model, tried in this order, and where each goes in the request.
struct Companion
{
  std::string_view extension;
  std::string GeometryCompiler::Request::*slot;
};
constexpr std::array<Companion, 3> kCompanions = {{
  {".collision", &GeometryCompiler::Request::collisionPath},
  {".armor", &GeometryCompiler::Request::armorPath},
  {".armorvisual", &GeometryCompiler::Request::armorVisualPath},
}};

// Paths are held as std::filesystem::path (wide on Windows) and cross into text as UTF-8 only.
// Going through char8_t keeps the conversion independent of the process locale.
fs::path pathFromUtf8(std::string_view text)
{
  return fs::path(std::u8string(text.begin(), text.end()));
}

std::string pathToUtf8(const fs::path& path)
{
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

struct Args
{
  bool tree = false;
  fs::path srcPath;
  fs::path dstPath;
  int32_t verbosity = 1; // 0 quiet, 1 warnings and errors, 2 also the used-files list
  bool showVersion = false;
  bool helpShown = false;

  // Fills the fields from the command line (UTF-8). Returns false when the parser refused it,
  // after it wrote an "ERROR: " line to standard error.
  [[nodiscard]] bool parse(int argc, const char* const* argv);
};

bool Args::parse(int argc, const char* const* argv)
{
  using FW::ArgParser;
  const auto registration = [this](ArgParser::Builder& builder) {
    builder
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "quiet",
        .shortName = 'q',
        .description = "don't produce output",
        .callback = [this](std::string_view) {
          verbosity = 0;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "verbose",
        .description = "print used files list",
        .callback = [this](std::string_view) {
          verbosity = 2;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "tree",
        .description = "process all files found recursive ( enable tree mode )",
        .callback = [this](std::string_view) {
          tree = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "src-path",
        .description = "path to main primitives file in default modeor directory to search this files in tree mode",
        .flags = ArgParser::kOptionalPositional,
        .positionalName = "src-path",
        .valueName = "path",
        .callback = [this](std::string_view value) {
          srcPath = pathFromUtf8(value);
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "dst-path",
        .description = "path to destination directory",
        .flags = ArgParser::kOptionalPositional,
        .positionalName = "dst-path",
        .valueName = "path",
        .callback = [this](std::string_view value) {
          dstPath = pathFromUtf8(value);
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "version",
        .description = "print the tool's name and version",
        .callback = [this](std::string_view) {
          showVersion = true;
          return true;
        },
      });
  };
  ArgParser parser(kDescription, registration, ArgParser::kBuiltinHelp | ArgParser::kStopAfterHelp);
  const bool parsed = parser.parse(argc, argv);
  helpShown = parser.helpShown();
  return parsed;
}

// What process() works on; everything else about the run is in the registries set up at start.
struct RunRequest
{
  fs::path srcPath;
  fs::path dstPath;
  bool tree = false;
  int32_t verbosity = 1;
};

[[nodiscard]] bool requirePathExists(const fs::path& path, fs::file_status status, std::string_view kind)
{
  if (status.type() == fs::file_type::not_found)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "{} {} not found\n", kind, pathToUtf8(path));
    return false;
  }
  return true;
}

[[nodiscard]] bool requireFileExists(const fs::path& path, fs::file_status status)
{
  // The blanks inside the parentheses are part of the assertion's message text.
  ZR_ASSERT(fs::status_known( status ));
  if (!requirePathExists(path, status, "file"))
    return false;
  if (!fs::is_regular_file(status))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is not a file\n", pathToUtf8(path));
    return false;
  }
  return true;
}

[[nodiscard]] bool requireDirectoryExists(const fs::path& path, fs::file_status status)
{
  ZR_ASSERT(fs::status_known( status ));
  if (!requirePathExists(path, status, "directory"))
    return false;
  if (!fs::is_directory(status))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is not a directory\n", pathToUtf8(path));
    return false;
  }
  return true;
}

// Case-sensitive on every platform: model.PRIMITIVES is not a model.
[[nodiscard]] bool requireExtension(const fs::path& path, std::string_view extension)
{
  if (path.extension() != pathFromUtf8(extension))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "wrong {} extension ( must be {} )\n", pathToUtf8(path), extension);
    return false;
  }
  return true;
}

// The name of the directory `path` denotes, also for ".", ".." and a trailing separator
// ("." run from /art/ships gives "ships"). Empty for a root directory.
std::string getDirectoryName(const fs::path& path)
{
  ZR_ASSERT(!path.empty());
  std::error_code error;
  fs::path absolute = fs::absolute(path, error);
  if (error)
    absolute = path;
  absolute = absolute.lexically_normal();
  fs::path name = absolute.filename();
  if (name.empty())
    name = absolute.parent_path().filename();
  return pathToUtf8(name);
}

// Converts one model. Touches nothing shared but the read-only registries and the logger, so it
// may run for several models at once.
[[nodiscard]] bool processModel(const fs::path& source, const fs::path& output)
{
  GeometryCompiler::Request request;
  request.primitivesPath = pathToUtf8(source);
  request.modelName = pathToUtf8(source.stem());

  const fs::path directory = source.parent_path();
  for (const Companion& companion : kCompanions)
  {
    const fs::path candidate = directory / pathFromUtf8(request.modelName + std::string(companion.extension));
    std::error_code error;
    if (fs::exists(fs::status(candidate, error)))
      request.*companion.slot = pathToUtf8(candidate);
  }

  ZR_MSG_FMT(DebugMessagePriority::Info, "", "{}\n", request.primitivesPath);
  const std::string outputText = pathToUtf8(output);
  ZR_MSG_FMT(DebugMessagePriority::Info, "", "==> {}\n", outputText);

  const fs::path outputDirectory = output.parent_path();
  if (!outputDirectory.empty())
  {
    std::error_code error;
    fs::create_directories(outputDirectory, error);
    if (error)
    {
      ZR_MSG_FMT(DebugMessagePriority::Error, "", "failed to create path {}: {}", pathToUtf8(outputDirectory),
                 error.message());
      return false;
    }
  }

  GeometryCompiler compiler;
  return compiler.compile(request, outputText, true, true, true);
}

fs::path geometryPathFor(const fs::path& outputDirectory, const fs::path& relativeSource)
{
  fs::path output = outputDirectory / relativeSource;
  output.replace_extension(pathFromUtf8(kGeometryExtension));
  return output;
}

int processSingle(const fs::path& src, const fs::path& dst)
{
  if (!requireExtension(src, kPrimitivesExtension))
    return kExitBadPath;
  if (!requireFileExists(src, fs::status(src)))
    return kExitBadPath;
  return processModel(src, geometryPathFor(dst, src.filename())) ? kExitSuccess : kExitConversionFailed;
}

int processTree(const fs::path& src, const fs::path& dst)
{
  if (!requireDirectoryExists(src, fs::status(src)))
    return kExitBadPath;
  if (fs::is_regular_file(fs::status(dst)))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is existed file (must be directory to place result)",
               pathToUtf8(dst));
    return kExitBadPath;
  }

  const fs::path outputRoot = dst / pathFromUtf8(getDirectoryName(src));
  const fs::path primitivesExtension = pathFromUtf8(kPrimitivesExtension);
  uint64_t count = 0;
  // Errors of the walk itself throw; they end the run (see vertexmillMain).
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(src))
  {
    if (!fs::is_regular_file(entry.status()) || entry.path().extension() != primitivesExtension)
      continue;
    ++count;
    fs::path relative = entry.path().lexically_relative(src);
    if (relative.empty())
      relative = entry.path().filename();
    if (!processModel(entry.path(), geometryPathFor(outputRoot, relative)))
      return kExitConversionFailed;
  }
  ZR_MSG_FMT(DebugMessagePriority::Info, "", "Success: {} files generated\n", count);
  return kExitSuccess;
}

// Runs default or tree mode and returns the exit status. May throw std::filesystem::filesystem_error
// for file-system faults other than a missing path.
int process(const RunRequest& request)
{
  const fs::path src = request.srcPath;
  const fs::path dst = request.dstPath;
  for (const fs::path* path : {&src, &dst})
  {
    std::error_code error;
    (void)fs::status(*path, error);
    if (error)
    {
      ZR_MSG_FMT(DebugMessagePriority::Error, "", "bad argument: {}\n", error.message());
      return kExitBadPath;
    }
  }
  return request.tree ? processTree(src, dst) : processSingle(src, dst);
}

// The tool from a UTF-8 command line. The Windows entry point converts its wide arguments and
// comes here too.
int vertexmillMain(int argc, const char* const* argv)
{
  Args args;
  if (!args.parse(argc, argv))
    return kExitBadCommandLine;
  if (args.helpShown)
    return kExitSuccess;
  if (args.showVersion)
  {
    std::printf("%s %s\n", kToolName, VERTEXMILL_VERSION);
    return kExitSuccess;
  }
  if (args.srcPath.empty() || args.dstPath.empty())
  {
    // Straight to the stream: logging is not set up yet, and this shows even with --quiet.
    std::fputs("ERROR: empty arguments not allowed ( use . as current directory )\n", stderr);
    return kExitBadCommandLine;
  }

  cstdmf::setupConsoleLogging(args.verbosity);
  (void)ZRResource::init(std::vector<std::string>{});
  Moo::PrimitiveVertexFormat::init(0);

  RunRequest request{std::move(args.srcPath), std::move(args.dstPath), args.tree, args.verbosity};
  int status = kExitSuccess;
  try
  {
    status = process(request);
  }
  catch (const std::exception& error)
  {
    // The one exception boundary of the tool: the file-system library reports faults of a
    // directory walk and of status queries by throwing. The run ends abnormally, with the
    // reason on standard error whatever the verbosity.
    std::fflush(stdout);
    std::fprintf(stderr, "CRITICAL: %s\n", error.what());
    std::fflush(stderr);
    status = kExitFilesystemError;
  }

  Moo::PrimitiveVertexFormat::fini();
  ZRResource::fini();
  return status;
}
} // namespace

int main(int argc, char** argv)
{
  return vertexmillMain(argc, argv);
}
