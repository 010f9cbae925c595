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

#include <cstring>
#include <string>

namespace
{

// A listener in the shape of the capture tools: the named buffer and its two events. The
// debug-string output of a process without a debugger writes into the buffer when it is ready.
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
  }
  ~DebugStringListener()
  {
    if (m_view != nullptr)
      ::UnmapViewOfFile(m_view);
    for (HANDLE handle : {m_mapping, m_dataReady, m_bufferReady})
    {
      if (handle != nullptr)
        ::CloseHandle(handle);
    }
  }
  bool ready() const { return m_view != nullptr && m_bufferReady != nullptr && m_dataReady != nullptr; }
  void arm() { ::SetEvent(m_bufferReady); }
  // The next string, or nothing when none came.
  bool take(DWORD& pid, std::string& text)
  {
    if (::WaitForSingleObject(m_dataReady, 5000) != WAIT_OBJECT_0)
      return false;
    const char* bytes = static_cast<const char*>(m_view);
    std::memcpy(&pid, bytes, sizeof(pid));
    text = bytes + sizeof(DWORD);
    return true;
  }

private:
  HANDLE m_bufferReady = nullptr;
  HANDLE m_dataReady = nullptr;
  HANDLE m_mapping = nullptr;
  void* m_view = nullptr;
};

TEST(DebuggerOutput, WrittenWithoutADebugger)
{
  ASSERT_FALSE(::IsDebuggerPresent());
  DebugStringListener listener;
  ASSERT_TRUE(listener.ready());
  listener.arm();
  ZR_MSG(DebugMessagePriority::Error, "ResMgr", "seen by the listener\n");

  DWORD pid = 0;
  std::string text;
  ASSERT_TRUE(listener.take(pid, text));
  EXPECT_EQ(pid, ::GetCurrentProcessId());
  // "[<thread>]<seconds> ERROR: [ResMgr] seen by the listener\n", the debugger pattern.
  ASSERT_EQ(text.front(), '[');
  const size_t close = text.find(']');
  ASSERT_NE(close, std::string::npos);
  const size_t blank = text.find(' ', close);
  ASSERT_NE(blank, std::string::npos);
  EXPECT_EQ(text.substr(blank), " ERROR: [ResMgr] seen by the listener\n");
}

} // namespace
#else
TEST(DebuggerOutput, WrittenWithoutADebugger)
{
  GTEST_SKIP() << "no debug-string channel on this system";
}
#endif
