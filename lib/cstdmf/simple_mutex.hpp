#pragma once
// A non-recursive process-wide lock that reports re-entry by the owning thread with a soft
// assertion (written out, then execution goes on) instead of deadlocking silently.

#include <atomic>
#include <mutex>
#include <thread>

namespace cstdmf
{

// Formats "ASSERTION FAILED: %s\n%s : %d\n", writes it to the debugger output and standard error,
// breaks into an attached debugger, and returns.
void softAssertionFailed(const char* conditionText, const char* file, int line);

class SimpleMutex
{
public:
  void grab();
  void give();
  // True when the calling thread holds the lock.
  bool heldByThisThread() const;

private:
  std::mutex m_mutex;
  std::atomic<bool> m_acquired{false};
  std::atomic<std::thread::id> m_owner{};
  int m_reentries = 0; // touched only by the owning thread
};

class SimpleMutexHolder
{
public:
  explicit SimpleMutexHolder(SimpleMutex& mutex) : m_mutex(mutex) { m_mutex.grab(); }
  ~SimpleMutexHolder() { m_mutex.give(); }
  SimpleMutexHolder(const SimpleMutexHolder&) = delete;
  SimpleMutexHolder& operator=(const SimpleMutexHolder&) = delete;

private:
  SimpleMutex& m_mutex;
};

} // namespace cstdmf
