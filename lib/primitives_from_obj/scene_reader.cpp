#include "primitives_from_obj/scene_reader.hpp"

#include "primitives_from_obj/obj_reader.hpp"
#include "primitives_from_obj/skin_weights.hpp"

#include <assimp/Importer.hpp>
#include <assimp/importerdesc.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <fmt/format.h>

#include <cctype>
#include <cmath>
#include <set>
#include <utility>

namespace objimport
{

namespace
{

constexpr size_t kMaxBonesPerSet = 256;
constexpr Vec3 kDefaultNormal{0.0f, 0.0f, 1.0f};

bool finite(const aiVector3D& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

std::string lowerExtension(const std::string& path)
{
  const size_t slash = path.find_last_of("/\\");
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
    return {};
  std::string extension = path.substr(dot + 1);
  for (char& c : extension)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension;
}

// "<node>_<mesh>", or whichever of the two is not empty (one of them when they are the same).
std::string setNameFor(const aiNode& node, const aiMesh& mesh)
{
  const std::string nodeName = node.mName.length > 0 ? sanitizeSetName(node.mName.C_Str()) : std::string();
  const std::string meshName = mesh.mName.length > 0 ? sanitizeSetName(mesh.mName.C_Str()) : std::string();
  if (nodeName.empty() || nodeName == "mesh")
    return meshName.empty() ? std::string("mesh") : meshName;
  if (meshName.empty() || meshName == "mesh" || meshName == nodeName)
    return nodeName;
  return nodeName + "_" + meshName;
}

std::string uniqueName(const std::string& base, std::set<std::string>& taken)
{
  std::string name = base;
  for (unsigned n = 2; !taken.insert(name).second; ++n)
    name = fmt::format("{}_{}", base, n);
  return name;
}

class SceneConverter
{
public:
  SceneConverter(const std::string& path, bool flipV, SceneImport& out) : m_path(path), m_flipV(flipV), m_out(out) {}

  bool run(const aiScene& scene, std::string& error)
  {
    // Depth first, children in file order, without recursion: node trees can be deep.
    std::vector<std::pair<const aiNode*, aiMatrix4x4>> stack;
    stack.emplace_back(scene.mRootNode, scene.mRootNode->mTransformation);
    while (!stack.empty())
    {
      const auto [node, global] = stack.back();
      stack.pop_back();
      for (unsigned i = 0; i < node->mNumMeshes; ++i)
      {
        const unsigned meshIndex = node->mMeshes[i];
        if (meshIndex >= scene.mNumMeshes || scene.mMeshes[meshIndex] == nullptr)
          return fail(error, fmt::format("node '{}' refers to a missing mesh", node->mName.C_Str()));
        if (!addMesh(*node, *scene.mMeshes[meshIndex], global, error))
          return false;
      }
      for (unsigned c = node->mNumChildren; c-- > 0;)
        if (node->mChildren[c] != nullptr)
          stack.emplace_back(node->mChildren[c], global * node->mChildren[c]->mTransformation);
    }
    if (m_out.sets.empty())
      return fail(error, "no triangles found");
    return true;
  }

private:
  bool fail(std::string& error, const std::string& what) const
  {
    error = fmt::format("{}: {}", m_path, what);
    return false;
  }

  bool addMesh(const aiNode& node, const aiMesh& mesh, const aiMatrix4x4& global, std::string& error)
  {
    if ((mesh.mPrimitiveTypes & aiPrimitiveType_TRIANGLE) == 0 || mesh.mNumVertices == 0 || mesh.mVertices == nullptr)
      return true; // points and lines only
    const std::string name = uniqueName(setNameFor(node, mesh), m_taken);
    const bool skinned = mesh.mNumBones > 0;
    if (skinned && mesh.mNumBones > kMaxBonesPerSet)
      return fail(error, fmt::format("mesh '{}' has {} bones; a render set can have at most {}", name, mesh.mNumBones,
                                     kMaxBonesPerSet));

    RenderSet set;
    set.name = name;
    const size_t count = mesh.mNumVertices;
    set.positions.resize(count);
    set.normals.resize(count);
    set.texcoords.resize(count);

    // Skinned meshes stay in bind space; rigid ones move to the root's space. Without a transform
    // the values are copied as they are (a multiplication by one would turn -0 into +0).
    const aiMatrix4x4 transform = skinned ? aiMatrix4x4() : global;
    const bool moved = !(transform == aiMatrix4x4()); // exactly: the library's IsIdentity allows 1e-2
    aiMatrix3x3 normalTransform(transform);
    const bool mirrored = normalTransform.Determinant() < 0.0f;
    if (std::fabs(normalTransform.Determinant()) > 0.0f)
      normalTransform.Inverse().Transpose();

    for (size_t v = 0; v < count; ++v)
    {
      const aiVector3D p = moved ? transform * mesh.mVertices[v] : mesh.mVertices[v];
      if (!finite(mesh.mVertices[v]) || !finite(p))
        return fail(error, fmt::format("mesh '{}' has a position that is not a finite number (vertex {})", name, v));
      set.positions[v] = {p.x, p.y, p.z};
      Vec3 n = kDefaultNormal;
      if (mesh.mNormals != nullptr)
      {
        const aiVector3D t = moved ? normalTransform * mesh.mNormals[v] : mesh.mNormals[v];
        n = finite(t) ? normalizedOr({t.x, t.y, t.z}, kDefaultNormal) : kDefaultNormal;
      }
      set.normals[v] = n;
      if (!texcoord(mesh, 0, v, set.texcoords[v]))
        return fail(error, fmt::format("mesh '{}' has a texture coordinate that is not a finite number (vertex {})",
                                       name, v));
    }
    if (mesh.HasTextureCoords(1))
    {
      set.texcoords2.resize(count);
      for (size_t v = 0; v < count; ++v)
        if (!texcoord(mesh, 1, v, set.texcoords2[v]))
          return fail(error, fmt::format(
                               "mesh '{}' has a second texture coordinate that is not a finite number (vertex {})", name, v));
      m_out.twoTexcoordSets = true;
    }

    set.indices.reserve(static_cast<size_t>(mesh.mNumFaces) * 3);
    for (unsigned f = 0; f < mesh.mNumFaces; ++f)
    {
      const aiFace& face = mesh.mFaces[f];
      if (face.mNumIndices != 3)
        continue; // triangulation leaves only points and lines with other counts
      for (unsigned k = 0; k < 3; ++k)
        if (face.mIndices[k] >= count)
          return fail(error, fmt::format("mesh '{}' has a face index {} out of range", name, face.mIndices[k]));
      set.indices.push_back(face.mIndices[0]);
      set.indices.push_back(face.mIndices[mirrored ? 2 : 1]);
      set.indices.push_back(face.mIndices[mirrored ? 1 : 2]);
    }
    if (set.indices.empty())
      return true;

    if (skinned && !addSkin(mesh, set, error))
      return false;
    m_out.skinned = m_out.skinned || skinned;
    m_out.sets.push_back(std::move(set));
    return true;
  }

  bool texcoord(const aiMesh& mesh, unsigned channel, size_t v, Vec2& out) const
  {
    if (!mesh.HasTextureCoords(channel))
      return true;
    const aiVector3D& uv = mesh.mTextureCoords[channel][v];
    if (!std::isfinite(uv.x) || !std::isfinite(uv.y))
      return false;
    out = {uv.x, m_flipV ? 1.0f - uv.y : uv.y};
    return true;
  }

  bool addSkin(const aiMesh& mesh, RenderSet& set, std::string& error)
  {
    const size_t count = set.vertexCount();
    std::vector<std::vector<Influence>> influences(count);
    for (unsigned b = 0; b < mesh.mNumBones; ++b)
    {
      const aiBone* bone = mesh.mBones[b];
      if (bone == nullptr)
        continue;
      for (unsigned w = 0; w < bone->mNumWeights; ++w)
      {
        const aiVertexWeight& weight = bone->mWeights[w];
        if (weight.mVertexId >= count)
          return fail(error, fmt::format("mesh '{}': bone '{}' weights vertex {}, which does not exist", set.name,
                                         bone->mName.C_Str(), weight.mVertexId));
        influences[weight.mVertexId].push_back({b, weight.mWeight});
      }
    }
    set.boneIndices.resize(count);
    set.boneWeights.resize(count);
    for (size_t v = 0; v < count; ++v)
    {
      const PackedSkin skin = packSkin(influences[v]);
      set.boneIndices[v] = skin.indices;
      set.boneWeights[v] = skin.weights;
    }
    return true;
  }

  const std::string& m_path;
  bool m_flipV;
  SceneImport& m_out;
  std::set<std::string> m_taken;
};

} // namespace

bool isObjPath(const std::string& path)
{
  std::string lower = path;
  for (char& c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const auto endsWith = [&](std::string_view suffix) {
    return lower.size() >= suffix.size() && lower.compare(lower.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  return endsWith(".obj") || endsWith(".obj.gz");
}

const char* chooseFormatName(bool skinned, bool twoTexcoordSets)
{
  if (skinned)
    return twoTexcoordSets ? "xyznuv2iiiwwtb" : "xyznuviiiwwtb";
  return twoTexcoordSets ? "xyznuv2tb" : "xyznuvtb";
}

bool readScene(const std::string& path, bool flipV, SceneImport& out, std::string& error)
{
  out = SceneImport{};
  Assimp::Importer importer;
  // Points and lines are not drawn as triangles: drop them.
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  const unsigned steps = aiProcess_Triangulate | aiProcess_SortByPType | aiProcess_JoinIdenticalVertices |
                         aiProcess_GenSmoothNormals | aiProcess_ValidateDataStructure;
  const aiScene* scene = importer.ReadFile(path, steps);
  if (scene == nullptr || scene->mRootNode == nullptr)
  {
    const char* reason = importer.GetErrorString();
    error = fmt::format("{}: cannot import: {}", path, reason != nullptr && *reason ? reason : "no scene");
    return false;
  }
  // The reader that took the file (files are recognised by content too), else the extension's.
  int reader = importer.GetPropertyInteger("importerIndex", -1);
  if (reader < 0)
    reader = importer.GetImporterIndex(lowerExtension(path).c_str());
  const aiImporterDesc* description = reader >= 0 ? importer.GetImporterInfo(static_cast<size_t>(reader)) : nullptr;
  out.formatRead = description != nullptr && description->mName != nullptr ? description->mName : "unknown";
  SceneConverter converter(path, flipV, out);
  return converter.run(*scene, error);
}

} // namespace objimport
