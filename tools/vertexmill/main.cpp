// vertexmill: converts .primitives models into packed .geometry files, one file or a whole tree.
//
// Exit status: 0 every model converted, 1 bad command line, 2 a path check failed, 3 a model failed
// to convert, 4 a file-system error (unreadable directory, symbolic-link loop, ...) ended the run
// abnormally; -1 (255) when an assertion or critical error ended the process.

#include "content_cache/sha256.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/version.hpp"
#include "fw/arg_parser.hpp"
#include "fw/bounded_number.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "resmgr/file_io.hpp"
#include "resmgr/zrresource.hpp"
#include "vertexmill/cache_options.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/critical_handler.hpp"
#include "vertexmill/depfile.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/exit_status.hpp"
#include "vertexmill/model_cache.hpp"
#include "vertexmill/model_job.hpp"
#include "vertexmill/model_worker.hpp"
#include "vertexmill/report.hpp"
#include "vertexmill/report_html.hpp"
#include "vertexmill/shard.hpp"
#include "vertexmill/stdout_free.hpp"
#include "vertexmill/tree_run.hpp"
#include "vertexmill/tree_walk.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace
{
namespace fs = std::filesystem;
using namespace vertexmill;

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

// More jobs than this is a typing error rather than a machine.
constexpr unsigned kMaxJobs = 1024;

// "--jobs" takes a decimal count, 0 meaning one job per hardware thread.
[[nodiscard]] std::optional<unsigned> parseJobs(std::string_view text)
{
  const std::optional<uint64_t> value = FW::parseBoundedNumber(text, 0, kMaxJobs);
  return value ? std::optional<unsigned>(static_cast<unsigned>(*value)) : std::nullopt;
}

struct Args
{
  bool tree = false;
  fs::path srcPath;
  fs::path dstPath;
  int32_t verbosity = 1; // 0 quiet, 1 warnings and errors, 2 also the used-files list
  unsigned jobs = 1;     // 0: one per hardware thread
  bool keepGoing = false;
  unsigned modelTimeout = 0; // seconds; 0: the default limit
  std::optional<unsigned long long> modelMemory; // bytes, 0: none; unset: the default limit
  bool incremental = false;
  bool strict = false;
  std::string reportPath; // UTF-8; empty: no report
  bool stats = false;
  bool progress = true; // the progress line, where standard error is a terminal
  std::string reportHtmlPath; // UTF-8; empty: no report page
  bool reportOverdraw = false;
  bool showVersion = false;
  bool helpShown = false;
  CacheOptions cache;
  std::optional<Shard> shard;
  std::string depfilePath; // UTF-8; empty: none

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
        .shortName = 'v',
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
          srcPath = cstdmf::u8path(value);
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
          dstPath = cstdmf::u8path(value);
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "jobs",
        .shortName = 'j',
        .description = "convert N models at once, and use N threads within a model (0: one per hardware thread)",
        .valueName = "N",
        .expected = "a whole number from 0 to " + std::to_string(kMaxJobs),
        .callback = [this](std::string_view value) {
          const std::optional<unsigned> parsed = parseJobs(value);
          if (parsed)
            jobs = *parsed;
          return parsed.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "keep-going",
        .description = "in tree mode convert every model even after failures, then list the failed ones",
        .callback = [this](std::string_view) {
          keepGoing = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "time-limit",
        .description = "with --keep-going, a model still converting after S seconds fails (default 600)",
        .valueName = "S",
        .expected = "a whole number of seconds from 1 to 86400",
        .callback = [this](std::string_view value) {
          const std::optional<uint64_t> parsed = FW::parseBoundedNumber(value, 1, 86400);
          if (parsed)
            modelTimeout = static_cast<unsigned>(*parsed);
          return parsed.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "memory-limit",
        .description = "with --keep-going, the memory a model's conversion may use, in MiB (default 4096; 0: none)",
        .valueName = "MIB",
        .expected = "a whole number of MiB from 0 to 1048576",
        .callback = [this](std::string_view value) {
          const std::optional<uint64_t> parsed = FW::parseBoundedNumber(value, 0, 1u << 20);
          if (parsed)
            modelMemory = *parsed << 20;
          return parsed.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "incremental",
        .description = "skip models whose .geometry file is newer than their sources and the tool",
        .callback = [this](std::string_view) {
          incremental = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "strict",
        .description = "a model whose conversion logs any error fails: no file is written for it",
        .callback = [this](std::string_view) {
          strict = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "report",
        .description = "write statistics of every model as one JSON document to FILE",
        .valueName = "FILE",
        .expected = "a file name, or - for standard output",
        .callback = [this](std::string_view value) {
          reportPath = std::string(value);
          return !value.empty();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "cache",
        .description = "keep converted models in the cache folder DIR and take them from it when their inputs "
                       "are the same (default: $VERTEXMILL_CACHE)",
        .valueName = "DIR",
        .callback = [this](std::string_view value) {
          cache.directory = std::string(value);
          return !value.empty();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "cache-url",
        .description = "share converted models through the HTTP cache server at URL (<URL>/ac/, <URL>/cas/; "
                       "default: $VERTEXMILL_CACHE_URL)",
        .valueName = "URL",
        .callback = [this](std::string_view value) {
          cache.url = std::string(value);
          return !value.empty();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "cache-max-size",
        .description = "after the run, remove the least recently used entries of the cache folder until it "
                       "holds at most SIZE bytes (K, M, G, T suffixes; default: $VERTEXMILL_CACHE_MAX_SIZE, "
                       "else no bound)",
        .valueName = "SIZE",
        .expected = "a number of bytes, with an optional K, M, G or T suffix",
        .callback = [this](std::string_view value) {
          cache.maxSize = parseCacheSize(value);
          return cache.maxSize.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "cache-timeout",
        .description = "give up on a cache server request after SECONDS (default 10)",
        .valueName = "SECONDS",
        .expected = "a whole number of seconds from 1 to 600",
        .callback = [this](std::string_view value) {
          const std::optional<long> parsed = parseCacheTimeout(value);
          if (parsed)
            cache.timeoutSeconds = *parsed;
          return parsed.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "no-cache",
        .description = "use no cache, whatever the environment says",
        .callback = [this](std::string_view) {
          cache.off = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "shard",
        .description = "in tree mode convert only the models of shard K of N (1 <= K <= N), chosen by their "
                       "relative paths",
        .valueName = "K/N",
        .expected = "K/N with 1 <= K <= N <= 65536",
        .callback = [this](std::string_view value) {
          shard = parseShard(value);
          return shard.has_value();
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "depfile",
        .description = "in default mode also write FILE, a Makefile-syntax list of the files the model was made "
                       "from, for Ninja and Make",
        .valueName = "FILE",
        .expected = "a file name (standard output is not one)",
        .callback = [this](std::string_view value) {
          depfilePath = std::string(value);
          return !value.empty() && value != "-";
        },
      })
      .add({
        .kind = ArgParser::Kind::Value,
        .longName = "report-html",
        .description = "write the report as one self-contained HTML page, with previews, to FILE",
        .valueName = "FILE",
        .expected = "a file name (standard output is not one)",
        .callback = [this](std::string_view value) {
          reportHtmlPath = std::string(value);
          return !value.empty() && value != "-";
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "report-overdraw",
        .description = "with --report or --report-html, also measure the overdraw of every render set (costly: "
                       "about a third of the optimisation again)",
        .callback = [this](std::string_view) {
          reportOverdraw = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "stats",
        .description = "print one line of figures per model on standard output",
        .callback = [this](std::string_view) {
          stats = true;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "no-progress",
        .description = "do not show the progress line on a terminal",
        .callback = [this](std::string_view) {
          progress = false;
          return true;
        },
      })
      .add({
        .kind = ArgParser::Kind::Flag,
        .longName = "version",
        .shortName = 'V',
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
  unsigned jobs = 1; // already resolved: at least 1
  bool keepGoing = false;
  bool incremental = false;
  ConsoleRouter* router = nullptr;
  Report* report = nullptr; // --report, or null
  bool reportOverdraw = false;
  bool stats = false;
  bool progress = true;
  bool strict = false;
  ModelCache* cache = nullptr;
  std::optional<Shard> shard;
  std::string depfilePath;
  std::string reportPath;     // UTF-8, with report
  std::string reportHtmlPath; // UTF-8, with report
  ToolCriticalErrorHandler* criticalHandler = nullptr;
  unsigned modelTimeout = 0;
  std::optional<unsigned long long> modelMemory;
};

// A file a project option writes besides the models' outputs.
struct RequestedOutput
{
  std::string_view what; // "report", "report page", "depfile"
  std::string path;      // UTF-8, as given
};

// A refused output: the message shows whatever the verbosity, like a command-line error.
bool refuseOutput(const RequestedOutput& output, std::string_view reason)
{
  std::fflush(stdout);
  std::fprintf(stderr, "ERROR: cannot write %.*s '%s': %s\n", static_cast<int>(output.what.size()), output.what.data(),
               toDisplayText(output.path).c_str(), toDisplayText(reason).c_str());
  return false;
}

// The file a written path ends up in, for comparing paths that need not exist yet.
fs::path comparable(const fs::path& path)
{
  std::error_code error;
  fs::path result = fs::weakly_canonical(path, error);
  return error ? fs::absolute(path, error).lexically_normal() : result;
}

// Checked before any model is converted, so that an output that cannot be written costs no work
// and nothing the run was given or makes is overwritten by it: its directory must exist and take a
// new file, and it may not be a source, a companion, a model's output or another option's file.
[[nodiscard]] bool checkRequestedOutputs(const std::vector<RequestedOutput>& requested,
                                         const std::vector<fs::path>& sources,
                                         const std::function<fs::path(size_t)>& outputOf)
{
  std::vector<fs::path> claimed;
  for (const RequestedOutput& output : requested)
  {
    if (output.path == "-")
      continue;
    const fs::path target = reportTarget(output.path);
    std::error_code error;
    const fs::path directory = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    if (!fs::is_directory(fs::status(directory, error)))
      return refuseOutput(output, "the directory " + cstdmf::toUtf8(directory) + " does not exist");
    const fs::file_status status = fs::status(target, error);
    if (fs::is_directory(status))
      return refuseOutput(output, "it is a directory");
    if (fs::exists(status) && !fs::is_regular_file(status))
      return refuseOutput(output, "it is not a regular file");
    if (fs::exists(status))
    {
      for (const fs::path& source : sources)
      {
        std::vector<fs::path> inputs = {source};
        for (const fs::path& companion : companionPaths(source))
          inputs.push_back(companion);
        for (const fs::path& input : inputs)
        {
          if (fs::equivalent(target, input, error))
            return refuseOutput(output, "it is the input file " + cstdmf::toUtf8(input));
        }
      }
    }
    const fs::path place = comparable(target);
    if (place.extension() == cstdmf::u8path(kGeometryExtension))
    {
      for (size_t i = 0; i < sources.size(); ++i)
      {
        const fs::path model = outputOf(i);
        if (comparable(model) == place)
          return refuseOutput(output, "it is the output of " + cstdmf::toUtf8(sources[i]));
      }
    }
    for (const fs::path& other : claimed)
    {
      if (other == place)
        return refuseOutput(output, "another option writes the same file");
    }
    claimed.push_back(place);
    // A temporary file like the one the output is written through, made and removed again.
    if (const std::string problem = fileio::creationProblem(cstdmf::toUtf8(target)); !problem.empty())
      return refuseOutput(output, problem);
  }
  return true;
}

[[nodiscard]] bool requirePathExists(const fs::path& path, fs::file_status status, std::string_view kind)
{
  if (status.type() == fs::file_type::not_found)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "{} {} not found\n", kind, cstdmf::toUtf8(path));
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
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is not a file\n", cstdmf::toUtf8(path));
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
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is not a directory\n", cstdmf::toUtf8(path));
    return false;
  }
  return true;
}

// Case-sensitive on every platform: model.PRIMITIVES is not a model.
[[nodiscard]] bool requireExtension(const fs::path& path, std::string_view extension)
{
  if (path.extension() != cstdmf::u8path(extension))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "wrong {} extension ( must be {} )\n", cstdmf::toUtf8(path), extension);
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
  return cstdmf::toUtf8(name);
}

// Settings shared by every model of the run.
ModelSettings modelSettings(const RunRequest& request)
{
  ModelSettings settings;
  settings.compilerJobs = request.jobs;
  settings.incremental = request.incremental;
  settings.report = request.report;
  settings.stats = request.stats;
  settings.reportOverdraw = request.reportOverdraw;
  settings.cache = request.cache;
  settings.strict = request.strict;
  if (request.incremental)
  {
    // The tool's own time counts as an input: a newer tool may write different files.
    std::error_code error;
    const fs::file_time_type toolTime = fs::last_write_time(cstdmf::u8path(platform::executablePath()), error);
    if (!error)
      settings.toolTime = toolTime;
    else
      ZR_MSG_FMT(DebugMessagePriority::Warning, "",
                 "cannot find the time of the tool's own executable: --incremental converts every model\n");
  }
  return settings;
}

std::vector<RequestedOutput> requestedOutputs(const RunRequest& request)
{
  std::vector<RequestedOutput> outputs;
  if (!request.reportPath.empty())
    outputs.push_back({"report", request.reportPath});
  if (!request.reportHtmlPath.empty())
    outputs.push_back({"report page", request.reportHtmlPath});
  if (!request.depfilePath.empty())
    outputs.push_back({"depfile", request.depfilePath});
  return outputs;
}

int processSingle(const RunRequest& request, const fs::path& src, const fs::path& dst)
{
  if (!requireExtension(src, kPrimitivesExtension))
    return kExitBadPath;
  if (!requireFileExists(src, fs::status(src)))
    return kExitBadPath;
  const fs::path output = geometryPathFor(dst, src.filename());
  if (!checkRequestedOutputs(requestedOutputs(request), {src}, [&output](size_t) { return output; }))
    return kExitBadCommandLine;
  if (request.criticalHandler)
    request.criticalHandler->setSingleModel(cstdmf::toUtf8(src));
  // What runs killed outright left beside the output goes first.
  (void)fileio::removeStaleTemporaryFiles(cstdmf::toUtf8(output.parent_path().empty() ? fs::path(".") : output.parent_path()));
  if (convertModel(src, output, modelSettings(request)).outcome == ModelOutcome::Failed)
    return kExitConversionFailed;
  if (!request.depfilePath.empty())
  {
    std::vector<std::string> inputs{cstdmf::toUtf8(src)};
    for (const fs::path& companion : companionFiles(src))
      inputs.push_back(cstdmf::toUtf8(companion));
    if (!writeDepfile(cstdmf::u8path(request.depfilePath), cstdmf::toUtf8(output), inputs))
      return kExitConversionFailed;
  }
  return kExitSuccess;
}

// The run cannot go on because the file system failed under it. Said on standard error whatever
// the verbosity, as for any other abnormal end.
int reportFilesystemFailure(std::string_view text)
{
  std::fflush(stdout);
  std::fprintf(stderr, "CRITICAL: %s\n", toDisplayText(text).c_str());
  std::fflush(stderr);
  return kExitFilesystemError;
}

int processTree(const RunRequest& request, const fs::path& src, const fs::path& dst)
{
  if (!requireDirectoryExists(src, fs::status(src)))
    return kExitBadPath;
  if (fs::is_regular_file(fs::status(dst)))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "path {} is existed file (must be directory to place result)",
               cstdmf::toUtf8(dst));
    return kExitBadPath;
  }

  // The whole tree is listed before anything is written, so outputs placed inside the source
  // tree are never taken for models, and a tree that cannot be read fails before any work.
  ModelList models;
  models.sourceRoot = src;
  models.outputRoot = dst / cstdmf::u8path(getDirectoryName(src));
  std::string walkError;
  if (!listModels(src, models.sources, &models.sizes, walkError))
    return reportFilesystemFailure(walkError);
  if (request.shard)
    keepShard(models, *request.shard);
  if (!checkRequestedOutputs(requestedOutputs(request), models.sources,
                             [&models](size_t index) { return models.outputFor(index); }))
    return kExitBadCommandLine;

  TreeRunOptions options;
  options.jobs = request.jobs;
  options.keepGoing = request.keepGoing;
  if (request.keepGoing)
  {
    options.workerProgram = platform::executablePath();
    if (request.modelTimeout != 0)
      options.workerLimits.timeoutSeconds = request.modelTimeout;
    if (request.modelMemory)
      options.workerLimits.memoryBytes = *request.modelMemory;
    if (options.workerProgram.empty())
      ZR_MSG_FMT(DebugMessagePriority::Warning, "",
                 "cannot find the tool's own executable: --keep-going converts the models in this process\n");
  }
  options.showProgress = request.progress && request.verbosity > 0 && platform::isTerminal(2);
  options.model = modelSettings(request);
  return convertModels(models, options, *request.router);
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
  return request.tree ? processTree(request, src, dst) : processSingle(request, src, dst);
}

// The tool from a UTF-8 command line. The Windows entry point converts its wide arguments and
// comes here too.
int vertexmillMain(int argc, const char* const* argv)
{
  // An interrupted run, or worker, removes the temporary files of its writes in flight.
  platform::onStopRequest([] { (void)fileio::removeTemporaryFiles(true); });
  if (argc >= 2 && std::string_view(argv[1]) == kWorkerOption)
    return runModelWorker(std::vector<std::string>(argv + 2, argv + argc));
  Args args;
  if (!args.parse(argc, argv))
    return kExitBadCommandLine;
  if (args.helpShown)
    return kExitSuccess;
  if (args.showVersion)
  {
    std::printf("%s %s\n", kToolName, std::string(cstdmf::toolsVersion()).c_str());
    return kExitSuccess;
  }
  if (args.shard && !args.tree)
  {
    std::fputs("ERROR: --shard works in tree mode only\n", stderr);
    return kExitBadCommandLine;
  }
  if (std::string problem; args.shard && !content_cache::sha256Available(problem))
  {
    // Shards are chosen by SHA-256 hashes of the models' paths.
    std::fprintf(stderr, "ERROR: --shard needs SHA-256, which is not available: %s\n", problem.c_str());
    return kExitBadCommandLine;
  }
  if (args.modelTimeout != 0 && !args.keepGoing)
  {
    // Only a worker process can be stopped when its time is up.
    std::fputs("ERROR: --time-limit works with --keep-going only\n", stderr);
    return kExitBadCommandLine;
  }
  if (args.modelMemory && !args.keepGoing)
  {
    // Only a worker process can be held to a memory bound.
    std::fputs("ERROR: --memory-limit works with --keep-going only\n", stderr);
    return kExitBadCommandLine;
  }
  if (!args.depfilePath.empty() && args.tree)
  {
    std::fputs("ERROR: --depfile works in default mode only (one model)\n", stderr);
    return kExitBadCommandLine;
  }
  const bool maxSizeGiven = args.cache.maxSize.has_value();
  if (!resolveCacheOptions(args.cache))
    return kExitBadCommandLine;
  if (maxSizeGiven && (args.cache.off || !args.cache.directory))
  {
    // A bound on a cache folder that the run does not use would be silently ignored.
    std::fputs("ERROR: --cache-max-size needs a cache folder (--cache DIR or VERTEXMILL_CACHE)\n", stderr);
    return kExitBadCommandLine;
  }
  if (args.srcPath.empty() || args.dstPath.empty())
  {
    // Straight to the stream: logging is not set up yet, and this shows even with --quiet.
    std::fputs("ERROR: empty arguments not allowed ( use . as current directory )\n", stderr);
    return kExitBadCommandLine;
  }

  cstdmf::setupConsoleLogging(args.verbosity);
  if (args.reportPath == "-")
  {
    moveInfoLinesToStandardError();
    moveOutputLinesToStandardError();
  }
  ToolCriticalErrorHandler criticalHandler(args.verbosity);
  cstdmf::setCriticalErrorHandler(&criticalHandler);
  const std::shared_ptr<ConsoleRouter> router = installConsoleRouter();
  (void)ZRResource::init(std::vector<std::string>{});
  Moo::PrimitiveVertexFormat::init(0);

  unsigned jobs = args.jobs;
  if (jobs == 0)
    jobs = std::max(1u, std::thread::hardware_concurrency());
  std::unique_ptr<Report> report;
  if (!args.reportPath.empty() || !args.reportHtmlPath.empty())
    report = std::make_unique<Report>();
  const std::unique_ptr<ModelCache> cache = makeModelCache(args.cache);
  RunRequest request{std::move(args.srcPath), std::move(args.dstPath), args.tree, args.verbosity, jobs,
                     args.keepGoing, args.incremental, router.get(), report.get()};
  request.stats = args.stats;
  request.reportOverdraw = args.reportOverdraw;
  request.strict = args.strict;
  request.progress = args.progress;
  request.cache = cache.get();
  request.shard = args.shard;
  request.depfilePath = args.depfilePath;
  request.reportPath = args.reportPath;
  request.reportHtmlPath = args.reportHtmlPath;
  request.criticalHandler = &criticalHandler;
  request.modelTimeout = args.modelTimeout;
  request.modelMemory = args.modelMemory;
  int status = kExitSuccess;
  try
  {
    status = cache && !cache->prepare() ? kExitBadPath : process(request);
  }
  catch (const std::exception& error)
  {
    // The one exception boundary of the tool: the status queries of the path checks throw for
    // faults other than a missing path, and so does starting a thread the system refuses. The
    // run ends abnormally, with the reason on standard error whatever the verbosity.
    status = reportFilesystemFailure(error.what());
  }
  // Written whatever the outcome, so a failed run's report says what failed. A report that
  // cannot be written fails a run that otherwise succeeded; a path refused before the run
  // (status 1) writes nothing.
  if (report && !args.reportPath.empty() && status != kExitBadCommandLine && !report->write(args.reportPath) &&
      status == kExitSuccess)
    status = kExitFilesystemError;
  if (cache)
    cache->finish();
  if (report && !args.reportHtmlPath.empty() && status != kExitBadCommandLine &&
      !writeReportPage(*report, args.reportHtmlPath) && status == kExitSuccess)
    status = kExitFilesystemError;

  Moo::PrimitiveVertexFormat::fini();
  ZRResource::fini();
  cstdmf::setCriticalErrorHandler(nullptr);
  return status;
}
} // namespace

int main(int argc, char** argv)
{
  return vertexmillMain(argc, argv);
}

#ifdef _WIN32
#include "cstdmf/platform.hpp"

// Windows starts here (-municode, /ENTRY:wmainCRTStartup): the arguments arrive as UTF-16 and
// reach the same core as UTF-8, so non-ASCII paths survive any ANSI code page.
int wmain(int argc, wchar_t** argv)
{
  platform::useBinaryStandardStreams();
  platform::Utf8Arguments utf8(argc, argv);
  return vertexmillMain(utf8.argc(), utf8.argv());
}
#endif
