#pragma once
// What one conversion did, for the statistics report. The compiler fills it only when asked
// (GeometryCompiler::setStatistics), so a normal run pays nothing for it.

#include "mesh_data_optimizer/optimizer.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

struct CompileStatistics
{
  struct Section
  {
    std::string name;
    std::string kind;   // "vertices" or "indices"
    std::string format; // source vertex format or index format
    uint32_t count = 0; // vertices or indices
  };

  struct RenderSet
  {
    std::string name; // the common prefix of the pair, e.g. "hull" for hull.vertices/hull.indices
    uint32_t vertexCount = 0;
    uint32_t triangleCount = 0;
    uint32_t strideInBytes = 0;
    float texelDensity = 0.0f;
    uint32_t boneCount = 0;              // distinct bone indices its vertices use; 0 for a rigid format
    std::array<float, 3> size{0, 0, 0}; // extent of its finite positions along x, y and z
    bool optimized = false;
    MeshDataOptimizer::MeshStatistics before;
    MeshDataOptimizer::MeshStatistics after; // equal to before when not optimised
  };

  struct Buffer
  {
    std::string kind; // "vertices" or "indices"
    std::string format;
    uint32_t strideInBytes = 0;
    uint64_t itemCount = 0;
    uint64_t rawBytes = 0;
    uint64_t storedBytes = 0; // encoded length when encoded, else rawBytes
    bool encoded = false;
  };

  struct Companion
  {
    std::string name;
    std::string kind; // "collision", "armor", "armorvisual"
    uint64_t bytes = 0;
  };

  struct VerifierCounts
  {
    std::string section;
    int32_t positions = 0, normals = 0, tangents = 0, binormals = 0, uvs = 0;
  };

  std::vector<Section> sections;
  std::vector<RenderSet> renderSets;
  std::vector<Buffer> buffers;
  std::vector<Companion> companions;
  std::vector<VerifierCounts> verifier;
  uint64_t inputBytes = 0; // the .primitives file as read
  uint64_t outputBytes = 0;
};
