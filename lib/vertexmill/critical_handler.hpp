#pragma once
// What the tool does when an assertion or critical error ends the process: after the CRITICAL
// line, nothing more is logged, one more line names the model that was being converted (console
// modes 1 and 2 only), the temporary files of the writes in flight are removed, and the default
// record follows (the crash report in the temporary directory). The process still ends with -1.

#include "cstdmf/critical_error.hpp"

#include <string>

namespace vertexmill
{

class ToolCriticalErrorHandler final : public cstdmf::CriticalErrorHandler
{
public:
  // verbosity: 0 quiet (nothing is printed), 1 or 2 the console modes.
  explicit ToolCriticalErrorHandler(int verbosity) : m_verbosity(verbosity) {}

  // The model of a run that converts one model outside any work context (default mode).
  void setSingleModel(std::string source) { m_singleModel = std::move(source); }

  void handle(const char* text, const cstdmf::SourceLocation& where) override;

  // The model the calling thread works for: its work context's, else the single model; empty
  // when there is none.
  std::string currentModel() const;

  // The line handle() prints after the CRITICAL line.
  static std::string modelLine(const std::string& source);

private:
  int m_verbosity;
  std::string m_singleModel;
};

} // namespace vertexmill
