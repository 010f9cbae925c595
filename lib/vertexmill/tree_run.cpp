#include "vertexmill/tree_run.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/parallel.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/console_router.hpp"
#include "vertexmill/exit_status.hpp"
#include "vertexmill/progress_line.hpp"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>

namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
// The window of models that may be started: from the first one whose messages are still to be
// printed, this many per job. Bounds the finished-but-unprinted logs when one model takes long,
// and is where the largest models are picked from first.
constexpr size_t kLookaheadPerJob = 64;

struct Failure
{
  std::string source;
  std::string firstError;
  std::string reason;
};

class TreeRun
{
public:
  TreeRun(const ModelList& models, const TreeRunOptions& options, ConsoleRouter& router)
    : m_models(models), m_options(options), m_router(router), m_progress(options.showProgress),
      m_slots(models.sources.size())
  {
  }

  int run();

private:
  // What the coordinating thread needs of each model; nothing else is kept per model.
  struct Slot
  {
    bool started = false;
    bool done = false;
    ModelResult result;
    std::unique_ptr<ModelLog> log;
  };

  ModelResult convert(size_t index, unsigned compilerJobs, ModelLog& log) const;
  void publish(size_t index, const ModelResult& result, ModelLog& log);
  void runInOrder();
  void runConcurrently(unsigned workers);
  void workerLoop();
  [[nodiscard]] bool takeNext(size_t& index, unsigned& compilerJobs);
  std::uintmax_t sizeOf(size_t index) const;
  std::string currentName(size_t index) const;

  const ModelList& m_models;
  const TreeRunOptions& m_options;
  ConsoleRouter& m_router;
  ProgressLine m_progress;

  // Printing side, coordinating thread only.
  size_t m_generated = 0;
  std::vector<Failure> m_failures;

  // Shared with the workers, under m_mutex.
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Slot> m_slots;
  // Models of the window not started yet, largest first (ties in list order).
  std::vector<size_t> m_ready;
  size_t m_admitted = 0;  // models before this one have been in the window
  size_t m_started = 0;
  size_t m_published = 0; // first model whose messages are not printed yet
  size_t m_doneCount = 0;
  bool m_stop = false;
};

std::uintmax_t TreeRun::sizeOf(size_t index) const
{
  return index < m_models.sizes.size() ? m_models.sizes[index] : 0;
}

bool TreeRun::takeNext(size_t& index, unsigned& compilerJobs)
{
  const auto smaller = [this](size_t a, size_t b) {
    const std::uintmax_t sizeA = sizeOf(a);
    const std::uintmax_t sizeB = sizeOf(b);
    return sizeA != sizeB ? sizeA < sizeB : a > b;
  };
  const size_t end = std::min(m_slots.size(), m_published + kLookaheadPerJob * m_options.jobs);
  for (; m_admitted < end; ++m_admitted)
  {
    m_ready.push_back(m_admitted);
    std::push_heap(m_ready.begin(), m_ready.end(), smaller);
  }
  if (m_stop || m_ready.empty())
    return false;
  std::pop_heap(m_ready.begin(), m_ready.end(), smaller);
  index = m_ready.back();
  m_ready.pop_back();
  m_slots[index].started = true;
  compilerJobs = compilerJobsFor(m_started++, m_slots.size(), m_options.jobs);
  return true;
}

std::string TreeRun::currentName(size_t index) const
{
  return index < m_models.sources.size() ? cstdmf::toUtf8(m_models.sources[index]) : std::string();
}

ModelResult TreeRun::convert(size_t index, unsigned compilerJobs, ModelLog& log) const
{
  ModelSettings settings = m_options.model;
  settings.compilerJobs = compilerJobs;
  settings.reportOrder = index;
  if (m_options.keepGoing && !m_options.workerProgram.empty())
    return convertModelInWorker(m_options.workerProgram, m_models.sources[index], m_models.outputFor(index),
                                settings, m_options.workerLimits, log, [this](int level) {
                                  return m_router.wouldShow(static_cast<spdlog::level::level_enum>(level));
                                });
  const cstdmf::ScopedWorkContext context(&log);
  return convertModel(m_models.sources[index], m_models.outputFor(index), settings);
}

void TreeRun::publish(size_t index, const ModelResult& result, ModelLog& log)
{
  m_router.replay(log);
  if (result.outcome == ModelOutcome::Failed)
    m_failures.push_back(Failure{cstdmf::toUtf8(m_models.sources[index]), log.firstError(), result.reason});
  else
    ++m_generated;
}

void TreeRun::runInOrder()
{
  const size_t count = m_models.sources.size();
  for (size_t index = 0; index < count; ++index)
  {
    m_progress.update(index, count, currentName(index), true);
    ModelLog log(currentName(index));
    const ModelResult result = convert(index, compilerJobsFor(index, count, m_options.jobs), log);
    publish(index, result, log);
    if (result.outcome == ModelOutcome::Failed && !m_options.keepGoing)
      return;
  }
}

void TreeRun::workerLoop()
{
  const size_t count = m_slots.size();
  for (;;)
  {
    size_t index = 0;
    unsigned compilerJobs = 1;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      // Waits while every model of the window is taken and more are still to come.
      bool taken = false;
      m_changed.wait(lock, [&] {
        taken = takeNext(index, compilerJobs);
        return taken || m_stop || (m_admitted >= count && m_ready.empty());
      });
      if (!taken)
        return;
    }
    auto log = std::make_unique<ModelLog>(currentName(index));
    ModelResult result = convert(index, compilerJobs, *log);
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      Slot& slot = m_slots[index];
      slot.done = true;
      const bool failed = result.outcome == ModelOutcome::Failed;
      slot.result = std::move(result);
      slot.log = std::move(log);
      ++m_doneCount;
      if (failed && !m_options.keepGoing)
        m_stop = true;
    }
    m_changed.notify_all();
  }
}

void TreeRun::runConcurrently(unsigned workers)
{
  const size_t count = m_slots.size();
  m_progress.update(0, count, currentName(0), true);
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (unsigned i = 0; i < workers; ++i)
  {
    try
    {
      threads.emplace_back([this] { workerLoop(); });
    }
    catch (const std::system_error&)
    {
      // The system refused another thread: go on with the ones there are.
      break;
    }
  }
  if (threads.empty())
  {
    runInOrder();
    return;
  }

  // This thread prints: each model's log as soon as it and every model before it are done (or,
  // after a failure, will never run).
  std::unique_lock<std::mutex> lock(m_mutex);
  size_t shownDone = static_cast<size_t>(-1);
  while (m_published < count)
  {
    const size_t index = m_published;
    if (m_slots[index].done)
    {
      std::unique_ptr<ModelLog> log = std::move(m_slots[index].log);
      const ModelResult result = m_slots[index].result;
      lock.unlock();
      publish(index, result, *log);
      log.reset();
      lock.lock();
      ++m_published;
      m_changed.notify_all();
      continue;
    }
    // Once stopped, a model that has not been started never will be.
    if (m_stop && !m_slots[index].started)
    {
      ++m_published;
      continue;
    }
    if (shownDone != m_doneCount)
    {
      shownDone = m_doneCount;
      lock.unlock();
      m_progress.update(shownDone, count, currentName(index));
      lock.lock();
      continue;
    }
    m_changed.wait(lock);
  }
  lock.unlock();
  for (std::thread& thread : threads)
    thread.join();
}

int TreeRun::run()
{
  const size_t count = m_models.sources.size();
  m_router.setBeforeWrite([this] { m_progress.clear(); });
  const unsigned workers = static_cast<unsigned>(std::min<size_t>(m_options.jobs, count));
  if (workers <= 1)
    runInOrder();
  else
    runConcurrently(workers);
  m_progress.clear();
  m_router.setBeforeWrite({});

  if (m_failures.empty())
  {
    ZR_MSG_FMT(DebugMessagePriority::Info, "", "Success: {} files generated\n", m_generated);
    return kExitSuccess;
  }
  if (m_options.keepGoing)
  {
    std::string lines;
    for (const Failure& failure : m_failures)
    {
      lines += "  " + failure.source + ": " + (failure.firstError.empty() ? "no reason given" : failure.firstError);
      // The system's words, when the tool's own do not already end in them.
      if (!failure.reason.empty() && !failure.firstError.ends_with(failure.reason) &&
          !failure.firstError.ends_with(failure.reason + "."))
        lines += " (" + failure.reason + ")";
      lines += "\n";
    }
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "{} of {} models failed to convert:\n{}", m_failures.size(), count,
               lines);
  }
  return kExitFailed;
}
} // namespace

fs::path ModelList::outputFor(size_t index) const
{
  const fs::path& source = sources[index];
  fs::path relative = source.lexically_relative(sourceRoot);
  if (relative.empty())
    relative = source.filename();
  return geometryPathFor(outputRoot, relative);
}

unsigned compilerJobsFor(size_t started, size_t count, unsigned jobs)
{
  if (jobs <= 1 || started >= count)
    return 1;
  const size_t remaining = count - started;
  const size_t sharing = std::min<size_t>(jobs, remaining);
  return std::max(1u, static_cast<unsigned>(jobs / sharing));
}

int convertModels(const ModelList& models, const TreeRunOptions& options, ConsoleRouter& router)
{
  // What runs killed outright left in the folders this one writes to goes first.
  std::set<fs::path> directories;
  for (size_t index = 0; index < models.sources.size(); ++index)
    directories.insert(models.outputFor(index).parent_path());
  for (const fs::path& directory : directories)
    (void)fileio::removeStaleTemporaryFiles(cstdmf::toUtf8(directory.empty() ? fs::path(".") : directory));

  TreeRun run(models, options, router);
  return run.run();
}

} // namespace vertexmill
