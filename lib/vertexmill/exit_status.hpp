#pragma once

namespace vertexmill
{

// The tool's exit statuses; -1 (255) is left to the critical-error path.
enum ExitStatus : int
{
  kExitSuccess = 0,
  kExitBadCommandLine = 1,
  kExitBadPath = 2,
  kExitConversionFailed = 3,
  kExitFilesystemError = 4,
};

} // namespace vertexmill
