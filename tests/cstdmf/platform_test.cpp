// The platform layer, mostly through a child process (platform_probe) that reports what it sees:
// argument passing, exit statuses, working directories, file names outside ASCII, the executable's
// own path and the standard folders; libraries loaded at run time.
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace
{

std::string slurp(const fs::path& path)
{
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

class Platform : public ::testing::Test
{
protected:
  void SetUp() override
  {
    m_root = fs::temp_directory_path() /
             cstdmf::u8path("platform_test_" + std::to_string(platform::processId()) + "_" +
                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(m_root);
    fs::create_directories(m_root);
  }
  void TearDown() override
  {
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
  }

  struct Probe
  {
    std::optional<int> status;
    std::string out;
    std::string err;
  };

  Probe probe(const std::vector<std::string>& args, const fs::path& workingDirectory = {})
  {
    Probe result;
    // Absolute: under Wine this turns the build host's "/work/..." into "Z:/work/...".
    const std::string program = cstdmf::toUtf8(fs::absolute(PLATFORM_PROBE_PATH));
    result.status = platform::runProcess(program, args,
                                         {cstdmf::toUtf8(m_root / "out.txt"), cstdmf::toUtf8(m_root / "err.txt"),
                                          cstdmf::toUtf8(workingDirectory)});
    result.out = slurp(m_root / "out.txt");
    result.err = slurp(m_root / "err.txt");
    return result;
  }

  fs::path m_root;
};

TEST_F(Platform, ArgumentsReachTheChildUnchanged)
{
  // Everything a command line has to quote: blanks, quotes, backslashes before quotes and at the
  // end, empty words, and text outside ASCII and outside any ANSI code page.
  const std::vector<std::string> words = {
    "plain",
    "",
    "two words",
    "tab\there",
    "quote\"inside",
    "\"",
    "back\\slash",
    "trailing\\",
    "trailing two\\\\",
    "\\\"both\\\\\"",
    "--src-path=C:\\art dir\\",
    "\xD0\xBC\xD0\xBE\xD0\xB4\xD0\xB5\xD0\xBB\xD0\xB8/\xD0\xBA\xD0\xBE\xD1\x80\xD0\xB0\xD0\xB1\xD0\xBB\xD1\x8C", // модели/корабль
    "\xE8\x88\xB9 \xF0\x9F\x9A\xA2",                                                                        // 船 🚢
  };
  std::vector<std::string> args = {"args"};
  args.insert(args.end(), words.begin(), words.end());
  const Probe result = probe(args);
  ASSERT_TRUE(result.status.has_value());
  EXPECT_EQ(*result.status, static_cast<int>(words.size()));
  std::string expected;
  for (const std::string& word : words)
    expected += std::to_string(word.size()) + ":" + word + "\n";
  EXPECT_EQ(result.out, expected);
  EXPECT_EQ(result.err, "");
}

TEST_F(Platform, ExitStatusesAsTheParentSeesThem)
{
  for (const int code : {0, 1, 2, 3, 4, 200})
  {
    const Probe result = probe({"exit", std::to_string(code)});
    ASSERT_TRUE(result.status.has_value()) << code;
    EXPECT_EQ(*result.status, code);
  }
  const Probe fatal = probe({"fatal"});
  ASSERT_TRUE(fatal.status.has_value());
  EXPECT_EQ(*fatal.status, kFatalExitStatus);
}

TEST_F(Platform, TimeLimitEndsAHangingChildButNotAQuickOne)
{
  const std::string program = cstdmf::toUtf8(fs::absolute(PLATFORM_PROBE_PATH));
  platform::ChildIo io{cstdmf::toUtf8(m_root / "out.txt"), cstdmf::toUtf8(m_root / "err.txt"), {}, 300};
  bool timedOut = false;
  EXPECT_FALSE(platform::runProcess(program, {"hang"}, io, &timedOut).has_value());
  EXPECT_TRUE(timedOut);
  io.timeLimitMilliseconds = 60000;
  EXPECT_EQ(platform::runProcess(program, {"exit", "3"}, io, &timedOut), std::optional<int>(3));
  EXPECT_FALSE(timedOut);
}

TEST_F(Platform, ProgramsThatCannotStart)
{
  const auto run = [&](const std::string& program, const fs::path& out) {
    return platform::runProcess(program, {}, {cstdmf::toUtf8(out), cstdmf::toUtf8(m_root / "err.txt"), {}});
  };
  EXPECT_FALSE(run(cstdmf::toUtf8(m_root / "missing_program"), m_root / "out.txt").has_value());
  // A directory where the output should go.
  fs::create_directories(m_root / "taken");
  EXPECT_FALSE(run(cstdmf::toUtf8(fs::absolute(PLATFORM_PROBE_PATH)), m_root / "taken").has_value());
}

TEST_F(Platform, WorkingDirectoryWithANameOutsideAscii)
{
  const fs::path directory = m_root / cstdmf::u8path("\xD0\xBC\xD0\xBE\xD0\xB4\xD0\xB5\xD0\xBB\xD0\xB8 \xC3\xA9"); // модели é
  fs::create_directories(directory);
  const Probe result = probe({"cwd"}, directory);
  ASSERT_EQ(result.status, std::optional<int>(0)) << result.err;
  EXPECT_TRUE(fs::equivalent(cstdmf::u8path(result.out), directory)) << result.out;
}

TEST_F(Platform, RedirectedStreamsAreNoTerminalsAndKeepTheirBytes)
{
  const Probe terminal = probe({"terminal"});
  EXPECT_EQ(terminal.out, "0 0 0");
  // "\n" stays one byte on every platform (no "\r\n" from a text-mode stream).
  const Probe streams = probe({"streams"});
  EXPECT_EQ(streams.out, "a\n");
  EXPECT_EQ(streams.err, "b\n");
}

TEST_F(Platform, OpenFileTakesUtf8Names)
{
  const std::string name = "\xD0\xBA\xD0\xBE\xD1\x80\xD0\xB0\xD0\xB1\xD0\xBB\xD1\x8C_\xE8\x88\xB9.bin"; // корабль_船.bin
  const std::string path = cstdmf::toUtf8(m_root) + "/" + name;
  std::FILE* out = platform::openFile(path, "wb");
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::fwrite("\n\x1A\r", 1, 3, out), 3u);
  std::fclose(out);
  // The file system holds it under exactly that name, and the bytes went in unchanged.
  EXPECT_TRUE(fs::exists(m_root / cstdmf::u8path(name)));
  EXPECT_EQ(slurp(m_root / cstdmf::u8path(name)), std::string("\n\x1A\r"));
  std::FILE* in = platform::openFile(path, "rb");
  ASSERT_NE(in, nullptr);
  char bytes[4] = {};
  EXPECT_EQ(std::fread(bytes, 1, sizeof(bytes), in), 3u);
  std::fclose(in);
  EXPECT_EQ(platform::openFile(cstdmf::toUtf8(m_root) + "/missing", "rb"), nullptr);
  EXPECT_EQ(platform::openFile("", "rb"), nullptr);
}

TEST_F(Platform, ExecutablePathAndDirectory)
{
  const std::string path = platform::executablePath();
  const std::string directory = platform::executableDirectory();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(path.find('\\'), std::string::npos) << path;
  EXPECT_TRUE(cstdmf::u8path(path).is_absolute()) << path;
  EXPECT_TRUE(fs::equivalent(cstdmf::u8path(path), fs::absolute(TEST_EXECUTABLE_PATH))) << path;
  EXPECT_EQ(directory + "/" + cstdmf::toUtf8(cstdmf::u8path(path).filename()), path);
}

TEST_F(Platform, KnownFolders)
{
#ifndef _WIN32
  if (std::getenv("HOME") == nullptr)
    GTEST_SKIP() << "no HOME: the standard folders are unknown";
#endif
  for (const platform::KnownFolder folder : {platform::KnownFolder::RoamingAppData, platform::KnownFolder::LocalAppData,
                                             platform::KnownFolder::Documents, platform::KnownFolder::Pictures})
  {
    const std::string text = platform::knownFolder(folder);
    ASSERT_FALSE(text.empty()) << static_cast<int>(folder);
    EXPECT_EQ(text.find('\\'), std::string::npos) << text;
    EXPECT_NE(text.back(), '/') << text;
    EXPECT_TRUE(cstdmf::u8path(text).is_absolute()) << text;
  }
#ifdef _WIN32
  EXPECT_NE(platform::knownFolder(platform::KnownFolder::RoamingAppData),
            platform::knownFolder(platform::KnownFolder::LocalAppData));
#endif
}

TEST(SharedLibrary, LoadsTheSystemsCLibraryAndSaysWhyOthersFail)
{
#ifdef _WIN32
  const std::string cLibrary = "msvcrt.dll";
#else
  const std::string cLibrary = "libc.so.6";
#endif
  const platform::SharedLibrary library(cLibrary);
  ASSERT_TRUE(library.loaded()) << library.error();
  EXPECT_EQ(library.error(), "");
  std::string problem;
  const auto length = library.function<size_t (*)(const char*)>("strlen", &problem);
  ASSERT_NE(length, nullptr) << problem;
  EXPECT_EQ(length("vertexmill"), 10u);
  EXPECT_EQ(library.symbol("no_such_function_in_any_library", &problem), nullptr);
  EXPECT_NE(problem, "");

  const platform::SharedLibrary missing("libvertexmill_no_such_library.so.1");
  EXPECT_FALSE(missing.loaded());
  EXPECT_NE(missing.error(), "");
  EXPECT_EQ(missing.fileName(), "libvertexmill_no_such_library.so.1");
  problem.clear();
  EXPECT_EQ(missing.symbol("strlen", &problem), nullptr);
  EXPECT_NE(problem.find("libvertexmill_no_such_library.so.1"), std::string::npos) << problem;
}

#ifdef _WIN32
TEST(Utf8Arguments, WideCommandLineBecomesUtf8)
{
  const wchar_t* wide[] = {L"C:\\tools\\vertexmill.exe", L"", L"\u043C\u043E\u0434\u0435\u043B\u0438",
                           L"\u8239 \U0001F6A2"};
  platform::Utf8Arguments utf8(4, wide);
  ASSERT_EQ(utf8.argc(), 4);
  EXPECT_STREQ(utf8.argv()[0], "C:\\tools\\vertexmill.exe");
  EXPECT_STREQ(utf8.argv()[1], "");
  EXPECT_STREQ(utf8.argv()[2], "\xD0\xBC\xD0\xBE\xD0\xB4\xD0\xB5\xD0\xBB\xD0\xB8");
  EXPECT_STREQ(utf8.argv()[3], "\xE8\x88\xB9 \xF0\x9F\x9A\xA2");
  EXPECT_EQ(utf8.argv()[4], nullptr);
}
#endif

} // namespace

// --jobs 0 counts what the process may use: a process held to one processor sees one.
TEST_F(Platform, UsableProcessorsFollowTheAffinityMask)
{
  const unsigned usable = platform::usableProcessorCount();
  EXPECT_GE(usable, 1u);
  EXPECT_LE(usable, std::max(1u, std::thread::hardware_concurrency()));
#ifdef _WIN32
  GTEST_SKIP() << "no taskset here to narrow a child's affinity";
#else
  if (!fs::exists("/usr/bin/taskset"))
    GTEST_SKIP() << "taskset(1) is not installed";
  const std::string program = cstdmf::toUtf8(fs::absolute(PLATFORM_PROBE_PATH));
  const std::optional<int> status = platform::runProcess(
    "/usr/bin/taskset", {"-c", "0", program, "processors"},
    {cstdmf::toUtf8(m_root / "out.txt"), cstdmf::toUtf8(m_root / "err.txt"), {}});
  ASSERT_EQ(status, std::optional<int>(0)) << slurp(m_root / "err.txt");
  EXPECT_EQ(slurp(m_root / "out.txt"), "1");
#endif
}
