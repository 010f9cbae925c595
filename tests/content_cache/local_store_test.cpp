#include "content_cache/file_io.hpp"
#include "content_cache/local_store.hpp"

#include "cstdmf/platform.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <atomic>
#include <fstream>
#include <thread>

using namespace content_cache;
namespace fs = std::filesystem;

namespace
{
class LocalStoreTest : public ::testing::Test
{
protected:
  void SetUp() override
  {
    m_root = fs::temp_directory_path() /
             ("content_cache_test_" + std::to_string(platform::processId()) + "_" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_root);
  }
  void TearDown() override
  {
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
  }

  static CacheEntry entryOf(size_t size, char fill)
  {
    CacheEntry entry;
    entry.output.assign(size, fill);
    return entry;
  }

  fs::path m_root;
};
} // namespace

TEST_F(LocalStoreTest, StoreLoadAndCorruptEntries)
{
  LocalStore store(m_root);
  const Digest key = sha256("a");
  CacheEntry entry;
  std::string problem;
  EXPECT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Miss);

  const CacheEntry stored = entryOf(100, 'x');
  ASSERT_TRUE(store.store(key, encodeEntry(key, stored), problem)) << problem;
  ASSERT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Hit);
  EXPECT_EQ(entry, stored);

  // Cut short (a full disk, a copy that stopped): reported, removed, then a miss.
  const fs::path path = store.entryPath(key);
  fs::resize_file(path, fs::file_size(path) - 7);
  EXPECT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Corrupt);
  EXPECT_NE(problem.find("truncated"), std::string::npos) << problem;
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Miss);

  // One byte changed on disk.
  ASSERT_TRUE(store.store(key, encodeEntry(key, stored), problem));
  {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(60);
    file.put('y');
  }
  EXPECT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Corrupt);
  EXPECT_NE(problem.find("checksum"), std::string::npos) << problem;

  // Nothing but entries is left in the folder: no temporary files.
  ASSERT_TRUE(store.store(key, encodeEntry(key, stored), problem));
  for (const auto& file : fs::recursive_directory_iterator(m_root))
  {
    if (file.is_regular_file())
    {
      EXPECT_EQ(file.path().extension(), ".entry") << file.path();
    }
  }
}

TEST_F(LocalStoreTest, EvictsLeastRecentlyUsedFirst)
{
  LocalStore store(m_root);
  std::string problem;
  const auto now = fs::file_time_type::clock::now();
  // Four entries of about 1 KiB, used in the order 0, 1, 2, 3; then 0 is used again.
  for (int i = 0; i < 4; ++i)
  {
    const Digest key = sha256(std::to_string(i));
    ASSERT_TRUE(store.store(key, encodeEntry(key, entryOf(1000, char('a' + i))), problem));
    fs::last_write_time(store.entryPath(key), now - std::chrono::hours(10 - i));
  }
  CacheEntry entry;
  ASSERT_EQ(store.load(sha256("0"), entry, problem), LocalStore::Lookup::Hit);

  // An abandoned temporary file (a writer that died) goes too, a fresh one stays.
  const fs::path folder = store.entryPath(sha256("0")).parent_path();
  const fs::path abandoned = folder / "x.entry.1-2-3.tmp";
  const fs::path fresh = folder / "y.entry.1-2-4.tmp";
  std::ofstream(abandoned) << "partial";
  std::ofstream(fresh) << "partial";
  fs::last_write_time(abandoned, now - std::chrono::hours(2));

  const uint64_t entrySize = fs::file_size(store.entryPath(sha256("0")));
  const LocalStore::Usage left = store.evict(2 * entrySize);
  EXPECT_EQ(left.entries, 2u);
  EXPECT_LE(left.bytes, 2 * entrySize);
  EXPECT_TRUE(fs::exists(store.entryPath(sha256("0")))); // used last
  EXPECT_FALSE(fs::exists(store.entryPath(sha256("1"))));
  EXPECT_FALSE(fs::exists(store.entryPath(sha256("2"))));
  EXPECT_TRUE(fs::exists(store.entryPath(sha256("3"))));
  EXPECT_FALSE(fs::exists(abandoned));
  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_EQ(store.usage().entries, 2u);
}

TEST_F(LocalStoreTest, ConcurrentWritersOfOneKeyLeaveOneWholeEntry)
{
  // Threads here, processes in the tool's tests: each writer has its own temporary file and the
  // renames replace each other whole.
  LocalStore store(m_root);
  const Digest key = sha256("shared");
  const std::string bytes = encodeEntry(key, entryOf(200000, 'z'));
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    writers.emplace_back([&] {
      for (int i = 0; i < 10; ++i)
      {
        std::string problem;
        if (!store.store(key, bytes, problem))
          ++failures;
        CacheEntry entry;
        if (store.load(key, entry, problem) == LocalStore::Lookup::Corrupt)
          ++failures;
      }
    });
  for (auto& writer : writers)
    writer.join();
  EXPECT_EQ(failures.load(), 0);
  CacheEntry entry;
  std::string problem;
  EXPECT_EQ(store.load(key, entry, problem), LocalStore::Lookup::Hit);
}
