#pragma once
// Models for the inspector's tests, compiled by the real compiler from grids, and the inspector run
// in-process on a command line.

#include "cstdmf/string_id.hpp"
#include "geometry_compiler/geometry_compiler.hpp"
#include "geometry_compiler/primitives_builder.hpp"
#include "geometry_inspect/geometry_inspection.hpp"
#include "geometry_inspect/inspect_command.hpp"
#include "moo/primitive_vertex_format.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace inspect_test
{
namespace fs = std::filesystem;

// Two render sets in one vertex buffer: "hull", a 4×4 grid with 16-bit indices, and "deck", a 2×2
// grid of twice the size with 32-bit indices.
inline testutil::Sections twoGrids()
{
  return {
    {"hull.vertices", testutil::vertexSection(testutil::gridVertices(4))},
    {"hull.indices", testutil::indexSection(testutil::gridIndices<uint16_t>(4))},
    {"deck.vertices", testutil::vertexSection(testutil::gridVertices(2, 2.0f))},
    {"deck.indices", testutil::indexSection(testutil::gridIndices<uint32_t>(2))},
  };
}

// Writes `sections` as <dir>/<stem>.primitives (plus the given companion files) and compiles it to
// <dir>/<stem>.geometry.
inline fs::path compileModel(const fs::path& dir, const std::string& stem, const testutil::Sections& sections,
                             bool encode = true, bool optimize = true, const std::string& collision = {},
                             const std::string& armor = {})
{
  const fs::path source = dir / (stem + ".primitives");
  const fs::path output = dir / (stem + ".geometry");
  testutil::writeFile(source, testutil::container(sections));
  GeometryCompiler::Request request;
  request.primitivesPath = source.string();
  const auto companion = [&](const std::string& bytes, const char* extension, std::string& slot) {
    if (bytes.empty())
      return;
    const fs::path path = dir / (stem + extension);
    std::vector<std::byte> data(bytes.size());
    std::memcpy(data.data(), bytes.data(), bytes.size());
    testutil::writeFile(path, data);
    slot = path.string();
  };
  companion(collision, ".collision", request.collisionPath);
  companion(armor, ".armor", request.armorPath);
  GeometryCompiler compiler;
  EXPECT_TRUE(compiler.compile(request, output.string(), encode, optimize, true));
  return output;
}

struct RunResult
{
  int status = -1;
  std::string out;
  std::string err;
};

// The tool in-process on these arguments (argv[0] is supplied).
inline RunResult inspect(const std::vector<std::string>& arguments)
{
  std::vector<const char*> argv{"geometry_inspect"};
  for (const std::string& argument : arguments)
    argv.push_back(argument.c_str());
  std::ostringstream out;
  std::ostringstream err;
  RunResult result;
  result.status = geometry_inspect::runInspect(static_cast<int>(argv.size()), argv.data(), out, err);
  result.out = out.str();
  result.err = err.str();
  return result;
}

inline std::string idOf(const std::string& sectionName)
{
  return geometry_inspect::hexId(cstdmf::makeStringID(sectionName));
}

inline bool contains(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}

// Byte position of `data` inside `file` (the reader's spans point into its block).
inline size_t positionOf(const Moo::GeometryData& geometry, std::span<const std::byte> data)
{
  return static_cast<size_t>(data.data() - reinterpret_cast<const std::byte*>(geometry.block()->data()));
}

template <typename T>
void poke(std::vector<std::byte>& bytes, size_t position, T value)
{
  ASSERT_LE(position + sizeof(T), bytes.size());
  std::memcpy(bytes.data() + position, &value, sizeof(T));
}

template <typename T>
T peek(const std::vector<std::byte>& bytes, size_t position)
{
  T value{};
  std::memcpy(&value, bytes.data() + position, sizeof(T));
  return value;
}

} // namespace inspect_test
