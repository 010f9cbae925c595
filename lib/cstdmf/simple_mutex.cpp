#include "cstdmf/simple_mutex.hpp"

#include "cstdmf/platform.hpp"

#include <cstdio>

namespace cstdmf
{

void softAssertionFailed(const char* conditionText, const char* file, int line)
{
  char text[0x8000];
  std::snprintf(text, sizeof(text), "ASSERTION FAILED: %s\n%s : %d\n", conditionText, file, line);
  platform::debugOutput(text);
  std::fputs(text, stderr);
  std::fflush(stderr);
  if (platform::isDebuggerPresent())
    platform::debugBreak();
}

void SimpleMutex::grab()
{
  if (heldByThisThread())
  {
    softAssertionFailed("m_acquired == false && \"Reentering by the same thread\"", __FILE__, __LINE__);
    // Taking the lock again would deadlock: the holder's critical section already covers us.
    ++m_reentries;
    return;
  }
  m_mutex.lock();
  m_owner.store(std::this_thread::get_id());
  this->m_acquired.store(true);
}

void SimpleMutex::give()
{
  if (m_reentries > 0 && heldByThisThread())
  {
    --m_reentries; // the matching grab was a reported re-entry
    return;
  }
  this->m_acquired.store(false);
  m_owner.store(std::thread::id{});
  m_mutex.unlock();
}

bool SimpleMutex::heldByThisThread() const
{
  return m_acquired.load() && m_owner.load() == std::this_thread::get_id();
}

} // namespace cstdmf
