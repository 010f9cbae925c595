#pragma once
// Converting a model in a process of its own (--keep-going), so that nothing the model does (an
// assertion, a library abort, a crash, running away in time or memory) can end the run.
//
// The parent starts the tool itself with the hidden first argument kWorkerOption and the file of a
// WorkerRequest. The child converts the one model and writes what it logged, its report entry and its outcome to standard
// output as frames; the parent reads them back into the model's log, so the console looks as if
// the model had been converted in the parent.

#include "vertexmill/model_job.hpp"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace vertexmill
{

class ModelLog;

inline constexpr const char* kWorkerOption = "--model-worker";

struct WorkerLimits
{
  unsigned timeoutSeconds = 0;         // 0: none
  unsigned long long memoryBytes = 0;  // 0: none
};

// The limits used when none are given: ten minutes, and 4 GiB of address space (none in a build
// with the address sanitizer, which reserves far more address space than it uses).
WorkerLimits defaultWorkerLimits();

// Converts one model in a child process (`program`: the tool's executable) and fills `log` with its messages (each kept when `keep`
// says its level would be shown). A child that ended abnormally is the model's failure, with an
// ERROR naming the model; the temporary files it left beside the output are removed.
[[nodiscard]] ModelResult convertModelInWorker(const std::string& program, const std::filesystem::path& source,
                                                const std::filesystem::path& output, const ModelSettings& settings,
                                                const WorkerLimits& limits, ModelLog& log,
                                                const std::function<bool(int level)>& keep);

// The child's side: `arguments` are what followed kWorkerOption (the file of its request,
// worker_request.hpp). Returns the exit status.
int runModelWorker(const std::vector<std::string>& arguments);

// Test builds only: called in the worker with the model's source just before it is converted, so a
// test can make that model's worker crash, hang or run out of memory. The tool never sets it.
void setWorkerFaultHook(std::function<void(const std::filesystem::path& source)> hook);

} // namespace vertexmill
