#pragma once
// The exact-level standard-output sink of the verbose console mode. Apart from log_sinks.hpp
// because the library's console sinks include <windows.h> on Windows (and with it macros such as
// near, far, min and max); only the few files that name this class pay for that.

#include <spdlog/sinks/stdout_sinks.h>

namespace cstdmf
{

// Standard-output sink that writes a record only when its level equals the sink's level.
class SingleLevelStdoutLogger final : public spdlog::sinks::stdout_sink_mt
{
public:
  void log(const spdlog::details::log_msg& msg) override;
};

} // namespace cstdmf
