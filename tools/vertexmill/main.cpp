// vertexmill: converts .primitives models into packed .geometry files, one file or a whole tree.
//
// Exit status: 0 every model converted, 1 bad command line, 2 a path check failed, 3 a model failed
// to convert, 4 a file-system error (unreadable directory, symbolic-link loop, ...) ended the run
// abnormally; -1 (255) when an assertion or critical error ended the process.

#include "vertexmill/tool_run.hpp"

int main(int argc, char** argv)
{
  return vertexmill::runVertexmill(argc, argv);
}

#ifdef _WIN32
#include "cstdmf/platform.hpp"

// Windows starts here (-municode, /ENTRY:wmainCRTStartup): the arguments arrive as UTF-16 and
// reach the same core as UTF-8, so non-ASCII paths survive any ANSI code page.
int wmain(int argc, wchar_t** argv)
{
  platform::useBinaryStandardStreams();
  platform::Utf8Arguments utf8(argc, argv);
  return vertexmill::runVertexmill(utf8.argc(), utf8.argv());
}
#endif
