#pragma once
// Which messages are passed on to the application logger, and who else sees them.
//
// Every message goes through DebugFilter::shouldAccept before anything else happens to it; an
// accepted one is shown to the watchers of the emitting thread, then logged.

#include "cstdmf/debug.hpp"

#include <atomic>
#include <initializer_list>
#include <string>
#include <string_view>

namespace cstdmf
{

// The settings the filter works from. It is made together with the application logger, so it
// exists before the first message; instance() before that is the fatal assertion
// "storage.has_value() && \"before debug helpers init\"".
class DebugConfig
{
public:
  static DebugConfig& instance();
  // Makes the settings if they do not exist yet. Called when the application logger is created.
  static void init();

  // Lowest priority accepted; messages below it are dropped whatever the logger's level.
  std::atomic<int> severity{static_cast<int>(DebugMessagePriority::Trace)};

  // Where the default critical-error handler saves crash information (UTF-8); empty means the
  // system's temporary directory. Set it before anything can fail; it is read without a lock.
  std::string crashInfoDirectory;
};

class DebugFilter
{
public:
  static DebugFilter& instance();

  // Accepts every message that the application logger's level lets through.
  void setupDefault();
  // Accepts only messages of at least this priority (and the logger's level).
  void setupBySeverity(DebugMessagePriority minimum);

  // True when a message of this priority and category is to be passed on. Cheap; nothing is
  // formatted. The category may be empty.
  bool shouldAccept(DebugMessagePriority priority, std::string_view category) const;

  // Watchers see every accepted message emitted on the thread that added them, the most
  // recently added first, before the logger's sinks. Not owned; a watcher must be removed, on the
  // thread that added it, before it dies (ScopedMessageWatcher does both). Removing one that was
  // not added does nothing.
  void addWatchers(std::initializer_list<ScopedMessageWatcher*> watchers);
  void removeWatchers(std::initializer_list<ScopedMessageWatcher*> watchers);

  // Shows the message to the calling thread's watchers.
  void notifyWatchers(DebugMessagePriority priority, std::string_view category, std::string_view text) const;

private:
  DebugFilter() = default;
};

} // namespace cstdmf
