#pragma once
// The process-wide registry that pairs each source vertex format name of the .primitives files
// with its source layout and with the packed GPU layout it is converted to.

#include "moo/vertex_format.hpp"

#include <atomic>
#include <deque>
#include <string>
#include <string_view>

namespace Moo
{

class PrimitiveVertexFormat
{
public:
  std::string formatName;    // source name, as in the vertex section header
  VertexFormat m_format;     // source layout
  std::string gpuFormatName; // packed name, "set3/..."
  VertexFormat m_gpuFormat;  // packed layout

  // Vertex declarations belong to the graphics runtime, which this program does not have; the
  // handles stay empty and nothing reads them.
  const ari::VertexDeclaration* m_vertexDecl = nullptr;
  const ari::VertexDeclaration* m_instancedVertexDecl = nullptr;

  // Registers the built-in formats. The argument is reserved (the tool passes 0). Calling it
  // twice without fini() in between is an assertion failure.
  static void init(int options);
  // Empties the registry; asserts that init() ran.
  static void fini();

  // Appends one entry. Asserts that the registry is initialised and that neither name is
  // registered yet ("Format redefinition", "GPU format redefinition").
  static void registerFormat(std::string_view formatName, const VertexFormat& format, std::string_view gpuFormatName,
                             const VertexFormat& gpuFormat);

  // Exact, case-sensitive lookups; nullptr when the name is not registered. Entries stay valid
  // until fini(). Assert that the registry is initialised.
  static const PrimitiveVertexFormat* findByFormatName(std::string_view name);
  static const PrimitiveVertexFormat* findByGPUFormatName(std::string_view name);

private:
  static std::atomic<bool> s_inited;
  static std::deque<PrimitiveVertexFormat> s_formats; // registration order; a deque keeps entries in place
};

} // namespace Moo
