// Real meshes through every tool: each corpus OBJ imported, converted, validated and exported back
// to OBJ; for meshes with texture coordinates the exported triangles must be the imported ones.
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

// The corpus beside the project, or where VERTEXMILL_CORPUS says.
fs::path corpusDirectory()
{
  if (const char* overridden = std::getenv("VERTEXMILL_CORPUS"); overridden && *overridden)
    return cstdmf::u8path(overridden);
  return fs::path(VERTEXMILL_SOURCE_DIR) / ".." / "shared" / "corpus";
}

// The test command sets VERTEXMILL_CORPUS_REQUIRED: there a missing corpus is a failure, while a
// developer running the binary by hand without the corpus gets a skip.
bool corpusRequired()
{
  const char* required = std::getenv("VERTEXMILL_CORPUS_REQUIRED");
  return required && std::string(required) != "0" && *required;
}

struct Corner
{
  std::array<float, 3> position;
  std::array<float, 2> uv;
};
using Triangle = std::array<Corner, 3>;

// Positions, texture coordinates and triangles of a plain OBJ (v, vt, f with v/vt or v/vt/vn).
std::vector<Triangle> readObjTriangles(const fs::path& path)
{
  std::ifstream in(path);
  std::vector<std::array<float, 3>> positions;
  std::vector<std::array<float, 2>> uvs;
  std::vector<Triangle> triangles;
  std::string line;
  while (std::getline(in, line))
  {
    std::istringstream words(line);
    std::string tag;
    words >> tag;
    if (tag == "v")
    {
      std::array<float, 3> p{};
      words >> p[0] >> p[1] >> p[2];
      positions.push_back(p);
    }
    else if (tag == "vt")
    {
      std::array<float, 2> t{};
      words >> t[0] >> t[1];
      uvs.push_back(t);
    }
    else if (tag == "f")
    {
      std::vector<Corner> corners;
      std::string corner;
      while (words >> corner)
      {
        const long vi = std::stol(corner);
        const size_t slash = corner.find('/');
        long ti = 0;
        if (slash != std::string::npos && slash + 1 < corner.size() && corner[slash + 1] != '/')
          ti = std::stol(corner.substr(slash + 1));
        Corner c{positions.at(static_cast<size_t>(vi - 1)), {0, 0}};
        if (ti > 0)
          c.uv = uvs.at(static_cast<size_t>(ti - 1));
        corners.push_back(c);
      }
      for (size_t k = 1; k + 1 < corners.size(); ++k)
        triangles.push_back({corners[0], corners[k], corners[k + 1]});
    }
  }
  return triangles;
}

// Corners rotated so the smallest position comes first (winding kept), then sorted.
void normalise(std::vector<Triangle>& triangles)
{
  for (Triangle& t : triangles)
    std::rotate(t.begin(),
                std::min_element(t.begin(), t.end(), [](auto& a, auto& b) { return a.position < b.position; }),
                t.end());
  std::sort(triangles.begin(), triangles.end(), [](const Triangle& a, const Triangle& b) {
    for (int k = 0; k < 3; ++k)
      if (a[k].position != b[k].position)
        return a[k].position < b[k].position;
    return false;
  });
}

int runTool(const std::string& tool, const std::vector<std::string>& args, const fs::path& logs)
{
  const auto status = platform::runProcess(tool, args, {cstdmf::toUtf8(logs / "out.txt"),
                                                        cstdmf::toUtf8(logs / "err.txt"), ""});
  return status ? *status : -1000;
}

class Corpus : public testing::TestWithParam<const char*>
{
protected:
  void SetUp() override
  {
    if (!fs::is_directory(kCorpus))
    {
      if (corpusRequired())
        FAIL() << "the mesh corpus is missing at " << kCorpus.string()
               << " (set VERTEXMILL_CORPUS to its directory)";
      GTEST_SKIP() << "the mesh corpus is not beside the project (" << kCorpus.string()
                   << "); set VERTEXMILL_CORPUS to its directory";
    }
    m_dir = fs::temp_directory_path() / ("vertexmill-corpus-" + std::to_string(platform::processId()) + "-" +
                                         std::string(GetParam()));
    fs::remove_all(m_dir);
    fs::create_directories(m_dir / "out");
  }
  void TearDown() override
  {
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
  }
  const fs::path kCorpus = corpusDirectory();
  fs::path m_dir;
};

TEST_P(Corpus, ConvertsToAValidGeometryFileThatExportsTheImportedTriangles)
{
  const std::string mesh = GetParam();
  fs::path source = kCorpus / (mesh + ".obj");
  if (!fs::exists(source))
    source = kCorpus / (mesh + ".obj.gz");
  ASSERT_TRUE(fs::exists(source));
  const fs::path primitives = m_dir / (mesh + ".primitives");
  const fs::path geometry = m_dir / "out" / (mesh + ".geometry");
  const fs::path exported = m_dir / (mesh + ".exported.obj");

  ASSERT_EQ(runTool(PRIMITIVES_FROM_OBJ, {source.string(), primitives.string()}, m_dir), 0);
  ASSERT_EQ(runTool(VERTEXMILL, {"--src-path", primitives.string(), "--dst-path", (m_dir / "out").string()}, m_dir),
            0);
  ASSERT_EQ(runTool(GEOMETRY_INSPECT, {"--validate", geometry.string()}, m_dir), 0);
  ASSERT_EQ(runTool(GEOMETRY_INSPECT, {"--export-obj", exported.string(), geometry.string()}, m_dir), 0);

  // The gzip-compressed scene is too large to compare corner by corner in every build.
  if (source.extension() == ".gz")
    return;
  std::vector<Triangle> imported = readObjTriangles(source);
  std::vector<Triangle> written = readObjTriangles(exported);
  ASSERT_EQ(imported.size(), written.size());
  normalise(imported);
  normalise(written);
  const bool hasUVs = mesh.find("spot_triangulated") != std::string::npos || mesh == "boat" || mesh == "pizza";
  for (size_t i = 0; i < imported.size(); ++i)
    for (int k = 0; k < 3; ++k)
    {
      ASSERT_EQ(imported[i][k].position, written[i][k].position) << "triangle " << i;
      if (hasUVs)
      {
        for (int c = 0; c < 2; ++c)
          // Stored as a half float of (uv - 0.5), truncated.
          ASSERT_NEAR(imported[i][k].uv[c], written[i][k].uv[c], 2e-3f) << "triangle " << i;
      }
    }
}

INSTANTIATE_TEST_SUITE_P(Meshes, Corpus,
                         testing::Values("spot_low_resolution", "spot_triangulated", "boat", "pizza",
                                         "nefertiti-lowres", "koala", "merged_scene"),
                         [](const auto& mesh) {
                           std::string name = mesh.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

} // namespace
