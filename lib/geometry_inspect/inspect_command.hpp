#pragma once
// The geometry_inspect command line, callable in-process.
//
//   geometry_inspect FILE                       summary of a .geometry file, or the sections of a
//                                               .primitives file
//   geometry_inspect FILE|DIR ...               several files, or folders searched for .geometry
//                                               files: each checked, one line each and a total
//   geometry_inspect --json FILE                the same as JSON (see kJsonSchema)
//   geometry_inspect --validate FILE            checks; the exit status says whether FILE is sound
//   geometry_inspect --stats FILE               meshoptimizer figures per render set
//   geometry_inspect --export-obj OUT.obj FILE  render sets as a Wavefront OBJ
//   geometry_inspect --render OUT.png FILE      a preview image (--render-mode, --render-size,
//                                               --source for a before/after pair)
//   geometry_inspect --report-html OUT.html REPORT.json   the HTML page of a vertexmill report
// The switches combine. A file is a .primitives container when its extension says so, a .geometry
// file when its extension says so, and otherwise whichever its bytes look like. Section names come
// from --names FILE.primitives, or from the .primitives file beside a .geometry file with its stem.

#include "cstdmf/exit_status.hpp"

#include <ostream>

namespace geometry_inspect
{

// The statuses all the project's tools share: kExitSuccess when every file was read and nothing is
// wrong with it (warnings allowed), kExitFailed when a file is corrupt or not sound, or an export
// or render failed.
using enum cstdmf::ExitStatus;

// Runs the tool on a UTF-8 command line (argv[0] is the program's name). Reports go to `out`;
// findings ("ERROR: ...", "WARNING: ...") and command-line errors to `err`. Needs the vertex format
// registry (Moo::PrimitiveVertexFormat::init). Returns an ExitStatus.
[[nodiscard]] int runInspect(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace geometry_inspect
