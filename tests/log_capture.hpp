#pragma once
// Captures what the application logger prints while alive, through a sink with the given line
// pattern (default "LEVEL: text"). The logger adds its own line end after each message, so a
// message that carries "\n" shows as a blank line after it. Every other sink is removed again at
// the end.

#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include <memory>
#include <sstream>
#include <string>

namespace testutil
{

class LogCapture
{
public:
  // sinkLevel: the lowest priority captured. Messages below the logger's own level (INFO by
  // default) never reach a sink; lowerLoggerLevel lets TRACE and DEBUG through too.
  explicit LogCapture(const char* pattern = "%l: %v", DebugMessagePriority sinkLevel = DebugMessagePriority::Trace,
                      bool lowerLoggerLevel = false)
  {
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(stream);
    sink->set_formatter(cstdmf::makeFormatter(pattern));
    sink->set_level(static_cast<spdlog::level::level_enum>(sinkLevel));
    cstdmf::appLogger().sinks().push_back(sink);
    if (lowerLoggerLevel)
      cstdmf::appLogger().set_level(spdlog::level::trace);
  }
  ~LogCapture() { cstdmf::resetLogging(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() const { return stream.str(); }
  bool contains(const std::string& part) const { return stream.str().find(part) != std::string::npos; }

  // The text so far, and start again.
  std::string take()
  {
    std::string text = stream.str();
    stream.str("");
    return text;
  }

  std::ostringstream stream;
};

} // namespace testutil
