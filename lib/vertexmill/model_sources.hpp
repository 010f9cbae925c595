#pragma once
// The files one model is made from: its .primitives file and the companion files (.collision,
// .armor, .armorvisual) that lie beside it with exactly its stem. Found once per model and used
// for the compile, the cache key, the up-to-date check and the depfile.

#include "geometry_compiler/geometry_compiler.hpp"

#include <filesystem>
#include <vector>

namespace vertexmill
{

struct ModelSources
{
  // What the compiler is asked to convert: the source and the companions that exist.
  GeometryCompiler::Request request;
  // A companion whose status could not be read (neither there nor missing): nothing made from the
  // model can be known to be up to date.
  bool unexamined = false;

  // Looks beside `source` for its companions, in the order collision, armor, armor visual.
  static ModelSources find(const std::filesystem::path& source);

  // Every companion that exists, in that order.
  std::vector<std::filesystem::path> companions() const;
  // The source, then its companions.
  std::vector<std::filesystem::path> files() const;
};

// The companion files a source may have, whether they exist or not.
std::vector<std::filesystem::path> companionPaths(const std::filesystem::path& source);

} // namespace vertexmill
