// Golden previews: the bundled examples and two corpus meshes converted by the built tools, then
// rendered; every pixel must match the PNG kept in golden/. The comparison is of decoded pixels,
// not of PNG bytes, so a different zlib cannot fail it; the tolerance is zero.
//
// After an intended change to the renderer, run with VERTEXMILL_UPDATE_GOLDEN=1 to rewrite the
// images in the source tree, and look at them before committing.

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/preview_meshes.hpp"
#include "geometry_inspect/primitives_listing.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "preview/png_image.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{
namespace fs = std::filesystem;

const fs::path kSource = VERTEXMILL_SOURCE_DIR;
const fs::path kGolden = kSource / "tests" / "preview" / "golden";
// Beside the project in a clone; VERTEXMILL_CORPUS_DIR points elsewhere.
fs::path corpusDir()
{
  const char* dir = std::getenv("VERTEXMILL_CORPUS_DIR");
  return dir != nullptr && *dir != '\0' ? fs::path(dir) : kSource / ".." / "shared" / "corpus";
}

std::vector<uint8_t> readBytes(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int run(const std::string& tool, const std::vector<std::string>& args, const fs::path& logs)
{
  const auto status =
    platform::runProcess(tool, args, {cstdmf::toUtf8(logs / "out.txt"), cstdmf::toUtf8(logs / "err.txt"), ""});
  return status ? *status : -1000;
}

struct Case
{
  const char* name;       // golden/<name>.png
  const char* geometry;   // under the converted tree
  const char* source;     // the .primitives, for a before/after pair; empty for one panel
  preview::Mode mode;
};

class PreviewGolden : public testing::Test
{
protected:
  static void SetUpTestSuite()
  {
    Moo::PrimitiveVertexFormat::init(0);
    s_dir = fs::temp_directory_path() / ("vertexmill-golden-" + std::to_string(platform::processId()));
    fs::remove_all(s_dir);
    fs::create_directories(s_dir / "out");
    fs::create_directories(s_dir / "corpus");
    s_ready = run(VERTEXMILL, {"--tree", "--src-path", (kSource / "examples").string(), "--dst-path", (s_dir / "out").string()},
                  s_dir) == 0;
  }
  static void TearDownTestSuite()
  {
    std::error_code ignored;
    fs::remove_all(s_dir, ignored);
    Moo::PrimitiveVertexFormat::fini();
  }

  static void check(const Case& c, const fs::path& geometry, const fs::path& source)
  {
    SCOPED_TRACE(c.name);
    geometry_inspect::GeometryInspection inspection;
    ASSERT_TRUE(inspection.load(geometry.string()));
    geometry_inspect::PrimitivesListing listing;
    geometry_inspect::PreviewRequest request{.mode = c.mode, .size = 192};
    if (!source.empty())
    {
      BinaryPtr block;
      std::string error;
      ASSERT_TRUE(geometry_inspect::readWholeFile(source.string(), block, error)) << error;
      ASSERT_TRUE(listing.load(block, source.string()));
      request.source = &listing;
    }
    const preview::Image image = geometry_inspect::renderPreview(inspection, request);
    std::vector<uint8_t> png;
    std::string error;
    ASSERT_TRUE(preview::encodePng(image, png, error)) << error;

    const fs::path golden = kGolden / (std::string(c.name) + ".png");
    if (std::getenv("VERTEXMILL_UPDATE_GOLDEN") != nullptr)
    {
      std::ofstream(golden, std::ios::binary).write(reinterpret_cast<const char*>(png.data()), std::streamsize(png.size()));
      GTEST_SKIP() << "rewrote " << golden.string();
    }
    preview::Image expected;
    ASSERT_TRUE(preview::decodePng(readBytes(golden), expected, error)) << golden.string() << ": " << error;
    ASSERT_EQ(image.width, expected.width);
    ASSERT_EQ(image.height, expected.height);
    size_t differing = 0;
    for (size_t i = 0; i < image.rgb.size(); i += 3)
      differing += !std::equal(image.rgb.begin() + i, image.rgb.begin() + i + 3, expected.rgb.begin() + i);
    if (differing != 0)
    {
      const fs::path actual = fs::temp_directory_path() / (std::string(c.name) + ".actual.png");
      std::ofstream(actual, std::ios::binary).write(reinterpret_cast<const char*>(png.data()), std::streamsize(png.size()));
      ADD_FAILURE() << differing << " pixels differ from " << golden.string() << "; this build's image is "
                    << actual.string();
    }
  }

  static inline fs::path s_dir;
  static inline bool s_ready = false;
};

TEST_F(PreviewGolden, Examples)
{
  ASSERT_TRUE(s_ready) << "the examples did not convert";
  const fs::path out = s_dir / "out" / "examples";
  const Case cases[] = {
    {"spot_shaded", "creatures/spot", "", preview::Mode::Shaded},
    {"crate_sets", "props/crate", "", preview::Mode::RenderSets},
    {"ring_cache", "props/ring", "props/ring", preview::Mode::VertexCache},
    {"buoy_cache", "ships/buoy", "ships/buoy", preview::Mode::VertexCache},
  };
  for (const Case& c : cases)
    check(c, out / (std::string(c.geometry) + ".geometry"),
          *c.source ? kSource / "examples" / (std::string(c.source) + ".primitives") : fs::path());
}

TEST_F(PreviewGolden, CorpusMeshes)
{
  const fs::path corpus = corpusDir();
  if (!fs::exists(corpus))
    GTEST_SKIP() << "the mesh corpus is not beside the project (" << corpus.string() << ")";
  for (const char* mesh : {"spot_triangulated", "nefertiti-lowres"})
  {
    const fs::path primitives = s_dir / (std::string(mesh) + ".primitives");
    ASSERT_EQ(run(PRIMITIVES_FROM_OBJ, {(corpus / (std::string(mesh) + ".obj")).string(), primitives.string()}, s_dir), 0);
    ASSERT_EQ(run(VERTEXMILL, {"--src-path", primitives.string(), "--dst-path", (s_dir / "corpus").string()}, s_dir), 0);
    const fs::path geometry = s_dir / "corpus" / (std::string(mesh) + ".geometry");
    check({mesh, "", "", preview::Mode::Shaded}, geometry, {});
    const std::string cache = std::string(mesh) + "_cache";
    check({cache.c_str(), "", "", preview::Mode::VertexCache}, geometry, primitives);
  }
}

} // namespace
