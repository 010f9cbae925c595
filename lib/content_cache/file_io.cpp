#include "content_cache/file_io.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <memory>
#include <utility>

namespace content_cache
{
namespace fs = std::filesystem;

namespace
{
std::string errnoText(int code)
{
  return std::generic_category().message(code);
}

// Opens a file for reading, never a pipe, socket or device (reading one could wait forever). Null
// with the reason in `problem`; `missing` tells a file that is not there.
std::FILE* openForReading(const fs::path& path, std::string& problem, bool* missing = nullptr)
{
  if (missing)
    *missing = false;
  if (cstdmf::isSpecialFile(path))
  {
    problem = std::string(cstdmf::kSpecialFileReason);
    return nullptr;
  }
  errno = 0;
  std::FILE* file = platform::openFile(cstdmf::toUtf8(path), "rb");
  if (!file)
  {
    const int code = errno;
    if (missing)
      *missing = code == ENOENT;
    problem = errnoText(code != 0 ? code : EIO);
  }
  return file;
}

// Closes a file read to its end; false with the reason when a read failed.
bool closeAfterReading(std::FILE* file, std::string& problem)
{
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed)
    problem = errnoText(EIO);
  return !failed;
}

// Each thread's storage of the last entry it read, for the next one.
thread_local std::string t_spare;
} // namespace

std::string takeSpareBuffer()
{
  // A moved-from string is left valid but unspecified: it is emptied before it is used again.
  std::string buffer = std::exchange(t_spare, std::string());
  buffer.clear();
  return buffer;
}

void keepSpareBuffer(std::string&& buffer)
{
  if (buffer.capacity() > t_spare.capacity())
    t_spare = std::move(buffer);
}

std::span<std::byte> pieceBuffer()
{
  constexpr size_t kSize = size_t(1) << 18;
  thread_local const std::unique_ptr<std::byte[]> buffer(new std::byte[kSize]);
  return {buffer.get(), kSize};
}

bool hashFile(const fs::path& path, KeyHash& hash, std::string& problem)
{
  std::FILE* file = openForReading(path, problem);
  if (!file)
    return false;
  const std::span<std::byte> buffer = pieceBuffer();
  for (;;)
  {
    const size_t count = std::fread(buffer.data(), 1, buffer.size(), file);
    hash.update(buffer.first(count));
    if (count < buffer.size())
      break;
  }
  return closeAfterReading(file, problem);
}

bool readWholeFile(const fs::path& path, std::string& bytes, std::string& problem, bool* missing)
{
  bytes.clear();
  std::FILE* file = openForReading(path, problem, missing);
  if (!file)
    return false;
  // Read at its size in one go: growing the buffer would copy and touch the bytes several times.
  std::error_code sizeError;
  const uintmax_t expected = fs::file_size(path, sizeError);
  if (!sizeError && expected < (uintmax_t(1) << 40))
  {
    // Fresh storage is asked for large pages before it is touched: faulting it in 4 KiB at a time
    // costs more than reading the file.
    if (bytes.capacity() < expected)
    {
      bytes.reserve(static_cast<size_t>(expected));
      platform::preferLargePages(bytes.data(), bytes.capacity());
    }
    bytes.resize(static_cast<size_t>(expected));
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
  }
  // Whatever the file grew by since (or all of it when its size was unknown).
  char buffer[1 << 16];
  for (;;)
  {
    const size_t count = std::fread(buffer, 1, sizeof(buffer), file);
    bytes.append(buffer, count);
    if (count < sizeof(buffer))
      break;
  }
  return closeAfterReading(file, problem);
}

} // namespace content_cache
