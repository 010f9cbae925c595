#pragma once
// Prioritised, categorised messages and fatal assertions.
//
// Every module reports through ZR_MSG / ZR_MSG_FMT with a priority and a category ("Other" for the
// geometry compiler, "ResMgr" for the resource manager). Messages go to the process-wide
// application logger "APP"; what reaches the console is decided by the sinks installed on it
// (see log_sinks.hpp). Broken invariants are ZR_ASSERT, which never returns.

#include <fmt/format.h>

#include <cstdarg>
#include <string>
#include <string_view>

namespace spdlog {
class logger;
}

// The numeric values are also the level numbers stored in the logging library's records.
enum class DebugMessagePriority : int
{
  Trace = 0,
  Debug = 1,
  Info = 2,
  Notice = 3,
  Warning = 4,
  Error = 5,
  Critical = 6,
  Hack = 7,
  Asset = 8,
  Off = 9, // a threshold only; never a message's priority
};

namespace cstdmf
{

constexpr int kPriorityCount = 10;

// "TRACE" ... "OFF"; an out-of-range value gives "UNKNOWN".
std::string_view priorityName(DebugMessagePriority priority);
std::string_view priorityName(int priority);

struct SourceLocation
{
  const char* file = "";
  int line = 0;
  const char* function = "";
};

// The process-wide application logger "APP", created on first use. Its level is INFO unless
// changed; a message below it is dropped before any formatting.
spdlog::logger& appLogger();

// True when a message of this priority would reach at least the logger (cheap; no formatting).
bool shouldLog(DebugMessagePriority priority);

// Hands a finished text to the application logger with its category and source location.
void emit(DebugMessagePriority priority, const char* category, const SourceLocation& where, std::string_view text);

#if defined(__MINGW32__)
// MinGW's C++ runtime formats with its own C99 printf (__USE_MINGW_ANSI_STDIO), which knows %zu;
// the plain "printf" archetype there would check against the system library's older one.
#define ZR_PRINTF_LIKE(fmtIndex, firstArg) __attribute__((format(gnu_printf, fmtIndex, firstArg)))
#elif defined(__GNUC__) || defined(__clang__)
#define ZR_PRINTF_LIKE(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#else
#define ZR_PRINTF_LIKE(fmtIndex, firstArg)
#endif

// printf-style message: the text is formatted completely, then emitted.
void emitf(DebugMessagePriority priority, const char* category, const SourceLocation& where, const char* format, ...)
  ZR_PRINTF_LIKE(4, 5);

// "{}"-style message.
template <typename... Args>
void emitFmt(DebugMessagePriority priority, const char* category, const SourceLocation& where,
             fmt::format_string<Args...> format, Args&&... args)
{
  if (!shouldLog(priority))
    return;
  emit(priority, category, where, fmt::format(format, std::forward<Args>(args)...));
}

// Sees every message emitted on the thread that installed it that the message filter accepts
// (so INFO and above by default), whatever the sinks do with it: a watcher of DebugFilter, added
// on construction and removed when it goes out of scope. Watchers nest, the innermost first.
class ScopedMessageWatcher
{
public:
  ScopedMessageWatcher();
  virtual ~ScopedMessageWatcher();
  ScopedMessageWatcher(const ScopedMessageWatcher&) = delete;
  ScopedMessageWatcher& operator=(const ScopedMessageWatcher&) = delete;

  virtual void onMessage(DebugMessagePriority priority, std::string_view category, std::string_view text) = 0;
};

// Formats "MF_ASSERT_DEV FAILED: %s\n" with the condition text and takes the critical-error path:
// development assertions are fatal in this program too.
[[noreturn]] void developmentAssertionFailed(const char* conditionText, const SourceLocation& where);

// Formats "ASSERTION FAILED: %s\n" with the condition text and takes the critical-error path.
[[noreturn]] void assertionFailed(const char* conditionText, const SourceLocation& where);

} // namespace cstdmf

#if defined(_MSC_VER)
#define ZR_FUNCTION_NAME __FUNCTION__
#else
#define ZR_FUNCTION_NAME __func__
#endif

#define ZR_SOURCE_LOCATION (::cstdmf::SourceLocation{__FILE__, __LINE__, ZR_FUNCTION_NAME})

// ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryCompiler::compile loading '%s' failed.\n", path)
#define ZR_MSG(priority, category, ...)                                                                                \
  do                                                                                                                   \
  {                                                                                                                    \
    if (::cstdmf::shouldLog(priority))                                                                                 \
      ::cstdmf::emitf((priority), (category), ZR_SOURCE_LOCATION, __VA_ARGS__);                                        \
  } while (false)

// ZR_MSG_FMT(DebugMessagePriority::Error, "", "bad argument: {}\n", text)
#define ZR_MSG_FMT(priority, category, ...) ::cstdmf::emitFmt((priority), (category), ZR_SOURCE_LOCATION, __VA_ARGS__)

// Fatal assertion: always on, in every build type. The condition's source text is the message.
#define ZR_ASSERT(condition)                                                                                           \
  do                                                                                                                   \
  {                                                                                                                    \
    if (!(condition))                                                                                                  \
      ::cstdmf::assertionFailed(#condition, ZR_SOURCE_LOCATION);                                                       \
  } while (false)

// Development assertion: checked and fatal like ZR_ASSERT, reported as "MF_ASSERT_DEV FAILED: ".
#define ZR_ASSERT_DEV(condition)                                                                                       \
  do                                                                                                                   \
  {                                                                                                                    \
    if (!(condition))                                                                                                  \
      ::cstdmf::developmentAssertionFailed(#condition, ZR_SOURCE_LOCATION);                                            \
  } while (false)

// As ZR_ASSERT, reporting the given text instead of the condition's own spelling.
#define ZR_ASSERT_TEXT(condition, text)                                                                                \
  do                                                                                                                   \
  {                                                                                                                    \
    if (!(condition))                                                                                                  \
      ::cstdmf::assertionFailed((text), ZR_SOURCE_LOCATION);                                                           \
  } while (false)

// Function scopes for profiler hooks; nothing depends on them, so they compile to nothing.
#define ZR_GUARD(name) ((void)0)
