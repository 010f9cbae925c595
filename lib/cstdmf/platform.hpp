#pragma once
// The only place that talks to the operating system directly. Everything else includes this
// header, never an OS header.

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace platform
{

// Ends the process at once with this exit code (no static destructors, no atexit handlers).
[[noreturn]] void exitProcess(int code);

// Writes text to the debugger's output (nothing where there is no such channel).
void debugOutput(const char* text);

bool isDebuggerPresent();
void debugBreak();

// Directory of the running executable, with '/' separators; empty when it cannot be found.
std::string executableDirectory();

// Full path of the running executable (UTF-8); empty when it cannot be found.
std::string executablePath();

enum class KnownFolder
{
  RoamingAppData,
  LocalAppData,
  Documents,
  Pictures,
};

// A standard per-user directory (UTF-8, '/' separators, no trailing separator); empty if unknown.
std::string knownFolder(KnownFolder folder);

// True when the stream (1 standard output, 2 standard error) is an interactive terminal.
bool isTerminal(int stream);

// Width in character columns of the terminal the stream (1 standard output, 2 standard error)
// writes to; 0 when the stream is no terminal or its width cannot be found.
int terminalWidth(int stream);

// Opens a file by its UTF-8 path with a C stdio mode ("rb", "wb"); null on failure. Wide
// characters are used underneath where the system needs them.
std::FILE* openFile(const std::string& utf8Path, const char* mode);
// Creates a new file for writing ("wb") that another thread may delete while it is still open: on
// Windows it is shared for deletion, so that a process ending in the middle of a write can remove
// it (it is gone once the last handle closes). The name must be free: an existing file is never
// opened (errno EEXIST), so two writers can never share one. Null on failure, errno set.
std::FILE* createNewDeletableFile(const std::string& utf8Path);
// Moves the file's position to `offset` bytes from its start, past 2 GiB too. False on failure
// (errno set).
bool seekFile(std::FILE* file, uint64_t offset);

// Process id of the current process.
unsigned long processId();
// True when a process with this id runs on this machine (also one this process may not signal
// or open).
bool processIsRunning(unsigned long id);
// The machine's name as the network knows it; empty if unknown.
std::string hostName();

// Calls `cleanUp` on a thread of its own when the process is asked to stop (SIGINT, SIGTERM and
// SIGHUP on POSIX; Ctrl-C, Ctrl-Break and a closed console on Windows), then ends the process as
// the request would have (on POSIX by the same signal). Call once, before any other thread starts:
// the signals are blocked in every thread but the one that waits for them, and child processes
// start with them unblocked.
void onStopRequest(void (*cleanUp)());

// What a crash report says about the machine and the process. Sizes in bytes; 0 where unknown.
struct SystemInfo
{
  std::string osName;    // "Windows", "Linux", ...
  std::string osVersion; // "10.0.19045", "6.1.0-13-amd64", ...
  unsigned processorCount = 0;
  uint64_t physicalTotal = 0;
  uint64_t physicalAvailable = 0;
  uint64_t virtualTotal = 0; // the process's address space
  uint64_t virtualAvailable = 0;
};
// Gathers it without allocating more than a few strings; usable on the critical-error path.
SystemInfo systemInfo();

// An environment variable's value in UTF-8 (read as UTF-16 on Windows, so a path outside the ANSI
// code page survives); nothing when it is not set.
std::optional<std::string> environmentVariable(const char* name);
// Sets (a value) or removes (nothing) an environment variable for this process and the children it
// starts from now on. `value` is UTF-8.
void setEnvironmentVariable(const char* name, const std::optional<std::string>& value);

// The processors this process may use, at least 1: those of its affinity mask, and on Linux no
// more than its cgroup's CPU quota allows (cpu.max, or cpu.cfs_quota_us under cgroup v1), rounded
// up. A machine's processor count says nothing of a container or a scheduler's share of it.
unsigned usableProcessorCount();

// Asks the C library to keep memory a run frees for its next allocations instead of returning it
// to the system at once. A run allocates buffers of much the same sizes for every model; fresh
// pages from the system are zeroed and faulted in one at a time, which on a warm cache costs more
// than the work itself. Does nothing where the library has no such setting.
void keepFreedMemory();

// Asks the system to back [data, data + size) with large pages when it is first touched: one page
// fault per 2 MiB instead of one per 4 KiB. For a large buffer that is about to be filled; does
// nothing for a small one or where the system has no such request.
void preferLargePages(void* data, size_t size);

// The system's directory for temporary files (UTF-8, '/' separators, no trailing separator);
// empty if unknown.
std::string tempDirectory();

// String values of an executable's version resource, read from its first translation.
struct VersionStrings
{
  bool translationsFound = false;               // false: no version resource, or no translation in it
  std::vector<std::optional<std::string>> values; // one per name asked for; empty when missing
};
// Reads the named values ("CompanyName", ...) from the version resource of the executable at
// `utf8Path`. Where executables carry no version resource (anywhere but Windows), reports no
// translations.
VersionStrings executableVersionStrings(const std::string& utf8Path, const std::vector<std::string>& names);

// Where a child process reads and writes: paths of files (UTF-8) that its standard output and
// error replace (created or truncated), and its working directory (empty: this process's).
// Standard input is empty. A time limit above 0 ends a child that is still running after that
// many milliseconds (killed, not asked).
struct ChildIo
{
  std::string stdoutPath;
  std::string stderrPath;
  std::string workingDirectory;
  unsigned timeLimitMilliseconds = 0;
};

// Bounds on a child process; 0 means no bound.
struct ChildLimits
{
  unsigned timeoutMilliseconds = 0; // wall-clock time before the child is killed
  unsigned long long memoryBytes = 0; // address space (POSIX) or committed memory (Windows)
};

// The memory a child process that reads files nobody vouches for (a model's conversion, a
// scene import) may use unless told otherwise: 4 GiB. None in a build with AddressSanitizer,
// whose shadow memory alone reserves more address space than that.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr unsigned long long kDefaultChildMemoryBytes = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr unsigned long long kDefaultChildMemoryBytes = 0;
#else
inline constexpr unsigned long long kDefaultChildMemoryBytes = 4ull << 30;
#endif
#else
inline constexpr unsigned long long kDefaultChildMemoryBytes = 4ull << 30;
#endif

struct ChildRun
{
  bool started = false;      // false: the program could not be started or a file not opened
  int status = 0;            // as runProcess returns it
  bool timedOut = false;     // killed at the time limit
  unsigned long processId = 0;
};

// A child process within limits (the status as runProcess gives it): a child that runs out of time is killed (timedOut); one that asks for
// more memory than allowed sees its allocations fail.
ChildRun runLimitedProcess(const std::string& program, const std::vector<std::string>& arguments, const ChildIo& io,
                           const ChildLimits& limits);

// How a child that did not exit of its own accord ended, from the status runLimitedProcess gives:
// "signal 11" on POSIX systems, "exception 0xC0000005" on Windows. Empty for an exit status (and
// for the -1 a killed Windows child ends with).
std::optional<std::string> abnormalEnd(int status);

// Runs `program` (a path, not searched for) with `arguments` (UTF-8, passed exactly as given, each
// one argument of the child) and waits for it. Returns its exit status as a parent sees it: on
// POSIX systems the low 8 bits of the exit code, or 128 + the signal number when a signal ended
// it; on Windows the whole 32-bit exit code (-1 stays -1). Empty when the program could not be
// started or a redirection file not opened, and when the child was ended at its time limit (then
// `*timedOut` is set, when given).
inline std::optional<int> runProcess(const std::string& program, const std::vector<std::string>& arguments,
                                     const ChildIo& io, bool* timedOut = nullptr)
{
  if (timedOut != nullptr)
    *timedOut = false;
  ChildLimits limits;
  limits.timeoutMilliseconds = io.timeLimitMilliseconds;
  const ChildRun run = runLimitedProcess(program, arguments, io, limits);
  if (timedOut != nullptr)
    *timedOut = run.timedOut;
  if (!run.started || run.timedOut)
    return std::nullopt;
  return run.status;
}

// Makes standard output and error pass bytes through unchanged, so that a line ends in "\n" on
// every platform: Windows opens them in text mode, which writes "\n" as "\r\n" for the C library
// but not for the logging sinks, which write to the handles directly. Nothing to do elsewhere.
void useBinaryStandardStreams();

// A shared library opened while the program runs, for a dependency that only some runs need:
// the others do not pay for loading it (and what it pulls in) at start-up. Opened by file name
// ("libcurl.so.4", "bcrypt.dll"), searched for where the system searches for the libraries a
// program links; closed when the object goes.
class SharedLibrary
{
public:
  explicit SharedLibrary(const std::string& fileName);
  ~SharedLibrary();
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  bool loaded() const { return m_handle != nullptr; }
  // The file name it was opened with.
  const std::string& fileName() const { return m_fileName; }
  // The system's reason why it could not be opened; empty when it was.
  const std::string& error() const { return m_error; }

  // Address of an exported function or object; null when the library has no such symbol (or is
  // not loaded), with the system's reason in `*problem` when given.
  void* symbol(const char* name, std::string* problem = nullptr) const;

  // The same, as a pointer of the type of the declaration it stands for:
  // function<decltype(&curl_easy_init)>("curl_easy_init").
  template <typename Function>
  Function function(const char* name, std::string* problem = nullptr) const
  {
    return reinterpret_cast<Function>(symbol(name, problem));
  }

private:
  std::string m_fileName;
  std::string m_error;
  void* m_handle = nullptr;
};

#ifdef _WIN32
// The command line of a wide-character entry point (wmain) as UTF-8 text, in the shape of main's
// arguments: argv()[argc()] is null. The strings live as long as this object.
class Utf8Arguments
{
public:
  Utf8Arguments(int argc, const wchar_t* const* wideArgv);
  Utf8Arguments(const Utf8Arguments&) = delete;
  Utf8Arguments& operator=(const Utf8Arguments&) = delete;

  int argc() const { return static_cast<int>(m_arguments.size()); }
  char** argv() { return m_pointers.data(); }

private:
  std::vector<std::string> m_arguments;
  std::vector<char*> m_pointers;
};
#endif

} // namespace platform
