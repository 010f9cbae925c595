#include "cstdmf/debug.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug_filter.hpp"
#include "cstdmf/log_sinks.hpp"

#include <spdlog/logger.h>

#include <array>
#include <cstdio>
#include <vector>

namespace cstdmf
{
namespace
{
constexpr std::array<std::string_view, kPriorityCount> s_priorityNames = {
  "TRACE", "DEBUG", "INFO", "NOTICE", "WARNING", "ERROR", "CRITICAL", "HACK", "ASSET", "OFF",
};

thread_local const char* s_currentCategory = "";

spdlog::logger* makeAppLogger()
{
  // The filter's settings exist from the first message on.
  DebugConfig::init();
  auto* logger = new spdlog::logger("APP");
  logger->set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Info));
  // A debugger-output sink first, as on every platform; where there is no debugger channel it
  // writes nowhere.
  auto debugSink = std::make_shared<DebuggerOutputSink>();
  debugSink->set_formatter(makeFormatter(kDebuggerPattern));
  debugSink->set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Trace));
  logger->sinks().push_back(std::move(debugSink));
  return logger;
}
} // namespace

std::string_view priorityName(int priority)
{
  if (priority < 0 || priority >= kPriorityCount)
    return "UNKNOWN";
  return s_priorityNames[static_cast<size_t>(priority)];
}

std::string_view priorityName(DebugMessagePriority priority)
{
  return priorityName(static_cast<int>(priority));
}

void developmentAssertionFailed(const char* conditionText, const SourceLocation& where)
{
  char text[0x8000];
  std::snprintf(text, sizeof(text), "MF_ASSERT_DEV FAILED: %s\n", conditionText);
  criticalError(text, where);
}

spdlog::logger& appLogger()
{
  // Created once under the language's one-time initialisation guard; never destroyed, so
  // messages from static destructors still have somewhere to go.
  static spdlog::logger* s_logger = makeAppLogger();
  return *s_logger;
}

bool shouldLog(DebugMessagePriority priority)
{
  return DebugFilter::instance().shouldAccept(priority, {});
}

ScopedMessageWatcher::ScopedMessageWatcher()
{
  DebugFilter::instance().addWatchers({this});
}

ScopedMessageWatcher::~ScopedMessageWatcher()
{
  DebugFilter::instance().removeWatchers({this});
}

const char* currentCategory()
{
  return s_currentCategory;
}

void emit(DebugMessagePriority priority, const char* category, const SourceLocation& where, std::string_view text)
{
  const DebugFilter& filter = DebugFilter::instance();
  if (!filter.shouldAccept(priority, category ? category : ""))
    return;
  filter.notifyWatchers(priority, category ? category : "", text);
  spdlog::logger& logger = appLogger();
  const auto level = static_cast<spdlog::level::level_enum>(priority);
  const char* previous = s_currentCategory;
  s_currentCategory = category ? category : "";
  logger.log(spdlog::source_loc{where.file, where.line, where.function}, level, text);
  s_currentCategory = previous;
}

namespace
{
void emitv(DebugMessagePriority priority, const char* category, const SourceLocation& where, const char* format,
           va_list args)
{
  char stackBuffer[1024];
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(stackBuffer, sizeof(stackBuffer), format, copy);
  va_end(copy);
  if (needed < 0)
  {
    emit(priority, category, where, format);
    return;
  }
  if (static_cast<size_t>(needed) < sizeof(stackBuffer))
  {
    emit(priority, category, where, std::string_view(stackBuffer, static_cast<size_t>(needed)));
    return;
  }
  std::vector<char> heapBuffer(static_cast<size_t>(needed) + 1);
  std::vsnprintf(heapBuffer.data(), heapBuffer.size(), format, args);
  emit(priority, category, where, std::string_view(heapBuffer.data(), static_cast<size_t>(needed)));
}
} // namespace

void emitf(DebugMessagePriority priority, const char* category, const SourceLocation& where, const char* format, ...)
{
  va_list args;
  va_start(args, format);
  emitv(priority, category, where, format, args);
  va_end(args);
}

void assertionFailed(const char* conditionText, const SourceLocation& where)
{
  char text[0x8000];
  std::snprintf(text, sizeof(text), "ASSERTION FAILED: %s\n", conditionText);
  criticalError(text, where);
}

} // namespace cstdmf
