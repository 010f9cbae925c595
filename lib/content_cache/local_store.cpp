#include "content_cache/local_store.hpp"

#include "content_cache/file_io.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"

#include <algorithm>
#include <chrono>
#include <span>
#include <system_error>
#include <thread>
#include <vector>

namespace content_cache
{
namespace fs = std::filesystem;

namespace
{
constexpr std::string_view kLayoutFolder = "v1";
constexpr std::string_view kEntryExtension = ".entry";
constexpr std::string_view kTemporaryExtension = ".tmp";
constexpr auto kAbandonedAfter = std::chrono::hours(1);

bool endsWith(std::string_view text, std::string_view suffix)
{
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

struct Found
{
  fs::path path;
  fs::file_time_type time;
  uint64_t size = 0;
};

// Every entry and temporary file under the layout folder. Errors (a folder removed meanwhile)
// end that part of the walk quietly: eviction works on what it can see.
void listFiles(const fs::path& folder, std::vector<Found>& entries, std::vector<Found>& temporaries)
{
  std::error_code error;
  fs::recursive_directory_iterator it(folder, error);
  const fs::recursive_directory_iterator end;
  for (; !error && it != end; it.increment(error))
  {
    std::error_code entryError;
    if (!it->is_regular_file(entryError))
      continue;
    const std::string name = cstdmf::toUtf8(it->path().filename());
    Found found{it->path(), it->last_write_time(entryError), 0};
    if (entryError)
      continue;
    found.size = it->file_size(entryError);
    if (entryError)
      continue;
    if (endsWith(name, kEntryExtension))
      entries.push_back(std::move(found));
    else if (endsWith(name, kTemporaryExtension))
      temporaries.push_back(std::move(found));
  }
}
} // namespace

LocalStore::LocalStore(fs::path root) : m_root(std::move(root)) {}

fs::path LocalStore::entryPath(const Digest& key) const
{
  const std::string hex = toHex(key);
  return m_root / cstdmf::u8path(kLayoutFolder) / cstdmf::u8path(hex.substr(0, 2)) /
         cstdmf::u8path(hex + std::string(kEntryExtension));
}

namespace
{
// On Windows a file that another process is renaming into place cannot be opened for a moment:
// `attempt` is tried again briefly before the entry is called unreadable. True once it succeeded;
// false when it still fails or the file is missing.
template <typename Attempt>
bool withRetries(Attempt attempt, bool& missing)
{
  bool done = attempt();
  for (int retry = 0; !done && !missing && retry < 5; ++retry)
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(10 << retry));
    done = attempt();
  }
  return done;
}

// A hit makes the entry the most recently used. A read-only share keeps the old time: the entry
// may then go out earlier than it should, which costs a conversion, nothing more.
void markUsed(const fs::path& path)
{
  std::error_code ignored;
  fs::last_write_time(path, fs::file_time_type::clock::now(), ignored);
}

// Out of the way, so the rebuilt entry replaces it (another process may do the same).
LocalStore::Lookup removeCorrupt(const fs::path& path, std::string& problem)
{
  problem = "'" + cstdmf::toUtf8(path) + "' is " + problem;
  std::error_code ignored;
  fs::remove(path, ignored);
  return LocalStore::Lookup::Corrupt;
}

LocalStore::Lookup unreadable(const fs::path& path, bool missing, std::string& problem)
{
  if (missing)
    return LocalStore::Lookup::Miss;
  problem = "cannot read '" + cstdmf::toUtf8(path) + "': " + problem;
  return LocalStore::Lookup::Corrupt;
}
} // namespace

LocalStore::Lookup LocalStore::load(const Digest& key, CacheEntry& entry, std::string& problem)
{
  const fs::path path = entryPath(key);
  std::string bytes = takeSpareBuffer();
  bool missing = false;
  if (!withRetries([&] { return readWholeFile(path, bytes, problem, &missing); }, missing))
    return unreadable(path, missing, problem);
  if (!decodeEntry(std::move(bytes), key, entry, problem))
    return removeCorrupt(path, problem);
  markUsed(path);
  return Lookup::Hit;
}

LocalStore::Lookup LocalStore::open(const Digest& key, OpenEntry& entry, std::string& problem)
{
  entry.path = entryPath(key);
  const std::string utf8Path = cstdmf::toUtf8(entry.path);
  bool missing = false;
  const auto attempt = [&] {
    if (entry.file.open(utf8Path) == fileio::ReadStatus::Ok)
      return true;
    std::error_code error;
    missing = !fs::exists(entry.path, error) && !error;
    problem = entry.file.reason();
    return false;
  };
  if (!withRetries(attempt, missing))
    return unreadable(entry.path, missing, problem);
  const auto source = [&file = entry.file, position = uint64_t(0)](std::span<std::byte> bytes) mutable {
    (void)file.readAt(position, bytes);
    position += file.bytesRead();
    return file.bytesRead();
  };
  entry.reader = std::make_unique<EntryReader>(key, entry.file.size(), source);
  if (!entry.reader->readHead(problem))
  {
    entry.file.close(); // Windows removes no open file
    return removeCorrupt(entry.path, problem);
  }
  return Lookup::Hit;
}

void LocalStore::close(OpenEntry& entry, bool sound, std::string& problem)
{
  entry.file.close();
  if (sound)
    markUsed(entry.path);
  else
    (void)removeCorrupt(entry.path, problem);
}

bool LocalStore::store(const Digest& key, std::string_view encoded, std::string& problem)
{
  const fs::path path = entryPath(key);
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  if (error)
  {
    problem = "cannot create '" + cstdmf::toUtf8(path.parent_path()) + "': " + error.message();
    return false;
  }
  // Whole or not at all; several processes may store one key at once, each through its own
  // temporary file, and the last rename wins.
  const fileio::WriteResult written =
    fileio::writeWholeFile(cstdmf::toUtf8(path), std::as_bytes(std::span<const char>(encoded.data(), encoded.size())));
  if (!written)
  {
    problem = written.reason;
    // Another process stored the same key at the same moment (on Windows a rename over a file
    // being read fails): its entry holds the same result.
    if (fs::exists(path, error))
      return true;
    problem = "cannot write '" + cstdmf::toUtf8(path) + "': " + problem;
    return false;
  }
  return true;
}

LocalStore::Usage LocalStore::usage() const
{
  std::vector<Found> entries;
  std::vector<Found> temporaries;
  listFiles(m_root / cstdmf::u8path(kLayoutFolder), entries, temporaries);
  Usage usage;
  for (const Found& found : entries)
  {
    usage.bytes += found.size;
    ++usage.entries;
  }
  return usage;
}

LocalStore::Usage LocalStore::evict(uint64_t maxBytes)
{
  std::vector<Found> entries;
  std::vector<Found> temporaries;
  listFiles(m_root / cstdmf::u8path(kLayoutFolder), entries, temporaries);

  const auto now = fs::file_time_type::clock::now();
  for (const Found& found : temporaries)
  {
    if (now - found.time > kAbandonedAfter)
    {
      std::error_code ignored;
      fs::remove(found.path, ignored);
    }
  }

  Usage usage;
  for (const Found& found : entries)
    usage.bytes += found.size;
  usage.entries = entries.size();
  // Oldest first; equal times in name order, so the choice does not depend on the walk.
  std::sort(entries.begin(), entries.end(), [](const Found& a, const Found& b) {
    return a.time != b.time ? a.time < b.time : a.path < b.path;
  });
  for (const Found& found : entries)
  {
    if (usage.bytes <= maxBytes)
      break;
    std::error_code error;
    if (fs::remove(found.path, error) && !error)
    {
      usage.bytes -= found.size;
      --usage.entries;
    }
  }
  return usage;
}

} // namespace content_cache
