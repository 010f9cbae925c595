#include "vertexmill/console_router.hpp"

#include "cstdmf/debug.hpp"
#include "vertexmill/display_text.hpp"

#include <spdlog/logger.h>

#include <cstdio>
#include <string_view>
#include <utility>

namespace vertexmill
{
namespace
{
// Standard output, or standard error while a document is written to standard output.
std::FILE* s_outputLines = stdout;

// Through the C stream, flushed: the verbose sink flushes it before each of its own writes, so
// the two keep their order on every platform.
void writeOutputLine(std::string_view line)
{
  std::string text = toDisplayText(line);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), s_outputLines);
  std::fflush(s_outputLines);
}
} // namespace

void moveOutputLinesToStandardError()
{
  s_outputLines = stderr;
}

void ModelLog::append(const spdlog::details::log_msg& msg, std::string text, bool keep)
{
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (msg.level >= static_cast<spdlog::level::level_enum>(DebugMessagePriority::Error) && m_firstError.empty())
  {
    m_firstError = text.substr(0, text.find('\n'));
    if (m_firstError.empty())
      m_firstError = "(empty message)";
  }
  if (!keep)
    return;
  m_records.push_back(Record{msg.level, msg.time, msg.source, msg.thread_id,
                             std::string(msg.logger_name.data(), msg.logger_name.size()), std::move(text)});
}

void ModelLog::appendOutput(std::string line)
{
  const std::lock_guard<std::mutex> lock(m_mutex);
  Record record;
  record.text = std::move(line);
  record.standardOutput = true;
  m_records.push_back(std::move(record));
}

std::vector<ModelLog::Record> ModelLog::takeRecords()
{
  const std::lock_guard<std::mutex> lock(m_mutex);
  return std::exchange(m_records, {});
}

std::string ModelLog::firstError() const
{
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_firstError;
}

ConsoleRouter::ConsoleRouter(std::vector<std::shared_ptr<spdlog::sinks::sink>> targets)
  : m_targets(std::move(targets))
{
}

bool ConsoleRouter::wouldShow(spdlog::level::level_enum level) const
{
  for (const auto& target : m_targets)
  {
    if (target->should_log(level))
      return true;
  }
  return false;
}

void ConsoleRouter::write(const spdlog::details::log_msg& msg)
{
  if (!wouldShow(msg.level))
    return;
  if (m_beforeWrite)
    m_beforeWrite();
  for (const auto& target : m_targets)
  {
    if (target->should_log(msg.level))
      target->log(msg);
  }
}

void ConsoleRouter::log(const spdlog::details::log_msg& msg)
{
  const std::string_view payload(msg.payload.data(), msg.payload.size());
  std::string text = toDisplayText(payload);
  auto* modelLog = dynamic_cast<ModelLog*>(cstdmf::currentWorkContext());
  const auto critical = static_cast<spdlog::level::level_enum>(DebugMessagePriority::Critical);
  if (modelLog && msg.level != critical)
  {
    modelLog->append(msg, std::move(text), wouldShow(msg.level));
    return;
  }
  if (modelLog)
  {
    // A critical error ends the process right after this message: what the model said before it
    // must come out now or never.
    replay(*modelLog);
  }
  spdlog::details::log_msg shown = msg;
  shown.payload = spdlog::string_view_t(text.data(), text.size());
  write(shown);
}

void ConsoleRouter::replay(ModelLog& log)
{
  for (const ModelLog::Record& record : log.takeRecords())
  {
    if (record.standardOutput)
    {
      if (m_beforeWrite)
        m_beforeWrite();
      writeOutputLine(record.text);
      continue;
    }
    spdlog::details::log_msg msg(record.time, record.source,
                                 spdlog::string_view_t(record.loggerName.data(), record.loggerName.size()),
                                 record.level, spdlog::string_view_t(record.text.data(), record.text.size()));
    msg.thread_id = record.threadId;
    write(msg);
  }
}

void ConsoleRouter::flush()
{
  for (const auto& target : m_targets)
    target->flush();
}

void ConsoleRouter::setBeforeWrite(std::function<void()> beforeWrite)
{
  m_beforeWrite = std::move(beforeWrite);
}

void printOutputLine(std::string line)
{
  if (auto* modelLog = dynamic_cast<ModelLog*>(cstdmf::currentWorkContext()))
    modelLog->appendOutput(std::move(line));
  else
    writeOutputLine(line);
}

std::shared_ptr<ConsoleRouter> installConsoleRouter()
{
  auto& sinks = cstdmf::appLogger().sinks();
  std::vector<std::shared_ptr<spdlog::sinks::sink>> targets;
  if (sinks.size() > 1)
  {
    targets.assign(sinks.begin() + 1, sinks.end());
    sinks.erase(sinks.begin() + 1, sinks.end());
  }
  auto router = std::make_shared<ConsoleRouter>(std::move(targets));
  sinks.push_back(router);
  return router;
}

} // namespace vertexmill
