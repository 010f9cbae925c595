#pragma once
// What a run asks of a --keep-going worker process: one model, and everything of the run's settings
// that changes what the worker writes or reports. The parent writes it as one JSON document to a
// file whose path is the worker's only argument; the worker refuses, naming the field, a request it
// cannot take (another version, a missing field, a value out of range).

#include "geometry_compiler/compile_options.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace vertexmill
{

struct ModelSettings;

struct WorkerRequest
{
  // Raised whenever a field changes meaning; a worker of another version refuses the request.
  static constexpr int kVersion = 1;

  enum class Figures
  {
    None,         // neither --report nor --stats
    Statistics,   // the model's figures
    WithOverdraw, // and the overdraw of every render set (--report-overdraw)
  };

  struct Cache
  {
    std::string directory; // UTF-8; empty: no local folder
    std::string url;       // empty: no remote tier
    long timeoutSeconds = 10;
    bool operator==(const Cache&) const = default;
  };

  std::string source; // UTF-8
  std::string output; // UTF-8
  unsigned compilerJobs = 1;
  bool incremental = false;
  bool strict = false;
  Figures figures = Figures::None;
  CompileOptions compile;
  std::optional<Cache> cache;

  // The request for converting `source` into `output` with a run's settings.
  static WorkerRequest forModel(const std::string& source, const std::string& output, const ModelSettings& settings);

  std::string toJson() const;
  // False, with `problem` naming what is wrong ("field 'compilerJobs': expected a whole number
  // from 1 to 1024"), when `text` is not a request of this version.
  [[nodiscard]] static bool fromJson(std::string_view text, WorkerRequest& request, std::string& problem);

  bool operator==(const WorkerRequest&) const = default;
};

} // namespace vertexmill
