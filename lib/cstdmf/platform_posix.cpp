// The POSIX side of the platform layer (Linux and other Unix-like build hosts).
#include "cstdmf/platform.hpp"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sys/ioctl.h>
#include <unistd.h>

namespace platform
{

void exitProcess(int code)
{
  std::_Exit(code);
}

void debugOutput(const char*)
{
  // No debugger output channel here.
}

bool isDebuggerPresent()
{
  return false;
}

void debugBreak()
{
  std::raise(SIGTRAP);
}

std::string executablePath()
{
  std::error_code error;
  const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : path.generic_string();
}

std::string executableDirectory()
{
  const std::string path = executablePath();
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

namespace
{
std::string environmentOr(const char* name, const std::string& fallback)
{
  const char* value = std::getenv(name);
  return value && *value ? std::string(value) : fallback;
}
} // namespace

std::string knownFolder(KnownFolder folder)
{
  const std::string home = environmentOr("HOME", "");
  switch (folder)
  {
  case KnownFolder::RoamingAppData:
    return environmentOr("XDG_CONFIG_HOME", home.empty() ? "" : home + "/.config");
  case KnownFolder::LocalAppData:
    return environmentOr("XDG_DATA_HOME", home.empty() ? "" : home + "/.local/share");
  case KnownFolder::Documents:
    return environmentOr("XDG_DOCUMENTS_DIR", home.empty() ? "" : home + "/Documents");
  case KnownFolder::Pictures:
    return environmentOr("XDG_PICTURES_DIR", home.empty() ? "" : home + "/Pictures");
  }
  return {};
}

bool isTerminal(int stream)
{
  return ::isatty(stream) == 1;
}

int terminalWidth(int stream)
{
  if (::isatty(stream) != 1)
    return 0;
  struct winsize size = {};
  if (::ioctl(stream, TIOCGWINSZ, &size) != 0)
    return 0;
  return static_cast<int>(size.ws_col);
}

std::FILE* openFile(const std::string& utf8Path, const char* mode)
{
  return std::fopen(utf8Path.c_str(), mode);
}

unsigned long processId()
{
  return static_cast<unsigned long>(::getpid());
}

} // namespace platform
