// The built geometry_inspect run as a child process: exit statuses and where its output goes.

#include "tools/geometry_inspect/inspect_test_support.hpp"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>

using namespace inspect_test;

namespace
{

std::string slurp(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string quoted(const fs::path& path)
{
  return "\"" + path.string() + "\"";
}

RunResult runTool(const fs::path& dir, const std::string& arguments)
{
  const fs::path out = dir / "stdout.txt";
  const fs::path err = dir / "stderr.txt";
  // Absolute, so that under Wine the build host's "/work/..." reads as "Z:/work/...".
  std::string command =
    quoted(fs::absolute(GEOMETRY_INSPECT_EXE)) + " " + arguments + " >" + quoted(out) + " 2>" + quoted(err);
#if defined(_WIN32)
  command = "\"" + command + "\""; // cmd /c drops the first and the last quote of the line
#endif
  int status = std::system(command.c_str());
#if !defined(_WIN32)
  status = (status & 0x7F) == 0 ? (status >> 8) & 0xFF : 128 + (status & 0x7F); // a wait status here
#endif
  return {status, slurp(out), slurp(err)};
}

TEST(GeometryInspectCommandLine, ExitStatuses)
{
  testutil::TempDir dir("inspect-cli");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());

  RunResult run = runTool(dir.path, "--help");
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(contains(run.out, "--export-obj <OUT.obj>")) << run.out;

  run = runTool(dir.path, "--version");
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.out.starts_with("geometry_inspect ") && run.out.ends_with("\n")) << run.out;
  EXPECT_EQ(runTool(dir.path, "-V").out, run.out);

  const std::string out = quoted(dir.path / "x.png");
  for (const std::string& bad : std::vector<std::string>{
         std::string(), std::string("--bogus ") + quoted(geometry), "--export-obj x.obj " + quoted(geometry) + " " + quoted(geometry),
         std::string("--export-obj"), "--render " + out + " --render-size 8 " + quoted(geometry),
         "--render " + out + " --render-mode bogus " + quoted(geometry), "--render-mode sets " + quoted(geometry),
         "--report-html x.html --validate " + quoted(geometry), "--compare old.json " + quoted(geometry)})
  {
    SCOPED_TRACE(bad);
    run = runTool(dir.path, bad);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.starts_with("ERROR: ")) << run.err;
  }
  run = runTool(dir.path, "--render " + out + " --render-size abc " + quoted(geometry));
  EXPECT_TRUE(contains(run.err, "ERROR: invalid value 'abc' for --render-size: expected a whole number from 16 to 4096"))
    << run.err;
  EXPECT_FALSE(fs::exists(dir.path / "x.png"));

  // An output folder that does not exist: nothing is done.
  run = runTool(dir.path, "--render " + quoted(dir.path / "no" / "x.png") + " " + quoted(geometry));
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(contains(run.err, "ERROR: cannot write --render '" + (dir.path / "no" / "x.png").string() + "': ")) << run.err;

  // --compare: the page of a report compared with an older one, which no output may replace.
  const fs::path report = dir.path / "r.json";
  const std::string text = R"({"models": [{"source": "a.primitives", "status": "failed"}]})";
  testutil::writeFile(report, std::vector<std::byte>(reinterpret_cast<const std::byte*>(text.data()),
                                                     reinterpret_cast<const std::byte*>(text.data()) + text.size()));
  run = runTool(dir.path, "--report-html " + quoted(dir.path / "p.html") + " " + quoted(report) + " --compare " + quoted(report));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, ": 0 models changed since ")) << run.out;
  run = runTool(dir.path, "--report-html " + quoted(report) + " " + quoted(report) + " --compare " + quoted(report));
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(contains(run.err, "it is the report given to --compare")) << run.err;

  run = runTool(dir.path, "--validate " + quoted(geometry));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, ": sound (0 warnings)")) << run.out;

  run = runTool(dir.path, "--json --stats " + quoted(geometry));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(nlohmann::json::parse(run.out)["renderSets"].size(), 2u);

  std::vector<std::byte> bytes = testutil::readFile(geometry);
  bytes.resize(bytes.size() / 2);
  const fs::path truncated = dir.path / "truncated.geometry";
  testutil::writeFile(truncated, bytes);
  run = runTool(dir.path, "--validate " + quoted(truncated));
  EXPECT_EQ(run.status, 3);
  EXPECT_TRUE(contains(run.err, "ERROR: " + truncated.string() + ": not a valid geometry file")) << run.err;

  run = runTool(dir.path, quoted(dir.path / "missing.geometry"));
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(contains(run.err, "ERROR: cannot read '" + (dir.path / "missing.geometry").string() +
                                  "': No such file or directory"))
    << run.err;
}

TEST(GeometryInspectCommandLine, FoldersAndSeveralFiles)
{
  testutil::TempDir dir("inspect-many");
  const fs::path tree = dir.path / "tree";
  fs::create_directories(tree / "sub");
  const fs::path first = compileModel(tree, "a", twoGrids());
  const fs::path second = compileModel(tree / "sub", "b", twoGrids());

  RunResult run = runTool(dir.path, quoted(tree));
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, first.string() + ": sound (0 warnings), 2 render sets, 34 vertices, 40 triangles, "))
    << run.out;
  EXPECT_TRUE(contains(run.out, second.string() + ": sound")) << run.out;
  EXPECT_TRUE(contains(run.out, "total: 2 files, 2 sound, 0 not sound; 68 vertices, 80 triangles, ")) << run.out;

  // One broken file among them makes the run fail, and the others are still checked.
  std::vector<std::byte> bytes = testutil::readFile(second);
  bytes.resize(bytes.size() / 2);
  testutil::writeFile(tree / "sub" / "broken.geometry", bytes);
  run = runTool(dir.path, quoted(tree) + " " + quoted(first));
  EXPECT_EQ(run.status, 3);
  EXPECT_TRUE(contains(run.out, "broken.geometry: NOT sound (")) << run.out;
  EXPECT_TRUE(contains(run.out, "total: 4 files, 3 sound, 1 not sound")) << run.out;
  EXPECT_TRUE(contains(run.err, "broken.geometry: ")) << run.err;

  run = runTool(dir.path, "--json " + quoted(tree));
  const nlohmann::json documents = nlohmann::json::parse(run.out, nullptr, false);
  ASSERT_TRUE(documents.is_array()) << run.out;
  EXPECT_EQ(documents.size(), 3u);
}

} // namespace
