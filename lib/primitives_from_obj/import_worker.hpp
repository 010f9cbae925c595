#pragma once
// Scene files are read by the import library in a child process: the tool runs itself with
// kWorkerOption, the child reads the scene and writes the encoded .primitives bytes to a
// temporary file, and the parent takes them from there. A crash or an endless loop inside the
// library then ends only the child: the parent reports it, removes the temporaries and writes
// nothing. The child's time is limited (ended by kill when it runs over), and so is its memory
// (its allocations fail past the bound, and it ends saying so), so that a file that claims
// billions of vertices cannot take the machine with it.

#include "resmgr/binary_block.hpp"

#include <string>
#include <string_view>

namespace objimport
{

// The hidden first argument that makes the program a worker:
//   <tool> --import-worker INPUT RESULT FORMAT|auto [--flip-v]
inline constexpr std::string_view kWorkerOption = "--import-worker";

// What the worker found, for the parent's summary line.
struct WorkerSummary
{
  size_t sets = 0;
  size_t vertices = 0;
  size_t triangles = 0;
  bool skinned = false;
  std::string formatName; // the source vertex format written
  std::string formatRead; // the library's name for the file format it read
};

// The worker's side: reads INPUT, encodes it in FORMAT (or the format its content calls for),
// writes RESULT and prints its summary on standard output. Messages go to standard error; returns
// the process's exit status (0, or 3 when the import failed).
int runImportWorker(int argc, char** argv);

struct WorkerRequest
{
  std::string input;
  std::string format; // empty: chosen by content
  bool flipV = false;
  unsigned timeLimitSeconds = 0; // 0: none
  unsigned long long memoryLimitBytes = 0; // 0: none
};

// The parent's side: runs `program` (this tool) as a worker for `request`. On success returns the
// encoded container and fills `summary`; otherwise returns null with `error` set: the worker's own
// messages (which name the input), or what ended it (a signal, the time limit, the memory limit,
// a start failure).
[[nodiscard]] BinaryPtr importInChild(const std::string& program, const WorkerRequest& request,
                                      WorkerSummary& summary, std::string& error);

} // namespace objimport
