#include "vertexmill/stdout_free.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/single_level_stdout_logger.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <memory>

namespace vertexmill
{
namespace
{
// Standard-error sink that writes a record only when its level equals the sink's level.
class SingleLevelStderrSink final : public spdlog::sinks::stderr_sink_mt
{
public:
  void log(const spdlog::details::log_msg& msg) override
  {
    if (msg.level == level())
      spdlog::sinks::stderr_sink_mt::log(msg);
  }
};
} // namespace

void moveInfoLinesToStandardError()
{
  for (auto& sink : cstdmf::appLogger().sinks())
  {
    if (!std::dynamic_pointer_cast<cstdmf::SingleLevelStdoutLogger>(sink))
      continue;
    auto replacement = std::make_shared<SingleLevelStderrSink>();
    replacement->set_formatter(cstdmf::makeFormatter("%v"));
    replacement->set_level(sink->level());
    sink = std::move(replacement);
  }
}

} // namespace vertexmill
