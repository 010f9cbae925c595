#pragma once
// Keeps the console readable while several models are converted at once.
//
// The router takes the place of the application logger's console sinks. A message logged on a
// thread that works for a model (a ModelLog is its work context, see cstdmf/parallel.hpp) is kept
// in that model's log; the tree runner later replays the whole log in walk order, so each model's
// lines come out together. Every other message goes straight through. On the way out, text that
// is not UTF-8 (file names on Linux) is cleaned up for display.

#include "cstdmf/parallel.hpp"

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vertexmill
{

// The messages of one model, in the order they were logged. Threads of the model append to it
// concurrently; it is read once the model is done.
class ModelLog final : public cstdmf::WorkContext
{
public:
  struct Record
  {
    spdlog::level::level_enum level = spdlog::level::info;
    spdlog::log_clock::time_point time;
    spdlog::source_loc source;
    size_t threadId = 0;
    std::string loggerName;
    std::string text;
    // A line of the tool's own output (--stats) rather than a message: it goes to standard
    // output whatever the verbosity.
    bool standardOutput = false;
  };

  ModelLog() = default;
  explicit ModelLog(std::string model) : m_model(std::move(model)) {}

  // The source path of the model these messages belong to (UTF-8); may be empty.
  const std::string& model() const { return m_model; }

  // Keeps the record when `keep`; remembers the first ERROR-or-worse text either way.
  void append(const spdlog::details::log_msg& msg, std::string text, bool keep);

  // Keeps a line for standard output (without its line end) among the messages.
  void appendOutput(std::string line);

  // Hands out the records kept so far and forgets them.
  std::vector<Record> takeRecords();

  // The first message at ERROR or above, up to its first line end; empty when there was none.
  std::string firstError() const;

private:
  const std::string m_model;
  mutable std::mutex m_mutex;
  std::vector<Record> m_records;
  std::string m_firstError;
};

class ConsoleRouter final : public spdlog::sinks::sink
{
public:
  explicit ConsoleRouter(std::vector<std::shared_ptr<spdlog::sinks::sink>> targets);

  void log(const spdlog::details::log_msg& msg) override;
  void flush() override;
  // The targets keep their own patterns.
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

  // Writes the model's records to the console sinks, in the order they were logged.
  void replay(ModelLog& log);

  // Called before anything is written to the console, from whichever thread writes (the progress
  // line clears itself there). Set only while no model is being converted.
  void setBeforeWrite(std::function<void()> beforeWrite);

  // True when any console sink would show a message of this level.
  bool wouldShow(spdlog::level::level_enum level) const;

private:
  void write(const spdlog::details::log_msg& msg);

  std::vector<std::shared_ptr<spdlog::sinks::sink>> m_targets;
  std::function<void()> m_beforeWrite;
};

// Prints a line of the tool's own output on standard output, whatever the verbosity. On a thread
// that works for a model the line is kept in the model's log and comes out with its messages, in
// walk order.
void printOutputLine(std::string line);

// From now on the lines of printOutputLine go to standard error (--report - keeps standard output
// for the document).
void moveOutputLinesToStandardError();

// Moves the application logger's console sinks (all but the first, the debugger-output sink)
// behind one router, installed in their place, and returns it. Call once, after the console
// sinks are set up and before any other thread logs.
std::shared_ptr<ConsoleRouter> installConsoleRouter();

} // namespace vertexmill
