// Levels of detail through the tool: which models get a generated chain and where it goes, the
// same files at any job count, files an earlier chain left, the up-to-date check, the depfile and
// the options' bounds.

#include "tool_test_support.hpp"
#include "vertexmill/levels_of_detail.hpp"

namespace fs = std::filesystem;
using namespace vertexmill_test;

namespace
{

bool contains(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}

TEST(LevelNames, MainModelsAreTheOnesNotNamedOrPlacedLikeALevel)
{
  EXPECT_EQ(vertexmill::levelsRefusal("art/ship.primitives"), "");
  EXPECT_EQ(vertexmill::levelsRefusal("art/lodge.primitives"), "");
  EXPECT_EQ(vertexmill::levelsRefusal("art/ship_lodge.primitives"), "");
  EXPECT_EQ(vertexmill::levelsRefusal("art/ship_lod1.primitives"), "not-a-main-model");
  EXPECT_EQ(vertexmill::levelsRefusal("art/ship_lod12.primitives"), "not-a-main-model");
  EXPECT_EQ(vertexmill::levelsRefusal("art/ship_Full.primitives"), "not-a-main-model");
  EXPECT_EQ(vertexmill::levelsRefusal("art/lods/ship.primitives"), "not-a-main-model");
  EXPECT_EQ(vertexmill::levelPath("out/ship.geometry", 2), fs::path("out") / "lods" / "ship_lod2.geometry");
}

TEST_F(VertexmillTool, LevelsOfDetailFollowTheNamingConventionAndAreTheSameAtAnyJobCount)
{
  const std::string sheet = sheetPrimitives(24);
  writeFile(path("art/sheet.primitives"), sheet);
  writeFile(path("art/sheet_lod1.primitives"), sheet); // named like a level: none of its own
  writeFile(path("art/lods/tower.primitives"), sheet); // lies among levels: none either
  writeFile(path("art/hand.primitives"), sheet);       // its artist made its levels
  writeFile(path("art/lods/hand_lod1.primitives"), sheet);
  fs::create_directories(path("one"));
  fs::create_directories(path("two"));

  const RunResult one = run({"--tree", "--lods", "2", "--stats", "-j", "1", str("art"), str("one")});
  ASSERT_EQ(one.status, 0) << one.err;
  const RunResult two = run({"--tree", "--lods", "2", "-j", "2", str("art"), str("two")});
  ASSERT_EQ(two.status, 0) << two.err;
  std::set<std::string> written;
  for (const auto& entry : fs::recursive_directory_iterator(path("one")))
    if (entry.is_regular_file())
    {
      const fs::path relative = fs::relative(entry.path(), path("one"));
      written.insert(relative.generic_string());
      EXPECT_EQ(readFile(entry.path()), readFile(path("two") / relative)) << relative;
    }
  // The tree is mirrored below the output folder.
  EXPECT_EQ(written, (std::set<std::string>{"art/sheet.geometry", "art/lods/sheet_lod1.geometry",
                                            "art/lods/sheet_lod2.geometry", "art/sheet_lod1.geometry",
                                            "art/lods/tower.geometry", "art/hand.geometry",
                                            "art/lods/hand_lod1.geometry"}));
  EXPECT_TRUE(contains(one.out, "sheet.primitives") && contains(one.out, "lods=2/2\n")) << one.out;
  EXPECT_TRUE(contains(one.out, "level 2 triangles=")) << one.out;
  EXPECT_TRUE(contains(one.out, "lods=0/2 lods_note=hand-made")) << one.out;
  EXPECT_TRUE(contains(one.out, "lods=0/2 lods_note=not-a-main-model")) << one.out;
  EXPECT_EQ(one.err, "");

  // A shorter chain leaves the earlier run's last level, and says so.
  const RunResult shorter = run({"--tree", "--lods", "1", str("art"), str("one")});
  ASSERT_EQ(shorter.status, 0) << shorter.err;
  EXPECT_TRUE(contains(shorter.err, "WARNING") && contains(shorter.err, str("one/art/lods/sheet_lod2.geometry")))
    << shorter.err;
  EXPECT_TRUE(fs::exists(path("one/art/lods/sheet_lod2.geometry")));

  // Up to date while the first level is; converted again once it is gone. The sources are made
  // older first: file times may count whole seconds (MinGW), and a source of the same second as
  // its output is not older than it.
  const auto now = fs::file_time_type::clock::now();
  for (const auto& entry : fs::recursive_directory_iterator(path("art")))
    if (entry.is_regular_file())
      fs::last_write_time(entry.path(), now - std::chrono::hours(2));
  const RunResult again = run({"--tree", "--incremental", "-v", "--lods", "1", str("art"), str("one")});
  EXPECT_TRUE(contains(again.out + again.err, str("one/art/sheet.geometry") + " (up to date)")) << again.out << again.err;
  fs::remove(path("one/art/lods/sheet_lod1.geometry"));
  const RunResult rebuilt = run({"--tree", "--incremental", "--lods", "1", str("art"), str("one")});
  ASSERT_EQ(rebuilt.status, 0) << rebuilt.err;
  EXPECT_EQ(readFile(path("one/art/lods/sheet_lod1.geometry")), readFile(path("two/art/lods/sheet_lod1.geometry")));
}

TEST_F(VertexmillTool, ACacheHitRestoresTheWholeChain)
{
  writeFile(path("art/sheet.primitives"), sheetPrimitives(24));
  fs::create_directories(path("one"));
  fs::create_directories(path("two"));
  const RunResult first = run({"--lods", "2", "--cache", str("cache"), "--stats", str("art/sheet.primitives"), str("one")});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_TRUE(contains(first.out, "cache=miss lods=2/2")) << first.out;
  const RunResult hit = run({"--lods", "2", "--cache", str("cache"), "--stats", str("art/sheet.primitives"), str("two")});
  ASSERT_EQ(hit.status, 0) << hit.err;
  EXPECT_TRUE(contains(hit.out, "cache=hit lods=2/2")) << hit.out;
  // The same figures as the conversion, and the same files.
  EXPECT_EQ(hit.out.substr(hit.out.find("\n")), first.out.substr(first.out.find("\n")));
  for (const char* file : {"sheet.geometry", "lods/sheet_lod1.geometry", "lods/sheet_lod2.geometry"})
    EXPECT_EQ(readFile(path(std::string("two/") + file)), readFile(path(std::string("one/") + file))) << file;

  // Other level options are another chain: not taken from the cache.
  const RunResult other = run({"--lods", "1", "--cache", str("cache"), "--stats", str("art/sheet.primitives"), str("two")});
  EXPECT_TRUE(contains(other.out, "cache=miss lods=1/1")) << other.out;
}

TEST_F(VertexmillTool, LevelsOfDetailAreInTheDepfileAndTheirOptionsAreBounded)
{
  writeFile(path("art/sheet.primitives"), sheetPrimitives(24));
  fs::create_directories(path("out"));
  const RunResult converted = run({"--lods", "2", "--depfile", str("sheet.d"), str("art/sheet.primitives"), str("out")});
  ASSERT_EQ(converted.status, 0) << converted.err;
  const std::string depfile = readFile(path("sheet.d"));
  // The targets end at ": " (a drive letter's colon is followed by a separator, not a blank).
  EXPECT_EQ(depfile.substr(0, depfile.find(": ")), str("out/sheet.geometry") + " " + str("out/lods/sheet_lod1.geometry") +
                                                       " " + str("out/lods/sheet_lod2.geometry"))
    << depfile;

  // A report may not take the place of a level it would overwrite.
  const RunResult overwriting =
    run({"--lods", "2", "--report", str("out/lods/sheet_lod2.geometry"), str("art/sheet.primitives"), str("out")});
  EXPECT_EQ(overwriting.status, 1);
  EXPECT_TRUE(contains(overwriting.err, "it is a level of detail of")) << overwriting.err;

  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
    {{"--lods", "9"}, "--lods: expected a whole number from 0 to 8"},
    {{"--lods", "2", "--lod-ratio", "0"}, "--lod-ratio: expected a number greater than 0 and less than 1"},
    {{"--lods", "2", "--lod-ratio", "1.5"}, "--lod-ratio: expected a number greater than 0 and less than 1"},
    {{"--lods", "2", "--lod-error", "-1"}, "--lod-error: expected a number from 0 to 1"},
    {{"--lod-error", "0.1"}, "--lod-error works with --lods N (N from 1 to 8) only"},
    {{"--lod-sloppy"}, "--lod-sloppy works with --lods N (N from 1 to 8) only"},
  };
  for (auto [args, message] : refused)
  {
    args.insert(args.end(), {str("art/sheet.primitives"), str("elsewhere")});
    const RunResult result = run(args);
    EXPECT_EQ(result.status, 1) << args[0];
    EXPECT_TRUE(contains(result.err, message)) << result.err;
    EXPECT_FALSE(fs::exists(path("elsewhere")));
  }
}

} // namespace
