#pragma once
// Converting one model: its companion files, its output directory, the compiler run, and the
// up-to-date check of --incremental.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vertexmill
{

class ModelCache;
class Report;

struct ModelSettings
{
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
};

// Converts source into output, logging the used-files pair (INFO) and every failure. A model
// that is written although its conversion logged an ERROR (a companion that cannot be read) is
// "converted-with-errors" in its statistics. Touches
// nothing shared but the read-only registries and the logger, so several models may be
// converted at once. Failed when the output directory could not be created or the compiler
// wrote nothing.
[[nodiscard]] ModelResult convertModel(const std::filesystem::path& source, const std::filesystem::path& output,
                                        const ModelSettings& settings);

// True when output is a file written after the source, each of its companion files and the tool
// itself (toolTime). False whenever a time cannot be read.
[[nodiscard]] bool isUpToDate(const std::filesystem::path& source, const std::filesystem::path& output,
                              const std::optional<std::filesystem::file_time_type>& toolTime);

// The companion files of a model that exist, in the order they are tried.
std::vector<std::filesystem::path> companionFiles(const std::filesystem::path& source);
// The companion files a source may have (.collision, .armor, .armorvisual beside it), whether
// they exist or not.
std::vector<std::filesystem::path> companionPaths(const std::filesystem::path& source);

// dst / relative source, with the extension replaced by ".geometry".
std::filesystem::path geometryPathFor(const std::filesystem::path& outputDirectory,
                                      const std::filesystem::path& relativeSource);

} // namespace vertexmill
