#include "vertexmill/progress_line.hpp"

#include "cstdmf/platform.hpp"
#include "vertexmill/display_text.hpp"

#include <fmt/format.h>

#include <cstdio>

namespace vertexmill
{
namespace
{
constexpr int kStandardError = 2;
constexpr int kFallbackColumns = 80;
constexpr auto kRedrawInterval = std::chrono::milliseconds(50);
} // namespace

ProgressLine::ProgressLine(bool enabled) : m_enabled(enabled) {}

ProgressLine::~ProgressLine()
{
  clear();
}

void ProgressLine::update(size_t done, size_t total, std::string_view current, bool force)
{
  if (!m_enabled)
    return;
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto now = std::chrono::steady_clock::now();
  if (!force && m_shownColumns != 0 && now - m_lastDraw < kRedrawInterval)
    return;
  m_lastDraw = now;

  int columns = platform::terminalWidth(kStandardError);
  if (columns <= 0)
    columns = kFallbackColumns;
  // One column short of the width: a line that fills the last column wraps on some terminals,
  // and "\r" then no longer reaches its start.
  const size_t budget = static_cast<size_t>(columns - 1);
  const std::string counts = fmt::format("[{}/{}] ", done, total);
  std::string line = counts.size() < budget ? counts + tailToWidth(toDisplayText(current), budget - counts.size())
                                            : counts.substr(0, budget);
  const size_t width = displayWidth(line);
  if (width < m_shownColumns)
    line.append(m_shownColumns - width, ' ');
  std::fputc('\r', stderr);
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  m_shownColumns = width;
}

void ProgressLine::clear()
{
  if (!m_enabled)
    return;
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_shownColumns == 0)
    return;
  const std::string blank = "\r" + std::string(m_shownColumns, ' ') + "\r";
  std::fputs(blank.c_str(), stderr);
  std::fflush(stderr);
  m_shownColumns = 0;
}

} // namespace vertexmill
