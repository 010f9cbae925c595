// The importer's scene path: skin weights reduced to the skinned formats' layout, OBJ text in other
// encodings, the library's scenes turned into render sets, and the child process that contains the
// library.

#include "primitives_from_obj/import_worker.hpp"
#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/scene_reader.hpp"
#include "primitives_from_obj/skin_weights.hpp"
#include "tools/primitives_from_obj/test_support.hpp"

#include "cstdmf/platform.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

using namespace objimport;

namespace
{

const std::string kModels = "/usr/share/assimp/models/";

TEST(SkinWeights, StrongestThreeKeptRenormalisedAndOrderFree)
{
  std::vector<Influence> influences = {{5, 0.1f}, {2, 0.5f}, {7, 0.3f}, {1, 0.1f}};
  const PackedSkin expected{{2, 7, 1}, {142, 85}}; // 0.5 / 0.9 and 0.3 / 0.9 of 255; the tie goes to bone 1
  EXPECT_EQ(packSkin(influences), expected);
  std::reverse(influences.begin(), influences.end());
  EXPECT_EQ(packSkin(influences), expected);
  std::rotate(influences.begin(), influences.begin() + 1, influences.end());
  EXPECT_EQ(packSkin(influences), expected);

  // Two equal weights: the rounding never lets the pair exceed 255.
  const PackedSkin pair = packSkin(std::vector<Influence>{{3, 1.0f}, {4, 1.0f}});
  EXPECT_EQ(pair, (PackedSkin{{3, 4, 3}, {128, 127}}));
  // One bone, or none that counts: unused slots repeat the strongest bone.
  EXPECT_EQ(packSkin(std::vector<Influence>{{9, 0.25f}}), (PackedSkin{{9, 9, 9}, {255, 0}}));
  EXPECT_EQ(packSkin(std::vector<Influence>{{9, -1.0f}, {8, 0.0f}, {7, std::numeric_limits<float>::quiet_NaN()}}),
            (PackedSkin{{0, 0, 0}, {255, 0}}));
  EXPECT_EQ(packSkin({}), (PackedSkin{{0, 0, 0}, {255, 0}}));
}

std::vector<char> bytesOf(std::initializer_list<int> values)
{
  std::vector<char> bytes;
  for (int v : values)
    bytes.push_back(static_cast<char>(v));
  return bytes;
}

TEST(ObjText, ByteOrderMarksAndUtf16AreDecoded)
{
  std::string error;
  std::vector<char> bytes = bytesOf({0xEF, 0xBB, 0xBF, 'v', ' ', '1'});
  ASSERT_TRUE(decodeObjText(bytes, "a.obj", error));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "v 1");

  // Little-endian with a mark; a character outside the basic plane as a surrogate pair.
  bytes = bytesOf({0xFF, 0xFE, 'o', 0, ' ', 0, 0x3D, 0xD8, 0xA2, 0xDE, 0xE9, 0x00});
  ASSERT_TRUE(decodeObjText(bytes, "a.obj", error));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "o \xF0\x9F\x9A\xA2\xC3\xA9");
  // Big-endian without a mark.
  bytes = bytesOf({0, 'v', 0, ' ', 0, '2'});
  ASSERT_TRUE(decodeObjText(bytes, "a.obj", error));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "v 2");
  // Plain text is left alone.
  bytes = bytesOf({'v', ' ', 0xC3, 0xA9});
  ASSERT_TRUE(decodeObjText(bytes, "a.obj", error));
  EXPECT_EQ(bytes, bytesOf({'v', ' ', 0xC3, 0xA9}));

  bytes = bytesOf({0xFF, 0xFE, 'v', 0, ' '});
  EXPECT_FALSE(decodeObjText(bytes, "odd.obj", error));
  EXPECT_NE(error.find("odd.obj"), std::string::npos) << error;
}

TEST(SceneReader, SkinnedGltfKeepsItsInfluences)
{
  SceneImport scene;
  std::string error;
  ASSERT_TRUE(readScene(kModels + "glTF2/simple_skin/simple_skin.gltf", false, scene, error)) << error;
  EXPECT_TRUE(scene.skinned);
  EXPECT_FALSE(scene.twoTexcoordSets);
  EXPECT_EQ(chooseFormatName(scene.skinned, scene.twoTexcoordSets), std::string("xyznuviiiwwtb"));
  ASSERT_EQ(scene.sets.size(), 1u);
  const RenderSet& set = scene.sets[0];
  ASSERT_EQ(set.boneIndices.size(), set.vertexCount());
  bool blended = false;
  for (size_t v = 0; v < set.vertexCount(); ++v)
  {
    EXPECT_LE(set.boneWeights[v][0] + set.boneWeights[v][1], 255);
    EXPECT_LT(set.boneIndices[v][0], 2); // the file's skin has two joints
    blended = blended || (set.boneWeights[v][0] != 255 && set.boneIndices[v][0] != set.boneIndices[v][1]);
  }
  EXPECT_TRUE(blended) << "no vertex blends two bones";
}

TEST(SceneReader, OneUniquelyNamedSetPerPlacedMesh)
{
  SceneImport scene;
  std::string error;
  ASSERT_TRUE(readScene(kModels + "FBX/spider.fbx", false, scene, error)) << error;
  EXPECT_FALSE(scene.skinned);
  EXPECT_EQ(scene.sets.size(), 19u);
  std::set<std::string> names;
  for (const RenderSet& set : scene.sets)
  {
    EXPECT_TRUE(names.insert(set.name).second) << set.name;
    EXPECT_EQ(set.name, sanitizeSetName(set.name));
    EXPECT_TRUE(set.boneIndices.empty());
  }
  // The same file twice gives the same sets in the same order.
  SceneImport again;
  ASSERT_TRUE(readScene(kModels + "FBX/spider.fbx", false, again, error)) << error;
  ASSERT_EQ(again.sets.size(), scene.sets.size());
  for (size_t i = 0; i < scene.sets.size(); ++i)
  {
    EXPECT_EQ(again.sets[i].name, scene.sets[i].name);
    EXPECT_EQ(again.sets[i].positions, scene.sets[i].positions);
  }

  ASSERT_TRUE(readScene(kModels + "Collada/cube_with_2UVs.DAE", false, scene, error)) << error;
  EXPECT_TRUE(scene.twoTexcoordSets);
  ASSERT_EQ(scene.sets.size(), 1u);
  EXPECT_EQ(scene.sets[0].texcoords2.size(), scene.sets[0].vertexCount());
}

TEST(SceneReader, RefusalsNameTheFile)
{
  SceneImport scene;
  std::string error;
  const std::string infinite = kModels + "glTF2/BoxWithInfinites-glTF-Binary/BoxWithInfinites.glb";
  EXPECT_FALSE(readScene(infinite, false, scene, error));
  EXPECT_EQ(error.rfind(infinite + ": ", 0), 0u) << error;
  EXPECT_NE(error.find("not a finite number"), std::string::npos) << error;
  EXPECT_FALSE(readScene(kModels + "OBJ/point_cloud.obj", false, scene, error)); // points only
  EXPECT_NE(error.find("point_cloud.obj"), std::string::npos) << error;
}

// No temporary file of this process is left in the temporary directory.
void expectNoWorkerFilesLeft()
{
  const std::string prefix = "primitives_import_" + std::to_string(platform::processId()) + "_";
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
    EXPECT_NE(entry.path().filename().string().rfind(prefix, 0), 0u) << entry.path();
}

TEST(ImportWorker, CrashesHangsAndRefusalsAreReportedNotShared)
{
  const std::string fake = std::filesystem::absolute(FAKE_IMPORT_WORKER).string();
  WorkerSummary summary;
  std::string error;
  EXPECT_FALSE(importInChild(fake, {"crash", "", false, 30}, summary, error));
  EXPECT_NE(error.find("crash: the import library crashed on this file"), std::string::npos) << error;
  EXPECT_FALSE(importInChild(fake, {"hang", "", false, 1}, summary, error));
  EXPECT_NE(error.find("hang: the import did not finish within 1 seconds"), std::string::npos) << error;
  EXPECT_FALSE(importInChild(fake, {"refuse", "", false, 30}, summary, error));
  EXPECT_EQ(error, "ERROR: refuse: the library says no");
  // Output that does not name the file gets a line that does.
  EXPECT_FALSE(importInChild(fake, {"other", "", false, 30}, summary, error));
  EXPECT_EQ(error, "something else went wrong\nERROR: other: the import stopped with status 23");
  // Held to its memory bound (not in a sanitizer build, whose workers cannot start under one, and
  // not under Wine, which does not enforce a job's memory bound).
  const bool underWine = platform::environmentVariable("WINEPREFIX").has_value();
  if (platform::kDefaultChildMemoryBytes != 0 && !underWine)
  {
    EXPECT_FALSE(importInChild(fake, {"allocate", "", false, 30, 512ull << 20}, summary, error));
    EXPECT_EQ(error, "ERROR: allocate: out of memory\n"
                     "ERROR: allocate: the import needed more than the 512 MiB it may use (--memory-limit)");
  }
  expectNoWorkerFilesLeft();
}

} // namespace

namespace
{

// Triangles whose winding agrees with their vertices' normals, out of all.
double frontFacingShare(const RenderSet& set)
{
  size_t agree = 0;
  for (size_t i = 0; i + 2 < set.indices.size(); i += 3)
  {
    const uint32_t a = set.indices[i], b = set.indices[i + 1], c = set.indices[i + 2];
    const Vec3 face = cross(set.positions[b] - set.positions[a], set.positions[c] - set.positions[a]);
    agree += dot(face, set.normals[a] + set.normals[b] + set.normals[c]) > 0.0f;
  }
  return set.indices.empty() ? 1.0 : static_cast<double>(agree) / static_cast<double>(set.indices.size() / 3);
}

TEST(SceneReader, MirroringTransformsKeepFacesFrontFacing)
{
  SceneImport scene;
  std::string error;
  ASSERT_TRUE(readScene(kModels + "FBX/cubes_with_mirroring_and_pivot.fbx", false, scene, error)) << error;
  ASSERT_FALSE(scene.sets.empty());
  for (const RenderSet& set : scene.sets)
    EXPECT_GT(frontFacingShare(set), 0.99) << set.name;
}

} // namespace
