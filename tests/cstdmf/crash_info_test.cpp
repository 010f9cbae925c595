#include "cstdmf/crash_info.hpp"

#include "cstdmf/critical_error.hpp"
#include "cstdmf/debug_filter.hpp"
#include "cstdmf/log_sinks.hpp"
#include "cstdmf/platform.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

// The system and memory lines, in order and in their exact shapes.
TEST(CrashInfo, SystemAndMemoryLines)
{
  const std::string text = cstdmf::systemInformationText();
  const std::regex shape("\tOS Name: [^\n]+\n"
                         "\tOS Version: [^\n]+\n"
                         "\tNumber of processors: [0-9]+\n"
                         "\tPhysical memory: [0-9]+Kb/[0-9]+Kb \\([0-9]+%\\)\n"
                         "\tVirtual memory: [0-9]+Kb/[0-9]+Kb \\([0-9]+%\\)\n");
  EXPECT_TRUE(std::regex_match(text, shape)) << text;
  // The machine running this has memory and at least one processor.
  EXPECT_EQ(text.find("Physical memory: 0Kb/0Kb"), std::string::npos) << text;
  EXPECT_EQ(text.find("Number of processors: 0\n"), std::string::npos) << text;

  const std::string report = cstdmf::crashReportText("ASSERTION FAILED: x\n", {"src/a.cpp", 12, "fn"});
  // The memory figures move between two calls; the lines stay.
  const size_t lines = report.find("Location: src/a.cpp(12): fn\nMessage:\nASSERTION FAILED: x\nSystem:\n");
  ASSERT_NE(lines, std::string::npos) << report;
  EXPECT_TRUE(std::regex_search(report.substr(lines), shape)) << report;
}

struct CrashDirectory
{
  // No process id in the name: on Windows the dying child is another process that makes it again.
  fs::path path =
    fs::temp_directory_path() / ("crash_info_test_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
  CrashDirectory()
  {
    fs::remove_all(path);
    fs::create_directories(path);
  }
  ~CrashDirectory()
  {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  std::vector<fs::path> files() const
  {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(path))
      found.push_back(entry.path());
    return found;
  }
};

TEST(CrashInfoDeathTest, DefaultHandlerSavesTheReport)
{
  CrashDirectory dir;
  cstdmf::DebugConfig::init();
  cstdmf::DebugConfig::instance().crashInfoDirectory = dir.path.generic_string();
  EXPECT_EXIT(
    {
      const int value = 2;
      ZR_ASSERT(value == 3);
    },
    testing::ExitedWithCode(kFatalExitStatus), "^$");
  cstdmf::DebugConfig::instance().crashInfoDirectory.clear();

  // One report, named after the program and the process that died.
  const std::vector<fs::path> files = dir.files();
  ASSERT_EQ(files.size(), 1u);
  const std::string name = files[0].filename().string();
  EXPECT_TRUE(std::regex_match(name, std::regex("test_cstdmf_crash_[0-9]+\\.txt"))) << name;
  std::ifstream in(files[0], std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  const std::string report = content.str();
  EXPECT_EQ(report.rfind("test_cstdmf crash report\n", 0), 0u) << report;
  EXPECT_NE(report.find("Message:\nASSERTION FAILED: value == 3\nSystem:\n\tOS Name: "), std::string::npos) << report;
  EXPECT_NE(report.find("crash_info_test.cpp("), std::string::npos) << report;
  EXPECT_NE(report.find("\tVirtual memory: "), std::string::npos) << report;
}

TEST(CrashInfoDeathTest, UnwritableReportIsSaidOnStandardError)
{
  CrashDirectory dir;
  cstdmf::DebugConfig::init();
  cstdmf::DebugConfig::instance().crashInfoDirectory = (dir.path / "missing").generic_string();
  EXPECT_EXIT(ZR_CRITICAL_ERROR("boom"), testing::ExitedWithCode(kFatalExitStatus),
              "^Failed to save crash info: .*missing/test_cstdmf_crash_.*\\.txt: .+\n$");
  cstdmf::DebugConfig::instance().crashInfoDirectory.clear();
  EXPECT_TRUE(dir.files().empty());
}

} // namespace
