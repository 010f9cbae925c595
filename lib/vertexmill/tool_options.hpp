#pragma once
// The vertexmill command line: every option the tool takes, in one structure that the run reads
// as it is.

#include "geometry_compiler/compile_options.hpp"
#include "vertexmill/cache_options.hpp"
#include "vertexmill/shard.hpp"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace vertexmill
{

// More jobs than this is a typing error rather than a machine.
inline constexpr unsigned kMaxJobs = 1024;

struct ToolOptions
{
  bool tree = false;
  std::filesystem::path srcPath;
  std::filesystem::path dstPath;
  int32_t verbosity = 1; // 0 quiet, 1 warnings and errors, 2 also the used-files list
  unsigned jobs = 1;     // 0: one per usable processor, until the run resolves it
  bool keepGoing = false;
  unsigned modelTimeout = 0;                      // seconds; 0: the default limit
  std::optional<unsigned long long> modelMemory;  // bytes, 0: none; unset: the default limit
  bool incremental = false;
  bool strict = false;
  std::string reportPath; // UTF-8; empty: no report
  bool stats = false;
  bool progress = true;       // the progress line, where standard error is a terminal
  std::string reportHtmlPath; // UTF-8; empty: no report page
  std::string comparePath;    // UTF-8; an earlier run's report the page is compared with
  bool reportOverdraw = false;
  bool showVersion = false;
  bool helpShown = false;
  CacheOptions cache;
  std::optional<Shard> shard;
  bool shardAuto = false; // --shard auto: the shard comes from the scheduler, once the run starts
  std::string depfilePath; // UTF-8; empty: none
  LevelOfDetailOptions lods;
  // The first option that tunes the levels of detail given on the command line (they need --lods).
  std::string lodTuning;
};

// More levels of detail than this is a typing error: each halves the triangles by default.
inline constexpr unsigned kMaxLevels = 8;

// Fills `options` from the command line (UTF-8). Returns false when the parser refused it, after
// it wrote an "ERROR: " line to standard error.
[[nodiscard]] bool parseToolOptions(int argc, const char* const* argv, ToolOptions& options);

} // namespace vertexmill
