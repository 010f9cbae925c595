#include "cstdmf/log_sinks.hpp"

#include "cstdmf/debug_filter.hpp"
#include "cstdmf/platform.hpp"
#include "cstdmf/single_level_stdout_logger.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace cstdmf
{

void PriorityNameFormatter::format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest)
{
  const std::string_view name = priorityName(static_cast<int>(msg.level));
  dest.append(name.data(), name.data() + name.size());
}

std::unique_ptr<spdlog::custom_flag_formatter> PriorityNameFormatter::clone() const
{
  return std::make_unique<PriorityNameFormatter>();
}

ElapsedTimeFormatter::ElapsedTimeFormatter() : m_start(Clock::now()) {}

ElapsedTimeFormatter::ElapsedTimeFormatter(Clock::time_point start) : m_start(start) {}

std::string ElapsedTimeFormatter::formatTicks(int64_t ticks)
{
  int64_t milliseconds = ticks / 10000;
  if (milliseconds < 0)
    milliseconds = 0;
  return fmt::format("{:.3f}", static_cast<double>(milliseconds) * 0.001);
}

void ElapsedTimeFormatter::format(const spdlog::details::log_msg&, const std::tm&, spdlog::memory_buf_t& dest)
{
  const auto elapsed = Clock::now() - m_start;
  const int64_t ticks = std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100;
  const std::string text = formatTicks(ticks);
  dest.append(text.data(), text.data() + text.size());
}

std::unique_ptr<spdlog::custom_flag_formatter> ElapsedTimeFormatter::clone() const
{
  // A clone is made when a pattern is installed, and its clock starts then.
  return std::make_unique<ElapsedTimeFormatter>();
}

void CategoryFormatter::format(const spdlog::details::log_msg&, const std::tm&, spdlog::memory_buf_t& dest)
{
  const std::string_view category = currentCategory();
  if (category.empty())
    return;
  dest.push_back('[');
  dest.append(category.data(), category.data() + category.size());
  dest.push_back(']');
  dest.push_back(' ');
}

std::unique_ptr<spdlog::custom_flag_formatter> CategoryFormatter::clone() const
{
  return std::make_unique<CategoryFormatter>();
}

std::unique_ptr<spdlog::formatter> makeFormatter(const std::string& pattern)
{
  // A bare "\n" ends every line on every platform (the library's default is "\r\n" on Windows,
  // which would follow the "\n" most texts end with): the output is the same bytes everywhere.
  auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, "\n");
  formatter->add_flag<PriorityNameFormatter>('l');
  formatter->add_flag<ElapsedTimeFormatter>('Z');
  formatter->add_flag<CategoryFormatter>('*');
  formatter->set_pattern(pattern);
  return formatter;
}

void SingleLevelStdoutLogger::log(const spdlog::details::log_msg& msg)
{
  if (msg.level != level())
    return;
  spdlog::sinks::stdout_sink_mt::log(msg);
}

void DebuggerOutputSink::sink_it_(const spdlog::details::log_msg& msg)
{
  // Written whether or not a debugger is attached: capture tools listen without attaching.
  spdlog::memory_buf_t formatted;
  formatter_->format(msg, formatted);
  formatted.push_back('\0');
  platform::debugOutput(formatted.data());
}

void setupConsoleLogging(int mode)
{
  spdlog::logger& logger = appLogger();
  if (mode <= 0)
    return;
  auto errorSink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  errorSink->set_formatter(makeFormatter("%l: %v"));
  errorSink->set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Warning));
  logger.sinks().push_back(std::move(errorSink));
  if (mode >= 2)
  {
    auto infoSink = std::make_shared<SingleLevelStdoutLogger>();
    infoSink->set_formatter(makeFormatter("%v"));
    infoSink->set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Info));
    logger.sinks().push_back(std::move(infoSink));
  }
}

void resetLogging()
{
  spdlog::logger& logger = appLogger();
  auto& sinks = logger.sinks();
  if (sinks.size() > 1)
    sinks.erase(sinks.begin() + 1, sinks.end());
  logger.set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Info));
  DebugFilter::instance().setupDefault();
}

} // namespace cstdmf
