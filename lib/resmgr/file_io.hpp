#pragma once
// Whole-file reading and writing. A file is read into one block in one go, or not at all; a file
// is written through a temporary file beside it that is renamed over it, so the path holds either
// its previous contents or the whole new ones, never a part.
//
// Temporary files: while a write is in flight its temporary file (".vm<pid>-<n>-<machine>.tmp" in
// the target's directory, <machine> eight hex digits of the host name's hash; short, because the
// target's own name may already be as long as names may be) is registered with this module and
// unregistered once it has been renamed or removed. removeTemporaryFiles() deletes every
// temporary file this process currently has in flight; a fatal-error handler calls it so that a
// process that dies in the middle of a write leaves nothing behind in an output tree. What a
// process killed outright leaves, removeStaleTemporaryFiles() takes away on a later run.

#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <span>
#include <string>

namespace fileio
{

// Why a read failed; each cause has its own status so that callers report the real one.
enum class ReadStatus
{
  Ok,
  CannotOpen,  // the file does not exist or cannot be opened for reading
  CannotSize,  // the file opened but its size could not be taken (a directory, for example)
  TooLarge,    // the size is beyond the caller's limit or beyond memory's address range
  OutOfMemory, // the block for the bytes could not be allocated
  ShortRead,   // fewer bytes arrived than the file's size
};

struct ReadResult
{
  ReadStatus status = ReadStatus::CannotOpen;
  BinaryPtr block;        // the whole file (possibly empty) when status is Ok, else null
  uint64_t fileSize = 0;  // known from CannotSize on
  size_t bytesRead = 0;   // for ShortRead
  std::string reason;     // a short text of the cause for messages, empty when Ok

  explicit operator bool() const { return status == ReadStatus::Ok; }
};

// Reads the file at utf8Path whole into one new block tagged allocationTag (a literal). An empty
// file is read successfully into an empty block. Logs nothing: the caller reports the failure in
// its own words.
[[nodiscard]] ReadResult readWholeFile(const std::string& utf8Path, const char* allocationTag,
                                       uint64_t maxSize = std::numeric_limits<uint64_t>::max());

// A file opened for reading pieces of it, for readers that never need all of it in memory at
// once. Logs nothing.
class FileReader
{
public:
  FileReader();
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  // Opens the file and takes its size: Ok, CannotOpen, CannotSize or TooLarge (past maxSize), with
  // reason() set on failure.
  [[nodiscard]] ReadStatus open(const std::string& utf8Path, uint64_t maxSize = std::numeric_limits<uint64_t>::max());
  uint64_t size() const { return m_size; }
  // Closes the file (also done when the reader goes).
  void close();
  // Reads exactly bytes.size() bytes at offset. False, with reason() and bytesRead() set, when
  // fewer arrive (the file shrank, or the system failed).
  [[nodiscard]] bool readAt(uint64_t offset, std::span<std::byte> bytes);
  const std::string& reason() const { return m_reason; }
  size_t bytesRead() const { return m_bytesRead; }

private:
  struct Handle;
  std::unique_ptr<Handle> m_handle;
  uint64_t m_size = 0;
  size_t m_bytesRead = 0;
  std::string m_reason;
};

enum class WriteStatus
{
  Ok,
  CannotCreate,  // the temporary file beside the target could not be created
  ShortWrite,    // not every byte reached the temporary file, or closing it failed
  CannotReplace, // the temporary file could not be renamed over the target
  Abandoned,     // the producer of the pieces gave up (writeWholeFileInPieces)
};

struct WriteResult
{
  WriteStatus status = WriteStatus::CannotCreate;
  size_t bytesWritten = 0; // for ShortWrite: the count written (0 when closing failed)
  std::string reason;      // a short text of the cause for messages, empty when Ok

  explicit operator bool() const { return status == WriteStatus::Ok; }
};

// Writes bytes as the whole new contents of utf8Path through a temporary file beside it. On any
// failure the temporary file is removed and the target is left as it was. Logs nothing.
[[nodiscard]] WriteResult writeWholeFile(const std::string& utf8Path, std::span<const std::byte> bytes);

// Appends a piece to a file being written; false once a piece could not be written.
using PieceSink = std::function<bool(std::span<const std::byte>)>;

// The same for contents made or read a piece at a time, never whole in memory: `produce` hands
// each piece to the sink in order and returns false to give the write up (Abandoned), which
// leaves the target as it was, as a failed write does.
[[nodiscard]] WriteResult writeWholeFileInPieces(const std::string& utf8Path,
                                                 const std::function<bool(const PieceSink&)>& produce);

// Deletes every temporary file of a write that this process has in flight, returning how many
// were removed. Safe to call from any thread, also while writes run (their rename then fails and
// they report it); not safe from a signal handler. With `processEnding` (a fatal error's last
// moments) no write may create a temporary file afterwards: such a write waits for the end.
size_t removeTemporaryFiles(bool processEnding = false);

// Whether a file written to utf8Path could be created: a new temporary file (never an existing
// one) is created beside it and removed again. Empty when it could, else the system's reason.
// Logs nothing.
[[nodiscard]] std::string creationProblem(const std::string& utf8Path);

// The name of the temporary file of write number `serial` of process `processId` of this machine.
std::string temporaryFileName(unsigned long processId, unsigned serial);

// Deletes the temporary files that writes of ended processes left in the directory, returning how
// many were removed: those of a process of this machine that no longer runs, and those of any
// other machine (or an older version of this module) not written to for an hour, so that a write
// in flight on another machine sharing the folder is never taken. Logs nothing.
size_t removeStaleTemporaryFiles(const std::string& utf8Directory);

} // namespace fileio
