#pragma once
// Converting one model: its companion files, its output directory, the compiler run, and the
// up-to-date check of --incremental.

#include "geometry_compiler/compile_options.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vertexmill
{

class ModelCache;
class Report;
struct ModelSources;

struct ModelSettings
{
  // What the model is compiled with; the tool always uses the defaults (every switch on).
  CompileOptions compile;
  // Threads the compiler may use inside the model (optimising render sets, encoding buffers).
  unsigned compilerJobs = 1;
  // Skip the model when its output is newer than everything it is made from.
  bool incremental = false;
  // Last write time of the tool's own executable; without it nothing counts as up to date.
  std::optional<std::filesystem::file_time_type> toolTime;
  // Where the model's statistics go (--report), or null; `reportOrder` is its place in the walk.
  Report* report = nullptr;
  size_t reportOrder = 0;
  // With a report: measure every render set's overdraw too (--report-overdraw).
  bool reportOverdraw = false;
  // Print the model's figures as one line on standard output (--stats).
  bool stats = false;
  // The converted-model cache (--cache, --cache-url), or null.
  ModelCache* cache = nullptr;
  // Any ERROR the model's conversion logs fails the model: nothing is written or kept in the
  // cache (--strict).
  bool strict = false;
};

enum class ModelOutcome
{
  Converted,
  UpToDate,
  Failed,
};

// What became of one model.
struct ModelResult
{
  ModelOutcome outcome = ModelOutcome::Failed;
  // The system's words for the file operation that failed, when one did ("Permission denied");
  // the model's messages keep the tool's own wording, and this goes beside them.
  std::string reason;
  // The files the output was made from (the source, then its companions); empty when it failed.
  std::vector<std::filesystem::path> inputs;
  // The levels of detail written beside the output (--lods); empty when it failed.
  std::vector<std::filesystem::path> levelOutputs;
};

// Converts source into output, logging the used-files pair (INFO) and every failure. A model
// that is written although its conversion logged an ERROR (a companion that cannot be read) is
// "converted-with-errors" in its statistics. Touches
// nothing shared but the read-only registries and the logger, so several models may be
// converted at once. Failed when the output directory could not be created or the compiler
// wrote nothing.
[[nodiscard]] ModelResult convertModel(const std::filesystem::path& source, const std::filesystem::path& output,
                                        const ModelSettings& settings);

// True when output is a sound file written after the source, each of its companion files and the
// tool itself (toolTime), holding every companion. False whenever a time cannot be read.
// With `withLevels` the first generated level of detail must be as new.
[[nodiscard]] bool isUpToDate(const ModelSources& sources, const std::filesystem::path& output,
                              const std::optional<std::filesystem::file_time_type>& toolTime, bool withLevels = false);

// dst / relative source, with the extension replaced by ".geometry".
std::filesystem::path geometryPathFor(const std::filesystem::path& outputDirectory,
                                      const std::filesystem::path& relativeSource);

} // namespace vertexmill
