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

  for (const std::string& bad : std::vector<std::string>{std::string(), std::string("--bogus ") + quoted(geometry),
                                quoted(geometry) + " " + quoted(geometry), std::string("--export-obj")})
  {
    SCOPED_TRACE(bad);
    run = runTool(dir.path, bad);
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(contains(run.err, "ERROR: ")) << run.err;
  }

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
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.err, "ERROR: " + truncated.string() + ": not a valid geometry file")) << run.err;

  run = runTool(dir.path, quoted(dir.path / "missing.geometry"));
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(contains(run.err, "missing.geometry: cannot open the file")) << run.err;
}

} // namespace
