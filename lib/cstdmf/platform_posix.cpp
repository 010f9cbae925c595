// The POSIX side of the platform layer (Linux and other Unix-like build hosts).
#include "cstdmf/platform.hpp"

#include <cerrno>
#include <limits>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <string>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace platform
{

void exitProcess(int code)
{
  std::_Exit(code);
}

void debugOutput(const char*)
{
  // No debugger output channel here.
}

bool isDebuggerPresent()
{
  return false;
}

void debugBreak()
{
  std::raise(SIGTRAP);
}

std::string executablePath()
{
  std::error_code error;
  const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : path.generic_string();
}

std::string executableDirectory()
{
  const std::string path = executablePath();
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

namespace
{
std::string environmentOr(const char* name, const std::string& fallback)
{
  const char* value = std::getenv(name);
  std::string text = value && *value ? std::string(value) : fallback;
  // No trailing separator, whatever the variable holds ("/" itself stays).
  while (text.size() > 1 && text.back() == '/')
    text.pop_back();
  return text;
}
} // namespace

std::string knownFolder(KnownFolder folder)
{
  const std::string home = environmentOr("HOME", "");
  switch (folder)
  {
  case KnownFolder::RoamingAppData:
    return environmentOr("XDG_CONFIG_HOME", home.empty() ? "" : home + "/.config");
  case KnownFolder::LocalAppData:
    return environmentOr("XDG_DATA_HOME", home.empty() ? "" : home + "/.local/share");
  case KnownFolder::Documents:
    return environmentOr("XDG_DOCUMENTS_DIR", home.empty() ? "" : home + "/Documents");
  case KnownFolder::Pictures:
    return environmentOr("XDG_PICTURES_DIR", home.empty() ? "" : home + "/Pictures");
  }
  return {};
}

bool isTerminal(int stream)
{
  return ::isatty(stream) == 1;
}

int terminalWidth(int stream)
{
  if (::isatty(stream) != 1)
    return 0;
  struct winsize size = {};
  if (::ioctl(stream, TIOCGWINSZ, &size) != 0)
    return 0;
  return static_cast<int>(size.ws_col);
}

std::FILE* openFile(const std::string& utf8Path, const char* mode)
{
  return std::fopen(utf8Path.c_str(), mode);
}

std::FILE* createNewDeletableFile(const std::string& utf8Path)
{
  const int descriptor = ::open(utf8Path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (descriptor < 0)
    return nullptr;
  std::FILE* file = ::fdopen(descriptor, "wb");
  if (!file)
  {
    const int error = errno;
    ::close(descriptor);
    ::unlink(utf8Path.c_str());
    errno = error;
  }
  return file;
}

bool seekFile(std::FILE* file, uint64_t offset)
{
  if (offset > static_cast<uint64_t>(std::numeric_limits<off_t>::max()))
  {
    errno = EOVERFLOW;
    return false;
  }
  return ::fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

unsigned long processId()
{
  return static_cast<unsigned long>(::getpid());
}

bool processIsRunning(unsigned long id)
{
  if (id == 0 || id > static_cast<unsigned long>(std::numeric_limits<pid_t>::max()))
    return false;
  return ::kill(static_cast<pid_t>(id), 0) == 0 || errno == EPERM;
}

std::string hostName()
{
  char name[256] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0)
    return {};
  return name;
}

void useBinaryStandardStreams()
{
}

namespace
{
sigset_t stopSignals()
{
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  return signals;
}
} // namespace

void onStopRequest(void (*cleanUp)())
{
  const sigset_t signals = stopSignals();
  if (::pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0)
    return;
  std::thread([cleanUp, signals] {
    int signal = 0;
    while (::sigwait(&signals, &signal) != 0)
    {
    }
    cleanUp();
    // Ended by the signal itself, so that whoever waits for the process sees why it ended.
    ::signal(signal, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    ::kill(::getpid(), signal);
    ::_exit(128 + signal);
  }).detach();
}

std::optional<std::string> abnormalEnd(int status)
{
  if (status > 128 && status < 128 + 65)
    return "signal " + std::to_string(status - 128);
  return std::nullopt;
}

ChildRun runLimitedProcess(const std::string& program, const std::vector<std::string>& arguments, const ChildIo& io,
                           const ChildLimits& limits)
{
  // Everything the child needs is made before fork: after it only async-signal-safe calls.
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  rlimit memory{};
  memory.rlim_cur = memory.rlim_max = static_cast<rlim_t>(limits.memoryBytes);

  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int out = ::open(io.stdoutPath.c_str(), flags, 0644);
  const int err = ::open(io.stderrPath.c_str(), flags, 0644);
  const int in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  // The child writes one byte into this pipe when it cannot get as far as the program; a
  // successful exec closes it empty.
  int failure[2] = {-1, -1};
  ChildRun run;
  if (out >= 0 && err >= 0 && in >= 0 && ::pipe2(failure, O_CLOEXEC) == 0)
  {
    [[maybe_unused]] const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0)
    {
      // The stop signals this process waits for on a thread of its own are the child's again.
      const sigset_t unblocked = stopSignals();
      ::pthread_sigmask(SIG_UNBLOCK, &unblocked, nullptr);
#if defined(__linux__)
      // The child is stopped with the thread that started it (which waits for it): a killed run
      // leaves no worker behind that could still write an output, and the worker removes its
      // temporary files as on any stop request. A parent gone before this line is
      // caught by the check after it.
      if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent)
        ::_exit(127);
#endif
      if ((io.workingDirectory.empty() || ::chdir(io.workingDirectory.c_str()) == 0) && ::dup2(in, 0) >= 0 &&
          ::dup2(out, 1) >= 0 && ::dup2(err, 2) >= 0 &&
          (limits.memoryBytes == 0 || ::setrlimit(RLIMIT_AS, &memory) == 0))
        ::execv(program.c_str(), argv.data());
      const char failed = 1;
      (void)!::write(failure[1], &failed, 1);
      ::_exit(127);
    }
    ::close(failure[1]);
    failure[1] = -1;
    char failed = 0;
    ssize_t got = 0;
    do
      got = child > 0 ? ::read(failure[0], &failed, 1) : -1;
    while (got < 0 && errno == EINTR);
    int waitStatus = 0;
    pid_t waited = -1;
    if (child > 0)
    {
      run.processId = static_cast<unsigned long>(child);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limits.timeoutMilliseconds);
#if defined(__linux__) && defined(SYS_pidfd_open)
      // Where the system hands out a descriptor for the child, its end is waited for directly.
      const int pidfd = limits.timeoutMilliseconds ? static_cast<int>(::syscall(SYS_pidfd_open, child, 0)) : -1;
      if (pidfd >= 0)
      {
        for (;;)
        {
          const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
          pollfd entry{pidfd, POLLIN, 0};
          const int ready = left.count() > 0 ? ::poll(&entry, 1, static_cast<int>(left.count())) : 0;
          if (ready < 0 && errno == EINTR)
            continue;
          if (ready == 0)
          {
            ::kill(child, SIGKILL);
            run.timedOut = true;
          }
          break;
        }
        ::close(pidfd);
        do
          waited = ::waitpid(child, &waitStatus, 0);
        while (waited < 0 && errno == EINTR);
      }
      else
#endif
      // Polled otherwise, from short to longer pauses: most children are done within milliseconds.
      for (auto pause = std::chrono::microseconds(100);;)
      {
        waited = ::waitpid(child, &waitStatus, limits.timeoutMilliseconds ? WNOHANG : 0);
        if (waited == child || (waited < 0 && errno != EINTR))
          break;
        if (waited == 0)
        {
          if (std::chrono::steady_clock::now() >= deadline)
          {
            ::kill(child, SIGKILL);
            run.timedOut = true;
            do
              waited = ::waitpid(child, &waitStatus, 0);
            while (waited < 0 && errno == EINTR);
            break;
          }
          std::this_thread::sleep_for(pause);
          pause = std::min(pause * 2, std::chrono::microseconds(20000));
        }
      }
    }
    if (waited == child && got == 0)
    {
      run.started = true;
      run.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    }
  }
  for (const int fd : {out, err, in, failure[0], failure[1]})
  {
    if (fd >= 0)
      ::close(fd);
  }
  return run;
}

namespace
{
// The first line of a small file, empty when it cannot be read.
std::string firstLine(const std::filesystem::path& path)
{
  std::ifstream stream(path);
  std::string line;
  std::getline(stream, line);
  return line;
}

// Processors a quota of `quota` per `period` microseconds allows, rounded up; 0 for no quota.
unsigned processorsOfQuota(long long quota, long long period)
{
  if (quota <= 0 || period <= 0)
    return 0;
  return static_cast<unsigned>(std::max<long long>(1, (quota + period - 1) / period));
}

#ifdef __linux__
// The smallest CPU quota of this process's cgroup and the cgroups above it; 0 for none.
unsigned cgroupProcessorLimit()
{
  namespace fs = std::filesystem;
  unsigned limit = 0;
  const auto take = [&limit](unsigned processors) {
    if (processors != 0 && (limit == 0 || processors < limit))
      limit = processors;
  };
  // cgroup v2: "<quota> <period>" or "max <period>" in cpu.max, at every level from the root down to
  // this process's group.
  const auto takeCpuMax = [&take](const fs::path& group) {
    long long quota = 0, period = 0;
    if (std::sscanf(firstLine(group / "cpu.max").c_str(), "%lld %lld", &quota, &period) == 2)
      take(processorsOfQuota(quota, period));
  };
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);)
  {
    if (line.rfind("0::", 0) != 0)
      continue;
    fs::path group = "/sys/fs/cgroup";
    takeCpuMax(group);
    for (const fs::path& part : fs::path(line.substr(3)).relative_path())
      takeCpuMax(group /= part);
  }
  // cgroup v1, as a container sees its own group.
  long long quota = 0, period = 0;
  if (std::sscanf(firstLine("/sys/fs/cgroup/cpu/cpu.cfs_quota_us").c_str(), "%lld", &quota) == 1 &&
      std::sscanf(firstLine("/sys/fs/cgroup/cpu/cpu.cfs_period_us").c_str(), "%lld", &period) == 1)
    take(processorsOfQuota(quota, period));
  return limit;
}
#endif
} // namespace

std::optional<std::string> environmentVariable(const char* name)
{
  const char* value = std::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

void setEnvironmentVariable(const char* name, const std::optional<std::string>& value)
{
  if (value)
    ::setenv(name, value->c_str(), 1);
  else
    ::unsetenv(name);
}

void keepFreedMemory()
{
#ifdef __GLIBC__
  // Blocks up to 32 MiB (the most glibc allows) come from the heap, not from mappings of their own
  // that are unmapped when freed; up to 256 MiB of free heap is kept before it is trimmed.
  (void)mallopt(M_MMAP_THRESHOLD, 32 << 20);
  (void)mallopt(M_TRIM_THRESHOLD, 256 << 20);
#endif
}

void preferLargePages(void* data, size_t size)
{
#ifdef MADV_HUGEPAGE
  // Only whole large pages inside the range can be asked for.
  constexpr uintptr_t kLargePage = uintptr_t(2) << 20;
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kLargePage - 1) & ~(kLargePage - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + size) & ~(kLargePage - 1);
  if (end > begin)
    (void)madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)size;
#endif
}

unsigned usableProcessorCount()
{
  unsigned count = std::thread::hardware_concurrency();
#ifdef __linux__
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) > 0)
    count = static_cast<unsigned>(CPU_COUNT(&set));
  if (const unsigned limit = cgroupProcessorLimit(); limit != 0 && (count == 0 || limit < count))
    count = limit;
#endif
  return std::max(1u, count);
}

SystemInfo systemInfo()
{
  SystemInfo info;
  struct utsname names{};
  if (::uname(&names) == 0)
  {
    info.osName = names.sysname;
    info.osVersion = names.release;
  }
  const long processors = ::sysconf(_SC_NPROCESSORS_ONLN);
  info.processorCount = processors > 0 ? static_cast<unsigned>(processors) : 0;
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long freePages = ::sysconf(_SC_AVPHYS_PAGES);
  if (pageSize > 0 && pages > 0)
  {
    info.physicalTotal = static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
    info.physicalAvailable = freePages > 0 ? static_cast<uint64_t>(freePages) * static_cast<uint64_t>(pageSize) : 0;
  }
  // The address space: the process's limit when it has one, else what x86-64 and AArch64 give a
  // user process (128 TiB). In use: the process's virtual size.
  struct rlimit limit{};
  info.virtualTotal = ::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                        ? static_cast<uint64_t>(limit.rlim_cur)
                        : uint64_t{1} << 47;
  uint64_t usedPages = 0;
  std::ifstream statm("/proc/self/statm");
  if (pageSize > 0 && statm >> usedPages)
  {
    const uint64_t used = usedPages * static_cast<uint64_t>(pageSize);
    info.virtualAvailable = used < info.virtualTotal ? info.virtualTotal - used : 0;
  }
  else
  {
    info.virtualAvailable = info.virtualTotal;
  }
  return info;
}

std::string tempDirectory()
{
  return environmentOr("TMPDIR", "/tmp");
}

VersionStrings executableVersionStrings(const std::string&, const std::vector<std::string>& names)
{
  VersionStrings strings;
  strings.values.resize(names.size());
  return strings;
}

namespace
{
// dlerror's text of the last failure, or the fallback when there is none.
std::string dynamicLinkerError(const char* fallback)
{
  const char* text = ::dlerror();
  return text != nullptr && *text != '\0' ? std::string(text) : std::string(fallback);
}
} // namespace

SharedLibrary::SharedLibrary(const std::string& fileName) : m_fileName(fileName)
{
  // Everything resolved now, so a library that lacks a symbol fails here rather than mid-call;
  // its symbols stay out of the global scope.
  m_handle = ::dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr)
    m_error = dynamicLinkerError("not found");
}

SharedLibrary::~SharedLibrary()
{
  if (m_handle != nullptr)
    ::dlclose(m_handle);
}

void* SharedLibrary::symbol(const char* name, std::string* problem) const
{
  if (m_handle == nullptr)
  {
    if (problem != nullptr)
      *problem = m_fileName + " is not loaded";
    return nullptr;
  }
  (void)::dlerror(); // a null symbol is only an error when dlerror says so
  void* address = ::dlsym(m_handle, name);
  if (address == nullptr && problem != nullptr)
    *problem = dynamicLinkerError("no such symbol");
  return address;
}

} // namespace platform
