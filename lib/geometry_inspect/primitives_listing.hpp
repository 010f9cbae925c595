#pragma once
// The sections of a .primitives file (a binary section container): name, size, string id (the
// mapping id the compiled .geometry file will carry for it) and, for vertex and index sections,
// what their headers say.

#include "cstdmf/string_id.hpp"
#include "geometry_inspect/inspect_issues.hpp"
#include "resmgr/binary_block.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace geometry_inspect
{

struct SectionInfo
{
  enum class Kind
  {
    Other,
    Vertices, // name ends in ".vertices"
    Indices,  // name ends in ".indices"
  };

  std::string name;
  StringID id = 0;
  uint64_t size = 0;
  Kind kind = Kind::Other;
  std::span<const std::byte> bytes; // inside the listing's block

  // Vertex and index sections whose header could be read.
  bool headerRead = false;
  std::string format;     // source vertex format or index format name
  uint32_t count = 0;     // vertices or indices
  bool processed = false; // vertices already carry the "BPVT" mark
  std::string gpuFormat;  // the packed format the vertices become; empty if the format is unknown
  uint32_t sourceStride = 0;
};

class PrimitivesListing
{
public:
  // Splits `block` (the bytes of the file `path`) into sections and reads the vertex and index
  // headers. Returns false (an error issue says why) when the block is not a valid container;
  // sections delivered before the fault are kept. Malformed headers are recorded as errors and the
  // listing still succeeds. Needs the vertex format registry.
  [[nodiscard]] bool load(ConstBinaryPtr block, const std::string& path);

  // Checks what the compiler would refuse or ignore: malformed or unknown vertex and index
  // sections, duplicate names, and indices at or past the vertex count of the vertex section with
  // the same stem ("hull.indices" against "hull.vertices").
  void validate();

  const std::string& path() const { return m_path; }
  uint64_t fileSize() const { return m_block ? m_block->len() : 0; }
  bool isValidContainer() const { return m_validContainer; }
  const std::vector<SectionInfo>& sections() const { return m_sections; }
  const Issues& issues() const { return m_issues; }
  Issues& issues() { return m_issues; }

private:
  void readHeader(SectionInfo& section, LogCollector& log);
  std::string located(const std::string& text) const { return m_path + ": " + text; }

  std::string m_path;
  ConstBinaryPtr m_block;
  bool m_validContainer = false;
  std::vector<SectionInfo> m_sections;
  Issues m_issues;
};

// True when `block` opens with the container's magic word, or parses as a container of at least one
// section with a printable name; how a file whose extension says nothing is told apart from a
// .geometry file.
[[nodiscard]] bool looksLikeContainer(const ConstBinaryPtr& block);

} // namespace geometry_inspect
