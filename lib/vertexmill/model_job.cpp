#include "vertexmill/model_job.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "vertexmill/model_messages.hpp"
#include "moo/geometry_data.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/levels_of_detail.hpp"
#include "vertexmill/model_cache.hpp"
#include "vertexmill/model_sources.hpp"
#include "vertexmill/report.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <system_error>

namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
constexpr std::string_view kGeometryExtension = ".geometry";

// The write time of an existing file, or nothing (also when the file is missing).
std::optional<fs::file_time_type> writeTime(const fs::path& path)
{
  std::error_code error;
  const fs::file_time_type time = fs::last_write_time(path, error);
  if (error)
    return std::nullopt;
  return time;
}
} // namespace

fs::path geometryPathFor(const fs::path& outputDirectory, const fs::path& relativeSource)
{
  fs::path output = outputDirectory / relativeSource;
  output.replace_extension(cstdmf::u8path(kGeometryExtension));
  return output;
}

// An output newer than its sources may still be damaged (cut short by a full disk, overwritten by
// another program) or lack a companion that could not be read when it was made: either way it is
// converted again, a damaged one with a warning.
bool holdsWhatItShould(const ModelSources& sources, const fs::path& output)
{
  const std::string outputText = cstdmf::toUtf8(output);
  const fileio::ReadResult read = fileio::readWholeFile(outputText, "Geometry");
  Moo::GeometryData geometry;
  std::string problem;
  if (!read)
    problem = read.reason;
  else if (!geometry.load(read.block, outputText, &problem) && problem.empty())
    problem = "it cannot be loaded";
  if (!problem.empty())
  {
    ZR_MSG_FMT(DebugMessagePriority::Warning, "", "the existing output {} is damaged ({}): converting it again\n",
               outputText, problem);
    return false;
  }
  for (const fs::path& companion : sources.companions())
  {
    const std::string name = cstdmf::toUtf8(companion.filename());
    const auto named = [&name](const Moo::GeometryData::ModelData& model) { return model.name == name; };
    if (std::none_of(geometry.collisionModels().begin(), geometry.collisionModels().end(), named) &&
        std::none_of(geometry.armorModels().begin(), geometry.armorModels().end(), named))
      return false;
  }
  return true;
}

bool isUpToDate(const ModelSources& sources, const fs::path& output,
                const std::optional<fs::file_time_type>& toolTime, bool withLevels)
{
  std::error_code error;
  if (!fs::is_regular_file(fs::status(output, error)) || sources.unexamined)
    return false;
  std::optional<fs::file_time_type> outputTime = writeTime(output);
  // A model with levels is as old as the oldest of its main file and first level.
  if (withLevels && outputTime)
  {
    const std::optional<fs::file_time_type> levelTime = writeTime(levelPath(output, 1));
    outputTime = levelTime ? std::min(*outputTime, *levelTime) : std::optional<fs::file_time_type>();
  }
  if (!outputTime || !toolTime || !(*outputTime > *toolTime))
    return false;
  for (const fs::path& input : sources.files())
  {
    // An input that is there but cannot be examined may have changed: convert again.
    const std::optional<fs::file_time_type> inputTime = writeTime(input);
    if (!inputTime || !(*outputTime > *inputTime))
      return false;
  }
  return holdsWhatItShould(sources, output);
}

ModelResult convertModel(const fs::path& source, const fs::path& output, const ModelSettings& settings)
{
  const ModelSources sources = ModelSources::find(source);
  const GeometryCompiler::Request& request = sources.request;
  const std::string sourceText = cstdmf::toUtf8(source);
  const std::string outputText = cstdmf::toUtf8(output);

  // Statistics are gathered only for --report and --stats; without them none of this exists.
  std::unique_ptr<ModelReport> report;
  const auto started = std::chrono::steady_clock::now();

  // Generated levels of detail, for a main model whose artist did not make its own.
  CompileOptions compileOptions = settings.compile;
  std::string levelsNote;
  if (compileOptions.lods.levels > 0)
  {
    levelsNote = levelsRefusal(source);
    if (!levelsNote.empty())
      compileOptions.lods.levels = 0;
  }
  const bool makesLevels = compileOptions.lods.levels > 0;
  std::vector<LevelReport> levels;
  std::vector<fs::path> levelOutputs;
  // Everything the model logs from here on: its report's warnings and errors, --strict's count and
  // the messages its cache entry keeps are read from this one list.
  ModelMessages messages;
  if (settings.report || settings.stats)
  {
    report = std::make_unique<ModelReport>();
    report->source = sourceText;
    report->output = outputText;
    report->levelsRequested = settings.compile.lods.levels;
  }
  std::string reason;
  auto finish = [&](ModelOutcome outcome) {
    if (report)
    {
      report->reason = reason;
      if (settings.report)
        messages.split(report->warnings, report->errors);
      const char* converted = messages.errorCount() == 0 ? "converted" : "converted-with-errors";
      report->status = outcome == ModelOutcome::Converted  ? converted
                       : outcome == ModelOutcome::UpToDate ? "up-to-date"
                                                           : "failed";
      report->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      report->levels = std::move(levels);
      report->levelsNote = levelsNote;
      if (settings.stats)
        printOutputLine(statsLine(*report));
      if (settings.report)
        settings.report->addModel(settings.reportOrder, std::move(*report));
    }
    return ModelResult{outcome, reason, outcome == ModelOutcome::Failed ? std::vector<fs::path>{} : sources.files(),
                       outcome == ModelOutcome::Failed ? std::vector<fs::path>{} : levelOutputs};
  };

  // The chain as written (converted or replayed): what the report and the depfile show of it.
  const auto finishLevels = [&](std::vector<LevelReport> written) {
    levels = std::move(written);
    for (const LevelReport& level : levels)
      levelOutputs.push_back(cstdmf::u8path(level.output));
    if (levels.size() < compileOptions.lods.levels)
      levelsNote = "ended-early";
    warnAboutLevelsPast(output, static_cast<unsigned>(levels.size()));
  };

  if (settings.incremental && isUpToDate(sources, output, settings.toolTime, makesLevels))
  {
    ZR_MSG_FMT(DebugMessagePriority::Info, "", "{}\n", sourceText);
    ZR_MSG_FMT(DebugMessagePriority::Info, "", "==> {} (up to date)\n", outputText);
    // The totals count it with what its existing output holds; nothing is kept beside it. Its
    // levels are left as they are and not described: their figures are not in the files.
    if (report)
    {
      (void)readBackStatistics(output, *report);
      report->levelsRequested = 0;
    }
    return finish(ModelOutcome::UpToDate);
  }

  ZR_MSG_FMT(DebugMessagePriority::Info, "", "{}\n", sourceText);
  ZR_MSG_FMT(DebugMessagePriority::Info, "", "==> {}\n", outputText);

  const fs::path outputDirectory = output.parent_path();
  if (!outputDirectory.empty())
  {
    std::error_code error;
    fs::create_directories(outputDirectory, error);
    if (error)
    {
      reason = error.message();
      ZR_MSG_FMT(DebugMessagePriority::Error, "", "failed to create path {}: {}", cstdmf::toUtf8(outputDirectory),
                 reason);
      return finish(ModelOutcome::Failed);
    }
  }

  CachedConversion cached(settings.cache, request, compileOptions, outputText);
  if (makesLevels)
    cached.expectLevels(compileOptions.lods.levels, output);
  // A hit reports the figures its conversion measured; a kept result without them (an older
  // entry, or one without the overdraw asked for) is converted again, and kept again with them.
  using Figures = CachedConversion::Figures;
  const Figures figures = !report ? Figures::None : settings.reportOverdraw ? Figures::WithOverdraw : Figures::Statistics;
  // Under --strict a kept conversion that logged an ERROR is converted again, and fails.
  if (cached.replay(settings.strict, figures))
  {
    if (report)
    {
      report->statistics = cached.figures();
      report->cache = "hit";
    }
    if (makesLevels)
      finishLevels(cached.levels());
    return finish(ModelOutcome::Converted);
  }
  if (report && settings.cache)
    report->cache = "miss";

  // A result the cache keeps carries its figures (but the costly overdraw only when asked for),
  // so that a later run that wants them can take it.
  CompileStatistics figuresForTheCache;
  CompileStatistics* statistics = report ? &report->statistics : settings.cache ? &figuresForTheCache : nullptr;
  const Figures measured = statistics == nullptr ? Figures::None : std::max(figures, Figures::Statistics);
  GeometryCompiler compiler;
  compiler.setJobs(settings.compilerJobs);
  compiler.setStatistics(statistics);
  compiler.setOverdrawAnalysis(settings.reportOverdraw);
  if (settings.strict)
    compiler.setWriteApproval([&] {
      const size_t count = messages.errorCount();
      if (count == 0)
        return true;
      ZR_MSG_FMT(DebugMessagePriority::Error, "", "--strict: {} not written: its conversion logged {} error{}\n",
                 outputText, count, count == 1 ? "" : "s");
      return false;
    });
  const size_t conversionStart = messages.count();
  bool converted = compiler.compile(request, outputText, compileOptions);
  cached.keep(converted ? compiler.written() : BinaryPtr(), messages.since(conversionStart), statistics, measured,
              makesLevels ? &compiler.levels() : nullptr);
  reason = compiler.systemReason();
  if (converted && makesLevels)
  {
    std::vector<LevelReport> written;
    converted = writeLevels(output, compiler.levels(), written, reason);
    if (converted)
      finishLevels(std::move(written));
  }
  return finish(converted ? ModelOutcome::Converted : ModelOutcome::Failed);
}

} // namespace vertexmill
