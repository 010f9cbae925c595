#include "vertexmill/model_sources.hpp"

#include "cstdmf/path_utils.hpp"

#include <array>
#include <string>
#include <string_view>
#include <system_error>

namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
// Companion files beside a model, tried in this order, and where each goes in the request.
struct Companion
{
  std::string_view extension;
  std::string GeometryCompiler::Request::*slot;
};
constexpr std::array<Companion, 3> kCompanions = {{
  {".collision", &GeometryCompiler::Request::collisionPath},
  {".armor", &GeometryCompiler::Request::armorPath},
  {".armorvisual", &GeometryCompiler::Request::armorVisualPath},
}};

// Companions are looked for only beside the source, with exactly its stem.
fs::path companionPath(const fs::path& source, std::string_view extension)
{
  fs::path name = source.stem();
  name += cstdmf::u8path(extension);
  return source.parent_path() / name;
}
} // namespace

ModelSources ModelSources::find(const fs::path& source)
{
  ModelSources sources;
  sources.request.primitivesPath = cstdmf::toUtf8(source);
  sources.request.modelName = cstdmf::toUtf8(source.stem());
  for (const Companion& companion : kCompanions)
  {
    const fs::path candidate = companionPath(source, companion.extension);
    std::error_code error;
    const fs::file_status status = fs::status(candidate, error);
    if (fs::exists(status))
      sources.request.*companion.slot = cstdmf::toUtf8(candidate);
    else if (status.type() != fs::file_type::not_found)
      sources.unexamined = true;
  }
  return sources;
}

std::vector<fs::path> ModelSources::companions() const
{
  std::vector<fs::path> files;
  for (const Companion& companion : kCompanions)
  {
    if (!(request.*companion.slot).empty())
      files.push_back(cstdmf::u8path(request.*companion.slot));
  }
  return files;
}

std::vector<fs::path> ModelSources::files() const
{
  std::vector<fs::path> files = companions();
  files.insert(files.begin(), cstdmf::u8path(request.primitivesPath));
  return files;
}

std::vector<fs::path> companionPaths(const fs::path& source)
{
  std::vector<fs::path> paths;
  for (const Companion& companion : kCompanions)
    paths.push_back(companionPath(source, companion.extension));
  return paths;
}

} // namespace vertexmill
