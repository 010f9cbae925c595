#include "cstdmf/crash_info.hpp"

#include "cstdmf/debug_filter.hpp"
#include "cstdmf/platform.hpp"

#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace cstdmf
{
namespace
{
void appendFormat(std::string& out, const char* format, ...) ZR_PRINTF_LIKE(2, 3);

void appendFormat(std::string& out, const char* format, ...)
{
  char line[1024];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (length > 0)
    out.append(line, static_cast<size_t>(length) < sizeof(line) ? static_cast<size_t>(length) : sizeof(line) - 1);
}

void appendMemoryLine(std::string& out, const char* format, uint64_t total, uint64_t available)
{
  const uint64_t used = available < total ? total - available : 0;
  const int percent = total != 0 ? static_cast<int>(used * 100 / total) : 0;
  appendFormat(out, format, static_cast<unsigned long long>(used / 1024), static_cast<unsigned long long>(total / 1024),
               percent);
}

// The program's name as users know it: the executable's file name without its extension.
std::string toolName()
{
  std::string name = platform::executablePath();
  const size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos)
    name.erase(0, slash + 1);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot != 0)
    name.erase(dot);
  return name.empty() ? std::string("program") : name;
}
} // namespace

std::string systemInformationText()
{
  const platform::SystemInfo info = platform::systemInfo();
  std::string out;
  appendFormat(out, "\tOS Name: %s\n", info.osName.empty() ? "unknown" : info.osName.c_str());
  appendFormat(out, "\tOS Version: %s\n", info.osVersion.empty() ? "unknown" : info.osVersion.c_str());
  appendFormat(out, "\tNumber of processors: %u\n", info.processorCount);
  // Fixed formats, not user text: the memory lines keep their exact shape.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
  appendMemoryLine(out, "\tPhysical memory: %lluKb/%lluKb (%d%%)\n", info.physicalTotal, info.physicalAvailable);
  appendMemoryLine(out, "\tVirtual memory: %lluKb/%lluKb (%d%%)\n", info.virtualTotal, info.virtualAvailable);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  return out;
}

std::string crashReportText(const char* text, const SourceLocation& where)
{
  std::string out = toolName() + " crash report\n";
  const std::time_t now = std::time(nullptr);
  char stamp[64] = "unknown";
  if (const std::tm* utc = std::gmtime(&now))
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S UTC", utc);
  appendFormat(out, "Time: %s\n", stamp);
  appendFormat(out, "Process: %lu\n", platform::processId());
  out += "Executable: " + platform::executablePath() + "\n";
  appendFormat(out, "Location: %s(%d): %s\n", where.file ? where.file : "", where.line,
               where.function ? where.function : "");
  out += "Message:\n";
  out += text ? text : "";
  if (out.back() != '\n')
    out += '\n';
  out += "System:\n";
  out += systemInformationText();
  return out;
}

std::string crashInfoPath()
{
  std::string directory = DebugConfig::instance().crashInfoDirectory;
  if (directory.empty())
    directory = platform::tempDirectory();
  if (!directory.empty() && directory.back() != '/')
    directory += '/';
  return directory + toolName() + "_crash_" + std::to_string(platform::processId()) + ".txt";
}

bool saveCrashInfo(const char* text, const SourceLocation& where, std::string& error)
{
  const std::string path = crashInfoPath();
  const std::string report = crashReportText(text, where);
  std::FILE* file = platform::openFile(path, "wb");
  if (file == nullptr)
  {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(report.data(), 1, report.size(), file) == report.size();
  const int writeErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed)
  {
    error = path + ": " + std::strerror(written ? errno : writeErrno);
    return false;
  }
  return true;
}

} // namespace cstdmf
