#pragma once
// The files a run's options ask for besides the models' outputs (--report, --report-html,
// --depfile), checked before any model is converted.

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vertexmill
{

struct ToolOptions;

// A file a project option writes besides the models' outputs.
struct RequestedOutput
{
  std::string_view what; // "report", "report page", "depfile"
  std::string path;      // UTF-8, as given
};

// The files the options ask for, in the order they are checked.
std::vector<RequestedOutput> requestedOutputs(const ToolOptions& options);

// Checked before any model is converted, so that an output that cannot be written costs no work
// and nothing the run was given or makes is overwritten by it: its directory must exist and take a
// new file, and it may not be a source, a companion, a model's output (outputOf(i) for
// sources[i]) or one of its first `levels` levels of detail, or another option's file. False after an "ERROR: cannot write ..." line on standard
// error, shown whatever the verbosity.
[[nodiscard]] bool checkRequestedOutputs(const std::vector<RequestedOutput>& requested,
                                         const std::vector<std::filesystem::path>& sources,
                                         const std::function<std::filesystem::path(size_t)>& outputOf,
                                         unsigned levels = 0);

} // namespace vertexmill
