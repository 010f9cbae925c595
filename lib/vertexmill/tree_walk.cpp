#include "vertexmill/tree_walk.hpp"

#include "cstdmf/path_utils.hpp"

#include <system_error>

namespace vertexmill
{
namespace fs = std::filesystem;

namespace
{
constexpr std::string_view kPrimitivesExtension = ".primitives";

// One directory being walked. Its entries are read whole and the directory closed before any of
// them is looked at, so a deep tree does not hold one open directory per level.
struct Level
{
  std::vector<fs::directory_entry> entries;
  size_t next = 0;
};

// A directory that is gone by the time it is read was removed while the tree was walked: there
// is nothing in it to convert, so that is no error unless it is the root (`mustExist`).
[[nodiscard]] bool readDirectory(const fs::path& directory, bool mustExist, Level& level, std::string& error)
{
  std::error_code code;
  fs::directory_iterator it(directory, code);
  for (; !code && it != fs::directory_iterator(); it.increment(code))
    level.entries.push_back(*it);
  if (code == std::errc::no_such_file_or_directory && !mustExist)
    return true;
  if (code)
  {
    error = "cannot read directory " + cstdmf::toUtf8(directory) + ": " + code.message();
    return false;
  }
  return true;
}
} // namespace

bool listModels(const fs::path& root, std::vector<fs::path>& models, std::vector<std::uintmax_t>* sizes,
                std::string& error)
{
  const fs::path extension = cstdmf::u8path(kPrimitivesExtension);
  std::vector<Level> levels(1);
  if (!readDirectory(root, true, levels.back(), error))
    return false;
  while (!levels.empty())
  {
    Level& level = levels.back();
    if (level.next == level.entries.size())
    {
      levels.pop_back();
      continue;
    }
    const fs::directory_entry entry = std::move(level.entries[level.next++]);

    std::error_code code;
    const fs::file_status status = fs::status(entry.path(), code);
    if (code && status.type() != fs::file_type::not_found)
    {
      error = "cannot examine " + cstdmf::toUtf8(entry.path()) + ": " + code.message();
      return false;
    }
    if (fs::is_regular_file(status) && entry.path().extension() == extension)
    {
      models.push_back(entry.path());
      if (sizes)
      {
        const std::uintmax_t size = fs::file_size(entry.path(), code);
        sizes->push_back(code ? 0 : size);
      }
    }

    // Entered only when it is a directory itself, not a link to one.
    const fs::file_status own = fs::symlink_status(entry.path(), code);
    if (!code && fs::is_directory(own))
    {
      Level inner;
      if (!readDirectory(entry.path(), false, inner, error))
        return false;
      levels.push_back(std::move(inner));
    }
  }
  return true;
}

} // namespace vertexmill
