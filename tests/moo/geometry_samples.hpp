#pragma once

#include "log_capture.hpp"
// In-memory geometry prototypes for the packing and reading tests.

#include "cstdmf/log_sinks.hpp"
#include "cstdmf/string_id.hpp"
#include "moo/moo_prototypes.hpp"

#include <spdlog/logger.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace geometry_samples
{

using testutil::LogCapture;


inline std::vector<std::byte> patternBytes(size_t size, uint8_t seed)
{
  std::vector<std::byte> bytes(size);
  for (size_t i = 0; i < size; ++i)
    bytes[i] = std::byte(static_cast<uint8_t>(seed + i * 7));
  return bytes;
}

template <typename Index>
std::vector<std::byte> indexBytes(std::initializer_list<Index> indices)
{
  std::vector<std::byte> bytes(indices.size() * sizeof(Index));
  std::memcpy(bytes.data(), indices.begin(), bytes.size());
  return bytes;
}

inline red::types::String packedString(const char* text)
{
  return red::types::String{static_cast<uint32_t>(std::strlen(text) + 1), 0, text};
}

// Owns every array a prototype points to; neither copied nor moved, so the pointers stay valid.
struct SampleModel
{
  SampleModel() = default;
  SampleModel(const SampleModel&) = delete;
  SampleModel& operator=(const SampleModel&) = delete;

  std::vector<std::vector<std::byte>> data; // reserved up front: elements never move
  std::vector<Moo::MappingPrototype> verticesMapping;
  std::vector<Moo::MappingPrototype> indicesMapping;
  std::vector<Moo::MergedVerticesPrototype> vertices;
  std::vector<Moo::MergedIndicesPrototype> indices;
  std::vector<Moo::CollisionModelDataPrototype> collisionModels;
  std::vector<Moo::ArmorDataPrototype> armorModels;
  Moo::MergedGeometryPrototype prototype{};

  const std::byte* keep(std::vector<std::byte> bytes)
  {
    data.push_back(std::move(bytes));
    return data.back().data();
  }

  // Points the prototype at the arrays; call once they are filled.
  void link()
  {
    prototype = Moo::MergedGeometryPrototype{};
    prototype.mergedVerticesCount = static_cast<uint32_t>(vertices.size());
    prototype.mergedIndicesCount = static_cast<uint32_t>(indices.size());
    prototype.verticesMappingCount = static_cast<uint32_t>(verticesMapping.size());
    prototype.indicesMappingCount = static_cast<uint32_t>(indicesMapping.size());
    prototype.collisionModelCount = static_cast<uint32_t>(collisionModels.size());
    prototype.armorModelCount = static_cast<uint32_t>(armorModels.size());
    prototype.verticesMapping = verticesMapping.empty() ? nullptr : verticesMapping.data();
    prototype.indicesMapping = indicesMapping.empty() ? nullptr : indicesMapping.data();
    prototype.mergedVertices = vertices.empty() ? nullptr : vertices.data();
    prototype.mergedIndices = indices.empty() ? nullptr : indices.data();
    prototype.collisionModels = collisionModels.empty() ? nullptr : collisionModels.data();
    prototype.armorModels = armorModels.empty() ? nullptr : armorModels.data();
  }
};

inline Moo::MappingPrototype mapping(const char* sectionName, uint16_t buffer, uint32_t offset, uint32_t count)
{
  return Moo::MappingPrototype{cstdmf::makeStringID(sectionName), buffer, Moo::packedTexelDensity(1.0f), offset,
                               count};
}

// One "xyznuv" buffer of 3 vertices (stride 32), one 16-bit buffer of 3 indices, one mapping each.
inline void makeWorkedExample(SampleModel& model)
{
  model.data.reserve(8);
  const std::byte* vertexData = model.keep(patternBytes(96, 1));
  const std::byte* indexData = model.keep(indexBytes<uint16_t>({0, 1, 2}));
  model.vertices.push_back(
    Moo::MergedVerticesPrototype{vertexData, packedString("xyznuv"), 96, 32, std::byte{0}, std::byte{0}});
  model.indices.push_back(Moo::MergedIndicesPrototype{indexData, 6, 0, 2});
  model.verticesMapping.push_back(mapping("hull.vertices", 0, 0, 3));
  model.indicesMapping.push_back(mapping("hull.indices", 0, 0, 3));
  model.link();
}

// Several buffers, mappings, two collision models and one armor model; odd-sized arrays leave
// later records unaligned.
inline void makeRichModel(SampleModel& model)
{
  model.data.reserve(16);
  model.vertices.push_back(Moo::MergedVerticesPrototype{model.keep(patternBytes(7 * 32, 3)),
                                                        packedString("set3/xyznuvpc"), 7 * 32, 32, std::byte{0},
                                                        std::byte{1}});
  model.vertices.push_back(Moo::MergedVerticesPrototype{model.keep(patternBytes(3 * 44, 9)),
                                                        packedString("set3/xyznuviiiwwtbpc"), 3 * 44, 44,
                                                        std::byte{1}, std::byte{1}});
  model.indices.push_back(
    Moo::MergedIndicesPrototype{model.keep(indexBytes<uint16_t>({0, 1, 2, 2, 1, 3, 4, 5, 6})), 18, 0, 2});
  model.indices.push_back(Moo::MergedIndicesPrototype{model.keep(indexBytes<uint32_t>({0, 2, 1})), 12, 1, 4});
  model.verticesMapping = {mapping("a.vertices", 0, 0, 4), mapping("b.vertices", 0, 4, 3),
                           mapping("c.vertices", 1, 0, 3)};
  model.indicesMapping = {mapping("a.indices", 0, 0, 6), mapping("b.indices", 0, 6, 3),
                          mapping("c.indices", 1, 0, 3)};
  model.collisionModels.push_back(
    Moo::CollisionModelDataPrototype{5, 0, packedString("hull"), model.keep(patternBytes(5, 40))});
  model.collisionModels.push_back(
    Moo::CollisionModelDataPrototype{11, 0, packedString("turret_collision"), model.keep(patternBytes(11, 50))});
  model.armorModels.push_back(
    Moo::ArmorDataPrototype{9, 0, packedString("armor"), model.keep(patternBytes(9, 60))});
  model.link();
}

} // namespace geometry_samples
