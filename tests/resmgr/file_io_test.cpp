#include "resmgr/file_io.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{
namespace fs = std::filesystem;

// A fresh directory, removed again at the end.
struct TempDirectory
{
  fs::path path = fs::temp_directory_path() / ("file_io_test_" + std::to_string(platform::processId()) + "_" +
                                               testing::UnitTest::GetInstance()->current_test_info()->name());
  TempDirectory() { fs::create_directories(path); }
  ~TempDirectory()
  {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  std::string file(std::string_view name) const { return cstdmf::toUtf8(path / cstdmf::u8path(name)); }
  size_t entryCount() const { return static_cast<size_t>(std::distance(fs::directory_iterator(path), {})); }
};

void put(const std::string& path, std::string_view bytes)
{
  std::ofstream(cstdmf::u8path(path), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::span<const std::byte> bytesOf(std::string_view text)
{
  return std::as_bytes(std::span<const char>(text));
}

std::string textOf(const fileio::ReadResult& read)
{
  return read.block ? std::string(read.block->data(), read.block->len()) : std::string("<null>");
}

TEST(FileIo, ReadGivesTheWholeFileAndAnEmptyFileAsAnEmptyBlock)
{
  TempDirectory dir;
  put(dir.file("data.bin"), std::string_view("ab\0cd", 5));
  put(dir.file("empty.bin"), "");

  const fileio::ReadResult data = fileio::readWholeFile(dir.file("data.bin"), "Test");
  ASSERT_TRUE(data);
  EXPECT_EQ(textOf(data), std::string("ab\0cd", 5));
  EXPECT_EQ(data.fileSize, 5u);

  const fileio::ReadResult empty = fileio::readWholeFile(dir.file("empty.bin"), "Test");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty.block->len(), 0u);
}

TEST(FileIo, ReadFailuresCarryTheirOwnCause)
{
  TempDirectory dir;
  put(dir.file("five.bin"), "12345");

  const fileio::ReadResult missing = fileio::readWholeFile(dir.file("missing.bin"), "Test");
  EXPECT_EQ(missing.status, fileio::ReadStatus::CannotOpen);
  EXPECT_FALSE(missing.block);
  EXPECT_FALSE(missing.reason.empty());

  const fileio::ReadResult tooLarge = fileio::readWholeFile(dir.file("five.bin"), "Test", 4);
  EXPECT_EQ(tooLarge.status, fileio::ReadStatus::TooLarge);
  EXPECT_EQ(tooLarge.fileSize, 5u);
  EXPECT_TRUE(fileio::readWholeFile(dir.file("five.bin"), "Test", 5));

  // A directory opens on some platforms but never has a file size; it is never "empty".
  const fileio::ReadResult directory = fileio::readWholeFile(cstdmf::toUtf8(dir.path), "Test");
  EXPECT_TRUE(directory.status == fileio::ReadStatus::CannotOpen || directory.status == fileio::ReadStatus::CannotSize)
    << static_cast<int>(directory.status);
}

TEST(FileIo, PiecesAreReadAtTheirOffsetsAndAShortPieceSaysHowMuchArrived)
{
  TempDirectory dir;
  put(dir.file("ten.bin"), "0123456789");
  fileio::FileReader reader;
  EXPECT_EQ(reader.open(dir.file("missing.bin")), fileio::ReadStatus::CannotOpen);
  EXPECT_FALSE(reader.reason().empty());
  ASSERT_EQ(reader.open(dir.file("ten.bin")), fileio::ReadStatus::Ok);
  EXPECT_EQ(reader.size(), 10u);

  std::string piece(3, '\0');
  const auto into = [&] { return std::as_writable_bytes(std::span<char>(piece)); };
  // Out of order, as a reader of sections asks for them.
  ASSERT_TRUE(reader.readAt(7, into()));
  EXPECT_EQ(piece, "789");
  ASSERT_TRUE(reader.readAt(2, into()));
  EXPECT_EQ(piece, "234");
  EXPECT_TRUE(reader.readAt(10, {}));

  // Past the end: fewer bytes than asked, with how many did arrive.
  EXPECT_FALSE(reader.readAt(8, into()));
  EXPECT_EQ(reader.bytesRead(), 2u);
  EXPECT_EQ(reader.reason(), "read 2 of 3 bytes");

  EXPECT_EQ(reader.open(dir.file("ten.bin"), 9), fileio::ReadStatus::TooLarge);
}

TEST(FileIo, WriteReplacesTheTargetWholeAndLeavesNoTemporaryFile)
{
  TempDirectory dir;
  const std::string target = dir.file("out \xC3\xA9.bin"); // a name outside ASCII
  put(target, "previous contents, longer than the new ones");

  ASSERT_TRUE(fileio::writeWholeFile(target, bytesOf("new")));
  EXPECT_EQ(textOf(fileio::readWholeFile(target, "Test")), "new");
  ASSERT_TRUE(fileio::writeWholeFile(target, {}));
  EXPECT_EQ(fileio::readWholeFile(target, "Test").block->len(), 0u);
  EXPECT_EQ(dir.entryCount(), 1u);
  EXPECT_EQ(fileio::removeTemporaryFiles(), 0u);
}

TEST(FileIo, FailedWriteKeepsTheTargetAndRemovesItsTemporaryFile)
{
  TempDirectory dir;
  const fileio::WriteResult noDirectory = fileio::writeWholeFile(dir.file("missing/out.bin"), bytesOf("x"));
  EXPECT_EQ(noDirectory.status, fileio::WriteStatus::CannotCreate);

  // A non-empty directory in the way cannot be replaced by a file.
  fs::create_directories(dir.path / "taken" / "inside");
  const fileio::WriteResult taken = fileio::writeWholeFile(dir.file("taken"), bytesOf("x"));
  EXPECT_EQ(taken.status, fileio::WriteStatus::CannotReplace);
  EXPECT_FALSE(taken.reason.empty());
  EXPECT_TRUE(fs::is_directory(dir.path / "taken" / "inside"));
  EXPECT_EQ(dir.entryCount(), 1u);
  EXPECT_EQ(fileio::removeTemporaryFiles(), 0u);
}

// A temporary name already taken (another machine with this process id, writing into a shared
// folder) is skipped: that file is neither written nor removed.
TEST(FileIo, TakenTemporaryNamesAreLeftAlone)
{
  TempDirectory dir;
  for (unsigned serial = 0; serial < 24; ++serial)
    put(dir.file(fileio::temporaryFileName(platform::processId(), serial)), "theirs");
  for (int write = 0; write < 24; ++write)
    ASSERT_TRUE(fileio::writeWholeFile(dir.file("out.bin"), bytesOf("ours"))) << write;
  EXPECT_EQ(textOf(fileio::readWholeFile(dir.file("out.bin"), "Test")), "ours");
  for (unsigned serial = 0; serial < 24; ++serial)
    EXPECT_EQ(textOf(fileio::readWholeFile(dir.file(fileio::temporaryFileName(platform::processId(), serial)), "Test")),
              "theirs");
  EXPECT_EQ(fileio::removeTemporaryFiles(), 0u);
}

// What a process killed outright left: its own machine's files once the process is gone, another
// machine's (or an earlier version's) only after an hour untouched, since a write may still be
// in flight there on a shared folder. Nothing else in the folder is touched.
TEST(FileIo, LeftoversOfEndedProcessesAreRemovedAndNothingElse)
{
  TempDirectory dir;
  unsigned long ended = 999999;
  while (platform::processIsRunning(ended))
    ++ended;
  const std::string endedId = std::to_string(ended);
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(2);

  const std::vector<std::pair<std::string, bool>> files = {
    {fileio::temporaryFileName(ended, 0), true},
    {fileio::temporaryFileName(platform::processId(), 7), false}, // a write of this process
    {".vm" + endedId + "-3-0badf00d.tmp", false},                 // another machine's, fresh
    {".vm" + endedId + "-4-0badf00d.tmp", true},                  // ... two hours old
    {".vm" + endedId + "-5.tmp", false},                          // an earlier version's, fresh
    {".vm" + endedId + "-6.tmp", true},                           // ... two hours old
    {"crate.geometry", false},
    {".vmx-1.tmp", false},
    {".vm" + endedId + "-1-short.tmp", false},
    {"notes.tmp", false},
  };
  for (const auto& [name, removed] : files)
  {
    put(dir.file(name), "partial");
    if (name.find("-4-") != std::string::npos || name.find("-6.") != std::string::npos)
      fs::last_write_time(dir.path / name, old);
  }

  EXPECT_EQ(fileio::removeStaleTemporaryFiles(cstdmf::toUtf8(dir.path)), 3u);
  for (const auto& [name, removed] : files)
    EXPECT_EQ(fs::exists(dir.path / name), !removed) << name;
  EXPECT_EQ(fileio::removeStaleTemporaryFiles(dir.file("missing")), 0u);
}

} // namespace
