// Reading, classifying and merging sections; linking pairs; texel density; the verifier.
#include "geometry_compiler/geometry_compiler.hpp"
#include "geometry_compiler/verifier.hpp"
#include "moo/primitive_vertex_format.hpp"
#include "format_registry_environment.hpp"
#include "primitives_builder.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>

using namespace testutil;

namespace
{

GeometryCompiler::BinFile binFile(const Sections& sections, const std::string& name = "model.primitives")
{
  GeometryCompiler::BinFile file;
  file.resourceName = name;
  for (const auto& [sectionName, bytes] : sections)
    file.children.emplace_back(sectionName, BinaryPtr(new BinaryBlock(bytes.data(), bytes.size(), "test")));
  return file;
}

const std::vector<XyzNuv> kTriangle = {
  {0, 0, 0, 0, 0, 1, 0, 0},
  {1, 0, 0, 0, 0, 1, 1, 0},
  {0, 1, 0, 0, 0, 1, 0, 1},
};

TEST(ReadFile, RefusesEmptyUnparsableAndSectionlessFiles)
{
  // A file read whole (readFile) and a file read section by section (compile) are refused with
  // the same message.
  TempDir dir("read");
  std::vector<std::byte> noEntries(16);
  const uint32_t magic = 0x42A14E65, indexLength = 4;
  std::memcpy(noEntries.data(), &magic, 4);
  std::memcpy(noEntries.data() + 12, &indexLength, 4);
  std::vector<std::byte> indexPastTheEnd = container({{"a.vertices", vertexSection(kTriangle)}});
  indexPastTheEnd.resize(indexPastTheEnd.size() - 4);
  const std::vector<std::pair<std::string, std::optional<std::vector<std::byte>>>> files = {
    {"GeometryCompiler::load file size is 0 for resource", std::vector<std::byte>{}},
    {"failed to open.\n", std::nullopt},
    {"GeometryCompiler::load parseBinSectionEntries for resource", std::vector<std::byte>(40, std::byte{0x7F})},
    {"GeometryCompiler::load parseBinSectionEntries for resource", std::vector<std::byte>(7, std::byte{0x7F})},
    {"GeometryCompiler::load parseBinSectionEntries for resource", indexPastTheEnd},
    // A well-formed index too short to hold an entry parses to no sections at all.
    {"binFile.children is empty for", noEntries},
  };
  int n = 0;
  for (const auto& [message, bytes] : files)
  {
    const auto path = dir.path / ("file" + std::to_string(n++) + ".primitives");
    if (bytes)
      writeFile(path, *bytes);
    GeometryCompiler compiler;
    GeometryCompiler::BinFile file;
    LogCapture whole;
    EXPECT_FALSE(compiler.readFile(path.string(), file));
    EXPECT_TRUE(whole.contains(message)) << whole.text();
    LogCapture sections;
    EXPECT_FALSE(compiler.compile({path.string()}, (dir.path / "out.geometry").string(), true, true, true));
    EXPECT_TRUE(sections.contains(message)) << sections.text();
    EXPECT_FALSE(std::filesystem::exists(dir.path / "out.geometry"));
  }
}

TEST(ReadFile, SectionsBorrowTheFileBlock)
{
  TempDir dir("borrow");
  writeFile(dir.path / "m.primitives",
            container({{"a.vertices", vertexSection(kTriangle)}, {"a.indices", indexSection<uint16_t>({0, 1, 2})}}));
  GeometryCompiler compiler;
  GeometryCompiler::BinFile file;
  ASSERT_TRUE(compiler.readFile((dir.path / "m.primitives").string(), file));
  ASSERT_EQ(file.children.size(), 2u);
  EXPECT_EQ(file.children[0].first, "a.vertices");
  EXPECT_EQ(file.children[1].first, "a.indices");
  EXPECT_TRUE(file.children[0].second->owner());
  EXPECT_EQ(file.children[0].second->owner(), file.children[1].second->owner());
}

TEST(PackLOD, ClassifiesSectionsByKind)
{
  GeometryCompiler compiler;
  LogCapture log;
  ASSERT_TRUE(compiler.packLOD(binFile({
    {"hull.vertices", vertexSection(kTriangle)},
    {"hull.indices", indexSection<uint16_t>({0, 1, 2})},
    {"hull.cmodl", {}},
    {"armor", {}},
    {"x/y.stub", {}},
    {"hull.normals", {}},
    {"hull.", {}},
    {"dir.x/vertices", {}},
    {"", {}},
  })));
  const std::string text = log.text();
  EXPECT_EQ(compiler.vertexMappings().size(), 1u);
  EXPECT_EQ(compiler.indexMappings().size(), 1u);
  EXPECT_NE(text.find("unexpected name 'hull.normals' for file 'model.primitives'!"), std::string::npos);
  EXPECT_NE(text.find("unexpected name 'hull.' for file"), std::string::npos);
  EXPECT_NE(text.find("unexpected name 'dir.x/vertices'"), std::string::npos);
  EXPECT_NE(text.find("WARNING: GeometryCompiler::packLOD found a section with the empty name for file "
                      "'model.primitives'! Ignoring it.\n"),
            std::string::npos);
  EXPECT_EQ(text.find("cmodl"), std::string::npos);
  EXPECT_EQ(text.find("stub"), std::string::npos);
  EXPECT_EQ(text.find("'armor'"), std::string::npos);
}

TEST(PackLOD, BareKindNamesPairWithEachOther)
{
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.packLOD(binFile({{"indices", indexSection<uint16_t>({0, 1, 2})},
                                        {"vertices", vertexSection(kTriangle)}})));
  // Linked: the texel density was computed for the pair.
  EXPECT_GT(compiler.vertexMappings()[0].texelDensity, 0.0f);
  EXPECT_EQ(compiler.vertexMappings()[0].texelDensity, compiler.indexMappings()[0].texelDensity);
}

TEST(PackLOD, FailedSectionFailsTheModel)
{
  GeometryCompiler compiler;
  LogCapture log;
  auto unknown = vertexSection(kTriangle);
  std::memcpy(unknown.data(), "XYZNUV", 6);
  EXPECT_FALSE(compiler.packLOD(binFile({{"a.vertices", unknown}})));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::packVertices unknown source format 'XYZNUV' for section 'a.vertices'\n"));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::packLOD packVertices for section 'a.vertices' failed.\n"));

  auto badIndices = indexSection<uint16_t>({0, 1, 2});
  std::memcpy(badIndices.data(), "tris", 4);
  EXPECT_FALSE(compiler.packLOD(binFile({{"a.indices", badIndices}})));
  EXPECT_TRUE(log.contains("ERROR: GeometryCompiler::packLOD packIndices for section 'a.indices' failed.\n"));
}

TEST(MergedGeometry, SectionsOfOneFormatShareABuffer)
{
  GeometryCompiler compiler;
  LogCapture log;
  std::vector<XyzNuv> second = kTriangle;
  second.push_back({1, 1, 0, 0, 0, 1, 1, 1});
  ASSERT_TRUE(compiler.packLOD(binFile({
    {"a.vertices", vertexSection(kTriangle)},
    {"b.vertices", vertexSection(second, /*processed*/ true)},
    {"a.vertices", vertexSection(second)},
    {"a.indices", indexSection<uint16_t>({0, 1, 2})},
    {"b.indices", indexSection<uint32_t>({0, 1, 2, 2, 1, 3})},
  })));
  ASSERT_EQ(compiler.vertexData().size(), 1u);
  EXPECT_EQ(compiler.vertexData()[0].formatName, "set3/xyznuvpc");
  EXPECT_EQ(compiler.vertexData()[0].data.size(), 7u * 20);
  const auto& mappings = compiler.vertexMappings();
  ASSERT_EQ(mappings.size(), 2u);
  EXPECT_EQ(mappings[0].info.offsetInBytes, 0u);
  EXPECT_EQ(mappings[0].info.sizeInBytes, 60u); // the first "a.vertices" won
  EXPECT_EQ(mappings[1].info.offsetInBytes, 60u);
  EXPECT_EQ(mappings[1].strideInBytes, 20);
  EXPECT_TRUE(log.contains("WARNING: MergedGeometry::addVertices section 'a.vertices' already exists in the "
                           ".primitives file. Ignoring.\n"));
  EXPECT_TRUE(log.contains("WARNING: GeometryCompiler::getVertexHeader got already processed vertices which is "
                           "suspicious. \n"));
  // Index buffers are per index format.
  ASSERT_EQ(compiler.indexData().size(), 2u);
  EXPECT_EQ(compiler.indexData()[0].formatName, "list");
  EXPECT_EQ(compiler.indexData()[1].formatName, "list32");
}

TEST(MergedGeometry, EmptyVertexSectionIsAnEmptyRange)
{
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.packLOD(binFile({{"a.vertices", vertexSection({})}, {"b.vertices", vertexSection(kTriangle)}})));
  EXPECT_EQ(compiler.vertexMappings()[0].info.sizeInBytes, 0u);
  EXPECT_EQ(compiler.vertexMappings()[1].info.offsetInBytes, 0u);
}

TEST(LinkedPairs, IndexPastTheVertexCountIsRefused)
{
  GeometryCompiler compiler;
  LogCapture log;
  EXPECT_FALSE(compiler.packLOD(
    binFile({{"a.indices", indexSection<uint16_t>({0, 1, 2, 2, 1, 3})}, {"a.vertices", vertexSection(kTriangle)}},
            "bad.primitives")));
  EXPECT_TRUE(log.contains("index 3 (position 5) of section 'a.indices' is not below the vertex count 3 of "
                           "section 'a.vertices' in 'bad.primitives'"));
}

TEST(TexelDensity, HandMadeTriangles)
{
  // A unit square in position space mapped onto a half-unit square in texture space: each of
  // its triangles has the ratio sqrt(0.125 / 0.5) = 0.5.
  std::vector<XyzNuv> square = {
    {0, 0, 0, 0, 0, 1, 0.25f, 0.25f},
    {1, 0, 0, 0, 0, 1, 0.75f, 0.25f},
    {1, 1, 0, 0, 0, 1, 0.75f, 0.75f},
    {0, 1, 0, 0, 0, 1, 0.25f, 0.75f},
    {5, 5, 5, 0, 0, 1, 0.5f, 0.5f}, // for degenerate triangles
  };
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.packLOD(binFile({
    {"sq.vertices", vertexSection(square)},
    {"sq.indices", indexSection<uint16_t>({0, 1, 2, 0, 2, 3, 0, 0, 1, 4, 4, 4})}, // two zero-area ones
  })));
  EXPECT_FLOAT_EQ(compiler.vertexMappings()[0].texelDensity, 0.5f);
  EXPECT_FLOAT_EQ(compiler.indexMappings()[0].texelDensity, 0.5f);

  // Four triangles with ratios 1, 2, 3, 4 (texture area scaled by the square): the upper
  // median of an even count is the third, 3.
  std::vector<XyzNuv> vertices;
  std::vector<uint16_t> indices;
  for (int k = 1; k <= 4; ++k)
  {
    const float s = static_cast<float>(k) * 0.1f;
    const uint16_t base = static_cast<uint16_t>(vertices.size());
    vertices.push_back({0, 0, 0, 0, 0, 1, 0.5f, 0.5f});
    vertices.push_back({0.1f, 0, 0, 0, 0, 1, 0.5f + s, 0.5f});
    vertices.push_back({0, 0.1f, 0, 0, 0, 1, 0.5f, 0.5f + s});
    indices.insert(indices.end(), {base, static_cast<uint16_t>(base + 1), static_cast<uint16_t>(base + 2)});
  }
  GeometryCompiler second;
  ASSERT_TRUE(second.packLOD(binFile({{"t.indices", indexSection(indices)}, {"t.vertices", vertexSection(vertices)}})));
  EXPECT_NEAR(second.vertexMappings()[0].texelDensity, 3.0f, 1e-2f);
}

TEST(TexelDensity, UnpairedSectionsStayZero)
{
  GeometryCompiler compiler;
  ASSERT_TRUE(compiler.packLOD(binFile({{"a.vertices", vertexSection(kTriangle)},
                                        {"b.indices", indexSection<uint16_t>({0, 1, 2})}})));
  EXPECT_EQ(compiler.vertexMappings()[0].texelDensity, 0.0f);
  EXPECT_EQ(compiler.indexMappings()[0].texelDensity, 0.0f);
}

// GPU "set3/xyznuvtbpc" vertices (stride 28) built by hand: position, then normal, uv, tangent,
// binormal.
std::vector<std::byte> gpuVertex(Moo::Vector3 position, uint32_t normal, uint32_t tangent = 0x00FE7F7F,
                                 uint32_t binormal = 0x007FFE7F, uint16_t u = 0, uint16_t v = 0)
{
  std::vector<std::byte> bytes(28);
  std::memcpy(bytes.data(), &position, 12);
  std::memcpy(bytes.data() + 12, &normal, 4);
  std::memcpy(bytes.data() + 16, &u, 2);
  std::memcpy(bytes.data() + 18, &v, 2);
  std::memcpy(bytes.data() + 20, &tangent, 4);
  std::memcpy(bytes.data() + 24, &binormal, 4);
  return bytes;
}

TEST(Verifier, CountsEachBadVertexOnce)
{
  const float inf = std::numeric_limits<float>::infinity();
  const uint32_t up = 0x00FE7F7F;    // (0, 0, 1)
  const uint32_t zero = 0x007F7F7F;  // (0, 0, 0)
  const uint32_t longer = 0x00FFFFFF; // each component 128/127: length ~1.75
  std::vector<std::byte> buffer;
  auto add = [&](const std::vector<std::byte>& v) { buffer.insert(buffer.end(), v.begin(), v.end()); };
  add(gpuVertex({1e-40f, 0, 0}, up));              // subnormal position: valid
  add(gpuVertex({inf, 0, 0}, zero));               // bad position and bad normal
  add(gpuVertex({0, 0, 0}, longer, zero, longer)); // bad normal, tangent and binormal
  add(gpuVertex({0, 0, 0}, up, up, up, 0x7C00, 0)); // infinite u

  const Moo::PrimitiveVertexFormat* format = Moo::PrimitiveVertexFormat::findByGPUFormatName("set3/xyznuvtbpc");
  ASSERT_NE(format, nullptr);
  Verifier verifier;
  verifier.verify(buffer.data(), buffer.size(), format->m_gpuFormat);
  EXPECT_EQ(verifier.invalidPositions(), 1);
  EXPECT_EQ(verifier.invalidNormals(), 2);
  EXPECT_EQ(verifier.invalidTangents(), 1);
  EXPECT_EQ(verifier.invalidBinormals(), 1);
  EXPECT_EQ(verifier.invalidUVs(), 1);

  GeometryCompiler compiler;
  LogCapture log;
  compiler.verifyVertices("s.vertices", buffer.data(), buffer.size(), format->m_gpuFormat);
  EXPECT_EQ(log.text(), "WARNING: [Verifier] Found 1 vertices with invalid positions in \"s.vertices\".\n\n"
                        "WARNING: [Verifier] Found 2 vertices with invalid normals in \"s.vertices\".\n\n"
                        "WARNING: [Verifier] Found 1 vertices with invalid tangents in \"s.vertices\".\n\n"
                        "WARNING: [Verifier] Found 1 vertices with invalid binormals in \"s.vertices\".\n\n"
                        "WARNING: [Verifier] Found 1 vertices with invalid UVs in \"s.vertices\".\n\n");
}

TEST(Verifier, NaNNormalCountsOnceAndCleanSectionsAreSilent)
{
  // Plain "xyznuv" GPU vertices: no tangents or binormals to check.
  GeometryCompiler compiler;
  LogCapture log;
  ASSERT_TRUE(compiler.packLOD(binFile({{"ok.vertices", vertexSection(kTriangle)}})));
  EXPECT_EQ(log.text(), "");

  // Float normals (the source layout) reach values the packed GPU normal cannot hold.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<XyzNuv> vertices = {
    {0, 0, 0, 1, 0, nan, 0, 0},     // NaN normal: one vertex, counted once
    {0, 0, 0, 0, 0, 1.05f, 0, 0},   // within tolerance
    {0, 0, 0, 0, 0, 1.1f, 0, 0},    // at the tolerance: invalid
    {0, 0, 0, 0, 0, 0.9f, nan, 0},  // invalid normal and invalid UV
  };
  const Moo::PrimitiveVertexFormat* source = Moo::PrimitiveVertexFormat::findByFormatName("xyznuv");
  ASSERT_NE(source, nullptr);
  Verifier verifier;
  verifier.verify(vertices.data(), vertices.size() * sizeof(XyzNuv), source->m_format);
  EXPECT_EQ(verifier.invalidPositions(), 0);
  EXPECT_EQ(verifier.invalidNormals(), 3);
  EXPECT_EQ(verifier.invalidTangents(), 0);
  EXPECT_EQ(verifier.invalidUVs(), 1);
}

} // namespace
