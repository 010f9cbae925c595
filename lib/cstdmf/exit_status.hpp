#pragma once
// The exit statuses every tool of the project shares; -1 (255) is left to the critical-error path.

namespace cstdmf
{

enum ExitStatus : int
{
  kExitSuccess = 0,         // everything asked for was done (warnings allowed)
  kExitBadCommandLine = 1,  // the command line was refused; nothing done
  kExitBadPath = 2,         // an input is missing or unusable, or an output folder cannot be used; nothing done
  kExitFailed = 3,          // a model or file failed: it was not converted, or is not sound
  kExitFilesystemError = 4, // the file system failed under the run (vertexmill: an unreadable tree, ...)
};

} // namespace cstdmf
