#include "vertexmill/model_worker.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "resmgr/file_io.hpp"
#include "resmgr/zrresource.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/exit_status.hpp"
#include "vertexmill/model_cache.hpp"
#include "vertexmill/report.hpp"
#include "vertexmill/worker_request.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/sink.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string_view>
#include <system_error>
#include <thread>


namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
// Frames on the child's standard output:
//   "V <version>\n"               first: the version of the request the child took
//   "M<level> <length>\n<text>"  a message, in the order logged
//   "R <length>\n<json>"         the model's report entry
//   "S <length>\n<text>"         the system's words for a file operation that failed
//   "O <outcome>\n"              0 converted, 1 up to date, 2 failed
constexpr int kOutcomeCodes[] = {0, 1, 2};

// Writes every message of the child as a frame, at once (the child may end without warning).
class FrameSink final : public spdlog::sinks::sink
{
public:
  void log(const spdlog::details::log_msg& msg) override
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::fprintf(stdout, "M%d %zu\n", static_cast<int>(msg.level), msg.payload.size());
    std::fwrite(msg.payload.data(), 1, msg.payload.size(), stdout);
    std::fflush(stdout);
  }
  void flush() override { std::fflush(stdout); }
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

private:
  std::mutex m_mutex;
};

// In the child the parent names the model; here only the temporary files are removed.
class WorkerCriticalErrorHandler final : public cstdmf::CriticalErrorHandler
{
public:
  void handle(const char* text, const cstdmf::SourceLocation& where) override
  {
    (void)fileio::removeTemporaryFiles(true);
    // The crash report names this worker's process id; the run goes on with the other models.
    cstdmf::DefaultCriticalErrorHandler().handle(text, where);
  }
};

// Set by test builds only (setWorkerFaultHook).
std::function<void(const fs::path&)>& faultHook()
{
  static std::function<void(const fs::path&)> s_hook;
  return s_hook;
}

bool readWhole(const fs::path& path, std::string& text)
{
  const fileio::ReadResult read = fileio::readWholeFile(cstdmf::toUtf8(path), "WorkerOutput");
  if (!read)
    return false;
  text.assign(read.block->data(), read.block->len());
  return true;
}

struct ChildOutput
{
  std::optional<int> version;
  std::optional<ModelOutcome> outcome;
  std::optional<ModelReport> report;
  std::string reason;
};

void appendRecord(ModelLog& log, int level, std::string_view text, const std::function<bool(int)>& keep)
{
  const auto spdLevel = static_cast<spdlog::level::level_enum>(level);
  spdlog::details::log_msg msg(spdlog::source_loc{}, cstdmf::appLogger().name(), spdLevel,
                               spdlog::string_view_t(text.data(), text.size()));
  log.append(msg, toDisplayText(text), keep(level));
}

// Reads the frames back; stops at the first one that is cut short (the child ended mid-write).
ChildOutput readFrames(std::string_view data, ModelLog& log, const std::function<bool(int)>& keep)
{
  ChildOutput result;
  while (!data.empty())
  {
    const size_t lineEnd = data.find('\n');
    if (lineEnd == std::string_view::npos)
      break;
    const std::string_view header = data.substr(0, lineEnd);
    data.remove_prefix(lineEnd + 1);
    if (header.size() >= 3 && header[0] == 'V')
    {
      int version = 0;
      if (std::from_chars(header.data() + 2, header.data() + header.size(), version).ec == std::errc())
        result.version = version;
      continue;
    }
    if (header.size() >= 3 && header[0] == 'O')
    {
      const int code = header[2] - '0';
      if (code == kOutcomeCodes[0] || code == kOutcomeCodes[1] || code == kOutcomeCodes[2])
        result.outcome = static_cast<ModelOutcome>(code);
      continue;
    }
    const size_t space = header.find(' ');
    if (space == std::string_view::npos || (header[0] != 'M' && header[0] != 'R' && header[0] != 'S'))
      break;
    int level = 0;
    size_t length = 0;
    const std::string_view levelText = header.substr(1, space - 1);
    const std::string_view lengthText = header.substr(space + 1);
    if (header[0] == 'M' &&
        std::from_chars(levelText.data(), levelText.data() + levelText.size(), level).ec != std::errc())
      break;
    if (std::from_chars(lengthText.data(), lengthText.data() + lengthText.size(), length).ec != std::errc() ||
        length > data.size())
      break;
    const std::string_view body = data.substr(0, length);
    data.remove_prefix(length);
    if (header[0] == 'M')
      appendRecord(log, level, body, keep);
    else if (header[0] == 'S')
      result.reason = body;
    else
    {
      ModelReport report;
      if (modelReportFromJson(body, report))
        result.report = std::move(report);
    }
  }
  return result;
}

// Temporary files of a child's writes sit beside the output, named after its process id.
void removeChildTemporaries(const fs::path& output, unsigned long processId)
{
  const std::string prefix = ".vm" + std::to_string(processId) + "-";
  std::error_code error;
  const fs::path directory = output.parent_path().empty() ? fs::path(".") : output.parent_path();
  std::vector<fs::path> leftovers;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
  {
    const std::string name = cstdmf::toUtf8(it->path().filename());
    if (name.starts_with(prefix) && name.ends_with(".tmp"))
      leftovers.push_back(it->path());
  }
  for (const fs::path& path : leftovers)
    fs::remove(path, error);
}

fs::path scratchPath(const char* extension)
{
  static std::atomic<unsigned> s_counter{0};
  std::error_code error;
  fs::path directory = fs::temp_directory_path(error);
  if (error)
    directory = fs::current_path(error);
  return directory / cstdmf::u8path("vertexmill-" + std::to_string(platform::processId()) + "-" +
                                    std::to_string(s_counter.fetch_add(1)) + extension);
}
} // namespace

WorkerLimits defaultWorkerLimits()
{
  WorkerLimits limits;
  limits.timeoutSeconds = 600;
  limits.memoryBytes = platform::kDefaultChildMemoryBytes;
  return limits;
}

ModelResult convertModelInWorker(const std::string& program, const fs::path& source, const fs::path& output, const ModelSettings& settings,
                                  const WorkerLimits& limits, ModelLog& log, const std::function<bool(int)>& keep)
{
  const auto started = std::chrono::steady_clock::now();
  const std::string sourceText = cstdmf::toUtf8(source);
  platform::ChildIo io;
  const fs::path outPath = scratchPath(".out");
  const fs::path errPath = scratchPath(".err");
  io.stdoutPath = cstdmf::toUtf8(outPath);
  io.stderrPath = cstdmf::toUtf8(errPath);
  const std::string request = WorkerRequest::forModel(sourceText, cstdmf::toUtf8(output), settings).toJson();
  const fs::path requestPath = scratchPath(".request");
  const fileio::WriteResult written = fileio::writeWholeFile(
    cstdmf::toUtf8(requestPath), std::as_bytes(std::span<const char>(request.data(), request.size())));
  platform::ChildLimits childLimits;
  childLimits.timeoutMilliseconds = limits.timeoutSeconds * 1000u;
  childLimits.memoryBytes = limits.memoryBytes;
  platform::ChildRun run;
  // A process that could not be started has done nothing: the system can be short of something
  // for a moment (Windows under load now and then refuses one), so it is tried again briefly
  // before the model fails.
  for (int attempt = 0; written && attempt < 3 && !run.started; ++attempt)
  {
    if (attempt > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(100 << attempt));
    run = platform::runLimitedProcess(program, {kWorkerOption, cstdmf::toUtf8(requestPath)}, io, childLimits);
  }

  std::string frames, errors;
  (void)readWhole(outPath, frames);
  (void)readWhole(errPath, errors);
  std::error_code ignored;
  fs::remove(outPath, ignored);
  fs::remove(errPath, ignored);
  fs::remove(requestPath, ignored);

  ChildOutput child = readFrames(frames, log, keep);
  // Whatever the child wrote outside the logger (a runtime's last words) is an error of the model.
  for (size_t start = 0; start < errors.size();)
  {
    size_t end = errors.find('\n', start);
    if (end == std::string::npos)
      end = errors.size();
    const std::string_view line = std::string_view(errors).substr(start, end - start);
    if (!line.empty())
      appendRecord(log, static_cast<int>(DebugMessagePriority::Error), std::string(line) + "\n", keep);
    start = end + 1;
  }

  const bool normalEnd = run.started && !run.timedOut && child.version == WorkerRequest::kVersion && child.outcome &&
                         (run.status == kExitSuccess || run.status == kExitFailed);
  if (!normalEnd)
  {
    std::string reason;
    // The closing list puts the model's path before this, its first error when it said nothing.
    if (!written)
      reason = "could not write the request of a worker process for " + sourceText + ": " + written.reason;
    else if (!run.started)
      reason = "could not start a worker process for " + sourceText;
    else if (run.timedOut)
      reason = "the conversion was stopped after " + std::to_string(limits.timeoutSeconds) + " seconds";
    else if (run.status == kExitBadCommandLine && !child.version)
      reason = "the worker process refused the request for " + sourceText;
    else if (run.status == 255 || run.status == -1)
      reason = "a critical error ended the conversion of " + sourceText;
    else if (const std::optional<std::string> how = platform::abnormalEnd(run.status))
      reason = "the conversion ended abnormally (" + *how + ")";
    else
      reason = "the conversion ended abnormally (status " + std::to_string(run.status) + ")";
    appendRecord(log, static_cast<int>(DebugMessagePriority::Error), reason + "\n", keep);
    if (run.started)
      removeChildTemporaries(output, run.processId);
  }
  const ModelResult result{normalEnd ? *child.outcome : ModelOutcome::Failed, child.reason};

  if (settings.report || settings.stats)
  {
    ModelReport report;
    if (normalEnd && child.report)
      report = std::move(*child.report);
    else
    {
      report.source = sourceText;
      report.output = cstdmf::toUtf8(output);
      report.status = "failed";
      report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      const std::string firstError = log.firstError();
      if (!firstError.empty())
        report.errors.push_back(firstError + "\n");
    }
    // The worker gathers the figures; the line is printed here, in the model's place in the walk.
    if (settings.stats)
      log.appendOutput(statsLine(report));
    if (settings.report)
      settings.report->addModel(settings.reportOrder, std::move(report));
  }
  return result;
}

void setWorkerFaultHook(std::function<void(const fs::path& source)> hook)
{
  faultHook() = std::move(hook);
}

int runModelWorker(const std::vector<std::string>& arguments)
{
  // Written by the tool itself, but still checked: a worker started by hand, or by a tool of
  // another version, says what it cannot take, and does nothing.
  if (arguments.size() != 1)
  {
    std::fputs("ERROR: a worker takes one argument, the file of its request\n", stderr);
    return kExitBadCommandLine;
  }
  const fileio::ReadResult read = fileio::readWholeFile(arguments[0], "WorkerRequest");
  WorkerRequest request;
  std::string problem = read ? std::string() : read.reason;
  if (read && !WorkerRequest::fromJson(std::string_view(read.block->data(), read.block->len()), request, problem))
    problem = "it is not a request this worker takes: " + problem;
  if (!problem.empty())
  {
    std::fprintf(stderr, "ERROR: cannot take the worker request %s: %s\n", toDisplayText(arguments[0]).c_str(),
                 toDisplayText(problem).c_str());
    return kExitBadCommandLine;
  }
  platform::useBinaryStandardStreams();
  static WorkerCriticalErrorHandler s_handler;
  cstdmf::setCriticalErrorHandler(&s_handler);
  cstdmf::appLogger().sinks().push_back(std::make_shared<FrameSink>());
  (void)ZRResource::init(std::vector<std::string>{});
  Moo::PrimitiveVertexFormat::init(0);

  std::fprintf(stdout, "V %d\n", WorkerRequest::kVersion);
  std::fflush(stdout);
  const fs::path source = cstdmf::u8path(request.source);
  const fs::path output = cstdmf::u8path(request.output);
  ModelSettings settings;
  settings.compile = request.compile;
  settings.compilerJobs = request.compilerJobs;
  settings.incremental = request.incremental;
  settings.strict = request.strict;
  Report report;
  if (request.figures != WorkerRequest::Figures::None)
    settings.report = &report;
  settings.reportOverdraw = request.figures == WorkerRequest::Figures::WithOverdraw;
  if (settings.incremental)
  {
    std::error_code error;
    const fs::file_time_type toolTime = fs::last_write_time(cstdmf::u8path(platform::executablePath()), error);
    if (!error)
      settings.toolTime = toolTime;
  }

  std::unique_ptr<ModelCache> cache;
  if (request.cache)
  {
    CacheSettings cacheSettings;
    cacheSettings.directory = cstdmf::u8path(request.cache->directory);
    cacheSettings.url = request.cache->url;
    cacheSettings.timeoutSeconds = request.cache->timeoutSeconds;
    cache = std::make_unique<ModelCache>(cacheSettings);
    settings.cache = cache.get();
  }

  if (faultHook())
    faultHook()(source);
  const ModelResult result = convertModel(source, output, settings);
  for (const ModelReport& model : report.takeModels())
  {
    const std::string json = modelReportToJson(model);
    std::fprintf(stdout, "R %zu\n", json.size());
    std::fwrite(json.data(), 1, json.size(), stdout);
  }
  if (!result.reason.empty())
  {
    std::fprintf(stdout, "S %zu\n", result.reason.size());
    std::fwrite(result.reason.data(), 1, result.reason.size(), stdout);
  }
  std::fprintf(stdout, "O %d\n", static_cast<int>(result.outcome));
  std::fflush(stdout);
  Moo::PrimitiveVertexFormat::fini();
  ZRResource::fini();
  return result.outcome == ModelOutcome::Failed ? kExitFailed : kExitSuccess;
}

} // namespace vertexmill
