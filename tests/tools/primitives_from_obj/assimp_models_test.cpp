// Every model of the assimp test models (Debian package assimp-testmodels) through every tool:
// each file the library reads is imported, the imports are converted in one tree run, and every
// .geometry file is validated and exported. Files the library refuses must be refused cleanly
// (status 3, the file named, nothing written). For skinned models the bone indices and weights of
// the .geometry file must decode to the source's three strongest influences.
//
// Set VERTEXMILL_MODEL_TABLE=FILE to get the table of results as Markdown.

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "moo/geometry_data.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <assimp/Importer.hpp>
#include <assimp/scene.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

const fs::path kModels = "/usr/share/assimp/models";
// Runs for minutes inside the library: checked on its own with a short time limit.
const fs::path kEndless = "invalid/OutOfMemory.off";

std::string slurp(const fs::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

struct ToolRun
{
  int status = -1;
  std::string out, err;
};

ToolRun runTool(const std::string& tool, const std::vector<std::string>& args, const fs::path& logs)
{
  const auto status = platform::runProcess(tool, args, {cstdmf::toUtf8(logs / "out.txt"),
                                                        cstdmf::toUtf8(logs / "err.txt"), ""});
  return {status ? *status : -1000, slurp(logs / "out.txt"), slurp(logs / "err.txt")};
}

// Files that may be models: everything but pictures, texts and the other companions.
bool looksLikeModel(const fs::path& path)
{
  static const std::regex companion(
    R"(.*\.(png|jpg|jpeg|tga|bmp|txt|mtl|bin|glsl|dds|gif|md|material|skeleton|source|readme|pcx|psd|tif|tiff|ktx|hdr|vert|frag|bak|html|ini|zip|shader|mat|skin|anim))",
    std::regex::icase);
  return !std::regex_match(path.filename().string(), companion);
}

struct Model
{
  fs::path relative;
  std::string stem; // m<number>, so that no name is taken for a LOD or a companion
  int status = -1;
  std::string readAs;
  size_t sets = 0, triangles = 0;
  bool skinned = false;
  std::string note;
};

// Three bone indices and two weights, as the skinned source formats hold them.
using Skin = std::array<int, 5>;

// What the importer promises for one vertex: the three strongest influences (weight descending,
// bone ascending), renormalised, rounded to 255ths; free slots repeat the strongest bone; no
// influence at all binds to bone 0.
Skin expectedSkin(std::vector<std::pair<float, unsigned>> influences)
{
  std::erase_if(influences, [](auto& i) { return !(i.first > 0.0f) || !std::isfinite(i.first); });
  if (influences.empty())
    return {0, 0, 0, 255, 0};
  std::sort(influences.begin(), influences.end(),
            [](auto& a, auto& b) { return a.first != b.first ? a.first > b.first : a.second < b.second; });
  influences.resize(std::min<size_t>(influences.size(), 3));
  double sum = 0;
  for (auto& i : influences)
    sum += i.first;
  const long w0 = std::lround(influences[0].first / sum * 255.0);
  const long w1 = influences.size() > 1 ? std::min(std::lround(influences[1].first / sum * 255.0), 255 - w0) : 0;
  Skin skin{};
  for (size_t k = 0; k < 3; ++k)
    skin[k] = static_cast<int>(influences[k < influences.size() ? k : 0].second);
  skin[3] = static_cast<int>(w0);
  skin[4] = static_cast<int>(w1);
  return skin;
}

using PositionKey = std::array<uint32_t, 3>;
PositionKey keyOf(const float* p)
{
  PositionKey key{};
  std::memcpy(key.data(), p, sizeof(key));
  return key;
}

// Every skinned vertex of the source, read straight from the library without any processing:
// position -> the skins a vertex there may have.
std::map<PositionKey, std::set<Skin>> sourceSkins(const fs::path& file)
{
  std::map<PositionKey, std::set<Skin>> skins;
  Assimp::Importer importer;
  const aiScene* scene = importer.ReadFile(file.string(), 0);
  if (scene == nullptr)
    return skins;
  for (unsigned m = 0; m < scene->mNumMeshes; ++m)
  {
    const aiMesh& mesh = *scene->mMeshes[m];
    if (mesh.mNumBones == 0)
      continue;
    std::vector<std::vector<std::pair<float, unsigned>>> influences(mesh.mNumVertices);
    for (unsigned b = 0; b < mesh.mNumBones; ++b)
      for (unsigned w = 0; w < mesh.mBones[b]->mNumWeights; ++w)
        if (mesh.mBones[b]->mWeights[w].mVertexId < mesh.mNumVertices)
          influences[mesh.mBones[b]->mWeights[w].mVertexId].emplace_back(mesh.mBones[b]->mWeights[w].mWeight, b);
    for (unsigned v = 0; v < mesh.mNumVertices; ++v)
      skins[keyOf(&mesh.mVertices[v].x)].insert(expectedSkin(influences[v]));
  }
  return skins;
}

// Checks every vertex of the skinned buffers of `geometryPath` against the source's skins;
// returns the number of vertices checked.
size_t checkSkins(const fs::path& geometryPath, const fs::path& source)
{
  Moo::GeometryData geometry;
  EXPECT_TRUE(geometry.load(cstdmf::toUtf8(geometryPath)));
  const auto skins = sourceSkins(source);
  size_t checked = 0;
  for (const Moo::GeometryData::VertexBuffer& buffer : geometry.vertexBuffers())
  {
    const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByGPUFormatName(buffer.formatName);
    if (format == nullptr || !buffer.isSkinned)
      continue;
    std::vector<std::byte> vertices;
    if (buffer.encoded)
    {
      EXPECT_TRUE(MeshDataOptimizer::decodeVertexData(buffer.data, buffer.strideInBytes, vertices));
    }
    else
      vertices.assign(buffer.data.begin(), buffer.data.end());
    size_t indicesAt = 0, weightsAt = 0;
    for (const Moo::VertexElement& element : format->m_gpuFormat.elements)
    {
      if (element.semantic_ == VertexSemantic::BLENDINDICES)
        indicesAt = element.offset_;
      if (element.semantic_ == VertexSemantic::BLENDWEIGHT)
        weightsAt = element.offset_;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(vertices.data());
    for (size_t at = 0; at + buffer.strideInBytes <= vertices.size(); at += buffer.strideInBytes)
    {
      // GPU layout: the indices reversed in bytes 0-2; the weights of the first two in bytes 2 and 1.
      const unsigned char* i = bytes + at + indicesAt;
      const unsigned char* w = bytes + at + weightsAt;
      const Skin decoded{i[2], i[1], i[0], w[2], w[1]};
      float position[3];
      std::memcpy(position, bytes + at, sizeof(position));
      const auto found = skins.find(keyOf(position));
      if (found == skins.end())
      {
        // A rigid mesh of a skinned scene: moved by its node and bound wholly to bone 0.
        EXPECT_EQ(decoded, (Skin{0, 0, 0, 255, 0})) << geometryPath << " vertex at byte " << at;
      }
      else
      {
        EXPECT_TRUE(found->second.count(decoded))
          << geometryPath << " vertex at byte " << at << " decodes to bones " << decoded[0] << " " << decoded[1] << " "
          << decoded[2] << " weights " << decoded[3] << " " << decoded[4];
      }
      ++checked;
    }
  }
  return checked;
}

struct FormatRegistry
{
  FormatRegistry() { Moo::PrimitiveVertexFormat::init(0); }
  ~FormatRegistry() { Moo::PrimitiveVertexFormat::fini(); }
};

class AssimpModels : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(fs::is_directory(kModels)) << "install assimp-testmodels (scripts/install-deps.sh)";
    m_dir = fs::temp_directory_path() / ("vertexmill-assimp-models-" + std::to_string(platform::processId()));
    fs::remove_all(m_dir);
    fs::create_directories(m_dir / "src");
    fs::create_directories(m_dir / "out");
    fs::create_directories(m_dir / "obj");
  }
  void TearDown() override
  {
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
  }
  fs::path m_dir;
};

// A file that makes the library allocate without end (it claims billions of vertices) is stopped
// by the import's memory bound at once, or, without one, by its time limit.
TEST_F(AssimpModels, RunawayImportIsStoppedByItsMemoryOrTimeLimit)
{
  const fs::path output = m_dir / "src" / "endless.primitives";
  // A sanitizer build reserves more address space than any bound: there is none by default, and
  // its workers cannot start under one.
  if (platform::kDefaultChildMemoryBytes != 0)
  {
    for (const std::string limit : {"", "256"})
    {
      SCOPED_TRACE(limit);
      std::vector<std::string> args = {(kModels / kEndless).string(), output.string()};
      if (!limit.empty())
        args.insert(args.end(), {"--memory-limit", limit});
      const ToolRun run = runTool(PRIMITIVES_IMPORT, args, m_dir);
      EXPECT_EQ(run.status, 3);
      const std::string shown = limit.empty() ? std::to_string(platform::kDefaultChildMemoryBytes >> 20) : limit;
      EXPECT_NE(run.err.find(kEndless.string() + ": the import needed more than the " + shown +
                             " MiB it may use (--memory-limit)"),
                std::string::npos)
        << run.err;
      EXPECT_FALSE(fs::exists(output));
    }
  }
  const ToolRun run = runTool(PRIMITIVES_IMPORT,
                              {(kModels / kEndless).string(), output.string(), "--memory-limit", "0", "--time-limit", "1"}, m_dir);
  EXPECT_EQ(run.status, 3);
  EXPECT_NE(run.err.find("did not finish within 1 seconds"), std::string::npos) << run.err;
  EXPECT_FALSE(fs::exists(output));
  EXPECT_FALSE(fs::exists(output.string() + ".tmp"));
}

// The skinned example is reproduced byte for byte, run after run.
TEST_F(AssimpModels, SkinnedExampleIsReproducedExactly)
{
  const fs::path output = m_dir / "src" / "jumper.primitives";
  for (int run = 0; run < 2; ++run)
  {
    ASSERT_EQ(runTool(PRIMITIVES_IMPORT, {(kModels / "X/BCN_Epileptic.X").string(), output.string()}, m_dir).status, 0);
    EXPECT_EQ(slurp(output), slurp(fs::path(VERTEXMILL_SOURCE_DIR) / "examples/creatures/jumper.primitives"));
  }
}

TEST_F(AssimpModels, EveryReadableModelImportsConvertsValidatesAndExports)
{
  FormatRegistry registry;
  std::vector<Model> models;
  for (const auto& entry : fs::recursive_directory_iterator(kModels))
    if (entry.is_regular_file() && looksLikeModel(entry.path()) && fs::relative(entry.path(), kModels) != kEndless)
      models.push_back({fs::relative(entry.path(), kModels)});
  std::sort(models.begin(), models.end(), [](auto& a, auto& b) { return a.relative < b.relative; });
  ASSERT_GT(models.size(), 300u);

  // Import: "<out>: N sets, V vertices, T triangles, format F, B bytes[ (<reader>[, skinned])]".
  const std::regex summary(R"(: (\d+) sets?, \d+ vertices, (\d+) triangles, format (\w+), \d+ bytes(?: \((.*?)(, skinned)?\))?\n)");
  size_t imported = 0;
  for (size_t n = 0; n < models.size(); ++n)
  {
    Model& model = models[n];
    model.stem = "m" + std::to_string(n);
    const fs::path output = m_dir / "src" / (model.stem + ".primitives");
    const ToolRun run = runTool(PRIMITIVES_IMPORT, {(kModels / model.relative).string(), output.string()}, m_dir);
    model.status = run.status;
    std::smatch match;
    if (run.status == 0 && std::regex_search(run.out, match, summary))
    {
      model.sets = std::stoul(match[1]);
      model.triangles = std::stoul(match[2]);
      model.readAs = match[4].matched ? match[4].str() : "Wavefront OBJ (own reader)";
      model.skinned = match[5].matched;
      ++imported;
      EXPECT_TRUE(fs::exists(output)) << model.relative;
    }
    else
    {
      // Refused: the reason names the file, and nothing is written.
      EXPECT_EQ(run.status, 3) << model.relative << ": " << run.out << run.err;
      EXPECT_NE(run.err.find((kModels / model.relative).string()), std::string::npos) << run.err;
      EXPECT_FALSE(fs::exists(output)) << model.relative;
      model.note = run.err.substr(0, run.err.find('\n'));
    }
  }

  // One tree run converts them all.
  const ToolRun convert = runTool(VERTEXMILL, {"--tree", "--keep-going", "-q", "--src-path", (m_dir / "src").string(),
                                           "--dst-path", (m_dir / "out").string()},
                              m_dir);
  EXPECT_EQ(convert.status, 0) << convert.err;

  size_t skinnedModels = 0, skinnedVertices = 0;
  for (Model& model : models)
  {
    if (model.status != 0)
      continue;
    SCOPED_TRACE(model.relative.string());
    const fs::path geometry = m_dir / "out" / "src" / (model.stem + ".geometry");
    const fs::path exported = m_dir / "obj" / (model.stem + ".obj");
    EXPECT_EQ(runTool(GEOMETRY_INSPECT, {"--validate", geometry.string()}, m_dir).status, 0);
    EXPECT_EQ(runTool(GEOMETRY_INSPECT, {"--export-obj", exported.string(), geometry.string()}, m_dir).status, 0);
    // Every triangle comes back out.
    std::istringstream lines(slurp(exported));
    size_t faces = 0;
    for (std::string line; std::getline(lines, line);)
      faces += line.rfind("f ", 0) == 0;
    EXPECT_EQ(faces, model.triangles);
    if (model.skinned)
    {
      ++skinnedModels;
      skinnedVertices += checkSkins(geometry, kModels / model.relative);
    }
  }
  EXPECT_GT(imported, 250u);
  EXPECT_GE(skinnedModels, 8u);
  EXPECT_GT(skinnedVertices, 5000u);

  if (const char* table = std::getenv("VERTEXMILL_MODEL_TABLE"))
  {
    std::ofstream out(table);
    out << "| model | format read | render sets | triangles | skinned | status |\n|---|---|---:|---:|---|---|\n";
    for (const Model& model : models)
      out << "| " << model.relative.generic_string() << " | " << (model.status == 0 ? model.readAs : "") << " | "
          << (model.status == 0 ? std::to_string(model.sets) : "") << " | "
          << (model.status == 0 ? std::to_string(model.triangles) : "") << " | "
          << (model.status == 0 ? (model.skinned ? "yes" : "no") : "") << " | "
          << (model.status == 0 ? std::string("ok") : "refused: " + model.note) << " |\n";
  }
}

} // namespace
