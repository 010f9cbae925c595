#pragma once
// The only place that talks to the operating system directly. Everything else includes this
// header, never an OS header.

#include <cstdio>
#include <string>

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

// Process id of the current process.
unsigned long processId();

} // namespace platform
