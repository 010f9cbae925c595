#include "vertexmill/output_checks.hpp"

#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/levels_of_detail.hpp"
#include "vertexmill/model_job.hpp"
#include "vertexmill/model_sources.hpp"
#include "vertexmill/report.hpp"
#include "vertexmill/tool_options.hpp"

#include <cstdio>
#include <system_error>

namespace vertexmill
{
namespace
{
namespace fs = std::filesystem;

constexpr std::string_view kGeometryExtension = ".geometry";

// A refused output: the message shows whatever the verbosity, like a command-line error.
bool refuseOutput(const RequestedOutput& output, std::string_view reason)
{
  std::fflush(stdout);
  std::fprintf(stderr, "ERROR: cannot write %.*s '%s': %s\n", static_cast<int>(output.what.size()), output.what.data(),
               toDisplayText(output.path).c_str(), toDisplayText(reason).c_str());
  return false;
}

} // namespace

std::vector<RequestedOutput> requestedOutputs(const ToolOptions& options)
{
  std::vector<RequestedOutput> outputs;
  if (!options.reportPath.empty())
    outputs.push_back({"report", options.reportPath});
  if (!options.reportHtmlPath.empty())
    outputs.push_back({"report page", options.reportHtmlPath});
  if (!options.depfilePath.empty())
    outputs.push_back({"depfile", options.depfilePath});
  return outputs;
}

bool checkRequestedOutputs(const std::vector<RequestedOutput>& requested,
                                         const std::vector<fs::path>& sources,
                                         const std::function<fs::path(size_t)>& outputOf, unsigned levels)
{
  std::vector<fs::path> claimed;
  for (const RequestedOutput& output : requested)
  {
    if (output.path == "-")
      continue;
    const fs::path target = reportTarget(output.path);
    std::error_code error;
    const fs::path directory = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    if (!fs::is_directory(fs::status(directory, error)))
      return refuseOutput(output, "the directory " + cstdmf::toUtf8(directory) + " does not exist");
    const fs::file_status status = fs::status(target, error);
    if (fs::is_directory(status))
      return refuseOutput(output, "it is a directory");
    if (fs::exists(status) && !fs::is_regular_file(status))
      return refuseOutput(output, "it is not a regular file");
    if (fs::exists(status))
    {
      for (const fs::path& source : sources)
      {
        std::vector<fs::path> inputs = {source};
        for (const fs::path& companion : companionPaths(source))
          inputs.push_back(companion);
        for (const fs::path& input : inputs)
        {
          if (fs::equivalent(target, input, error))
            return refuseOutput(output, "it is the input file " + cstdmf::toUtf8(input));
        }
      }
    }
    const fs::path place = cstdmf::resolvedPath(target);
    if (place.extension() == cstdmf::u8path(kGeometryExtension))
    {
      for (size_t i = 0; i < sources.size(); ++i)
      {
        const fs::path model = outputOf(i);
        if (cstdmf::resolvedPath(model) == place)
          return refuseOutput(output, "it is the output of " + cstdmf::toUtf8(sources[i]));
        for (unsigned level = 1; level <= levels; ++level)
          if (cstdmf::resolvedPath(levelPath(model, level)) == place)
            return refuseOutput(output, "it is a level of detail of " + cstdmf::toUtf8(sources[i]));
      }
    }
    for (const fs::path& other : claimed)
    {
      if (other == place)
        return refuseOutput(output, "another option writes the same file");
    }
    claimed.push_back(place);
    // A temporary file like the one the output is written through, made and removed again.
    if (const std::string problem = fileio::creationProblem(cstdmf::toUtf8(target)); !problem.empty())
      return refuseOutput(output, problem);
  }
  return true;
}
} // namespace vertexmill
