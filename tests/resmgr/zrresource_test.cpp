#include "resmgr/zrresource.hpp"

#include "cstdmf/log_sinks.hpp"
#include "cstdmf/platform.hpp"
#include "resmgr/bin_section.hpp"
#include "test_helpers.hpp"
#include "fatal_exit_status.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace
{

// Two fresh resource directories, removed again at the end.
struct TempDirectories
{
  std::filesystem::path base = std::filesystem::temp_directory_path() /
                               ("resmgr_test_" + std::to_string(platform::processId()) + "_" +
                                testing::UnitTest::GetInstance()->current_test_info()->name());
  std::string first = (base / "first").generic_string();
  std::string second = (base / "second").generic_string();
  TempDirectories()
  {
    std::filesystem::create_directories(first);
    std::filesystem::create_directories(second);
  }
  ~TempDirectories()
  {
    std::error_code ignored;
    std::filesystem::remove_all(base, ignored);
  }
};

struct Arguments
{
  std::vector<std::string> words;
  std::vector<char*> pointers;
  explicit Arguments(std::vector<std::string> list) : words(std::move(list))
  {
    for (std::string& word : words)
      pointers.push_back(word.data());
  }
  int argc() { return static_cast<int>(pointers.size()); }
  char** argv() { return pointers.data(); }
};

TEST(ZRResource, EmptyListFormAndRestart)
{
  for (int round = 0; round < 2; ++round)
  {
    EXPECT_TRUE(ZRResource::init(std::vector<std::string>{}));
    ZRResource& root = ZRResource::instance();
    EXPECT_EQ(root.getPathsCount(), 0);
    // Here the platform gives the directory without a trailing separator; the root adds one.
    ASSERT_FALSE(root.appDirectory().empty());
    EXPECT_EQ(root.appDirectory().back(), '/');
    EXPECT_EQ(root.appDirectory().rfind(platform::executableDirectory(), 0), 0u);
    EXPECT_EQ(root.appProductName(), "vertexmill");
    ZRResource::fini();
    EXPECT_FALSE(ZRResource::isInitialised());
  }
}

TEST(ZRResource, CommandLinePathsAndUserId)
{
  TempDirectories dirs;
  Arguments args({"tool", "--verbose", "--res", dirs.first + ";" + dirs.second, "--UID", "someone"});
  EXPECT_TRUE(ZRResource::init(args.argc(), args.argv()));
  ZRResource& root = ZRResource::instance();
  EXPECT_EQ(root.getAllPaths(), (std::vector<std::string>{dirs.first, dirs.second}));
  EXPECT_EQ(root.userId(), "someone");
  EXPECT_FALSE(root.safeMode());
  ZRResource::fini();

  Arguments safe({"tool", "--safemode", "-r", dirs.second});
  EXPECT_TRUE(ZRResource::init(safe.argc(), safe.argv()));
  EXPECT_TRUE(ZRResource::instance().safeMode());
  EXPECT_EQ(ZRResource::instance().getDefaultPath(), dirs.second);
  ZRResource::fini();
}

TEST(ZRResource, AddingPathsStopsAtTheFirstBadOne)
{
  TempDirectories dirs;
  resmgr_test::CapturedLog log;
  EXPECT_TRUE(ZRResource::init(dirs.first, false));
  ZRResource& root = ZRResource::instance();
  EXPECT_EQ(root.getPathsCount(), 0);
  EXPECT_TRUE(root.addMultiplePaths(""));
  EXPECT_LT(root.addPath(dirs.first + "/missing"), 0);
  EXPECT_FALSE(root.addMultiplePaths(dirs.second + ";" + dirs.first + "/missing;" + dirs.first));
  EXPECT_EQ(root.getAllPaths(), std::vector<std::string>{dirs.second});
  EXPECT_NE(log.text().find("missing' is not an existing directory"), std::string::npos);
  ZRResource::fini();
}

TEST(ZRResource, OpensContainersThroughTheResourcePaths)
{
  TempDirectories dirs;
  BinaryPtr file = writeBinSectionContainer({{"hull.vertices", resmgr_test::blockOf("vvvv")}});
  std::ofstream(dirs.second + "/model.primitives", std::ios::binary).write(file->data(), file->len());
  EXPECT_TRUE(ZRResource::init(std::vector<std::string>{dirs.first, dirs.second}));
  DataSectionPtr model = ZRResource::instance().openSection("model.primitives");
  ASSERT_TRUE(model);
  EXPECT_EQ(model->findChild("hull.vertices")->asBinary()->len(), 4u);
  EXPECT_FALSE(ZRResource::instance().openSection("absent.primitives"));
  ZRResource::fini();
}

TEST(ZRResourceDeathTest, InitialisationFaultsAreFatal)
{
  TempDirectories dirs;
  const auto runInit = [](std::vector<std::string> words) {
    cstdmf::setupConsoleLogging(1);
    Arguments args(std::move(words));
    (void)ZRResource::init(args.argc(), args.argv());
  };
  EXPECT_EXIT(runInit({"tool", "--res"}), testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: argc > i\\+1");
  EXPECT_EXIT(runInit({"tool", "--res", dirs.first, "--safe"}), testing::ExitedWithCode(kFatalExitStatus),
              "ASSERTION FAILED: filesystems_.empty\\(\\)");
  EXPECT_EXIT(runInit({"tool", "--uid", "x"}), testing::ExitedWithCode(kFatalExitStatus),
              "No resource paths are loaded from command line or paths.xml\n\\[0\\]:tool\n\\[1\\]:--uid");
  EXPECT_EXIT(
    {
      cstdmf::setupConsoleLogging(1);
      (void)ZRResource::init(std::vector<std::string>{});
      (void)ZRResource::init(std::vector<std::string>{});
    },
    testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: !appVersionData_");
  EXPECT_EXIT(
    {
      cstdmf::setupConsoleLogging(1);
      (void)ZRResource::instance();
    },
    testing::ExitedWithCode(kFatalExitStatus), "ASSERTION FAILED: s_instance");
}

} // namespace
