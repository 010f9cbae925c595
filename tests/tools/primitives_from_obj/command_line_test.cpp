// The importer as a program: exit statuses, messages and files, and the real meshes of the corpus.

#include "primitives_from_obj/mesh_builder.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/primitives_writer.hpp"
#include "tools/primitives_from_obj/test_support.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

using namespace objimport;

namespace
{

struct RunResult
{
  int status = -1;
  std::string out;
  std::string err;
};

std::string slurp(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

RunResult runTool(const TempDir& dir, const std::string& arguments)
{
  const std::string out = dir.path("stdout.txt"), err = dir.path("stderr.txt");
  // Absolute, so that under Wine the build host's "/work/..." reads as "Z:/work/...".
  std::string command = "\"" + std::filesystem::absolute(PRIMITIVES_FROM_OBJ_EXE).string() + "\" " + arguments +
                        " >\"" + out + "\" 2>\"" + err + "\"";
#if defined(_WIN32)
  command = "\"" + command + "\""; // cmd /c drops the first and the last quote of the line
#endif
  int status = std::system(command.c_str());
#if !defined(_WIN32)
  status = (status >> 8) & 0xFF; // std::system reports a wait status here, the exit code on Windows
#endif
  return {status, slurp(out), slurp(err)};
}

std::string quoted(const std::string& path) { return "\"" + path + "\""; }

TEST(CommandLine, ExitStatuses)
{
  TempDir dir;
  const std::string out = dir.path("out.primitives");
  std::ofstream(dir.path("good.obj")) << "o Hull\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n";
  std::ofstream(dir.path("bad.obj")) << "v 0 0 0\nv 1 0 0\nf 1 2 3\n";

  RunResult r = runTool(dir, "--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("usage: primitives_from_obj"), std::string::npos);
  r = runTool(dir, "--version");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("primitives_from_obj ", 0), 0u) << r.out;

  const std::string badCommandLines[] = {
    "", quoted(dir.path("good.obj")), "--bogus a b", quoted(dir.path("good.obj")) + " " + quoted(out) + " --format XYZNUV",
    "--procedural cone " + quoted(out), "--format", "--time-limit abc " + quoted(dir.path("good.obj")) + " " + quoted(out),
    "--memory-limit 12G " + quoted(dir.path("good.obj")) + " " + quoted(out),
  };
  for (const std::string& bad : badCommandLines)
  {
    SCOPED_TRACE(bad);
    r = runTool(dir, bad);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.err.rfind("ERROR: ", 0), 0u) << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(out));

  // Malformed input (status 3) and a missing input (status 2) leave an existing output untouched.
  std::ofstream(out) << "previous";
  r = runTool(dir, quoted(dir.path("bad.obj")) + " " + quoted(out));
  EXPECT_EQ(r.status, 3);
  EXPECT_NE(r.err.find("bad.obj:3: position index 3 is out of range"), std::string::npos) << r.err;
  r = runTool(dir, quoted(dir.path("missing.obj")) + " " + quoted(out));
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("ERROR: cannot read '" + dir.path("missing.obj") + "': "), std::string::npos) << r.err;
  EXPECT_EQ(slurp(out), "previous");

  // The output's directory is checked before the input is read (the input here does not even
  // exist), and the message names the output, not a temporary file.
  const std::string noDir = dir.path("no/dir/out.primitives");
  r = runTool(dir, quoted(dir.path("missing.obj")) + " " + quoted(noDir));
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("ERROR: cannot write '" + noDir + "': "), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find(".tmp"), std::string::npos) << r.err;

  // A file of the user's beside the output, named like a temporary file, is left as it is.
  std::ofstream(out + ".tmp") << "mine";
  r = runTool(dir, quoted(dir.path("good.obj")) + " " + quoted(out) + " --format=xyznuviiiww");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(slurp(out + ".tmp"), "mine");
  std::filesystem::remove(out + ".tmp");
  EXPECT_NE(r.out.find("1 set, 4 vertices, 2 triangles, format xyznuviiiww"), std::string::npos) << r.out;
  // Magic, 4 vertices of 29 bytes, 6 16-bit indices, the index entries of "Hull.vertices" and
  // "Hull.indices" (names padded to 4 bytes), the index length.
  EXPECT_EQ(std::filesystem::file_size(out), 4u + (68 + 4 * 29) + (72 + 6 * 2) + (24 + 16) + (24 + 12) + 4);
  EXPECT_FALSE(std::filesystem::exists(out + ".tmp"));

  // The same file as UTF-16 text with a byte-order mark.
  {
    const std::string text = "o Hull\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n";
    std::ofstream utf16(dir.path("utf16.obj"), std::ios::binary);
    utf16 << '\xFF' << '\xFE';
    for (char c : text)
      utf16 << c << '\0';
  }
  r = runTool(dir, quoted(dir.path("utf16.obj")) + " " + quoted(out));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("1 set, 4 vertices, 2 triangles"), std::string::npos) << r.out;

  r = runTool(dir, "--procedural cube " + quoted(out));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("2 sets, 24 vertices, 12 triangles, format xyznuvtb"), std::string::npos) << r.out;
}

// Imports every mesh of the shared corpus, when it is present, and checks the vertex counts that
// its README lists for de-duplication by (v, vt, vn).
TEST(Corpus, EveryMeshImports)
{
  const std::filesystem::path corpus = VERTEXMILL_CORPUS_DIR;
  if (!std::filesystem::is_directory(corpus))
    GTEST_SKIP() << "no corpus at " << corpus;
  const std::pair<const char*, size_t> meshes[] = {
    {"spot_low_resolution.obj", 4962}, {"spot_triangulated.obj", 3225}, {"boat.obj", 16665},
    {"pizza.obj", 48612},              {"nefertiti-lowres.obj", 35002}, {"koala.obj", 49999},
    {"merged_scene.obj.gz", 494517},
  };
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName("xyznuvtb");
  ASSERT_NE(format, nullptr);
  for (const auto& [file, expectedVertices] : meshes)
  {
    SCOPED_TRACE(file);
    const std::string path = (corpus / file).string();
    if (!std::filesystem::exists(path))
      continue;
    ObjMesh mesh;
    std::string error;
    ASSERT_TRUE(loadObj(path, mesh, error)) << error;
    const std::vector<RenderSet> sets = buildRenderSets(mesh, BuildOptions{});
    size_t vertices = 0;
    for (const RenderSet& set : sets)
      vertices += set.vertexCount();
    EXPECT_EQ(vertices, expectedVertices);
    const BinaryPtr container = encodePrimitives(sets, *format, error);
    ASSERT_TRUE(container) << error;
    if (std::string_view(file) == "merged_scene.obj.gz")
    {
      EXPECT_EQ(sets.size(), 17u);
    }
  }
}

} // namespace
