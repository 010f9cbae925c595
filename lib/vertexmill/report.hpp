#pragma once
// The statistics report of a run (--report FILE): one JSON document describing every model
// converted, with a stable schema (docs/report.md). Collected only when asked for.

#include "cstdmf/debug.hpp"
#include "geometry_compiler/compile_statistics.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vertexmill
{

// One generated level of detail of a model.
struct LevelReport
{
  unsigned number = 0;
  std::string output;
  uint64_t triangles = 0;
  uint64_t vertices = 0;
  uint64_t bytes = 0;
  double errorAbsolute = 0.0; // the largest deviation from the main model, in model units
  double errorRelative = 0.0; // the same, relative to the model's size
  double ratio = 0.0;         // triangles over those of the level before
};

struct ModelReport
{
  std::string source;
  std::string output;
  std::string status; // "converted", "converted-with-errors", "failed" or "up-to-date"
  double seconds = 0.0;
  std::string cache; // with a cache: "hit" or "miss"; a hit has no compiler statistics
  CompileStatistics statistics;
  std::vector<std::string> warnings;
  std::vector<std::string> errors;
  // The system's words for the file operation that failed ("No space left on device"), when
  // one did; the errors keep the tool's own wording.
  std::string reason;
  // An up-to-date model's figures read back from its existing output: the buffers, companions and
  // output size are in `statistics`, the render sets are not (their names and cache figures are
  // not in the file), so its vertex and triangle totals are given here.
  bool readBack = false;
  uint64_t readBackVertices = 0;
  uint64_t readBackTriangles = 0;
  // With --lods: the levels written, and what became of the chain: "" (as many as asked),
  // "ended-early", "hand-made" (the artist's own levels are converted instead) or "not-a-main-model".
  std::vector<LevelReport> levels;
  unsigned levelsRequested = 0;
  std::string levelsNote;
};

// A model's figures summed over its render sets, buffers and companions. The report's totals
// and the --stats line are both made from these.
struct ModelTotals
{
  uint64_t vertices = 0;
  uint64_t triangles = 0;
  uint64_t rawBytes = 0;
  uint64_t storedBytes = 0;
  uint64_t rawVertexBytes = 0;
  uint64_t storedVertexBytes = 0;
  uint64_t inputBytes = 0; // the .primitives file and the companion files read with it
  uint64_t outputBytes = 0;
  // Vertex cache misses per triangle after optimisation, over every render set (each set's own
  // figure weighted by its triangles); 0 without triangles.
  double acmr = 0.0;
};

ModelTotals modelTotals(const CompileStatistics& statistics);

// The model's --stats line, without a line end:
// "stats: <source>: <status> triangles=N vertices=N bytes_in=N bytes_out=N acmr=X.XXX seconds=X.XXX".
std::string statsLine(const ModelReport& model);
// Fills `model` (statistics, readBack totals) from the .geometry file at `output`. False when the
// file cannot be read or is refused; `model` keeps what it had.
[[nodiscard]] bool readBackStatistics(const std::filesystem::path& output, ModelReport& model);

// One model's part of the document as JSON text, and back (a model converted in a worker process
// hands its statistics over this way). False when the text is not such a document.
std::string modelReportToJson(const ModelReport& model);
[[nodiscard]] bool modelReportFromJson(std::string_view text, ModelReport& model);

// Where the document for `path` goes: the path itself, or the file a symbolic link leads to.
std::filesystem::path reportTarget(const std::string& path);

class Report
{
public:
  // Models may be added from several threads; they are written in the order of their source
  // paths (byte by byte), and models of the same path in the order of `order`, their position in
  // the directory walk.
  void addModel(size_t order, ModelReport model);

  // Hands out the models added so far, in no particular order, and forgets them.
  std::vector<ModelReport> takeModels();

  // Writes the document to `path` (UTF-8) through a temporary file renamed over it; "-" writes it
  // to standard output, and a symbolic link is written through (reportTarget). False, after an
  // ERROR message naming the path and the system's reason, when it cannot be written.
  [[nodiscard]] bool write(const std::string& path) const;

  // The document as text (tests).
  std::string toJson() const;

  // The report of one shard of a run (--shard K/N) says which, and what the run was asked to do
  // (`run`, the same on every machine of the run), so that the parts can be merged and checked.
  void setShard(uint32_t index, uint32_t count, nlohmann::ordered_json run);

private:
  std::optional<std::pair<uint32_t, uint32_t>> m_shard;
  nlohmann::ordered_json m_run;
  mutable std::mutex m_mutex;
  std::vector<std::pair<size_t, ModelReport>> m_models;
};

} // namespace vertexmill
