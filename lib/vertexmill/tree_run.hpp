#pragma once
// Tree mode after the walk: converts the listed models, several at a time when asked, and keeps
// the console as if they had been converted one after another in walk order.

#include "vertexmill/model_job.hpp"
#include "vertexmill/model_worker.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vertexmill
{

class ConsoleRouter;

// The models of a tree, in walk order, and where their outputs go.
struct ModelList
{
  std::filesystem::path sourceRoot;
  std::filesystem::path outputRoot;
  std::vector<std::filesystem::path> sources; // each below sourceRoot
  std::vector<std::uintmax_t> sizes;          // file sizes, one per source; may be empty

  // outputRoot / (source relative to sourceRoot), extension ".geometry".
  std::filesystem::path outputFor(size_t index) const;
};

struct TreeRunOptions
{
  unsigned jobs = 1;       // models converted at once; 1 converts them one after another
  bool keepGoing = false;  // convert every model even after failures
  // With keepGoing, the tool's own executable (UTF-8), which converts each model in a worker
  // process of its own; empty: the models are converted in this process.
  std::string workerProgram;
  WorkerLimits workerLimits = defaultWorkerLimits();
  bool showProgress = false;
  ModelSettings model;     // compilerJobs is worked out per model from `jobs`
};

// Converts every model of the list and returns the exit status: kExitSuccess, or
// kExitFailed when a model failed. With keepGoing and a workerProgram every model is
// converted in a worker process of its own, so that whatever happens to one is that model's
// failure only. Without keepGoing no model is started after the
// first failure; models already being converted are finished and their outputs kept.
// With one job the models are converted in list order. With more, the largest files among the
// next models of the list (a window of 64 per job) are started first, so that no job is left
// alone with a large model at the end; each model's messages still reach the console together
// and in list order. The run ends with "Success: N files generated" (INFO) or, with keepGoing, a
// list of the failed models and their first error (ERROR).
[[nodiscard]] int convertModels(const ModelList& models, const TreeRunOptions& options, ConsoleRouter& router);

// Threads the compiler of a model may use when `jobs` models are converted at once and `started`
// of the `count` models were started before it: one while there are enough models left to keep
// every job busy, then the share of the jobs that run out of models.
unsigned compilerJobsFor(size_t started, size_t count, unsigned jobs);

} // namespace vertexmill
