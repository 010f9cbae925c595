// The debugger-output sink writes whether or not a debugger is attached: a capture tool that
// listens on the system's debug-string buffer, as this test does, sees every message.
#include "cstdmf/debug.hpp"
#include "cstdmf/log_sinks.hpp"

#include <gtest/gtest.h>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

// A listener in the shape of the capture tools: the named buffer and its two events, serviced by
// a thread that hands the buffer back at once after each string, so that no writer in any process
// waits on it. The buffer is left ready when the listener stops, for a writer that opened it last.
class DebugStringListener
{
public:
  DebugStringListener()
  {
    m_bufferReady = ::CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
    m_dataReady = ::CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
    m_mapping = ::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, L"DBWIN_BUFFER");
    if (m_mapping != nullptr)
      m_view = ::MapViewOfFile(m_mapping, FILE_MAP_READ, 0, 0, 4096);
    if (ready())
      m_thread = std::thread([this] { service(); });
  }
  ~DebugStringListener()
  {
    m_stop = true;
    if (m_thread.joinable())
      m_thread.join();
    if (m_bufferReady != nullptr)
      ::SetEvent(m_bufferReady);
    if (m_view != nullptr)
      ::UnmapViewOfFile(m_view);
    for (HANDLE handle : {m_mapping, m_dataReady, m_bufferReady})
    {
      if (handle != nullptr)
        ::CloseHandle(handle);
    }
  }
  bool ready() const { return m_view != nullptr && m_bufferReady != nullptr && m_dataReady != nullptr; }

  // The strings of this process seen so far, after waiting up to `milliseconds` for the first.
  std::vector<std::string> ownStrings(int milliseconds)
  {
    for (int waited = 0; waited < milliseconds; waited += 10)
    {
      {
        std::lock_guard lock(m_mutex);
        if (!m_strings.empty())
          return m_strings;
      }
      ::Sleep(10);
    }
    std::lock_guard lock(m_mutex);
    return m_strings;
  }

private:
  void service()
  {
    ::SetEvent(m_bufferReady);
    while (!m_stop)
    {
      if (::WaitForSingleObject(m_dataReady, 20) != WAIT_OBJECT_0)
        continue;
      const char* bytes = static_cast<const char*>(m_view);
      DWORD pid = 0;
      std::memcpy(&pid, bytes, sizeof(pid));
      std::string text(bytes + sizeof(DWORD), ::strnlen(bytes + sizeof(DWORD), 4096 - sizeof(DWORD)));
      ::SetEvent(m_bufferReady);
      if (pid == ::GetCurrentProcessId())
      {
        std::lock_guard lock(m_mutex);
        m_strings.push_back(std::move(text));
      }
    }
  }

  HANDLE m_bufferReady = nullptr;
  HANDLE m_dataReady = nullptr;
  HANDLE m_mapping = nullptr;
  void* m_view = nullptr;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
  std::mutex m_mutex;
  std::vector<std::string> m_strings;
};

TEST(DebuggerOutput, WrittenWithoutADebugger)
{
  ASSERT_FALSE(::IsDebuggerPresent());
  std::vector<std::string> strings;
  {
    DebugStringListener listener;
    ASSERT_TRUE(listener.ready());
    ZR_MSG(DebugMessagePriority::Error, "ResMgr", "seen by the listener\n");
    strings = listener.ownStrings(5000);
  }
  ASSERT_EQ(strings.size(), 1u);
  const std::string& text = strings[0];
  // "[<thread>]<seconds> ERROR: [ResMgr] seen by the listener\n" and the logger's line end: the
  // debugger pattern.
  ASSERT_EQ(text.front(), '[');
  const size_t close = text.find(']');
  ASSERT_NE(close, std::string::npos);
  const size_t blank = text.find(' ', close);
  ASSERT_NE(blank, std::string::npos);
  EXPECT_EQ(text.substr(blank), " ERROR: [ResMgr] seen by the listener\n\n");
}

} // namespace
#else
TEST(DebuggerOutput, WrittenWithoutADebugger)
{
  GTEST_SKIP() << "no debug-string channel on this system";
}
#endif
