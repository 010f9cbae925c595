#pragma once
// The critical-error path: the only way a process ends from inside the diagnostics.

#include "cstdmf/debug.hpp"

#include <atomic>

namespace cstdmf
{

// Called with the formatted text of the first critical error. It may return; the process is
// terminated afterwards in any case.
class CriticalErrorHandler
{
public:
  virtual ~CriticalErrorHandler() = default;
  virtual void handle(const char* text, const SourceLocation& where) = 0;
};

// Used when no handler is installed: writes the text to "debug.log" and standard error when file
// logging is enabled, saves crash information with the system and memory lines (crash_info.hpp;
// "Failed to save crash info: %s\n" on standard error when that fails), then ends the process with
// exit code -1. A handler of the program's own may call it to get the same record.
class DefaultCriticalErrorHandler final : public CriticalErrorHandler
{
public:
  void handle(const char* text, const SourceLocation& where) override;
};

// Installs a handler (null restores the default). Returns the previous one. Not owned.
CriticalErrorHandler* setCriticalErrorHandler(CriticalErrorHandler* handler);

// File logging of the default handler ("debug.log" in the working directory); off by default.
void setCriticalFileLogging(bool enabled);

// Number of critical errors raised so far in this process.
int criticalErrorCount();

// Logs the text at CRITICAL, runs the handler once (a critical error raised while one is being
// handled is only written out) and never returns.
[[noreturn]] void criticalError(const char* text, const SourceLocation& where);

} // namespace cstdmf

#define ZR_CRITICAL_ERROR(text) ::cstdmf::criticalError((text), ZR_SOURCE_LOCATION)
