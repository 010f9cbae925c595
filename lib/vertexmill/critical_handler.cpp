#include "vertexmill/critical_handler.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/platform.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/display_text.hpp"

#include <spdlog/logger.h>

#include <cstdio>

namespace vertexmill
{

std::string ToolCriticalErrorHandler::currentModel() const
{
  if (const auto* log = dynamic_cast<const ModelLog*>(cstdmf::currentWorkContext()))
  {
    if (!log->model().empty())
      return log->model();
  }
  return m_singleModel;
}

std::string ToolCriticalErrorHandler::modelLine(const std::string& source)
{
  return "CRITICAL: while converting " + toDisplayText(source) + "\n";
}

void ToolCriticalErrorHandler::handle(const char* text, const cstdmf::SourceLocation& where)
{
  // The process is ending: what other threads log from here on (a write of theirs whose temporary
  // file is removed below fails, for one) would only bury the lines that say why.
  cstdmf::appLogger().set_level(spdlog::level::off);
  const std::string model = currentModel();
  if (m_verbosity > 0 && !model.empty())
  {
    std::fflush(stdout);
    std::fputs(modelLine(model).c_str(), stderr);
  }
  (void)fileio::removeTemporaryFiles(true);
  // The rest is the default record: the crash report, then the end with status -1.
  cstdmf::DefaultCriticalErrorHandler().handle(text, where);
}

} // namespace vertexmill
