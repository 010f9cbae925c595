#pragma once
// The tool's exit statuses are the project's (cstdmf/exit_status.hpp); a model that failed to
// convert is kExitFailed.

#include "cstdmf/exit_status.hpp"

namespace vertexmill
{
using enum cstdmf::ExitStatus;
} // namespace vertexmill
