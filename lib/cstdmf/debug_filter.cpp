#include "cstdmf/debug_filter.hpp"

#include <spdlog/logger.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace cstdmf
{
namespace
{
// Made once, with the application logger, and never destroyed: messages from static destructors
// still go through the filter.
std::optional<DebugConfig>& configStorage()
{
  static std::optional<DebugConfig>* s_storage = new std::optional<DebugConfig>();
  return *s_storage;
}

// Watchers belong to the thread that added them: a model converted on a worker thread collects
// its own messages and nobody else's.
thread_local std::vector<ScopedMessageWatcher*> s_watchers;
} // namespace

void DebugConfig::init()
{
  std::optional<DebugConfig>& storage = configStorage();
  if (!storage.has_value())
    storage.emplace();
}

DebugConfig& DebugConfig::instance()
{
  std::optional<DebugConfig>& storage = configStorage();
  ZR_ASSERT(storage.has_value() && "before debug helpers init");
  return *storage;
}

DebugFilter& DebugFilter::instance()
{
  static DebugFilter s_filter;
  return s_filter;
}

void DebugFilter::setupDefault()
{
  appLogger();
  DebugConfig::instance().severity = static_cast<int>(DebugMessagePriority::Trace);
}

void DebugFilter::setupBySeverity(DebugMessagePriority minimum)
{
  appLogger();
  DebugConfig::instance().severity = static_cast<int>(minimum);
}

bool DebugFilter::shouldAccept(DebugMessagePriority priority, std::string_view) const
{
  // The logger first: making it makes the settings too.
  if (!appLogger().should_log(static_cast<spdlog::level::level_enum>(priority)))
    return false;
  return static_cast<int>(priority) >= DebugConfig::instance().severity.load(std::memory_order_relaxed);
}

void DebugFilter::addWatchers(std::initializer_list<ScopedMessageWatcher*> watchers)
{
  for (ScopedMessageWatcher* watcher : watchers)
  {
    if (watcher != nullptr)
      s_watchers.push_back(watcher);
  }
}

void DebugFilter::removeWatchers(std::initializer_list<ScopedMessageWatcher*> watchers)
{
  for (ScopedMessageWatcher* watcher : watchers)
  {
    const auto found = std::find(s_watchers.rbegin(), s_watchers.rend(), watcher);
    if (found != s_watchers.rend())
      s_watchers.erase(std::next(found).base());
  }
}

void DebugFilter::notifyWatchers(DebugMessagePriority priority, std::string_view category, std::string_view text) const
{
  for (auto watcher = s_watchers.rbegin(); watcher != s_watchers.rend(); ++watcher)
    (*watcher)->onMessage(priority, category, text);
}

} // namespace cstdmf
