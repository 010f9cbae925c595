// Whole conversions through compile(): the file read back with the geometry reader, every
// buffer decoded and compared with the input, companions, failures, determinism.
#include "geometry_compiler/geometry_compiler.hpp"
#include "mesh_data_optimizer/coder.hpp"
#include "moo/geometry_data.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "moo/vertex_conversion.hpp"
#include "decoded_model.hpp"
#include "primitives_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>

using namespace testutil;

namespace
{

// Source "xyznuvtbi" vertices (stride 36): packed normal +z, tangent +x, binormal +y.
std::vector<std::byte> tbiPayload(const std::vector<XyzNuv>& vertices)
{
  const uint32_t normal = 511u << 22, tangent = 1023u, binormal = 1023u << 11, colour = 0xFF00FF00u;
  std::vector<std::byte> bytes(vertices.size() * 36);
  for (size_t i = 0; i < vertices.size(); ++i)
  {
    std::byte* v = bytes.data() + i * 36;
    std::memcpy(v, &vertices[i].px, 12);
    std::memcpy(v + 12, &normal, 4);
    std::memcpy(v + 16, &vertices[i].u, 8);
    std::memcpy(v + 24, &tangent, 4);
    std::memcpy(v + 28, &binormal, 4);
    std::memcpy(v + 32, &colour, 4);
  }
  return bytes;
}

// GPU bytes of source vertices, through the converter itself.
std::vector<std::byte> toGpu(const std::string& sourceFormat, std::span<const std::byte> source, uint32_t count)
{
  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByFormatName(sourceFormat);
  const uint32_t stride = ari::VertexDeclaration::computeStreamDataSize(format->m_gpuFormat, 0);
  std::vector<std::byte> gpu(static_cast<size_t>(count) * stride);
  EXPECT_TRUE(Moo::convertVertices(gpu.data(), format->m_gpuFormat, source.data(), format->m_format, count));
  return gpu;
}

struct Model
{
  TempDir dir{"save"};
  std::filesystem::path source = dir.path / "hull.primitives";
  std::filesystem::path output = dir.path / "out" / "hull.geometry";
  Model() { std::filesystem::create_directories(output.parent_path()); }
};

TEST(Compile, RenderSetsSurviveOptimisationAndEncoding)
{
  const auto gridA = gridVertices(12);
  const auto gridB = gridVertices(7, 0.5f);
  const auto gridC = gridVertices(9, 2.0f);
  const auto indicesA = gridIndices<uint16_t>(12);
  const auto indicesB = gridIndices<uint32_t>(7);
  const auto indicesC = gridIndices<uint16_t>(9);
  const auto sourceA = vertexSection(gridA);
  const auto sourceB = vertexSection(gridB);
  const auto payloadC = tbiPayload(gridC);

  Model model;
  writeFile(model.source, container({
                            {"a.vertices", sourceA},
                            {"a.indices", indexSection(indicesA)},
                            {"b.indices", indexSection(indicesB)},
                            {"b.vertices", sourceB},
                            {"c.vertices", rawVertexSection("xyznuvtbi", uint32_t(gridC.size()), payloadC)},
                            {"c.indices", indexSection(indicesC)},
                          }));
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.compile({model.source.string()}, model.output.string(), true, true, true));

  DecodedModel decoded;
  decode(model.output, decoded);
  const auto& buffers = decoded.data.vertexBuffers();
  ASSERT_EQ(buffers.size(), 2u);
  EXPECT_EQ(buffers[0].formatName, "set3/xyznuvpc");
  EXPECT_EQ(buffers[1].formatName, "set3/xyznuvtbipc");
  EXPECT_TRUE(buffers[0].encoded && buffers[1].encoded);
  EXPECT_FALSE(buffers[0].isBumped);
  EXPECT_TRUE(buffers[1].isBumped);
  EXPECT_EQ(buffers[0].sizeInBytes, buffers[0].data.size()); // the encoded length
  EXPECT_EQ(decoded.vertices[0].size(), (gridA.size() + gridB.size()) * 20);
  ASSERT_EQ(decoded.data.indexBuffers().size(), 2u);

  // Ranges count decoded items.
  Moo::GeometryData::VertexRange range;
  ASSERT_TRUE(decoded.data.fetchVertices("b.vertices", range));
  EXPECT_EQ(range.mapping.itemsOffset, gridA.size());
  EXPECT_EQ(range.mapping.itemsCount, gridB.size());

  auto span16 = [](const std::vector<uint16_t>& v) { return std::span<const uint16_t>(v); };
  auto span32 = [](const std::vector<uint32_t>& v) { return std::span<const uint32_t>(v); };
  auto bytes = [](const std::vector<std::byte>& v) { return std::span<const std::byte>(v); };
  const auto gpuA = toGpu("xyznuv", bytes(sourceA).subspan(68), uint32_t(gridA.size()));
  const auto gpuB = toGpu("xyznuv", bytes(sourceB).subspan(68), uint32_t(gridB.size()));
  const auto gpuC = toGpu("xyznuvtbi", payloadC, uint32_t(gridC.size()));
  EXPECT_EQ(fileTriangles(decoded, "a"), triangles<uint16_t>(gpuA, 20, span16(indicesA)));
  EXPECT_EQ(fileTriangles(decoded, "b"), triangles<uint32_t>(gpuB, 20, span32(indicesB)));
  EXPECT_EQ(fileTriangles(decoded, "c"), triangles<uint16_t>(gpuC, 32, span16(indicesC)));
}

TEST(Compile, PlainBuffersAndItemRanges)
{
  // Two "xyznuvtbi" sections: GPU stride 32, so the second (3 vertices, 96 bytes at offset 64)
  // maps to items 2..4.
  const std::vector<XyzNuv> two = {{0, 0, 0, 0, 0, 1, 0, 0}, {1, 0, 0, 0, 0, 1, 1, 0}};
  const std::vector<XyzNuv> three = {{0, 0, 0, 0, 0, 1, 0, 0}, {1, 0, 0, 0, 0, 1, 1, 0}, {0, 1, 0, 0, 0, 1, 0, 1}};
  Model model;
  writeFile(model.source, container({
                            {"x.vertices", rawVertexSection("xyznuvtbi", 2, tbiPayload(two))},
                            {"y.vertices", rawVertexSection("xyznuvtbi", 3, tbiPayload(three))},
                            {"y.indices", indexSection<uint16_t>({0, 1, 2})},
                          }));
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.compile({model.source.string()}, model.output.string(), false, false, true));
  Moo::GeometryData data;
  ASSERT_TRUE(data.load(model.output.string()));
  ASSERT_EQ(data.verticesMapping().size(), 2u);
  EXPECT_EQ(data.verticesMapping()[1].itemsOffset, 2u);
  EXPECT_EQ(data.verticesMapping()[1].itemsCount, 3u);
  EXPECT_EQ(data.verticesMapping()[1].mappingId, cstdmf::makeStringID("y.vertices"));
  EXPECT_EQ(data.vertexBuffers()[0].sizeInBytes, 5u * 32);
  EXPECT_FALSE(data.vertexBuffers()[0].encoded);
  EXPECT_EQ(data.indexBuffers()[0].sizeInBytes, 6u);
  EXPECT_EQ(data.indicesMapping()[0].itemsCount, 3u);
}

TEST(Compile, CompanionsAreCarriedByteForByte)
{
  Model model;
  writeFile(model.source, container({{"a.vertices", vertexSection(gridVertices(2))},
                                     {"a.indices", indexSection(gridIndices<uint16_t>(2))}}));
  std::vector<std::byte> collision(301);
  for (size_t i = 0; i < collision.size(); ++i)
    collision[i] = std::byte(i * 7);
  const std::vector<std::byte> armor(64, std::byte{0xA5}), visual(9, std::byte{0x11});
  writeFile(model.dir.path / "hull.collision", collision);
  writeFile(model.dir.path / "hull.armor", armor);
  writeFile(model.dir.path / "hull.armorvisual", visual);

  GeometryCompiler::Request request{model.source.string(), (model.dir.path / "hull.collision").string(),
                                    (model.dir.path / "hull.armor").string(),
                                    (model.dir.path / "hull.armorvisual").string(), "hull"};
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.compile(request, model.output.string(), true, true, true));
  Moo::GeometryData data;
  ASSERT_TRUE(data.load(model.output.string()));
  ASSERT_EQ(data.collisionModels().size(), 2u);
  EXPECT_EQ(data.collisionModels()[0].name, "hull.collision");
  EXPECT_TRUE(std::ranges::equal(data.collisionModels()[0].data, collision));
  EXPECT_EQ(data.collisionModels()[1].name, "hull.armorvisual");
  EXPECT_TRUE(std::ranges::equal(data.collisionModels()[1].data, visual));
  ASSERT_EQ(data.armorModels().size(), 1u);
  EXPECT_EQ(data.armorModels()[0].name, "hull.armor");
  EXPECT_TRUE(std::ranges::equal(data.armorModels()[0].data, armor));
}

TEST(Compile, FailingCompanionIsReportedAndTheModelStillSaved)
{
  Model model;
  writeFile(model.source, container({{"a.vertices", vertexSection(gridVertices(1))},
                                     {"a.indices", indexSection(gridIndices<uint16_t>(1))}}));
  writeFile(model.dir.path / "hull.armor", {});
  LogCapture log;
  GeometryCompiler compiler;
  GeometryCompiler::Request request{model.source.string(), "", (model.dir.path / "hull.armor").string(), "", "hull"};
  ASSERT_TRUE(compiler.compile(request, model.output.string(), true, true, true));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::compile loading '" + request.armorPath + "' failed.\n"));
  EXPECT_TRUE(std::filesystem::exists(model.output));
}

TEST(Compile, TwoArmorModelsWriteNothing)
{
  Model model;
  writeFile(model.source, container({{"a.vertices", vertexSection(gridVertices(1))}}));
  writeFile(model.dir.path / "one.armor", std::vector<std::byte>(4, std::byte{1}));
  GeometryCompiler compiler;
  LogCapture log;
  ASSERT_TRUE(compiler.loadPrimitives({model.source.string()}));
  ASSERT_TRUE(compiler.loadCompanionModel((model.dir.path / "one.armor").string(), "hull", "armor"));
  ASSERT_TRUE(compiler.loadCompanionModel((model.dir.path / "one.armor").string(), "hull", "armor"));
  EXPECT_FALSE(compiler.save(model.output.string()));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::saveArmor m_armorData.size() > 1 for result resource '" +
                           model.output.string() + "'.\n"));
  EXPECT_TRUE(std::filesystem::is_empty(model.output.parent_path()));
}

TEST(Compile, UnpairedIndexSectionIsSavedUnoptimised)
{
  Model model;
  writeFile(model.source, container({{"lonely.indices", indexSection<uint16_t>({0, 1, 2})}}));
  GeometryCompiler compiler;
  LogCapture log;
  ASSERT_TRUE(compiler.compile({model.source.string()}, model.output.string(), true, true, true));
  EXPECT_TRUE(log.contains("GeometryCompiler::save cannot find vertex entry data for optimization 'lonely.vertices'\n"));
  DecodedModel decoded;
  decode(model.output, decoded);
  ASSERT_EQ(decoded.indices.size(), 1u);
  EXPECT_EQ(decoded.indices[0], (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_TRUE(decoded.data.vertexBuffers().empty());
}

TEST(Compile, FailuresWriteNothing)
{
  Model model;
  GeometryCompiler compiler;
  LogCapture log;
  EXPECT_FALSE(compiler.compile({}, model.output.string(), true, true, true));
  EXPECT_EQ(log.text(), "");

  writeFile(model.source, std::vector<std::byte>(100, std::byte{3}));
  EXPECT_FALSE(compiler.compile({model.source.string()}, model.output.string(), true, true, true));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::compile loading '" + model.source.string() + "' failed.\n"));

  // Indices past their vertices: refused before anything reads through them.
  writeFile(model.source, container({{"a.vertices", vertexSection(gridVertices(1))},
                                     {"a.indices", indexSection<uint16_t>({0, 1, 9})}}));
  EXPECT_FALSE(compiler.compile({model.source.string()}, model.output.string(), true, true, true));
  EXPECT_TRUE(std::filesystem::is_empty(model.output.parent_path()));

  // An unwritable destination: the message, and no temporary file left behind.
  writeFile(model.source, container({{"a.vertices", vertexSection(gridVertices(1))}}));
  const auto missingDir = model.dir.path / "missing" / "hull.geometry";
  EXPECT_FALSE(compiler.compile({model.source.string()}, missingDir.string(), true, true, true));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::writeToFile cannot open file '" + missingDir.string() + "'.\n"));
}

TEST(Compile, AFileReadSectionBySectionGivesWhatTheWholeFileGives)
{
  // compile() reads the file one section at a time; readFile + packLOD + save take it whole. Odd
  // orders and odd sections must come out the same, messages included, and the merged buffers,
  // reserved from the headers, must not move while sections are added.
  Model model;
  const std::vector<std::byte> vertices = vertexSection(gridVertices(20));
  writeFile(model.source, container({{"b.indices", indexSection(gridIndices<uint32_t>(6))},
                                     {"b.vertices", vertexSection(gridVertices(6, 2.0f))},
                                     {"a.vertices", vertices},
                                     {"notes.txt", std::vector<std::byte>(10, std::byte{1})},
                                     {"a.indices", indexSection(gridIndices<uint16_t>(20))},
                                     {"a.vertices", vertices},
                                     {"", std::vector<std::byte>(3)},
                                     {"hull.cmodl", std::vector<std::byte>(7)}}));
  LogCapture streamedLog;
  GeometryCompiler streamed;
  ASSERT_TRUE(streamed.compile({model.source.string()}, model.output.string(), true, true, true));
  const std::string streamedText = streamedLog.text();
  const std::vector<std::byte> streamedBytes = readFile(model.output);

  LogCapture wholeLog;
  GeometryCompiler whole;
  GeometryCompiler::BinFile file;
  ASSERT_TRUE(whole.readFile(model.source.string(), file));
  ASSERT_TRUE(whole.packLOD(file));
  // Reserved once from the headers, so never grown: the repeated section is counted there,
  // though it is not added.
  const auto& merged = whole.vertexData().front().data;
  const size_t stride = merged.size() / (21 * 21 + 7 * 7);
  EXPECT_EQ(merged.capacity(), merged.size() + 21 * 21 * stride);
  ASSERT_TRUE(whole.save(model.output.string()));
  EXPECT_EQ(readFile(model.output), streamedBytes);
  EXPECT_EQ(wholeLog.text(), streamedText);
  EXPECT_TRUE(streamedLog.contains("already exists")) << streamedText;
  EXPECT_TRUE(streamedLog.contains("unexpected name 'notes.txt'")) << streamedText;
}

TEST(Compile, OutputIsDeterministicForAnyJobCount)
{
  Model model;
  Sections sections;
  for (int set = 0; set < 6; ++set)
  {
    const std::string name = "set" + std::to_string(set);
    sections.push_back({name + ".vertices", vertexSection(gridVertices(10 + set, 1.0f + set))});
    if (set % 2)
      sections.push_back({name + ".indices", indexSection(gridIndices<uint32_t>(10 + set))});
    else
      sections.push_back({name + ".indices", indexSection(gridIndices<uint16_t>(10 + set))});
  }
  // Sections large enough to be converted, verified and measured in several slices, one with
  // unusable vertices in different slices: the verifier's counts and the texel density are
  // whole-section figures whatever thread measured which slice.
  sections.push_back({"large.vertices", vertexSection(gridVertices(150, 0.5f))});
  sections.push_back({"large.indices", indexSection(gridIndices<uint16_t>(150))});
  std::vector<XyzNuv> loose = gridVertices(120);
  for (const size_t bad : {size_t(7), size_t(5000), size_t(12345)})
    loose[bad].px = std::numeric_limits<float>::quiet_NaN();
  loose[9000].u = std::numeric_limits<float>::infinity();
  sections.push_back({"loose.vertices", vertexSection(loose)});
  writeFile(model.source, container(sections));
  std::vector<std::byte> first;
  std::string firstLog;
  for (unsigned jobs : {1u, 1u, 3u})
  {
    LogCapture log;
    GeometryCompiler compiler;
    compiler.setJobs(jobs);
    ASSERT_TRUE(compiler.compile({model.source.string()}, model.output.string(), true, true, true));
    const auto bytes = readFile(model.output);
    if (first.empty())
    {
      first = bytes;
      firstLog = log.text();
      EXPECT_TRUE(log.contains("Found 3 vertices with invalid positions in \"loose.vertices\"")) << firstLog;
      EXPECT_TRUE(log.contains("Found 1 vertices with invalid UVs in \"loose.vertices\"")) << firstLog;
    }
    else
    {
      EXPECT_EQ(bytes, first) << "jobs " << jobs;
      EXPECT_EQ(log.text(), firstLog) << "jobs " << jobs;
    }
  }
  // Without the verifier, texel density decodes the converted vertices itself: the same file.
  GeometryCompiler unverified;
  ASSERT_TRUE(unverified.compile({model.source.string()}, model.output.string(), true, true, false));
  EXPECT_EQ(readFile(model.output), first);
}

} // namespace

TEST(Compile, UnpackableNormalsAreRefusedWhenAsked)
{
  Model model;
  std::vector<XyzNuv> vertices = gridVertices(1);
  vertices[1].nz = 2.0f;
  writeFile(model.source, container({{"a.vertices", vertexSection(vertices)},
                                     {"a.indices", indexSection(gridIndices<uint16_t>(1))}}));
  LogCapture log;
  GeometryCompiler compiler;
  GeometryCompiler::Request request{model.source.string(), "", "", "", "hull"};
  CompileOptions refusing;
  refusing.refuseUnpackableNormals = true;
  EXPECT_FALSE(compiler.compile(request, model.output.string(), refusing));
  EXPECT_TRUE(log.contains("section 'a.vertices' of '" + model.source.string() +
                           "': vertex 1 has a normal that is neither unit length nor zero"));
  EXPECT_TRUE(std::filesystem::is_empty(model.output.parent_path()));

  // Zero and unit normals, packed or not, pass the same check.
  for (const float z : {0.0f, 1.0f, -1.0f})
  {
    Moo::Vector3 normal{0.0f, 0.0f, z};
    EXPECT_TRUE(Moo::isPackableUnitVector(normal));
  }
  EXPECT_FALSE(Moo::isPackableUnitVector(Moo::Vector3{0.0f, 0.0f, 1.02f}));
  EXPECT_FALSE(Moo::isPackableUnitVector(Moo::Vector3{0.0f, std::numeric_limits<float>::quiet_NaN(), 0.0f}));
}

// A model held in memory compiles to the bytes compile() writes for the same files, with the same
// messages, whether it converts, loses a companion or fails.
TEST(Compile, BytesInMemoryGiveWhatTheFilesGive)
{
  Model model;
  const std::filesystem::path collision = model.dir.path / "hull.collision";
  const std::filesystem::path armor = model.dir.path / "hull.armor";
  writeFile(collision, std::vector<std::byte>(64, std::byte{7}));
  writeFile(armor, std::vector<std::byte>{});
  const auto good = container({{"a.vertices", vertexSection(gridVertices(5))},
                               {"a.indices", indexSection(gridIndices<uint16_t>(5))},
                               {"a.normals", std::vector<std::byte>(4)}});
  const std::vector<std::vector<std::byte>> sources = {good, {}, std::vector<std::byte>(16, std::byte{0x5A}),
                                                       container({{"a.vertices", std::vector<std::byte>(70)}})};
  for (size_t i = 0; i < sources.size(); ++i)
  {
    SCOPED_TRACE(i);
    writeFile(model.source, sources[i]);
    std::filesystem::remove(model.output);
    const GeometryCompiler::Request request{model.source.string(), collision.string(), armor.string(), "", "hull"};

    LogCapture fromFiles;
    CompileStatistics fileFigures;
    GeometryCompiler compiler;
    compiler.setStatistics(&fileFigures);
    const bool written = compiler.compile(request, model.output.string(), CompileOptions{});
    const std::string fileMessages = fromFiles.take();

    const auto block = [](const std::vector<std::byte>& bytes) {
      return BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "Test"));
    };
    GeometryCompiler::ModelBytes inMemory;
    inMemory.primitivesPath = request.primitivesPath;
    inMemory.primitives = block(sources[i]);
    inMemory.collision = {collision.string(), block(readFile(collision))};
    inMemory.armor = {armor.string(), block({})};
    inMemory.modelName = "hull";
    CompileStatistics memoryFigures;
    GeometryCompiler again;
    again.setStatistics(&memoryFigures);
    const BinaryPtr packed = again.compileBytes(inMemory, model.output.string(), CompileOptions{});
    EXPECT_EQ(fromFiles.take(), fileMessages);
    ASSERT_EQ(packed != nullptr, written);
    EXPECT_EQ(memoryFigures.outputBytes, fileFigures.outputBytes);
    EXPECT_EQ(memoryFigures.renderSets.size(), fileFigures.renderSets.size());
    if (written)
    {
      const std::vector<std::byte> onDisk = readFile(model.output);
      EXPECT_TRUE(std::equal(onDisk.begin(), onDisk.end(), reinterpret_cast<const std::byte*>(packed->data()),
                             reinterpret_cast<const std::byte*>(packed->data()) + packed->len()));
      EXPECT_EQ(onDisk.size(), packed->len());
    }
  }
}
