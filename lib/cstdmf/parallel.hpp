#pragma once
// A minimal parallel loop for independent work items.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace cstdmf
{

// What a thread is working for, as far as code that runs on it needs to know (the command-line
// tool keeps each model's messages together through it). parallelFor hands the caller's context
// on to the threads it starts, so work split across threads stays attributed to the caller's job.
class WorkContext
{
public:
  virtual ~WorkContext() = default;
};

namespace detail
{
inline thread_local WorkContext* s_workContext = nullptr;
}

// The calling thread's work context; null when it has none.
inline WorkContext* currentWorkContext()
{
  return detail::s_workContext;
}

// Makes `context` (may be null) the calling thread's work context for the lifetime of the scope,
// then restores the previous one. The context must outlive the scope.
class ScopedWorkContext
{
public:
  explicit ScopedWorkContext(WorkContext* context) : m_previous(detail::s_workContext)
  {
    detail::s_workContext = context;
  }
  ~ScopedWorkContext() { detail::s_workContext = m_previous; }
  ScopedWorkContext(const ScopedWorkContext&) = delete;
  ScopedWorkContext& operator=(const ScopedWorkContext&) = delete;

private:
  WorkContext* m_previous;
};

// Starts a thread that runs fn with the calling thread's work context, so that work handed to it
// stays attributed to the caller's job. Throws std::system_error when the system refuses a thread.
template <typename Fn>
std::thread startWithWorkContext(Fn fn)
{
  WorkContext* const context = currentWorkContext();
  return std::thread([context, fn = std::move(fn)]() mutable {
    const ScopedWorkContext scope(context);
    fn();
  });
}

// Calls fn(i) for every i in [0, count), on up to `jobs` threads (the calling thread included).
// Items are independent; fn must not throw. With jobs <= 1 everything runs in order on the
// calling thread. The threads started here run with the caller's work context; when the system
// refuses to start one, the loop still completes on fewer threads.
template <typename Fn>
void parallelFor(size_t count, unsigned jobs, Fn&& fn)
{
  if (jobs <= 1 || count <= 1)
  {
    for (size_t i = 0; i < count; ++i)
      fn(i);
    return;
  }
  std::atomic<size_t> next{0};
  auto worker = [&]() {
    for (size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1))
      fn(i);
  };
  const size_t extra = std::min<size_t>(jobs, count) - 1;
  std::vector<std::thread> threads;
  threads.reserve(extra);
  for (size_t t = 0; t < extra; ++t)
  {
    try
    {
      threads.push_back(startWithWorkContext(worker));
    }
    catch (const std::system_error&)
    {
      // The system refused another thread: the ones there are (at least this one) do the rest.
      break;
    }
  }
  worker();
  for (auto& thread : threads)
    thread.join();
}

} // namespace cstdmf
