#include "vertexmill/levels_of_detail.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"
#include "vertexmill/report.hpp"

#include <cctype>
#include <string_view>
#include <system_error>

namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
constexpr std::string_view kLevelsDirectory = "lods";

// Whether `stem` ends in "_lod" and digits.
bool namedLikeALevel(std::string_view stem)
{
  size_t digits = 0;
  while (digits < stem.size() && std::isdigit(static_cast<unsigned char>(stem[stem.size() - 1 - digits])))
    ++digits;
  return digits > 0 && stem.substr(0, stem.size() - digits).ends_with("_lod");
}

// Whether the directory holds a level an artist made for `stem`: <stem>_lod<n>.primitives.
bool holdsHandMadeLevel(const fs::path& directory, std::string_view stem)
{
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
  {
    const fs::path& path = entry->path();
    if (path.extension() != ".primitives")
      continue;
    const std::string name = cstdmf::toUtf8(path.stem());
    if (name.size() > stem.size() + 4 && name.starts_with(stem) && name.compare(stem.size(), 4, "_lod") == 0 &&
        name.find_first_not_of("0123456789", stem.size() + 4) == std::string::npos)
      return true;
  }
  return false;
}
} // namespace

std::string levelsRefusal(const fs::path& source)
{
  const std::string stem = cstdmf::toUtf8(source.stem());
  if (namedLikeALevel(stem) || stem.ends_with("_Full") ||
      cstdmf::toUtf8(source.parent_path().filename()) == kLevelsDirectory)
    return "not-a-main-model";
  if (holdsHandMadeLevel(source.parent_path() / cstdmf::u8path(kLevelsDirectory), stem))
    return "hand-made";
  return {};
}

fs::path levelPath(const fs::path& output, unsigned number)
{
  return output.parent_path() / cstdmf::u8path(kLevelsDirectory) /
         cstdmf::u8path(cstdmf::toUtf8(output.stem()) + "_lod" + std::to_string(number) + ".geometry");
}

bool writeLevels(const fs::path& output, const std::vector<GeometryCompiler::Level>& levels,
                 std::vector<LevelReport>& written, std::string& reason)
{
  if (levels.empty())
    return true;
  const fs::path directory = levelPath(output, 1).parent_path();
  std::error_code error;
  fs::create_directories(directory, error);
  if (error)
  {
    reason = error.message();
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "failed to create path {}: {}\n", cstdmf::toUtf8(directory), reason);
    return false;
  }
  for (const GeometryCompiler::Level& level : levels)
  {
    const std::string path = cstdmf::toUtf8(levelPath(output, level.number));
    const fileio::WriteResult result =
      fileio::writeWholeFile(path, std::as_bytes(std::span<const char>(level.bytes->data(), level.bytes->len())));
    if (!result)
    {
      reason = result.reason;
      ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot write level of detail {}: {}\n", path, reason);
      return false;
    }
    ZR_MSG_FMT(DebugMessagePriority::Info, "", "==> {}\n", path);
    written.push_back(LevelReport{level.number, path, level.triangles, level.vertices, level.bytes->len(),
                                  level.errorAbsolute, level.errorRelative, level.ratio});
  }
  return true;
}

void warnAboutLevelsPast(const fs::path& output, unsigned made)
{
  std::error_code error;
  for (unsigned number = made + 1; number <= 64; ++number)
  {
    const fs::path stale = levelPath(output, number);
    if (!fs::exists(stale, error))
      break;
    ZR_MSG_FMT(DebugMessagePriority::Warning, "",
               "{} was not made by this run (its chain ends at level {}): the engine would load it with the new "
               "levels; remove it if an earlier run made it\n",
               cstdmf::toUtf8(stale), made);
  }
}

} // namespace vertexmill
