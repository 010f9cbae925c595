#pragma once
// Keeps standard output free for a document the tool writes there (--report -).

namespace vertexmill
{

// Moves the used-files list of --verbose from standard output to standard error, with the same
// text. Call after the console sinks are set up and before the router takes them over.
void moveInfoLinesToStandardError();

} // namespace vertexmill
