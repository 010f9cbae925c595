// The inspector in-process on models compiled by the real compiler: what it reports, what it
// accepts and refuses, and what it exports.

#include "format_registry_environment.hpp"
#include "tools/geometry_inspect/inspect_test_support.hpp"

#include "geometry_inspect/obj_export.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "moo/moo_prototypes.hpp"
#include "preview/png_image.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

using namespace inspect_test;
using geometry_inspect::GeometryInspection;

namespace
{

nlohmann::json jsonOf(const RunResult& run)
{
  return nlohmann::json::parse(run.out);
}

// ---------------------------------------------------------------------------------------------
// Reports

TEST(geometry_inspect, SummaryAndJsonDescribeTheCompiledModel)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry =
    compileModel(dir.path, "ship", twoGrids(), true, true, std::string(100, 'c'), std::string(7, 'a'));

  const RunResult json = inspect({"--json", "--validate", geometry.string()});
  ASSERT_EQ(json.status, 0) << json.err;
  const nlohmann::json doc = jsonOf(json);
  EXPECT_EQ(doc["type"], "geometry");
  EXPECT_EQ(doc["fileSize"], fs::file_size(geometry));
  EXPECT_TRUE(doc["sound"]);
  EXPECT_TRUE(doc["errors"].empty()) << doc["errors"];

  ASSERT_EQ(doc["vertexBuffers"].size(), 1u);
  const nlohmann::json& vertices = doc["vertexBuffers"][0];
  EXPECT_EQ(vertices["format"], "set3/xyznuvpc");
  EXPECT_EQ(vertices["stride"], 20);
  EXPECT_FALSE(vertices["skinned"]);
  EXPECT_FALSE(vertices["bumped"]);
  EXPECT_TRUE(vertices["encoded"]);
  EXPECT_EQ(vertices["vertexCount"], 25 + 9);
  EXPECT_EQ(vertices["decodedSize"], 34 * 20);
  EXPECT_DOUBLE_EQ(vertices["ratio"].get<double>(), vertices["storedSize"].get<double>() / (34 * 20));

  ASSERT_EQ(doc["indexBuffers"].size(), 2u);
  EXPECT_EQ(doc["indexBuffers"][0]["format"], "list");
  EXPECT_EQ(doc["indexBuffers"][0]["indexCount"], 96);
  EXPECT_EQ(doc["indexBuffers"][0]["decodedSize"], 96 * 2);
  EXPECT_EQ(doc["indexBuffers"][1]["format"], "list32");
  EXPECT_EQ(doc["indexBuffers"][1]["indexCount"], 24);
  EXPECT_EQ(doc["indexBuffers"][1]["decodedSize"], 24 * 4);

  const nlohmann::json& vertexMappings = doc["vertexMappings"];
  const nlohmann::json& indexMappings = doc["indexMappings"];
  ASSERT_EQ(vertexMappings.size(), 2u);
  ASSERT_EQ(indexMappings.size(), 2u);
  EXPECT_EQ(vertexMappings[0]["id"], idOf("hull.vertices"));
  EXPECT_EQ(vertexMappings[1]["id"], idOf("deck.vertices"));
  EXPECT_EQ(vertexMappings[1]["itemsOffset"], 25);
  EXPECT_EQ(vertexMappings[1]["itemsCount"], 9);
  EXPECT_EQ(indexMappings[0]["id"], idOf("hull.indices"));
  EXPECT_EQ(indexMappings[1]["id"], idOf("deck.indices"));
  EXPECT_EQ(indexMappings[1]["buffer"], 1);
  EXPECT_EQ(indexMappings[1]["itemsCount"], 24);
  // uv = position / n on both grids (deck: positions ×2, uv ×1/2), so the density is 1/4.
  for (const nlohmann::json* mappings : {&vertexMappings, &indexMappings})
    for (const nlohmann::json& mapping : *mappings)
      EXPECT_EQ(mapping["texelDensity"], 0.25);

  ASSERT_EQ(doc["collisionModels"].size(), 1u);
  EXPECT_EQ(doc["collisionModels"][0]["name"], "ship.collision");
  EXPECT_EQ(doc["collisionModels"][0]["size"], 100);
  ASSERT_EQ(doc["armorModels"].size(), 1u);
  EXPECT_EQ(doc["armorModels"][0]["name"], "ship.armor");
  EXPECT_EQ(doc["armorModels"][0]["size"], 7);

  const RunResult text = inspect({geometry.string()});
  ASSERT_EQ(text.status, 0) << text.err;
  for (const std::string& part : std::vector<std::string>{"set3/xyznuvpc stride 20 skinned no bumped no: 34 vertices, encoded", "list (16-bit): 96 indices",
        "list32 (32-bit): 24 indices", "id " + idOf("deck.vertices") + " (deck.vertices) buffer 0 items 25+9 texel density 0.25",
        "'ship.collision' 100 B", "'ship.armor' 7 B"})
    EXPECT_TRUE(contains(text.out, part)) << part << "\n" << text.out;
  EXPECT_TRUE(text.err.empty()) << text.err;
}

TEST(geometry_inspect, StatsReflectTheOptimisation)
{
  testutil::TempDir dir("inspect");
  const testutil::Sections big = {
    {"hull.vertices", testutil::vertexSection(testutil::gridVertices(32))},
    {"hull.indices", testutil::indexSection(testutil::gridIndices<uint16_t>(32))},
  };
  const auto acmrOf = [&](bool optimize) {
    const fs::path geometry = compileModel(dir.path, optimize ? "fast" : "plain", big, true, optimize);
    const RunResult run = inspect({"--json", "--stats", geometry.string()});
    EXPECT_EQ(run.status, 0) << run.err;
    const nlohmann::json sets = jsonOf(run)["renderSets"];
    EXPECT_EQ(sets.size(), 1u);
    const nlohmann::json& set = sets[0];
    EXPECT_TRUE(set["usable"]);
    EXPECT_EQ(set["triangleCount"], 32 * 32 * 2);
    EXPECT_GE(set["atvr"].get<double>(), 1.0);
    EXPECT_GE(set["overfetch"].get<double>(), 1.0);
    EXPECT_NEAR(set["overdraw"].get<double>(), 1.0, 0.01); // a flat grid covers each pixel once
    return set["acmr"].get<double>();
  };
  const double plain = acmrOf(false);
  const double optimized = acmrOf(true);
  EXPECT_GT(plain, 0.5);
  EXPECT_LT(optimized, plain);

  const RunResult text = inspect({"--stats", (dir.path / "fast.geometry").string()});
  EXPECT_TRUE(contains(text.out, "#0 vertices " + idOf("hull.vertices"))) << text.out;
  EXPECT_TRUE(contains(text.out, "ACMR ")) << text.out;
}

TEST(geometry_inspect, StatsAreTheCompilersFiguresForTheSameFile)
{
  // The report's figures after optimisation and the inspector's are one measurement of one file:
  // also when the index codec rotated triangles while encoding.
  testutil::TempDir dir("inspect");
  const testutil::Sections sections = {
    {"hull.vertices", testutil::vertexSection(testutil::gridVertices(24))},
    {"hull.indices", testutil::indexSection(testutil::gridIndices<uint16_t>(24))},
  };
  const fs::path source = dir.path / "ship.primitives";
  const fs::path output = dir.path / "ship.geometry";
  testutil::writeFile(source, testutil::container(sections));
  GeometryCompiler::Request request;
  request.primitivesPath = source.string();
  CompileStatistics statistics;
  GeometryCompiler compiler;
  compiler.setStatistics(&statistics);
  compiler.setOverdrawAnalysis(true);
  ASSERT_TRUE(compiler.compile(request, output.string(), true, true, true));
  ASSERT_EQ(statistics.renderSets.size(), 1u);
  ASSERT_TRUE(statistics.renderSets[0].before.overdraw && statistics.renderSets[0].after.overdraw);

  const RunResult run = inspect({"--json", "--stats", output.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json set = jsonOf(run)["renderSets"][0];
  const MeshDataOptimizer::MeshStatistics& after = statistics.renderSets[0].after;
  EXPECT_DOUBLE_EQ(set["acmr"].get<double>(), double(after.acmr));
  EXPECT_DOUBLE_EQ(set["atvr"].get<double>(), double(after.atvr));
  EXPECT_DOUBLE_EQ(set["overdraw"].get<double>(), double(*after.overdraw));
  EXPECT_DOUBLE_EQ(set["overfetch"].get<double>(), double(after.overfetch));
}

// ---------------------------------------------------------------------------------------------
// Validation

TEST(geometry_inspect, ValidateAcceptsEveryCompilerSetting)
{
  testutil::TempDir dir("inspect");
  for (const bool encode : {false, true})
    for (const bool optimize : {false, true})
    {
      SCOPED_TRACE(testing::Message() << "encode " << encode << " optimize " << optimize);
      const fs::path geometry = compileModel(dir.path, "m", twoGrids(), encode, optimize);
      const RunResult run = inspect({"--validate", geometry.string()});
      EXPECT_EQ(run.status, 0) << run.err;
      EXPECT_TRUE(contains(run.out, "m.geometry: sound (0 warnings)")) << run.out;
      EXPECT_TRUE(run.err.empty()) << run.err;
    }
}

// A compiled model's bytes with the reader's view of them, for corrupting in place.
struct Corruptible
{
  fs::path path;
  std::vector<std::byte> bytes;
  GeometryInspection view;

  Corruptible(const fs::path& dir, bool encode) : path(compileModel(dir, "m", twoGrids(), encode, true))
  {
    bytes = testutil::readFile(path);
    EXPECT_TRUE(view.load(path.string()));
  }
  // Position of the index mapping array / the vertex buffer records (offsets held by the root).
  size_t indicesMappingAt() const { return peek<uint64_t>(bytes, offsetof(Moo::MergedGeometryPrototype, indicesMapping)); }
  size_t verticesMappingAt() const
  {
    return peek<uint64_t>(bytes, offsetof(Moo::MergedGeometryPrototype, verticesMapping));
  }

  // Writes the corrupted bytes beside the model and validates them.
  RunResult validate(const std::vector<std::byte>& corrupted) const
  {
    const fs::path target = path.parent_path() / "corrupt.geometry";
    testutil::writeFile(target, corrupted);
    return inspect({"--validate", target.string()});
  }
};

TEST(geometry_inspect, ValidateRefusesCorruptedFiles)
{
  testutil::TempDir dir("inspect");
  const Corruptible encoded(dir.path, true);
  const Moo::GeometryData& data = encoded.view.data();
  constexpr size_t kHeader = MeshDataOptimizer::EncodedBufferHeader::kSize;

  struct Case
  {
    const char* what;
    std::vector<std::byte> bytes;
    const char* message;
  };
  std::vector<Case> cases;
  const auto corrupt = [&](const char* what, const char* message, auto&& change) {
    std::vector<std::byte> bytes = encoded.bytes;
    change(bytes);
    cases.push_back({what, std::move(bytes), message});
  };
  corrupt("vertex codec version byte", "vertex buffer #0 (set3/xyznuvpc): the encoded data cannot be decoded",
          [&](auto& b) { b[positionOf(data, data.vertexBuffers()[0].data) + kHeader] ^= std::byte{0xFF}; });
  corrupt("index element count", "index buffer #0: the encoded data cannot be decoded", [&](auto& b) {
    const size_t at = positionOf(data, data.indexBuffers()[0].data) + 4;
    poke<uint32_t>(b, at, peek<uint32_t>(b, at) + 3);
  });
  corrupt("index range past its buffer", "items 0..27 run past the 24 decoded items", [&](auto& b) {
    poke<uint32_t>(b, encoded.indicesMappingAt() + sizeof(Moo::MappingPrototype) + offsetof(Moo::MappingPrototype, itemsCount),
                   27);
  });
  corrupt("mergedVertices offset", "mergedVertices points outside the file", [](auto& b) {
    poke<uint64_t>(b, offsetof(Moo::MergedGeometryPrototype, mergedVertices), 0x7FFFFFFF);
  });
  corrupt("format name", "the vertex format is unknown to the runtime", [&](auto& b) {
    const std::string name = data.vertexBuffers()[0].formatName;
    const auto* block = reinterpret_cast<const char*>(data.block()->data());
    const auto at = std::search(block, block + data.block()->len(), name.begin(), name.end()) - block;
    b[static_cast<size_t>(at) + name.size() - 1] = std::byte{'q'};
  });

  // Raw buffers: an index that no vertex buffer can satisfy.
  fs::create_directories(dir.path / "raw");
  const Corruptible raw(dir.path / "raw", false);
  {
    std::vector<std::byte> bytes = raw.bytes;
    poke<uint16_t>(bytes, positionOf(raw.view.data(), raw.view.data().indexBuffers()[0].data) + 2 * 5, 0xFFFF);
    cases.push_back({"raw index", std::move(bytes), "index 65535 (position 5) is not below the vertex count of any"});
  }

  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.what);
    const RunResult run = (c.what == std::string("raw index") ? raw : encoded).validate(c.bytes);
    EXPECT_EQ(run.status, 3);
    EXPECT_TRUE(contains(run.err, c.message)) << run.err;
    EXPECT_TRUE(contains(run.err, "corrupt.geometry: ")) << run.err;
    EXPECT_TRUE(contains(run.out, "NOT sound")) << run.out;
  }

  // Every truncated prefix is refused.
  for (size_t size = 0; size < encoded.bytes.size(); ++size)
  {
    const std::vector<std::byte> prefix(encoded.bytes.begin(), encoded.bytes.begin() + static_cast<ptrdiff_t>(size));
    ASSERT_EQ(encoded.validate(prefix).status, 3) << size;
  }
}

TEST(geometry_inspect, EverySingleByteFlipIsHandled)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());
  const std::vector<std::byte> original = testutil::readFile(geometry);
  const fs::path target = dir.path / "flip.geometry";
  const fs::path obj = dir.path / "flip.obj";
  size_t refused = 0;
  for (size_t i = 0; i < original.size(); ++i)
  {
    std::vector<std::byte> bytes = original;
    bytes[i] ^= std::byte{0xFF};
    testutil::writeFile(target, bytes);
    const RunResult run = inspect({"--validate", "--stats", "--json", "--export-obj", obj.string(), target.string()});
    ASSERT_TRUE(run.status == 0 || run.status == 3) << i;
    EXPECT_TRUE(nlohmann::json::accept(run.out)) << i;
    refused += run.status == 3;
  }
  // Records, offsets and codec streams make up most of a small file.
  EXPECT_GT(refused, original.size() / 4);

  // The source container as well: its index, names and section headers.
  const std::vector<std::byte> source = testutil::readFile(dir.path / "m.primitives");
  const fs::path container = dir.path / "flip.primitives";
  for (size_t i = 0; i < source.size(); ++i)
  {
    std::vector<std::byte> bytes = source;
    bytes[i] ^= std::byte{0xFF};
    testutil::writeFile(container, bytes);
    const RunResult run = inspect({"--validate", "--json", container.string()});
    ASSERT_TRUE(run.status == 0 || run.status == 3) << i;
    EXPECT_TRUE(nlohmann::json::accept(run.out)) << i;
  }
}

TEST(geometry_inspect, MispairedOrUnpairableRenderSetsAreWarningsButCannotBeExported)
{
  testutil::TempDir dir("inspect");
  Corruptible model(dir.path, true);
  // deck's vertex range shrinks to 5 of its 9 vertices: sound on its own, but deck's indices reach 8.
  std::vector<std::byte> bytes = model.bytes;
  poke<uint32_t>(bytes, model.verticesMappingAt() + sizeof(Moo::MappingPrototype) + offsetof(Moo::MappingPrototype, itemsCount), 5);
  const fs::path mispaired = dir.path / "mispaired.geometry";
  testutil::writeFile(mispaired, bytes);

  RunResult run = inspect({"--validate", mispaired.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.err, "WARNING: " + mispaired.string() + ": render set #1")) << run.err;
  EXPECT_TRUE(contains(run.err, "is not below its 5 vertices")) << run.err;
  EXPECT_TRUE(contains(run.err, "4 of the 34 vertices")) << run.err;

  const fs::path obj = dir.path / "out.obj";
  std::ofstream(obj) << "previous";
  run = inspect({"--export-obj", obj.string(), mispaired.string()});
  EXPECT_EQ(run.status, 3);
  EXPECT_TRUE(contains(run.err, "render set #1 cannot be exported")) << run.err;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(testutil::readFile(obj).data()), 8), "previous");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path), fs::directory_iterator()), 4); // no temporary left

  // A vertex section without indices: three vertex mappings, two index mappings.
  testutil::Sections sections = twoGrids();
  sections.push_back({"mast.vertices", testutil::vertexSection(testutil::gridVertices(1))});
  const fs::path unpairable = compileModel(dir.path, "mast", sections);
  run = inspect({"--validate", "--stats", unpairable.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.err, "3 vertex mappings but 2 index mappings")) << run.err;
  EXPECT_TRUE(contains(run.out, "render sets: none")) << run.out;
  EXPECT_EQ(inspect({"--export-obj", obj.string(), unpairable.string()}).status, 3);
}

TEST(geometry_inspect, FilesTheCompilerSavesAsTheyAreAreNamedForWhatTheyAre)
{
  testutil::TempDir dir("inspect");
  // An index section without its vertex section is saved; nothing draws it. With the source beside
  // the file the inspector knows it for sure, without it only guesses from the mapping counts.
  testutil::Sections sections = twoGrids();
  sections.push_back({"sail.indices", testutil::indexSection(testutil::gridIndices<uint16_t>(6))});
  const fs::path orphan = compileModel(dir.path, "sail", sections);
  RunResult run = inspect({"--validate", orphan.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.err, "index mapping #2 (" + idOf("sail.indices") + " (sail.indices)): no vertex section "
                                "pairs with it, so nothing draws it and its indices are not checked (an index section "
                                "without its vertex section is saved as it is)"))
    << run.err;
  fs::remove(dir.path / "sail.primitives");
  run = inspect({"--validate", orphan.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.err, "with 3 index mappings to 2 vertex mappings it may be an index section without its "
                                "vertex section (saved as it is)"))
    << run.err;

  // Index sections that hold no indices give an encoded buffer of count 0, which the decoder
  // refuses: still an error, named for what it is.
  const fs::path empty = compileModel(
    dir.path, "empty",
    {{"hull.vertices", testutil::vertexSection(testutil::gridVertices(2))},
     {"hull.indices", testutil::indexSection(std::vector<uint32_t>{})}});
  run = inspect({"--validate", empty.string()});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_TRUE(contains(run.err, "index buffer #0: every section in it is empty, and the decoder refuses an encoded "
                                "buffer of 0 indices (saved as it is)"))
    << run.err;
  EXPECT_FALSE(contains(run.err, "cannot be decoded")) << run.err;
}

// ---------------------------------------------------------------------------------------------
// OBJ export

using Position = std::array<float, 3>;
using Triangle = std::array<Position, 3>;

// The same triangle with the same winding, starting at its smallest corner.
Triangle canonical(Triangle t)
{
  const auto smallest = std::min_element(t.begin(), t.end()) - t.begin();
  std::rotate(t.begin(), t.begin() + smallest, t.end());
  return t;
}

std::vector<Triangle> gridTriangles(int n, float scale)
{
  const auto vertices = testutil::gridVertices(n, scale);
  const auto indices = testutil::gridIndices<uint32_t>(n);
  std::vector<Triangle> triangles;
  for (size_t i = 0; i < indices.size(); i += 3)
  {
    Triangle t;
    for (size_t c = 0; c < 3; ++c)
      t[c] = {vertices[indices[i + c]].px, vertices[indices[i + c]].py, vertices[indices[i + c]].pz};
    triangles.push_back(canonical(t));
  }
  std::sort(triangles.begin(), triangles.end());
  return triangles;
}

struct ObjObject
{
  std::string name;
  std::vector<Triangle> triangles;
};

std::vector<ObjObject> readObj(const fs::path& path, std::vector<std::array<float, 3>>& normals,
                               std::vector<std::array<float, 2>>& texCoords)
{
  std::ifstream in(path);
  std::vector<Position> positions;
  std::vector<ObjObject> objects;
  for (std::string line; std::getline(in, line);)
  {
    std::istringstream fields(line);
    std::string tag;
    fields >> tag;
    if (tag == "o")
      objects.push_back({line.substr(2), {}});
    else if (tag == "v" || tag == "vn")
    {
      std::string x, y, z;
      fields >> x >> y >> z;
      (tag == "v" ? positions : normals).push_back({std::strtof(x.c_str(), nullptr), std::strtof(y.c_str(), nullptr),
                                                    std::strtof(z.c_str(), nullptr)});
    }
    else if (tag == "vt")
    {
      float u = 0, v = 0;
      fields >> u >> v;
      texCoords.push_back({u, v});
    }
    else if (tag == "f")
    {
      Triangle t;
      for (Position& corner : t)
      {
        std::string text;
        fields >> text;
        corner = positions.at(std::stoul(text) - 1);
      }
      objects.back().triangles.push_back(canonical(t));
    }
  }
  for (ObjObject& object : objects)
    std::sort(object.triangles.begin(), object.triangles.end());
  return objects;
}

TEST(geometry_inspect, ExportedObjHasTheSourceTriangles)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());
  const fs::path obj = dir.path / "m.obj";
  std::ofstream(obj) << "previous";

  const RunResult run = inspect({"--export-obj", obj.string(), geometry.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, "2 render sets, 34 vertices, 40 triangles")) << run.out;

  std::vector<std::array<float, 3>> normals;
  std::vector<std::array<float, 2>> texCoords;
  const std::vector<ObjObject> objects = readObj(obj, normals, texCoords);
  ASSERT_EQ(objects.size(), 2u);
  // Named after the vertex sections of the source beside the file.
  EXPECT_EQ(objects[0].name, "hull");
  EXPECT_EQ(objects[1].name, "deck");
  EXPECT_EQ(objects[0].triangles, gridTriangles(4, 1.0f));
  EXPECT_EQ(objects[1].triangles, gridTriangles(2, 2.0f));

  // Normals come back from bytes, texture coordinates from truncated halves of uv - 0.5.
  ASSERT_EQ(normals.size(), 34u);
  ASSERT_EQ(texCoords.size(), 34u);
  for (const auto& n : normals)
    EXPECT_NEAR(n[2], 1.0f, 0.01f);
  for (const auto& uv : texCoords)
  {
    EXPECT_GE(uv[0], 0.0f);
    EXPECT_LE(uv[0], 1.0f);
    // Grid uvs are multiples of 1/4, and uv - 0.5 of those is exact in half precision.
    EXPECT_EQ(uv[0] * 4.0f, std::round(uv[0] * 4.0f));
    EXPECT_EQ(uv[1] * 4.0f, std::round(uv[1] * 4.0f));
  }
}

// ---------------------------------------------------------------------------------------------
// .primitives listing

TEST(geometry_inspect, ListsPrimitivesSections)
{
  testutil::TempDir dir("inspect");
  testutil::Sections sections = twoGrids();
  sections.push_back({"hull.stub", std::vector<std::byte>(5)});
  const fs::path source = dir.path / "m.primitives";
  testutil::writeFile(source, testutil::container(sections));

  RunResult run = inspect({"--json", "--validate", source.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json doc = jsonOf(run);
  EXPECT_EQ(doc["type"], "primitives");
  EXPECT_TRUE(doc["sound"]);
  const nlohmann::json& listed = doc["sections"];
  ASSERT_EQ(listed.size(), 5u);
  EXPECT_EQ(listed[0]["name"], "hull.vertices");
  EXPECT_EQ(listed[0]["id"], idOf("hull.vertices"));
  EXPECT_EQ(listed[0]["kind"], "vertices");
  EXPECT_EQ(listed[0]["format"], "xyznuv");
  EXPECT_EQ(listed[0]["count"], 25);
  EXPECT_EQ(listed[0]["gpuFormat"], "set3/xyznuvpc");
  EXPECT_EQ(listed[0]["size"], 68 + 25 * 32);
  EXPECT_EQ(listed[3]["format"], "list32");
  EXPECT_EQ(listed[3]["count"], 24);
  EXPECT_EQ(listed[4]["kind"], "other");
  EXPECT_EQ(listed[4]["size"], 5);

  run = inspect({source.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, "5 sections")) << run.out;
  EXPECT_TRUE(contains(run.out, "vertices xyznuv x9 -> set3/xyznuvpc")) << run.out;
  EXPECT_TRUE(contains(run.out, "indices list x96")) << run.out;

  // Told apart by content when the extension says nothing; the geometry tools need a .geometry.
  fs::copy_file(source, dir.path / "model.bin");
  EXPECT_TRUE(contains(inspect({(dir.path / "model.bin").string()}).out, "primitives, "));
  fs::copy_file(compileModel(dir.path, "m", sections), dir.path / "compiled.bin");
  EXPECT_TRUE(contains(inspect({(dir.path / "compiled.bin").string()}).out, "geometry, "));
  EXPECT_EQ(inspect({"--stats", source.string()}).status, 1);
}

TEST(geometry_inspect, ValidateRefusesBrokenPrimitives)
{
  testutil::TempDir dir("inspect");
  const fs::path source = dir.path / "m.primitives";
  const auto check = [&](const std::vector<std::byte>& bytes, const std::string& message) {
    testutil::writeFile(source, bytes);
    const RunResult run = inspect({"--validate", source.string()});
    EXPECT_EQ(run.status, 3) << message;
    EXPECT_TRUE(contains(run.err, "ERROR: " + source.string() + ": " + message)) << run.err;
  };

  std::vector<uint16_t> indices = testutil::gridIndices<uint16_t>(2);
  indices[4] = 9;
  check(testutil::container({{"a.vertices", testutil::vertexSection(testutil::gridVertices(2))},
                             {"a.indices", testutil::indexSection(indices)}}),
        "section 'a.indices': index 9 (position 4) is not below the 9 vertices of 'a.vertices'");
  check(testutil::container({{"a.vertices", testutil::rawVertexSection("xyzzy", 1, std::vector<std::byte>(32))}}),
        "section 'a.vertices': unknown vertex format 'xyzzy'");
  check(testutil::container({{"a.vertices", testutil::rawVertexSection("xyznuv", 3, std::vector<std::byte>(64))}}),
        "section 'a.vertices': 3 vertices do not fit");

  std::vector<std::byte> truncated = testutil::container(twoGrids());
  truncated.resize(truncated.size() - 1);
  check(truncated, "not a valid section container");
}

} // namespace

TEST(geometry_inspect, NamesFromTheSourceBesideOrGiven)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());
  fs::create_directories(dir.path / "elsewhere");
  const fs::path moved = dir.path / "elsewhere" / "m.geometry";
  fs::copy_file(geometry, moved);

  // No source beside it: ids only.
  RunResult run = inspect({moved.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, "id " + idOf("hull.vertices") + " buffer")) << run.out;
  run = inspect({"--json", moved.string()});
  EXPECT_TRUE(nlohmann::json::parse(run.out)["vertexMappings"][0]["name"].is_null());

  run = inspect({"--names", (dir.path / "m.primitives").string(), "--stats", moved.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(contains(run.out, "vertices " + idOf("hull.vertices") + " (hull.vertices) indices " +
                                  idOf("hull.indices") + " (hull.indices)"))
    << run.out;
  run = inspect({"--names", (dir.path / "m.primitives").string(), "--json", moved.string()});
  EXPECT_EQ(nlohmann::json::parse(run.out)["vertexMappings"][1]["name"], "deck.vertices");

  // A names file that is not a container is a warning; one that is missing is a bad path.
  run = inspect({"--names", moved.string(), moved.string()});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(contains(run.err, "WARNING: ")) << run.err;
  EXPECT_EQ(inspect({"--names", (dir.path / "none.primitives").string(), moved.string()}).status, 2);
}

TEST(geometry_inspect, RenderWritesAPreviewAndABeforeAfterPair)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());
  const fs::path png = dir.path / "m.png";
  const auto decoded = [&](preview::Image& image) {
    std::ifstream in(png, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string error;
    return preview::decodePng(bytes, image, error);
  };

  RunResult run = inspect({"--render", png.string(), "--render-size", "64", "--render-mode", "sets", geometry.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  preview::Image image;
  ASSERT_TRUE(decoded(image));
  EXPECT_EQ(image.width, 64u);
  std::set<std::array<uint8_t, 3>> colours;
  for (size_t i = 0; i < image.rgb.size(); i += 3)
    colours.insert({image.rgb[i], image.rgb[i + 1], image.rgb[i + 2]});
  EXPECT_GT(colours.size(), 3u); // background, two render sets, their shades and edges

  run = inspect({"--render", png.string(), "--render-size", "64", "--render-mode", "cache", "--source",
                 (dir.path / "m.primitives").string(), geometry.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  ASSERT_TRUE(decoded(image));
  EXPECT_EQ(image.width, 130u);
  EXPECT_EQ(image.height, 64u);

  // A .primitives file cannot be rendered; nothing is written for a refused command.
  fs::remove(png);
  EXPECT_EQ(inspect({"--render", png.string(), (dir.path / "m.primitives").string()}).status, 1);
  EXPECT_FALSE(fs::exists(png));
}

TEST(geometry_inspect, ReportPageFromAJsonReport)
{
  testutil::TempDir dir("inspect");
  const fs::path geometry = compileModel(dir.path, "m", twoGrids());
  const fs::path report = dir.path / "report.json";
  const fs::path page = dir.path / "page.html";
  std::ofstream(report) << nlohmann::json{{"models", {{{"source", "m.primitives"}, {"output", geometry.string()}, {"status", "converted"}}}}}.dump();

  RunResult run = inspect({"--report-html", page.string(), report.string()});
  ASSERT_EQ(run.status, 0) << run.err;
  std::ifstream in(page);
  const std::string html((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The model's preview is the one line of the previews element.
  const size_t previews = html.find("id=\"previews\">\n");
  ASSERT_NE(previews, std::string::npos);
  EXPECT_EQ(html.compare(previews + 15, 8, "iVBORw0K"), 0) << "a base64 PNG";

  std::ofstream(report) << "{\"models\": [";
  EXPECT_EQ(inspect({"--report-html", page.string(), report.string()}).status, 3);
  EXPECT_EQ(inspect({"--report-html", page.string(), (dir.path / "none.json").string()}).status, 2);
  EXPECT_EQ(inspect({"--report-html", (dir.path / "no" / "page.html").string(), report.string()}).status, 2);
}
