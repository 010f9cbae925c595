#include "resmgr/zrresource.hpp"

#include "cstdmf/platform.hpp"
#include "resmgr/bin_section.hpp"
#include "resmgr/data_section_cache.hpp"
#include "test_helpers.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

// A fresh directory with two resource directories in it, removed at the end.
struct Tree
{
  fs::path base = fs::temp_directory_path() /
                  ("resource_paths_test_" + std::to_string(platform::processId()) + "_" +
                   testing::UnitTest::GetInstance()->current_test_info()->name());
  std::string root = base.generic_string();
  std::string first = root + "/first";
  std::string second = root + "/second";
  Tree()
  {
    fs::remove_all(base);
    fs::create_directories(first);
    fs::create_directories(second);
  }
  ~Tree()
  {
    std::error_code ignored;
    fs::remove_all(base, ignored);
  }
  void write(const std::string& path, const std::string& text) const
  {
    std::ofstream(path, std::ios::binary) << text;
  }
};

// Initialisation sizes the data-section cache and then empties it, so nothing opened before
// survives a restart.
TEST(ResourceRoot, InitSizesThenClearsTheSectionCache)
{
  DataSectionCache& cache = DataSectionCache::instance();
  cache.clear();
  cache.setSize(1);
  cache.add("stale", new BinSection("stale", resmgr_test::blockOf("x")));
  ASSERT_EQ(cache.count(), 1u);
  ASSERT_TRUE(ZRResource::init(std::vector<std::string>{}));
  EXPECT_EQ(cache.size(), 102400u);
  EXPECT_EQ(cache.count(), 0u);
  ZRResource::fini();

  // Opening twice reads once; the cache lets the least recently used go over its bound.
  cache.setSize(1); // 1024 bytes
  cache.add("a", new BinSection("a", resmgr_test::blockOf(std::string(600, 'a'))));
  cache.add("b", new BinSection("b", resmgr_test::blockOf(std::string(300, 'b'))));
  EXPECT_TRUE(cache.find("a"));
  cache.add("c", new BinSection("c", resmgr_test::blockOf(std::string(300, 'c'))));
  EXPECT_TRUE(cache.find("a"));
  EXPECT_FALSE(cache.find("b"));
  EXPECT_TRUE(cache.find("c"));
  cache.clear();
}

TEST(ResourceRoot, PathsFileMessagesAndPaths)
{
  Tree tree;
  ASSERT_TRUE(ZRResource::init(std::vector<std::string>{}));
  ZRResource& root = ZRResource::instance();
  resmgr_test::CapturedLog log;

  const std::string missing = tree.root + "/none.xml";
  EXPECT_FALSE(root.loadPathsXml(missing));
  const std::string notXml = tree.root + "/broken.xml";
  tree.write(notXml, "<root><Paths>");
  EXPECT_FALSE(root.loadPathsXml(notXml));
  EXPECT_EQ(log.take(), "INFO: [ResMgr] Loading paths xml '" + missing + "'...\n\n" +
                          "ERROR: [ResMgr] Invalid paths xml '" + missing + "': file not found\n\n" +
                          "INFO: [ResMgr] Loading paths xml '" + notXml + "'...\n\n" +
                          "ERROR: [ResMgr] Invalid paths xml '" + notXml + "': not an xml file\n\n");
  EXPECT_EQ(root.getPathsCount(), 0);

  // Relative entries are taken relative to the file; order is kept.
  const std::string good = tree.root + "/paths.xml";
  tree.write(good, "<root>\n<Paths>\n <Path> second </Path>\n <Path>" + tree.first + "</Path>\n</Paths>\n</root>\n");
  EXPECT_TRUE(root.loadPathsXml(good));
  EXPECT_EQ(root.getAllPaths(), (std::vector<std::string>{tree.second, tree.first}));
  EXPECT_EQ(root.getDefaultPath(), tree.second);
  ZRResource::fini();
}

TEST(ResourceRoot, MultiplePathsStopAtTheFirstFailingPiece)
{
  Tree tree;
  ASSERT_TRUE(ZRResource::init(std::vector<std::string>{}));
  ZRResource& root = ZRResource::instance();
  resmgr_test::CapturedLog log;
  EXPECT_TRUE(root.addMultiplePaths(""));
  // The empty piece between the two fails, so the second is never added.
  EXPECT_FALSE(root.addMultiplePaths(tree.first + ";;" + tree.second));
  EXPECT_EQ(root.getAllPaths(), std::vector<std::string>{tree.first});
  EXPECT_FALSE(root.addMultiplePaths(tree.second + ";"));
  EXPECT_EQ(root.getAllPaths(), (std::vector<std::string>{tree.first, tree.second}));
  EXPECT_EQ(log.text(), "ERROR: [ResMgr] ZRResource::addPath '' is not an existing directory.\n\n"
                        "ERROR: [ResMgr] ZRResource::addPath '' is not an existing directory.\n\n");
  ZRResource::fini();
}

TEST(ResourceRoot, ResolvingAndDissolvingNames)
{
  Tree tree;
  tree.write(tree.second + "/model.primitives", "");
  ASSERT_TRUE(ZRResource::init(std::vector<std::string>{tree.first, tree.second}));
  const ZRResource& root = ZRResource::instance();

  EXPECT_TRUE(ZRResource::isPathRelative("models/a.primitives"));
  EXPECT_TRUE(ZRResource::isPathRelative(""));
  EXPECT_FALSE(ZRResource::isPathRelative("/abs/a"));
  EXPECT_FALSE(ZRResource::isPathRelative("\\abs\\a"));
  EXPECT_FALSE(ZRResource::isPathRelative("C:/x"));
  EXPECT_FALSE(ZRResource::isPathRelative("d:\\x"));

  // Found in the second path; a name found nowhere goes under the default (first) path.
  EXPECT_EQ(root.resolveFilename("model.primitives"), tree.second + "/model.primitives");
  EXPECT_EQ(root.resolveFilename("new\\thing.primitives"), tree.first + "/new/thing.primitives");
  EXPECT_EQ(root.resolveFilename("C:\\abs\\x"), "C:/abs/x");
  EXPECT_EQ(root.dissolveFilename(tree.second + "/model.primitives"), "model.primitives");
  EXPECT_EQ(root.dissolveFilename(tree.first + "/sub/x.primitives"), "sub/x.primitives");
  EXPECT_EQ(root.dissolveFilename(tree.root + "/firstly/x"), tree.root + "/firstly/x");
  EXPECT_EQ(root.dissolveFilename(root.resolveFilename("model.primitives")), "model.primitives");
  EXPECT_EQ(root.resolveToAbsolutePath("sub/./x/../model.primitives"), tree.first + "/sub/model.primitives");

  EXPECT_EQ(root.getFileType("model.primitives"), FileSystem::FileType::File);
  EXPECT_EQ(root.getFileType(tree.first), FileSystem::FileType::Directory);
  EXPECT_EQ(root.getFileType("absent"), FileSystem::FileType::NotFound);

  // A section opened through the root saves into the file it came from.
  BinaryPtr container = writeBinSectionContainer({{"hull.vertices", resmgr_test::blockOf("vvvv")}});
  tree.write(tree.second + "/model.primitives", std::string(container->data(), container->len()));
  DataSectionPtr model = ZRResource::instance().openSection("model.primitives");
  ASSERT_TRUE(model);
  EXPECT_EQ(ZRResource::instance().openSection("model.primitives").get(), model.get()); // cached
  ASSERT_TRUE(model->newSection("hull.indices")->setBinary(resmgr_test::blockOf("ii")));
  EXPECT_TRUE(model->save());
  SmartPointer<BinSection> reread = BinSectionCreator::load(tree.second + "/model.primitives");
  ASSERT_TRUE(reread);
  EXPECT_EQ(reread->countChildren(), 2);
  model = nullptr;
  ZRResource::fini();
  EXPECT_EQ(DataSectionCache::instance().count(), 0u);
}

TEST(ResourceRoot, VersionData)
{
  resmgr_test::CapturedLog log;
  ASSERT_TRUE(ZRResource::init(std::vector<std::string>{}));
  const ZRResource& root = ZRResource::instance();
  // Here from the build; on Windows from this test program's version resource, which leaves
  // the company out on purpose.
  EXPECT_EQ(root.appProductName(), "vertexmill");
  EXPECT_EQ(root.appProductVersion(), VERTEXMILL_TEST_VERSION);
  EXPECT_EQ(root.appCompanyName(), "");
#ifdef _WIN32
  EXPECT_EQ(log.take(), "WARNING: [ResMgr] ZRResource: VerQueryValue failed for 'CompanyName'\n\n");
  // A file without a version resource.
  const ZRResource::VersionData none = ZRResource::readVersionData(platform::executableDirectory() + "/missing.exe");
  EXPECT_EQ(none.productName, "");
  EXPECT_EQ(log.take(), "WARNING: [ResMgr] ZRResource: VerQueryValue failed for translations\n\n");
  // The tool's own resource names the product and its version.
  const ZRResource::VersionData tool = ZRResource::readVersionData(VERTEXMILL_TOOL_PATH);
  EXPECT_EQ(tool.productName, "vertexmill");
  EXPECT_EQ(tool.productVersion, VERTEXMILL_TEST_VERSION);
  EXPECT_EQ(tool.companyName, "vertexmill developers");
  EXPECT_EQ(log.take(), "");
#else
  EXPECT_EQ(log.take(), "");
#endif
  ZRResource::fini();
}

} // namespace
