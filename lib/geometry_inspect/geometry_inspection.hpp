#pragma once
// A .geometry file as the runtime would see it: loaded with the project's reader, every merged
// buffer decoded, and the checks that tell whether the file is sound.
//
// Mapping ids are string ids of source section names, which cannot be turned back into names, so
// a vertex range cannot be matched with "its" index range by name. The compiler writes the vertex
// mappings and the index mappings in source section order, one of each per render set, so when a
// file has as many vertex as index mappings the i-th of each are taken as one render set. That
// pairing is a guess: a pair whose indices do not fit its vertex range is reported as a warning,
// whereas an index that fits no vertex buffer at all is an error.

#include "geometry_inspect/inspect_issues.hpp"
#include "mesh_data_optimizer/optimizer.hpp"
#include "moo/geometry_data.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace geometry_inspect
{

struct DecodedVertexBuffer
{
  const Moo::PrimitiveVertexFormat* format = nullptr; // registry entry of the GPU format name; null if unknown
  bool decoded = false;
  uint32_t vertexCount = 0;
  std::vector<std::byte> vertices; // vertexCount × the buffer's stride bytes once decoded
};

struct DecodedIndexBuffer
{
  bool decoded = false;
  std::vector<uint32_t> indices; // widened from 16 bits where the buffer holds 16-bit indices
};

// The i-th vertex mapping with the i-th index mapping.
struct RenderSet
{
  size_t index = 0;
  Moo::MappingPrototype vertices{};
  Moo::MappingPrototype indices{};
  // Both ranges lie inside decoded buffers, the vertex format is known and matches the buffer's
  // stride, the index range is whole triangles and every index is below the vertex range's count:
  // the set can be drawn, exported and analysed. Otherwise `problem` says why not.
  bool usable = false;
  std::string problem;
  // The only problem is an index at or past the vertex range's count: the ranges are sound on their
  // own, and the pairing by position may simply be wrong.
  bool mismatched = false;
};

class GeometryInspection
{
public:
  // Loads `block` (the bytes of the file `path`) with the project's reader and decodes every
  // buffer. Returns false when the reader refused the file; issues() then say why. A buffer that
  // cannot be decoded is recorded as an error, and the load still succeeds.
  // Needs the vertex format registry (Moo::PrimitiveVertexFormat::init).
  [[nodiscard]] bool load(ConstBinaryPtr block, const std::string& path);
  // Reads the file first; false (with an error issue) when it cannot be read or is refused.
  [[nodiscard]] bool load(const std::string& path);

  // The soundness checks beyond loading and decoding; findings go to issues(). Needs a
  // successful load.
  void validate();

  const std::string& path() const { return m_path; }
  uint64_t fileSize() const { return m_fileSize; }
  bool isLoaded() const { return m_data.isLoaded(); }
  const Moo::GeometryData& data() const { return m_data; }
  const std::vector<DecodedVertexBuffer>& vertexBuffers() const { return m_vertexBuffers; }
  const std::vector<DecodedIndexBuffer>& indexBuffers() const { return m_indexBuffers; }
  const Issues& issues() const { return m_issues; }
  Issues& issues() { return m_issues; }

  // Whether the mappings can be paired by position (equal counts).
  bool canPairRenderSets() const;
  // The render sets, paired by position; empty when canPairRenderSets() is false.
  std::vector<RenderSet> renderSets() const;

  // The decoded vertices (or indices) of a mapping's range; empty when the buffer was not decoded
  // or the range does not lie inside it.
  std::span<const std::byte> vertexRange(const Moo::MappingPrototype& mapping) const;
  std::span<const uint32_t> indexRange(const Moo::MappingPrototype& mapping) const;

  // "<path>: " followed by the text, the shape of every issue.
  std::string located(const std::string& text) const;

  // Section names by string id, from the source .primitives file; mapping ids are shown and
  // exported with their names where one is known.
  void setSectionNames(std::map<uint32_t, std::string> names) { m_sectionNames = std::move(names); }
  // The name of the section with this id; empty when unknown.
  const std::string& sectionName(uint32_t id) const;
  // "0x%08x", followed by " (<name>)" when the name is known.
  std::string idLabel(uint32_t id) const;

private:
  void decodeVertexBuffer(size_t index, LogCollector& log);
  void decodeIndexBuffer(size_t index, LogCollector& log);
  void checkVertexBuffers();
  void checkMappings(bool vertices);
  void checkIndexValues();
  // Per index mapping: true where the source's names show no vertex section beside it.
  std::vector<bool> unpairedIndexMappings() const;
  void checkPairs();

  std::string m_path;
  uint64_t m_fileSize = 0;
  Moo::GeometryData m_data;
  std::vector<DecodedVertexBuffer> m_vertexBuffers;
  std::vector<DecodedIndexBuffer> m_indexBuffers;
  Issues m_issues;
  std::map<uint32_t, std::string> m_sectionNames;
};

// meshoptimizer's figures for one usable render set whose format has a float3 position at offset 0;
// nothing for any other.
[[nodiscard]] std::optional<MeshDataOptimizer::MeshStatistics> analyzeRenderSet(const GeometryInspection& inspection,
                                                                                 const RenderSet& renderSet);

// "0x%08x".
std::string hexId(uint32_t id);

} // namespace geometry_inspect
