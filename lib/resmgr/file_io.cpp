#include "resmgr/file_io.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <system_error>
#include <vector>

namespace fileio
{
namespace
{

// The temporary files of the writes in flight.
struct TemporaryRegistry
{
  std::mutex mutex;
  std::vector<std::filesystem::path> paths;
  bool closed = false; // the process is ending: no new temporary file may appear
};

TemporaryRegistry& registry()
{
  static TemporaryRegistry instance;
  return instance;
}

// Registers the temporary file and creates it in one step under the registry's lock, so that a
// clean-up either sees the file or runs before it exists. Once the process is ending, a writer
// waits for the end instead of leaving a new file behind.
std::FILE* createRegistered(const std::filesystem::path& path)
{
  TemporaryRegistry& r = registry();
  std::unique_lock lock(r.mutex);
  while (r.closed)
  {
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    lock.lock();
  }
  // Deletable while open: a fatal end on another thread removes it in the middle of a write. A
  // name already taken is someone else's file (another machine with the same process id on a
  // shared folder): it is neither opened nor registered.
  std::FILE* file = platform::createNewDeletableFile(cstdmf::toUtf8(path));
  if (file)
    r.paths.push_back(path);
  return file;
}

void unregisterTemporary(const std::filesystem::path& path)
{
  TemporaryRegistry& r = registry();
  const std::lock_guard lock(r.mutex);
  const auto it = std::find(r.paths.begin(), r.paths.end(), path);
  if (it != r.paths.end())
    r.paths.erase(it);
}

constexpr std::string_view kTemporaryPrefix = ".vm";
constexpr std::string_view kTemporaryExtension = ".tmp";
constexpr auto kForeignTemporaryAbandonedAfter = std::chrono::hours(1);

// Eight hex digits of the host name's FNV-1a hash: which machine a temporary file is from.
const std::string& machineTag()
{
  static const std::string tag = [] {
    uint32_t hash = 2166136261u;
    for (const char c : platform::hostName())
      hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    char text[9];
    std::snprintf(text, sizeof(text), "%08x", static_cast<unsigned>(hash));
    return std::string(text);
  }();
  return tag;
}

// The parts of a temporary file's name: ".vm<pid>-<n>-<machine>.tmp" (or ".vm<pid>-<n>.tmp",
// without the machine, as earlier versions named them).
struct TemporaryName
{
  unsigned long processId = 0;
  std::string machine;
};

std::optional<TemporaryName> parseTemporaryName(std::string_view name)
{
  if (!name.starts_with(kTemporaryPrefix) || !name.ends_with(kTemporaryExtension))
    return std::nullopt;
  name = name.substr(kTemporaryPrefix.size(), name.size() - kTemporaryPrefix.size() - kTemporaryExtension.size());
  const auto isDigits = [](std::string_view text) {
    return !text.empty() && text.size() <= 19 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  const size_t first = name.find('-');
  TemporaryName parsed;
  if (first == std::string_view::npos || !isDigits(name.substr(0, first)) ||
      std::from_chars(name.data(), name.data() + first, parsed.processId).ec != std::errc())
    return std::nullopt;
  std::string_view rest = name.substr(first + 1);
  const size_t second = rest.find('-');
  if (second != std::string_view::npos)
  {
    parsed.machine = std::string(rest.substr(second + 1));
    rest = rest.substr(0, second);
    if (parsed.machine.size() != 8)
      return std::nullopt;
  }
  if (!isDigits(rest))
    return std::nullopt;
  return parsed;
}

// Closes the file on every path out of a read.
struct FileCloser
{
  void operator()(std::FILE* file) const { std::fclose(file); }
};

ReadResult readFailure(ReadStatus status, std::string reason, uint64_t fileSize = 0)
{
  ReadResult result;
  result.status = status;
  result.fileSize = fileSize;
  result.reason = std::move(reason);
  return result;
}

} // namespace

struct FileReader::Handle
{
  std::unique_ptr<std::FILE, FileCloser> file;
};

FileReader::FileReader() = default;
FileReader::~FileReader() = default;

void FileReader::close()
{
  m_handle.reset();
}

ReadStatus FileReader::open(const std::string& utf8Path, uint64_t maxSize)
{
  m_handle.reset();
  m_size = 0;
  m_reason.clear();
  if (cstdmf::isSpecialFile(cstdmf::u8path(utf8Path)))
  {
    m_reason = std::string(cstdmf::kSpecialFileReason);
    return ReadStatus::CannotOpen;
  }
  errno = 0;
  std::unique_ptr<std::FILE, FileCloser> file(platform::openFile(utf8Path, "rb"));
  if (!file)
  {
    m_reason = errno != 0 ? std::generic_category().message(errno) : std::string("cannot open the file");
    return ReadStatus::CannotOpen;
  }
  std::error_code error;
  const uintmax_t fileSize = std::filesystem::file_size(cstdmf::u8path(utf8Path), error);
  if (error)
  {
    m_reason = "cannot take the file's size: " + error.message();
    return ReadStatus::CannotSize;
  }
  m_size = fileSize;
  if (fileSize > maxSize || fileSize > std::numeric_limits<size_t>::max())
  {
    m_reason = "the file is too large";
    return ReadStatus::TooLarge;
  }
  m_handle = std::make_unique<Handle>(Handle{std::move(file)});
  return ReadStatus::Ok;
}

bool FileReader::readAt(uint64_t offset, std::span<std::byte> bytes)
{
  m_bytesRead = 0;
  if (!m_handle)
  {
    m_reason = "the file is not open";
    return false;
  }
  if (bytes.empty())
    return true;
  errno = 0;
  if (!platform::seekFile(m_handle->file.get(), offset))
  {
    m_reason = "cannot seek to byte " + std::to_string(offset) + ": " + std::generic_category().message(errno);
    return false;
  }
  m_bytesRead = std::fread(bytes.data(), 1, bytes.size(), m_handle->file.get());
  if (m_bytesRead != bytes.size())
  {
    m_reason = "read " + std::to_string(m_bytesRead) + " of " + std::to_string(bytes.size()) + " bytes";
    return false;
  }
  return true;
}

ReadResult readWholeFile(const std::string& utf8Path, const char* allocationTag, uint64_t maxSize)
{
  FileReader reader;
  const ReadStatus opened = reader.open(utf8Path, maxSize);
  if (opened != ReadStatus::Ok)
    return readFailure(opened, reader.reason(), reader.size());

  const size_t size = static_cast<size_t>(reader.size());
  BinaryPtr block(new BinaryBlock(nullptr, size, allocationTag));
  if (block->len() != size)
    return readFailure(ReadStatus::OutOfMemory, "out of memory for " + std::to_string(size) + " bytes", size);

  if (!reader.readAt(0, std::span<std::byte>(reinterpret_cast<std::byte*>(block->cdata()), size)))
  {
    ReadResult result = readFailure(ReadStatus::ShortRead,
                                    "read " + std::to_string(reader.bytesRead()) + " of " + std::to_string(size) +
                                      " bytes",
                                    size);
    result.bytesRead = reader.bytesRead();
    return result;
  }

  ReadResult result;
  result.status = ReadStatus::Ok;
  result.block = std::move(block);
  result.fileSize = size;
  result.bytesRead = size;
  return result;
}

WriteResult writeWholeFile(const std::string& utf8Path, std::span<const std::byte> bytes)
{
  return writeWholeFileInPieces(utf8Path, [bytes](const PieceSink& sink) { return sink(bytes); });
}

WriteResult writeWholeFileInPieces(const std::string& utf8Path, const std::function<bool(const PieceSink&)>& produce)
{
  static std::atomic<unsigned> s_writeCounter{0};
  const std::filesystem::path target = cstdmf::u8path(utf8Path);
  // Beside the target, so that the rename stays within one file system; unique per process and
  // per write, and created only when the name is free.
  std::filesystem::path temporary;

  WriteResult result;
  const auto discard = [&](WriteStatus status, std::string reason) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    unregisterTemporary(temporary);
    result.status = status;
    result.reason = std::move(reason);
    return result;
  };

  // The reason is the system's (errno of the failing call), never the temporary file's name.
  const auto systemReason = [](int code, const char* fallback) {
    return code != 0 ? std::generic_category().message(code) : std::string(fallback);
  };
  std::FILE* file = nullptr;
  for (int attempt = 0; attempt < 256 && !file; ++attempt)
  {
    temporary =
      target.parent_path() / cstdmf::u8path(temporaryFileName(platform::processId(), s_writeCounter.fetch_add(1)));
    errno = 0;
    file = createRegistered(temporary);
    if (!file && errno != EEXIST)
      break;
  }
  if (!file)
  {
    // Nothing was created: nothing to remove.
    result.status = WriteStatus::CannotCreate;
    result.reason = systemReason(errno, "cannot create a file beside it");
    return result;
  }
  size_t written = 0;
  int writeError = 0;
  bool shortWrite = false;
  const bool produced = produce([&](std::span<const std::byte> piece) {
    if (shortWrite)
      return false;
    const size_t count = piece.empty() ? 0 : std::fwrite(piece.data(), 1, piece.size(), file);
    written += count;
    if (count != piece.size())
    {
      writeError = errno;
      shortWrite = true;
    }
    return !shortWrite;
  });
  errno = 0;
  const bool closed = std::fclose(file) == 0;
  const int closeError = closed ? 0 : errno;
  if (shortWrite || !closed)
  {
    result.bytesWritten = closed ? written : 0;
    return discard(WriteStatus::ShortWrite, shortWrite ? systemReason(writeError, "the disk may be full")
                                                       : systemReason(closeError, "closing the file failed"));
  }
  if (!produced)
    return discard(WriteStatus::Abandoned, "abandoned by its writer");

  std::error_code error;
  std::filesystem::rename(temporary, target, error);
  if (error)
    return discard(WriteStatus::CannotReplace, error.message());
  unregisterTemporary(temporary);
  result.status = WriteStatus::Ok;
  result.bytesWritten = written;
  return result;
}

size_t removeTemporaryFiles(bool processEnding)
{
  TemporaryRegistry& r = registry();
  const std::lock_guard lock(r.mutex);
  r.closed = r.closed || processEnding;
  size_t removed = 0;
  for (const std::filesystem::path& path : r.paths)
  {
    std::error_code ignored;
    if (std::filesystem::remove(path, ignored))
      ++removed;
  }
  r.paths.clear();
  return removed;
}

std::string creationProblem(const std::string& utf8Path)
{
  // Written through a temporary file of its own, as the write will be; names taken by others are
  // skipped, never opened.
  static std::atomic<unsigned> s_probeCounter{0};
  const std::filesystem::path target = cstdmf::u8path(utf8Path);
  for (int attempt = 0; attempt < 256; ++attempt)
  {
    const std::filesystem::path probe =
      target.parent_path() /
      cstdmf::u8path(temporaryFileName(platform::processId(), 0x80000000u | s_probeCounter.fetch_add(1)));
    errno = 0;
    std::FILE* file = createRegistered(probe);
    if (file)
    {
      std::fclose(file);
      std::error_code ignored;
      std::filesystem::remove(probe, ignored);
      unregisterTemporary(probe);
      return {};
    }
    if (errno != EEXIST)
      return std::generic_category().message(errno != 0 ? errno : EACCES);
  }
  return std::generic_category().message(EEXIST);
}

std::string temporaryFileName(unsigned long processId, unsigned serial)
{
  return std::string(kTemporaryPrefix) + std::to_string(processId) + "-" + std::to_string(serial) + "-" + machineTag() +
         std::string(kTemporaryExtension);
}

size_t removeStaleTemporaryFiles(const std::string& utf8Directory)
{
  namespace fs = std::filesystem;
  std::error_code error;
  std::vector<fs::path> stale;
  const auto now = fs::file_time_type::clock::now();
  for (fs::directory_iterator it(cstdmf::u8path(utf8Directory), error), end; !error && it != end; it.increment(error))
  {
    const std::optional<TemporaryName> name = parseTemporaryName(cstdmf::toUtf8(it->path().filename()));
    if (!name)
      continue;
    std::error_code ignored;
    if (!it->is_regular_file(ignored))
      continue;
    bool ended = false;
    if (name->machine == machineTag())
      ended = !platform::processIsRunning(name->processId);
    else
    {
      const fs::file_time_type written = it->last_write_time(ignored);
      ended = !ignored && now - written > kForeignTemporaryAbandonedAfter;
    }
    if (ended)
      stale.push_back(it->path());
  }
  size_t removed = 0;
  for (const fs::path& path : stale)
  {
    std::error_code ignored;
    removed += fs::remove(path, ignored) ? 1 : 0;
  }
  return removed;
}

} // namespace fileio
