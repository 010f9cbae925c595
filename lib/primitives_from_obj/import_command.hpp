#pragma once
// primitives_import's command line: converts a mesh file into a .primitives file, or writes a
// built-in shape. Wavefront OBJ files (optionally gzip-compressed) are read by the project's own
// reader; every other format the import library knows (glTF, FBX, Collada, PLY, STL, 3DS, X, ...)
// is read by that library in a child process (see import_worker.hpp).
//
// Exit status: 0 success, 1 bad command line, 2 a path cannot be used (nothing was done),
// 3 the import failed or the output could not be written.

#include <string_view>

namespace objimport
{

// The whole tool; `toolName` is the name it shows in its usage and version lines.
[[nodiscard]] int runImport(int argc, char** argv, std::string_view toolName);

} // namespace objimport
