#pragma once
// The geometry_inspect command line, callable in-process.
//
//   geometry_inspect FILE                       summary of a .geometry file, or the sections of a
//                                               .primitives file
//   geometry_inspect --json FILE                the same as JSON (see kJsonSchema)
//   geometry_inspect --validate FILE            checks; the exit status says whether FILE is sound
//   geometry_inspect --stats FILE               meshoptimizer figures per render set
//   geometry_inspect --export-obj OUT.obj FILE  render sets as a Wavefront OBJ
// The switches combine. A file is a .primitives container when its extension says so, a .geometry
// file when its extension says so, and otherwise whichever its bytes look like.

#include <ostream>

namespace GeometryInspect
{

enum ExitStatus : int
{
  kExitSound = 0,        // the file was read and nothing is wrong with it (warnings allowed)
  kExitUnsound = 1,      // the file cannot be read, is corrupt, or an export failed
  kExitBadArguments = 2, // the command line was refused
};

// Runs the tool on a UTF-8 command line (argv[0] is the program's name). Reports go to `out`;
// findings ("ERROR: ...", "WARNING: ...") and command-line errors to `err`. Needs the vertex format
// registry (Moo::PrimitiveVertexFormat::init). Returns an ExitStatus.
[[nodiscard]] int runInspect(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace GeometryInspect
