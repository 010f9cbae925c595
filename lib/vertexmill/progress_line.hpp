#pragma once
// One self-overwriting status line on standard error ("[3/40] art/ships/cruiser.primitives"),
// for people watching a tree conversion in a terminal. Build logs never see it: it stays off
// unless standard error is a terminal.

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>

namespace vertexmill
{

class ProgressLine
{
public:
  // Off when `enabled` is false: then every call does nothing.
  explicit ProgressLine(bool enabled);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // Shows the counts and the model being worked on. Redraws at most every few tens of
  // milliseconds unless `force`.
  void update(size_t done, size_t total, std::string_view current, bool force = false);

  // Removes the line so that other output starts at the beginning of a clean line. Safe from any
  // thread.
  void clear();

private:
  bool m_enabled;
  std::mutex m_mutex;
  size_t m_shownColumns = 0;
  std::chrono::steady_clock::time_point m_lastDraw{};
};

} // namespace vertexmill
