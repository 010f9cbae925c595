#include "geometry_inspect/inspect_issues.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <mutex>
#include <system_error>
#include <utility>

namespace geometry_inspect
{

size_t Issues::count(Severity severity) const
{
  return static_cast<size_t>(
    std::count_if(m_items.begin(), m_items.end(), [severity](const Issue& issue) { return issue.severity == severity; }));
}

bool readWholeFile(const std::string& path, BinaryPtr& block, std::string& error)
{
  block = nullptr;
  std::error_code folderCheck;
  if (std::filesystem::is_directory(cstdmf::u8path(path), folderCheck))
  {
    error = std::make_error_code(std::errc::is_a_directory).message();
    return false;
  }
  fileio::ReadResult read = fileio::readWholeFile(path, "Geometry");
  if (!read)
  {
    error = read.reason;
    return false;
  }
  block = std::move(read.block);
  return true;
}

class LogCollector::Sink final : public spdlog::sinks::base_sink<std::mutex>
{
public:
  std::vector<std::string> take()
  {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(m_messages, {});
  }

protected:
  void sink_it_(const spdlog::details::log_msg& msg) override
  {
    std::string text(msg.payload.data(), msg.payload.size());
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
      text.pop_back();
    m_messages.push_back(std::move(text));
  }
  void flush_() override {}

private:
  std::vector<std::string> m_messages; // guarded by the sink's own mutex
};

LogCollector::LogCollector() : m_sink(std::make_shared<Sink>())
{
  m_sink->set_level(static_cast<spdlog::level::level_enum>(DebugMessagePriority::Warning));
  cstdmf::appLogger().sinks().push_back(m_sink);
}

LogCollector::~LogCollector()
{
  auto& sinks = cstdmf::appLogger().sinks();
  sinks.erase(std::remove(sinks.begin(), sinks.end(), m_sink), sinks.end());
}

std::vector<std::string> LogCollector::take()
{
  return m_sink->take();
}

std::string LogCollector::takeJoined()
{
  std::string joined;
  for (const std::string& message : take())
  {
    if (!joined.empty())
      joined += "; ";
    joined += message;
  }
  return joined;
}

} // namespace geometry_inspect
