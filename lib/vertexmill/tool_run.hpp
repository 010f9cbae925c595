#pragma once
// The vertexmill tool behind its entry point: the command line, the checks of its paths and of the
// files its options write, the default or tree run, and the exit status.

namespace vertexmill
{

// The tool from a UTF-8 command line; returns the exit status (exit_status.hpp). The Windows
// entry point converts its wide arguments and comes here too.
[[nodiscard]] int runVertexmill(int argc, const char* const* argv);

} // namespace vertexmill
