#include "vertexmill/tool_run.hpp"

#include "content_cache/sha256.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/version.hpp"
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
#include "vertexmill/output_checks.hpp"
#include "vertexmill/report.hpp"
#include "vertexmill/report_html.hpp"
#include "vertexmill/shard.hpp"
#include "vertexmill/stdout_free.hpp"
#include "vertexmill/tool_options.hpp"
#include "vertexmill/tree_run.hpp"
#include "vertexmill/tree_walk.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace vertexmill
{
namespace
{
namespace fs = std::filesystem;

constexpr const char* kToolName = "vertexmill";
constexpr std::string_view kPrimitivesExtension = ".primitives";

// "--jobs 0": the processors this process may use (its affinity and CPU quota), and no more than a
// Slurm task was given (SLURM_CPUS_PER_TASK).
unsigned usableJobCount()
{
  unsigned jobs = platform::usableProcessorCount();
  if (const std::optional<std::string> slurm = platform::environmentVariable("SLURM_CPUS_PER_TASK"))
  {
    if (const std::optional<uint64_t> given = FW::parseBoundedNumber(*slurm, 1, kMaxJobs); given && *given < jobs)
      jobs = static_cast<unsigned>(*given);
  }
  return std::min(jobs, kMaxJobs);
}

// What the run shares with every model besides its options: made once at start.
struct RunServices
{
  ConsoleRouter* router = nullptr;
  Report* report = nullptr; // --report or --report-html, or null
  ModelCache* cache = nullptr;
  ToolCriticalErrorHandler* criticalHandler = nullptr;
};

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

ModelSettings modelSettings(const ToolOptions& request, const RunServices& services)
{
  ModelSettings settings;
  settings.compilerJobs = request.jobs;
  settings.compile.lods = request.lods;
  settings.incremental = request.incremental;
  settings.report = services.report;
  settings.stats = request.stats;
  settings.reportOverdraw = request.reportOverdraw;
  settings.cache = services.cache;
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

int processSingle(const ToolOptions& request, const RunServices& services, const fs::path& src, const fs::path& dst)
{
  if (!requireExtension(src, kPrimitivesExtension))
    return kExitBadPath;
  if (!requireFileExists(src, fs::status(src)))
    return kExitBadPath;
  const fs::path output = geometryPathFor(dst, src.filename());
  if (!checkRequestedOutputs(requestedOutputs(request), {src}, [&output](size_t) { return output; },
                             request.lods.levels))
    return kExitBadCommandLine;
  if (services.criticalHandler)
    services.criticalHandler->setSingleModel(cstdmf::toUtf8(src));
  // What runs killed outright left beside the output goes first.
  (void)fileio::removeStaleTemporaryFiles(cstdmf::toUtf8(output.parent_path().empty() ? fs::path(".") : output.parent_path()));
  const ModelResult result = convertModel(src, output, modelSettings(request, services));
  if (result.outcome == ModelOutcome::Failed)
    return kExitFailed;
  if (!request.depfilePath.empty())
  {
    std::vector<std::string> inputs;
    for (const fs::path& input : result.inputs)
      inputs.push_back(cstdmf::toUtf8(input));
    std::vector<std::string> targets{cstdmf::toUtf8(output)};
    for (const fs::path& level : result.levelOutputs)
      targets.push_back(cstdmf::toUtf8(level));
    if (!writeDepfile(cstdmf::u8path(request.depfilePath), targets, inputs))
      return kExitFailed;
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

int processTree(const ToolOptions& request, const RunServices& services, const fs::path& src, const fs::path& dst)
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
                             [&models](size_t index) { return models.outputFor(index); }, request.lods.levels))
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
  options.model = modelSettings(request, services);
  return convertModels(models, options, *services.router);
}

// Runs default or tree mode and returns the exit status. May throw std::filesystem::filesystem_error
// for file-system faults other than a missing path.
int process(const ToolOptions& request, const RunServices& services)
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
  return request.tree ? processTree(request, services, src, dst) : processSingle(request, services, src, dst);
}

} // namespace

// The tool from a UTF-8 command line. The Windows entry point converts its wide arguments and
// comes here too.
int runVertexmill(int argc, const char* const* argv)
{
  // An interrupted run, or worker, removes the temporary files of its writes in flight.
  platform::onStopRequest([] { (void)fileio::removeTemporaryFiles(true); });
  platform::keepFreedMemory();
  if (argc >= 2 && std::string_view(argv[1]) == kWorkerOption)
    return runModelWorker(std::vector<std::string>(argv + 2, argv + argc));
  ToolOptions args;
  if (!parseToolOptions(argc, argv, args))
    return kExitBadCommandLine;
  if (args.helpShown)
    return kExitSuccess;
  if (args.showVersion)
  {
    std::printf("%s %s\n", kToolName, std::string(cstdmf::toolsVersion()).c_str());
    return kExitSuccess;
  }
  if (args.shardAuto && args.tree)
  {
    std::string problem;
    args.shard = shardFromEnvironment(problem);
    if (!args.shard)
    {
      std::fprintf(stderr, "ERROR: --shard auto: %s\n", problem.c_str());
      return kExitBadCommandLine;
    }
  }
  if ((args.shard || args.shardAuto) && !args.tree)
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
  if (!args.lodTuning.empty() && args.lods.levels == 0)
  {
    std::fprintf(stderr, "ERROR: %s works with --lods N (N from 1 to %u) only\n", args.lodTuning.c_str(), kMaxLevels);
    return kExitBadCommandLine;
  }
  if (!args.comparePath.empty() && args.reportHtmlPath.empty())
  {
    std::fputs("ERROR: --compare works with --report-html only\n", stderr);
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

  // The earlier report is read before any work: a run whose page cannot be made costs nothing.
  std::optional<nlohmann::json> older;
  if (int refused = kExitSuccess; !args.comparePath.empty() && !(older = readComparedReport(args, refused)))
    return refused;

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

  if (args.jobs == 0)
    args.jobs = usableJobCount();
  std::unique_ptr<Report> report;
  if (!args.reportPath.empty() || !args.reportHtmlPath.empty())
  {
    report = std::make_unique<Report>();
    if (args.shard)
    {
      // What every shard of one run is asked to do alike, so that parts of other runs are not
      // merged with it. Not where it writes: each machine may write into a folder of its own.
      CompileOptions compile;
      compile.lods = args.lods;
      report->setShard(args.shard->index, args.shard->count,
                       {{"source", cstdmf::toGenericUtf8(args.srcPath)},
                        {"compile", compile.keyText()},
                        {"incremental", args.incremental},
                        {"strict", args.strict}});
    }
  }
  const std::unique_ptr<ModelCache> cache = makeModelCache(args.cache);
  const RunServices services{router.get(), report.get(), cache.get(), &criticalHandler};
  int status = kExitSuccess;
  try
  {
    status = cache && !cache->prepare() ? kExitBadPath : process(args, services);
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
      !writeReportPage(*report, args.reportHtmlPath, older ? &*older : nullptr, args.comparePath) &&
      status == kExitSuccess)
    status = kExitFilesystemError;

  Moo::PrimitiveVertexFormat::fini();
  ZRResource::fini();
  cstdmf::setCriticalErrorHandler(nullptr);
  return status;
}
} // namespace vertexmill
