// The Windows side of the platform layer. Text crosses this boundary as UTF-8 and is converted to
// UTF-16 for the wide-character API right here, so that file names in any script work whatever
// the process's ANSI code page is.
#include "cstdmf/platform.hpp"

#include <cerrno>
#include <limits>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <knownfolders.h>
#include <shlobj.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string_view>

namespace platform
{

namespace
{

std::wstring widen(std::string_view utf8)
{
  if (utf8.empty())
    return {};
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  if (length <= 0)
    return {};
  std::wstring wide(static_cast<size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), length);
  return wide;
}

std::string narrow(std::wstring_view wide)
{
  if (wide.empty())
    return {};
  const int length =
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  if (length <= 0)
    return {};
  std::string utf8(static_cast<size_t>(length), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), utf8.data(), length, nullptr,
                        nullptr);
  return utf8;
}

std::string genericUtf8(std::wstring_view wide)
{
  std::string utf8 = narrow(wide);
  for (char& c : utf8)
  {
    if (c == '\\')
      c = '/';
  }
  return utf8;
}

// A command-line word as the C runtime's parser (CommandLineToArgvW rules) reads it back: quoted
// when empty or holding blanks or quotes, backslashes doubled only where they precede a quote.
void appendQuoted(std::wstring& commandLine, const std::wstring& argument)
{
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos)
  {
    commandLine += argument;
    return;
  }
  commandLine += L'"';
  size_t backslashes = 0;
  for (const wchar_t c : argument)
  {
    if (c == L'\\')
    {
      ++backslashes;
      continue;
    }
    if (c == L'"')
      commandLine.append(backslashes * 2 + 1, L'\\');
    else
      commandLine.append(backslashes, L'\\');
    backslashes = 0;
    commandLine += c;
  }
  commandLine.append(backslashes * 2, L'\\');
  commandLine += L'"';
}

class Handle
{
public:
  explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) : m_handle(handle) {}
  ~Handle()
  {
    if (valid())
      ::CloseHandle(m_handle);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  bool valid() const { return m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr; }
  HANDLE get() const { return m_handle; }

private:
  HANDLE m_handle;
};

HANDLE openInheritable(const std::wstring& path, DWORD access, DWORD disposition)
{
  SECURITY_ATTRIBUTES attributes{};
  attributes.nLength = sizeof(attributes);
  attributes.bInheritHandle = TRUE;
  return ::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &attributes,
                       disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

} // namespace

void exitProcess(int code)
{
  // The exit code is the 32-bit pattern of `code`: -1 reaches the parent as 0xFFFFFFFF.
  ::ExitProcess(static_cast<UINT>(code));
}

void debugOutput(const char* text)
{
  ::OutputDebugStringA(text);
}

bool isDebuggerPresent()
{
  return ::IsDebuggerPresent() != FALSE;
}

void debugBreak()
{
  ::DebugBreak();
}

std::string executablePath()
{
  // GetModuleFileNameW truncates silently when the buffer is too small: grow until it fits
  // (long paths may exceed MAX_PATH).
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;)
  {
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0)
      return {};
    if (length < buffer.size())
    {
      buffer.resize(length);
      return genericUtf8(buffer);
    }
    if (buffer.size() >= 32768)
      return {};
    buffer.resize(buffer.size() * 2);
  }
}

std::string executableDirectory()
{
  const std::string path = executablePath();
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string knownFolder(KnownFolder folder)
{
  const KNOWNFOLDERID* id = nullptr;
  switch (folder)
  {
  case KnownFolder::RoamingAppData:
    id = &FOLDERID_RoamingAppData;
    break;
  case KnownFolder::LocalAppData:
    id = &FOLDERID_LocalAppData;
    break;
  case KnownFolder::Documents:
    id = &FOLDERID_Documents;
    break;
  case KnownFolder::Pictures:
    id = &FOLDERID_Pictures;
    break;
  }
  if (!id)
    return {};
  PWSTR path = nullptr;
  std::string result;
  if (SUCCEEDED(::SHGetKnownFolderPath(*id, KF_FLAG_DEFAULT, nullptr, &path)) && path)
    result = genericUtf8(path);
  // Freed on failure too: the call may allocate either way.
  ::CoTaskMemFree(path);
  while (result.size() > 1 && result.back() == '/' && result[result.size() - 2] != ':')
    result.pop_back();
  return result;
}

bool isTerminal(int stream)
{
  // _isatty is also true for the NUL device and other character devices; only a console
  // answers GetConsoleMode.
  if (stream != 1 && stream != 2)
    return false;
  if (!::_isatty(stream))
    return false;
  DWORD mode = 0;
  return ::GetConsoleMode(::GetStdHandle(stream == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE), &mode) != FALSE;
}

int terminalWidth(int stream)
{
  if (!isTerminal(stream))
    return 0;
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!::GetConsoleScreenBufferInfo(::GetStdHandle(stream == 1 ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE), &info))
    return 0;
  // The visible window, not the (usually much wider) screen buffer.
  return static_cast<int>(info.srWindow.Right - info.srWindow.Left + 1);
}

std::FILE* openFile(const std::string& utf8Path, const char* mode)
{
  const std::wstring wide = widen(utf8Path);
  if (wide.empty())
    return nullptr;
  return ::_wfopen(wide.c_str(), widen(mode).c_str());
}

std::FILE* createNewDeletableFile(const std::string& utf8Path)
{
  const std::wstring wide = widen(utf8Path);
  if (wide.empty())
  {
    errno = EINVAL;
    return nullptr;
  }
  const HANDLE handle = ::CreateFileW(wide.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                      CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE)
  {
    const DWORD error = ::GetLastError();
    errno = error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? EEXIST
            : error == ERROR_ACCESS_DENIED                              ? EACCES
                                                                        : ENOENT;
    return nullptr;
  }
  const int descriptor = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY);
  if (descriptor == -1)
  {
    ::CloseHandle(handle);
    ::DeleteFileW(wide.c_str());
    return nullptr;
  }
  std::FILE* file = ::_fdopen(descriptor, "wb");
  if (!file)
  {
    ::_close(descriptor);
    ::DeleteFileW(wide.c_str());
  }
  return file;
}

namespace
{
void (*s_stopCleanUp)() = nullptr;

BOOL WINAPI stopRequested(DWORD)
{
  if (s_stopCleanUp)
    s_stopCleanUp();
  ::ExitProcess(STATUS_CONTROL_C_EXIT);
  return TRUE;
}
} // namespace

void onStopRequest(void (*cleanUp)())
{
  s_stopCleanUp = cleanUp;
  ::SetConsoleCtrlHandler(stopRequested, TRUE);
}

bool seekFile(std::FILE* file, uint64_t offset)
{
  if (offset > static_cast<uint64_t>(std::numeric_limits<__int64>::max()))
  {
    errno = EOVERFLOW;
    return false;
  }
  return ::_fseeki64(file, static_cast<__int64>(offset), SEEK_SET) == 0;
}

unsigned long processId()
{
  return static_cast<unsigned long>(::GetCurrentProcessId());
}

bool processIsRunning(unsigned long id)
{
  if (id == 0)
    return false;
  HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(id));
  if (process == nullptr)
    return ::GetLastError() == ERROR_ACCESS_DENIED;
  // An ended process whose handle someone still holds opens too, but is signalled.
  const bool running = ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  ::CloseHandle(process);
  return running;
}

std::string hostName()
{
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
  if (!::GetComputerNameW(name, &length))
    return {};
  return narrow(std::wstring_view(name, length));
}

void useBinaryStandardStreams()
{
  std::fflush(stdout);
  std::fflush(stderr);
  ::_setmode(::_fileno(stdout), _O_BINARY);
  ::_setmode(::_fileno(stderr), _O_BINARY);
}

std::optional<std::string> abnormalEnd(int status)
{
  // An exception nobody handled ends a process with its code: an error's codes start at 0xC0000000.
  const auto code = static_cast<uint32_t>(status);
  if (code < 0xC0000000u || code == 0xFFFFFFFFu)
    return std::nullopt;
  char text[32];
  std::snprintf(text, sizeof text, "exception 0x%08X", static_cast<unsigned>(code));
  return std::string(text);
}

ChildRun runLimitedProcess(const std::string& program, const std::vector<std::string>& arguments, const ChildIo& io,
                           const ChildLimits& limits)
{
  ChildRun run;
  const std::wstring application = widen(program);
  std::wstring commandLine;
  appendQuoted(commandLine, application);
  for (const std::string& argument : arguments)
  {
    commandLine += L' ';
    appendQuoted(commandLine, widen(argument));
  }

  const Handle in(openInheritable(L"NUL", GENERIC_READ, OPEN_EXISTING));
  const Handle out(openInheritable(widen(io.stdoutPath), GENERIC_WRITE, CREATE_ALWAYS));
  const Handle err(openInheritable(widen(io.stderrPath), GENERIC_WRITE, CREATE_ALWAYS));
  if (!in.valid() || !out.valid() || !err.valid())
    return run;

  // The child runs in a job of its own: the memory bound is the job's, and closing the job (or
  // the time limit) ends the child with everything it started.
  const Handle job(::CreateJobObjectW(nullptr, nullptr));
  if (!job.valid())
    return run;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION info{};
  info.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  if (limits.memoryBytes != 0)
  {
    info.BasicLimitInformation.LimitFlags |= JOB_OBJECT_LIMIT_PROCESS_MEMORY;
    info.ProcessMemoryLimit = static_cast<SIZE_T>(limits.memoryBytes);
  }
  if (!::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &info, sizeof(info)))
    return run;

  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = in.get();
  startup.hStdOutput = out.get();
  startup.hStdError = err.get();
  PROCESS_INFORMATION process{};
  const std::wstring directory = widen(io.workingDirectory);
  if (!::CreateProcessW(application.c_str(), commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                        directory.empty() ? nullptr : directory.c_str(), &startup, &process))
    return run;
  const Handle processHandle(process.hProcess);
  const Handle threadHandle(process.hThread);
  run.processId = static_cast<unsigned long>(process.dwProcessId);
  // Where jobs cannot be nested (older systems, a parent already in a job) the child runs
  // without the memory bound; the time limit still holds.
  const bool inJob = ::AssignProcessToJobObject(job.get(), process.hProcess) != FALSE;
  ::ResumeThread(process.hThread);

  const DWORD wait = limits.timeoutMilliseconds ? static_cast<DWORD>(limits.timeoutMilliseconds) : INFINITE;
  DWORD waited = ::WaitForSingleObject(process.hProcess, wait);
  if (waited == WAIT_TIMEOUT)
  {
    if (inJob)
      ::TerminateJobObject(job.get(), static_cast<UINT>(-1));
    else
      ::TerminateProcess(process.hProcess, static_cast<UINT>(-1));
    run.timedOut = true;
    waited = ::WaitForSingleObject(process.hProcess, INFINITE);
  }
  DWORD code = 0;
  if (waited != WAIT_OBJECT_0 || !::GetExitCodeProcess(process.hProcess, &code))
    return run;
  run.started = true;
  run.status = static_cast<int>(code);
  return run;
}

Utf8Arguments::Utf8Arguments(int argc, const wchar_t* const* wideArgv)
{
  m_arguments.reserve(static_cast<size_t>(argc > 0 ? argc : 0));
  for (int i = 0; i < argc; ++i)
    m_arguments.push_back(narrow(wideArgv[i] ? std::wstring_view(wideArgv[i]) : std::wstring_view()));
  for (std::string& argument : m_arguments)
    m_pointers.push_back(argument.data());
  m_pointers.push_back(nullptr);
}

std::optional<std::string> environmentVariable(const char* name)
{
  const wchar_t* value = ::_wgetenv(widen(name).c_str());
  return value ? std::optional<std::string>(narrow(value)) : std::nullopt;
}

void setEnvironmentVariable(const char* name, const std::optional<std::string>& value)
{
  (void)::_wputenv_s(widen(name).c_str(), value ? widen(*value).c_str() : L"");
}

void keepFreedMemory()
{
  // The Windows heap keeps freed blocks for reuse on its own.
}

void preferLargePages(void*, size_t)
{
  // Large pages on Windows need a privilege users do not have, and memory of its own.
}

unsigned usableProcessorCount()
{
  DWORD_PTR processMask = 0, systemMask = 0;
  unsigned count = 0;
  if (::GetProcessAffinityMask(::GetCurrentProcess(), &processMask, &systemMask))
  {
    for (; processMask != 0; processMask &= processMask - 1)
      ++count;
  }
  if (count == 0)
  {
    SYSTEM_INFO system{};
    ::GetNativeSystemInfo(&system);
    count = system.dwNumberOfProcessors;
  }
  return count == 0 ? 1u : count;
}

SystemInfo systemInfo()
{
  SystemInfo info;
  info.osName = "Windows";
  // GetVersionEx answers with the version the program was made for; the kernel tells the truth.
  using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);
  if (HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll"))
  {
    const auto getVersion =
      reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlGetVersion")));
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    if (getVersion != nullptr && getVersion(&version) == 0)
      info.osVersion = std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) + "." +
                       std::to_string(version.dwBuildNumber);
  }
  SYSTEM_INFO system{};
  ::GetNativeSystemInfo(&system);
  info.processorCount = system.dwNumberOfProcessors;
  MEMORYSTATUSEX memory{};
  memory.dwLength = sizeof(memory);
  if (::GlobalMemoryStatusEx(&memory))
  {
    info.physicalTotal = memory.ullTotalPhys;
    info.physicalAvailable = memory.ullAvailPhys;
    info.virtualTotal = memory.ullTotalVirtual;
    info.virtualAvailable = memory.ullAvailVirtual;
  }
  return info;
}

std::string tempDirectory()
{
  wchar_t buffer[MAX_PATH + 2];
  const DWORD length = ::GetTempPathW(MAX_PATH + 2, buffer);
  if (length == 0 || length > MAX_PATH + 1)
    return {};
  std::string path = genericUtf8(std::wstring_view(buffer, length));
  while (path.size() > 1 && path.back() == '/' && path[path.size() - 2] != ':')
    path.pop_back();
  return path;
}

VersionStrings executableVersionStrings(const std::string& utf8Path, const std::vector<std::string>& names)
{
  VersionStrings strings;
  strings.values.resize(names.size());
  const std::wstring path = widen(utf8Path);
  DWORD ignored = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(path.c_str(), &ignored);
  if (size == 0)
    return strings;
  std::vector<unsigned char> block(size);
  if (!::GetFileVersionInfoW(path.c_str(), 0, size, block.data()))
    return strings;

  struct Translation
  {
    WORD language;
    WORD codePage;
  };
  void* translations = nullptr;
  UINT translationsSize = 0;
  if (!::VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", &translations, &translationsSize) ||
      translationsSize < sizeof(Translation))
    return strings;
  strings.translationsFound = true;
  const Translation first = *static_cast<const Translation*>(translations);

  wchar_t prefix[64];
  std::swprintf(prefix, 64, L"\\StringFileInfo\\%04x%04x\\", first.language, first.codePage);
  for (size_t i = 0; i < names.size(); ++i)
  {
    const std::wstring query = prefix + widen(names[i]);
    void* value = nullptr;
    UINT valueLength = 0;
    if (!::VerQueryValueW(block.data(), query.c_str(), &value, &valueLength) || value == nullptr)
      continue;
    // The length counts characters, the terminating zero included when there is one.
    std::wstring_view text(static_cast<const wchar_t*>(value), valueLength);
    while (!text.empty() && text.back() == L'\0')
      text.remove_suffix(1);
    strings.values[i] = narrow(text);
  }
  return strings;
}

namespace
{
// The system's text for an error code, without the line break it ends with.
std::string systemErrorText(DWORD code)
{
  wchar_t* buffer = nullptr;
  const DWORD length =
    ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                     code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  std::wstring_view text(buffer != nullptr ? buffer : L"", length);
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ' || text.back() == L'.'))
    text.remove_suffix(1);
  std::string result = narrow(text);
  if (buffer != nullptr)
    ::LocalFree(buffer);
  return result.empty() ? "error " + std::to_string(code) : result;
}
} // namespace

SharedLibrary::SharedLibrary(const std::string& fileName) : m_fileName(fileName)
{
  // Searched in the system's default order; no error box for a library that is missing.
  const UINT previousMode = ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  const HMODULE module = ::LoadLibraryW(widen(fileName).c_str());
  const DWORD error = ::GetLastError();
  ::SetErrorMode(previousMode);
  m_handle = reinterpret_cast<void*>(module);
  if (module == nullptr)
    m_error = systemErrorText(error);
}

SharedLibrary::~SharedLibrary()
{
  if (m_handle != nullptr)
    ::FreeLibrary(static_cast<HMODULE>(m_handle));
}

void* SharedLibrary::symbol(const char* name, std::string* problem) const
{
  if (m_handle == nullptr)
  {
    if (problem != nullptr)
      *problem = m_fileName + " is not loaded";
    return nullptr;
  }
  const FARPROC address = ::GetProcAddress(static_cast<HMODULE>(m_handle), name);
  if (address == nullptr && problem != nullptr)
    *problem = systemErrorText(::GetLastError());
  return reinterpret_cast<void*>(address);
}

} // namespace platform
