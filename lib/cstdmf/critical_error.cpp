#include "cstdmf/critical_error.hpp"

#include "cstdmf/crash_info.hpp"
#include "cstdmf/platform.hpp"

#include <spdlog/logger.h>

#include <atomic>
#include <cstdio>

namespace cstdmf
{
namespace
{
std::atomic<int> s_criticalErrorCount{0};
std::atomic<CriticalErrorHandler*> s_handler{nullptr};
std::atomic<bool> s_fileLogging{false};
DefaultCriticalErrorHandler s_defaultHandler;
} // namespace

CriticalErrorHandler* setCriticalErrorHandler(CriticalErrorHandler* handler)
{
  return s_handler.exchange(handler);
}

void setCriticalFileLogging(bool enabled)
{
  s_fileLogging = enabled;
}

int criticalErrorCount()
{
  return s_criticalErrorCount.load();
}

void DefaultCriticalErrorHandler::handle(const char* text, const SourceLocation& where)
{
  if (s_fileLogging)
  {
    if (std::FILE* log = std::fopen("debug.log", "a"))
    {
      std::fprintf(log, "\n%s%s\n", "CRITICAL: ", text);
      std::fclose(log);
    }
    std::fprintf(stderr, "\n%s%s\n", "CRITICAL: ", text);
  }
  std::string error;
  if (!saveCrashInfo(text, where, error))
    std::fprintf(stderr, "Failed to save crash info: %s\n", error.c_str());
  std::fflush(stdout);
  std::fflush(stderr);
  platform::exitProcess(-1);
}

void criticalError(const char* text, const SourceLocation& where)
{
  if (s_criticalErrorCount.fetch_add(1) != 0)
  {
    // A critical error while the first is being handled: write it out, never run the handler
    // again.
    std::fprintf(stderr, "%s", text);
    std::fflush(stderr);
    platform::exitProcess(-1);
  }
  emit(DebugMessagePriority::Critical, "", where, text);
  appLogger().flush();
  CriticalErrorHandler* handler = s_handler.load();
  (handler ? *handler : static_cast<CriticalErrorHandler&>(s_defaultHandler)).handle(text, where);
  std::fflush(stdout);
  std::fflush(stderr);
  platform::exitProcess(-1);
}

} // namespace cstdmf
