#pragma once
// The program's additions to the logging library: the level-name, elapsed-time and category
// flags of the line patterns, the exact-level standard-output sink, and the console set-up.

#include "cstdmf/debug.hpp"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace cstdmf
{

// Pattern of the debugger-output sink.
inline constexpr const char* kDebuggerPattern = "%^[%t]%Z %l: %*%v%$";

// %l: the priority's name ("TRACE" ... "ASSET") for every level number 0..9.
class PriorityNameFormatter final : public spdlog::custom_flag_formatter
{
public:
  void format(const spdlog::details::log_msg& msg, const std::tm& time, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<custom_flag_formatter> clone() const override;
};

// %Z: seconds since the formatter was made, from a 100-nanosecond tick count truncated to whole
// milliseconds, printed with three decimals.
class ElapsedTimeFormatter final : public spdlog::custom_flag_formatter
{
public:
  using Clock = std::chrono::steady_clock;
  ElapsedTimeFormatter();
  explicit ElapsedTimeFormatter(Clock::time_point start);

  void format(const spdlog::details::log_msg& msg, const std::tm& time, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<custom_flag_formatter> clone() const override;

  // The text for an elapsed time given in 100-nanosecond ticks ("1.234" for 12345000 ticks).
  static std::string formatTicks(int64_t ticks);

private:
  Clock::time_point m_start;
};

// %*: "[" category "] " for a message with a category, nothing otherwise.
class CategoryFormatter final : public spdlog::custom_flag_formatter
{
public:
  void format(const spdlog::details::log_msg& msg, const std::tm& time, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<custom_flag_formatter> clone() const override;
};

// A formatter for a pattern with the program's flags (%l, %Z, %*) installed.
std::unique_ptr<spdlog::formatter> makeFormatter(const std::string& pattern);

// The category of the message being logged on this thread ("" outside a log call).
const char* currentCategory();

// Writes every record through platform::debugOutput, serialised by its own mutex, whether or not
// a debugger is attached.
class DebuggerOutputSink final : public spdlog::sinks::base_sink<std::mutex>
{
protected:
  void sink_it_(const spdlog::details::log_msg& msg) override;
  void flush_() override {}
};

// Console modes of the command-line tool: 0 quiet (no console sink), 1 WARNING and above on
// standard error as "%l: %v", 2 as 1 plus INFO lines on standard output as "%v".
void setupConsoleLogging(int mode);

// Removes every sink from the application logger and restores its default level and the message
// filter's default set-up (tests).
void resetLogging();

} // namespace cstdmf
