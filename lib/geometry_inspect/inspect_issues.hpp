#pragma once
// What the inspector found wrong with a file, and the two helpers every inspection uses: reading a
// whole file into one block, and collecting the messages the project's libraries log while they
// look at it (so every finding ends up in the report, text or JSON, instead of only on a console).

#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace geometry_inspect
{

enum class Severity
{
  Warning, // suspicious, but the runtime can still load and draw the file
  Error,   // the file is corrupt or cannot be used as it is
};

struct Issue
{
  Severity severity = Severity::Error;
  std::string text; // one line, no trailing newline; begins with the file name
};

class Issues
{
public:
  void warning(std::string text) { m_items.push_back({Severity::Warning, std::move(text)}); }
  void error(std::string text) { m_items.push_back({Severity::Error, std::move(text)}); }

  const std::vector<Issue>& items() const { return m_items; }
  size_t count(Severity severity) const;
  bool hasErrors() const { return count(Severity::Error) != 0; }

private:
  std::vector<Issue> m_items;
};

// Reads the file at `path` (UTF-8) whole into a new block. Returns false with `error` set to the
// reason (the operating system's, e.g. "No such file or directory") when the file cannot be read;
// an empty file gives an empty block.
[[nodiscard]] bool readWholeFile(const std::string& path, BinaryPtr& block, std::string& error);

// While alive, gathers every WARNING-or-higher message of the application logger, in order,
// without its trailing newline. The inspector is single-threaded: the collector adds itself to the
// logger's sinks on construction and removes itself on destruction, which is not safe while other
// threads log.
class LogCollector
{
public:
  LogCollector();
  ~LogCollector();
  LogCollector(const LogCollector&) = delete;
  LogCollector& operator=(const LogCollector&) = delete;

  // The messages gathered since construction or the last take, which are then forgotten.
  std::vector<std::string> take();
  // As take(), joined with "; " (empty when there were none).
  std::string takeJoined();

private:
  class Sink;
  std::shared_ptr<Sink> m_sink;
};

} // namespace geometry_inspect
