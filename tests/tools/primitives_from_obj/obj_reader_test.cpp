#include "primitives_from_obj/obj_reader.hpp"

#include "tools/primitives_from_obj/test_support.hpp"

#include <gtest/gtest.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>

using namespace objimport;

namespace
{

std::vector<std::string> setNames(const ObjMesh& mesh)
{
  std::vector<std::string> names;
  for (const ObjSet& set : mesh.sets)
    names.push_back(set.name);
  return names;
}

TEST(ObjReader, FaceFormsAndRelativeIndices)
{
  const ObjMesh mesh = parseOk("v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 0 1\nvn 0 0 1\n"
                               "f 1 2 3\n"
                               "f 1/1 2/2 3/3\n"
                               "f 1//1 2//1 3//1\n"
                               "f 1/1/1 2/2/1 3/3/1\n"
                               "f -3/-3/-1 -2/-2/-1 -1/-1/-1\n"
                               "f +1/+1 2/2 3/3\n");
  const std::vector<ObjCorner> expected = {
    {0, kNoIndex, kNoIndex}, {1, kNoIndex, kNoIndex}, {2, kNoIndex, kNoIndex}, //
    {0, 0, kNoIndex},        {1, 1, kNoIndex},        {2, 2, kNoIndex},        //
    {0, kNoIndex, 0},        {1, kNoIndex, 0},        {2, kNoIndex, 0},        //
    {0, 0, 0},               {1, 1, 0},               {2, 2, 0},               //
    {0, 0, 0},               {1, 1, 0},               {2, 2, 0},               //
    {0, 0, kNoIndex},        {1, 1, kNoIndex},        {2, 2, kNoIndex},
  };
  EXPECT_EQ(mesh.corners, expected);

  // Relative indices count back from the face, not from the end of the file.
  const ObjMesh later = parseOk("v 0 0 0\nv 1 0 0\nv 0 1 0\nf -3 -2 -1\nv 5 5 5\nf -1 -2 -3\n");
  EXPECT_EQ(later.corners[3].position, 3u);
  EXPECT_EQ(later.corners[5].position, 1u);
}

TEST(ObjReader, PolygonsAreFanTriangulated)
{
  const ObjMesh mesh = parseOk("v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv -1 1 0\nf 1 2 3 4 5\n");
  ASSERT_EQ(mesh.triangleCount(), 3u);
  std::vector<uint32_t> positions;
  for (const ObjCorner& c : mesh.corners)
    positions.push_back(c.position);
  EXPECT_EQ(positions, (std::vector<uint32_t>{0, 1, 2, 0, 2, 3, 0, 3, 4}));
}

TEST(ObjReader, TolerantSyntax)
{
  // CRLF, tabs, comments, a position weight, vertex colours, one-component and three-component
  // texture coordinates, exponents, a plus sign, numbers too small for a float, unknown
  // statements and no final newline.
  const ObjMesh mesh = parseOk("# header\r\nmtllib x.mtl\r\nv 1e0 1e-40 1e-60 1\r\nv\t0 +1 0 0.5 0.5 0.5\r\n"
                               "  v 0 0 1.5E-1 # trailing comment\r\nvt 0.25\r\nvt 0.5 0.75 0\r\ns off\r\n"
                               "l 1 2\r\nf 1/1 2/2 3/2 # comment",
                               "x.obj");
  ASSERT_EQ(mesh.positions.size(), 3u);
  EXPECT_EQ(mesh.positions[0].x, 1.0f);
  EXPECT_GT(mesh.positions[0].y, 0.0f); // subnormal
  EXPECT_EQ(mesh.positions[0].z, 0.0f);
  EXPECT_EQ(mesh.positions[1], (Vec3{0, 1, 0}));
  EXPECT_EQ(mesh.positions[2], (Vec3{0, 0, 0.15f}));
  EXPECT_EQ(mesh.texcoords[0], (Vec2{0.25f, 0}));
  EXPECT_EQ(mesh.texcoords[1], (Vec2{0.5f, 0.75f}));
  EXPECT_EQ(mesh.triangleCount(), 1u);
}

TEST(ObjReader, ObjectsGroupsAndMaterialsMakeSets)
{
  const char* tri = "f -3 -2 -1\n";
  std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
  text += tri;                                    // before any statement: named after the file
  text += std::string("o Body\n") + tri + tri;    // "Body"
  text += std::string("usemtl Paint\n") + tri;    // "Body_Paint"
  text += "usemtl Paint\n";                       // no change
  text += tri;                                    //
  text += "g unused\ng wheels left\n";            // an empty group is dropped
  text += tri;                                    // "Body_wheels_left_Paint"
  text += std::string("o Body\nusemtl Paint\n") + tri; // repeats a name: made unique
  text += std::string("o caf\xC3\xA9.lod0\nusemtl\n") + tri;
  const ObjMesh mesh = parseOk(text, "dir/My Model.obj.gz");
  EXPECT_EQ(setNames(mesh), (std::vector<std::string>{"My_Model", "Body", "Body_Paint", "Body_wheels_left_Paint",
                                                      "Body_Paint_2", "caf___lod0"}));
  std::vector<size_t> counts;
  for (const ObjSet& set : mesh.sets)
    counts.push_back(set.triangleCount);
  EXPECT_EQ(counts, (std::vector<size_t>{1, 2, 2, 1, 1, 1}));
  EXPECT_EQ(sanitizeSetName(std::string(300, 'a')).size(), kMaxSetNameLength);
}

struct BadInput
{
  const char* text;
  int line;
  const char* message;
};

TEST(ObjReader, MalformedInputNamesFileAndLine)
{
  const std::string header = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nvn 0 0 1\n"; // lines 1-5
  const BadInput cases[] = {
    {"v 1 2 x\n", 6, "bad number 'x' in position"},
    {"v 1 2\n", 6, "position has too few coordinates"},
    {"v 1 2 3 4a\n", 6, "bad number '4a'"},
    {"vn 1 nan 0\n", 6, "is not finite"},
    {"vt inf 0\n", 6, "is not finite"},
    {"v 1e39 0 0\n", 6, "out of range"},
    {"vt\n", 6, "too few coordinates"},
    {"\nf 1 2\n", 7, "face with 2 corners"},
    {"f\n", 6, "face with 0 corners"},
    {"f 1 2 0\n", 6, "position index 0 is not valid"},
    {"f 1 2 4\n", 6, "position index 4 is out of range (3 positions defined so far)"},
    {"f 1 2 -4\n", 6, "relative position index -4 reaches before the first position"},
    {"f 1/2 2/1 3/1\n", 6, "texture coordinate index 2 is out of range"},
    {"f 1//2 2//1 3//1\n", 6, "normal index 2 is out of range"},
    {"f 1/1/1 2/1/1 3/1/1/1\n", 6, "bad face corner '3/1/1/1'"},
    {"f 1/ 2 3\n", 6, "bad face corner '1/'"},
    {"f 1// 2 3\n", 6, "bad face corner '1//'"},
    {"f a 2 3\n", 6, "bad face corner 'a'"},
    {"f 1 2 99999999999999999999\n", 6, "out of range"},
    {"# nothing\n", 0, "no faces found"},
  };
  for (const BadInput& bad : cases)
  {
    SCOPED_TRACE(bad.text);
    ObjMesh mesh;
    std::string error;
    EXPECT_FALSE(parseObj(header + bad.text, "dir/bad.obj", mesh, error));
    const std::string where = bad.line > 0 ? "dir/bad.obj:" + std::to_string(bad.line) + ": " : "dir/bad.obj: ";
    EXPECT_EQ(error.rfind(where, 0), 0u) << error;
    EXPECT_NE(error.find(bad.message), std::string::npos) << error;
  }
}

TEST(ObjReader, ReadsPlainAndGzipFilesAndRefusesTruncatedOnes)
{
  TempDir dir;
  const std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
  const std::string plain = dir.path("a.obj");
  std::ofstream(plain, std::ios::binary) << text;
  const std::string packed = dir.path("a.obj.gz");
  gzFile gz = gzopen(packed.c_str(), "wb");
  ASSERT_NE(gz, nullptr);
  ASSERT_EQ(gzwrite(gz, text.data(), static_cast<unsigned>(text.size())), static_cast<int>(text.size()));
  ASSERT_EQ(gzclose(gz), Z_OK);

  for (const std::string& path : {plain, packed})
  {
    std::vector<char> bytes;
    std::string error;
    ASSERT_TRUE(readFileBytes(path, bytes, error)) << error;
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), text);
  }

  const auto size = std::filesystem::file_size(packed);
  for (uintmax_t cut : {size - 1, size - 8, size / 2, uintmax_t(12)})
  {
    SCOPED_TRACE(cut);
    std::filesystem::resize_file(packed, cut);
    ObjMesh mesh;
    std::string error;
    EXPECT_FALSE(loadObj(packed, mesh, error));
    EXPECT_EQ(error, packed + ": corrupt or truncated compressed data (unexpected end of file)");
  }

  ObjMesh mesh;
  std::string error;
  EXPECT_FALSE(loadObj(dir.path("missing.obj"), mesh, error));
  EXPECT_NE(error.find("missing.obj: cannot open file"), std::string::npos) << error;
  EXPECT_FALSE(loadObj(dir.path(""), mesh, error)); // a directory
}

} // namespace
