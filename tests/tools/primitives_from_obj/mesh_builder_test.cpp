#include "primitives_from_obj/mesh_builder.hpp"

#include "primitives_from_obj/primitives_writer.hpp"
#include "primitives_from_obj/procedural_shapes.hpp"
#include "tools/primitives_from_obj/test_support.hpp"

#include <gtest/gtest.h>

#include <cmath>

using namespace objimport;

namespace
{

RenderSet buildOne(std::string_view text, bool frames = true)
{
  BuildOptions options;
  options.tangentFrames = frames;
  std::vector<RenderSet> sets = buildRenderSets(parseOk(text), options);
  EXPECT_EQ(sets.size(), 1u);
  return sets.empty() ? RenderSet{} : std::move(sets[0]);
}

void expectNear(Vec3 actual, Vec3 expected, float tolerance = 1e-5f)
{
  EXPECT_NEAR(actual.x, expected.x, tolerance);
  EXPECT_NEAR(actual.y, expected.y, tolerance);
  EXPECT_NEAR(actual.z, expected.z, tolerance);
}

// What the converter will see: each vector after the 11-11-10 round trip.
Vec3 packed(Vec3 v) { return unpackNormal111110(packNormal111110(v)); }

// Every frame of the set is unit length and orthogonal once packed, as the converter and the
// verifier require.
void expectPackedFramesValid(const RenderSet& set)
{
  ASSERT_EQ(set.tangents.size(), set.vertexCount());
  for (size_t v = 0; v < set.vertexCount(); ++v)
  {
    const Vec3 n = packed(set.normals[v]), t = packed(set.tangents[v]), b = packed(set.binormals[v]);
    ASSERT_NEAR(length(n), 1.0f, 0.01f) << set.name << " vertex " << v;
    ASSERT_NEAR(length(t), 1.0f, 0.01f) << set.name << " vertex " << v;
    ASSERT_NEAR(length(b), 1.0f, 0.01f) << set.name << " vertex " << v;
    ASSERT_LT(std::fabs(dot(n, t)), 0.01f) << set.name << " vertex " << v;
    ASSERT_LT(std::fabs(dot(n, b)), 0.01f) << set.name << " vertex " << v;
    ASSERT_LT(std::fabs(dot(t, b)), 0.01f) << set.name << " vertex " << v;
  }
}

const char* const kQuad = "v 0 0 0\nv 2 0 0\nv 2 2 0\nv 0 2 0\n"
                          "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n";

TEST(MeshBuilder, VerticesAreSharedPerCornerTriple)
{
  // Two triangles share an edge: 4 vertices, not 6.
  RenderSet set = buildOne(std::string(kQuad) + "f 1/1 2/2 3/3\nf 1/1 3/3 4/4\n");
  EXPECT_EQ(set.vertexCount(), 4u);
  EXPECT_EQ(set.indices, (std::vector<uint32_t>{0, 1, 2, 0, 2, 3}));
  EXPECT_EQ(set.texcoords[3], (Vec2{0, 1}));

  // The same position with another texture coordinate or normal is another vertex.
  set = buildOne(std::string(kQuad) + "vn 0 0 1\nvn 0 0 2\nf 1/1/1 2/2/1 3/3/1\nf 1/4/1 3/3/1 4/4/2\n");
  EXPECT_EQ(set.vertexCount(), 5u);
  EXPECT_EQ(set.indices, (std::vector<uint32_t>{0, 1, 2, 3, 2, 4}));
  expectNear(set.normals[4], {0, 0, 1}); // file normals are normalised
}

TEST(MeshBuilder, GeneratedNormals)
{
  // A large triangle facing +z and a small one facing +x share position 1; the large one wins
  // in proportion to its area.
  const RenderSet set = buildOne("v 0 0 0\nv 4 0 0\nv 0 4 0\nv 0 0 -1\nv 0 1 0\n"
                                 "f 1 2 3\nf 1 4 5\n",
                                 false);
  ASSERT_EQ(set.vertexCount(), 5u);
  expectNear(set.normals[1], {0, 0, 1});                           // only the large face
  expectNear(set.normals[4], {1, 0, 0});                           // only the small face
  expectNear(set.normals[0], Vec3{1, 0, 16} * (1.0f / std::sqrt(257.0f))); // 16 : 1 by area

  // Collinear positions and a zero file normal: (0, 0, 1).
  const RenderSet flat = buildOne("v 0 0 0\nv 1 1 1\nv 2 2 2\nvn 0 0 0\nf 1 2 3\nf 1//1 2//1 3//1\n");
  for (const Vec3& n : flat.normals)
    expectNear(n, {0, 0, 1});
  expectPackedFramesValid(flat);
}

TEST(MeshBuilder, TangentsFollowTextureDirections)
{
  RenderSet set = buildOne(std::string(kQuad) + "f 1/1 2/2 3/3\nf 1/1 3/3 4/4\n");
  for (size_t v = 0; v < set.vertexCount(); ++v)
  {
    expectNear(set.tangents[v], {1, 0, 0});
    expectNear(set.binormals[v], {0, 1, 0});
  }

  // Mirrored in u: the tangent turns around and the binormal keeps following +v.
  set = buildOne(std::string(kQuad) + "f 1/2 2/1 3/4\nf 1/2 3/4 4/3\n");
  for (size_t v = 0; v < set.vertexCount(); ++v)
  {
    expectNear(set.tangents[v], {-1, 0, 0});
    expectNear(set.binormals[v], {0, 1, 0});
  }

  // A normal tilted against the surface: the tangent is made perpendicular to it.
  set = buildOne(std::string(kQuad) + "vn 1 0 1\nf 1/1/1 2/2/1 3/3/1\n");
  const float h = std::sqrt(0.5f);
  expectNear(set.tangents[0], {h, 0, -h});
  expectPackedFramesValid(set);
}

TEST(MeshBuilder, MissingOrDegenerateTexcoordsStillGiveUnitFrames)
{
  // No texture coordinates, all equal, collinear.
  for (const char* face : {"f 1//1 2//1 3//1\n", "f 1/1/1 2/1/1 3/1/1\n", "f 1/1/1 2/2/1 3/2/1\n"})
  {
    // Normals along each axis the fallback might project out, and an oblique one.
    for (const char* normal : {"vn 0 0 1\n", "vn 1 0 0\n", "vn 0 -1 0\n", "vn 0.3 -0.4 0.866\n"})
    {
      SCOPED_TRACE(std::string(face) + normal);
      expectPackedFramesValid(buildOne(std::string(kQuad) + normal + face));
    }
  }
}

TEST(MeshBuilder, ExtremeCoordinatesStillGiveUnitFrames)
{
  // Products of these overflow or underflow single precision.
  for (const char* scale : {"3e38", "1e30", "1e-20", "1e-40"})
  {
    SCOPED_TRACE(scale);
    const std::string s = scale;
    const std::string text = "v 0 0 0\nv " + s + " 0 0\nv 0 " + s + " 0\nv -" + s + " -" + s + " " + s +
                             "\nvt 0 0\nvt " + s + " 0\nvt 0 1\nf 1/1 2/2 3/3\nf 1/1 3/3 4/2\n";
    expectPackedFramesValid(buildOne(text));
  }
}

TEST(MeshBuilder, FramesOfCurvedAndSeamedShapesSurvivePacking)
{
  for (std::string_view shape : proceduralShapeNames())
  {
    SCOPED_TRACE(shape);
    ObjMesh mesh;
    ASSERT_TRUE(makeProceduralMesh(shape, mesh));
    for (const RenderSet& set : buildRenderSets(mesh, BuildOptions{}))
    {
      EXPECT_EQ(set.indices.size() % 3, 0u);
      expectPackedFramesValid(set);
    }
  }
}

} // namespace
