#include "depfile.hpp"

#include "content_cache/file_io.hpp"
#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"

namespace vertexmill
{

std::string depfileWord(const std::string& path)
{
  std::string word;
  word.reserve(path.size() + 8);
  size_t backslashes = 0;
  for (const char c : path)
  {
    if (c == '\\')
    {
      ++backslashes;
      word += c;
      continue;
    }
    if (c == ' ' || c == '\t' || c == '#')
    {
      // Backslashes right before an escaped character stand for themselves: doubled.
      word.append(backslashes, '\\');
      word += '\\';
      word += c;
    }
    else if (c == '$')
      word += "$$";
    else
      word += c;
    backslashes = 0;
  }
  return word;
}

std::string depfileText(const std::string& target, const std::vector<std::string>& prerequisites)
{
  std::string text = depfileWord(target) + ":";
  for (const std::string& prerequisite : prerequisites)
    text += " \\\n  " + depfileWord(prerequisite);
  return text + "\n";
}

bool writeDepfile(const std::filesystem::path& path, const std::string& target,
                  const std::vector<std::string>& prerequisites)
{
  std::string problem;
  if (!content_cache::writeFileAtomically(path, depfileText(target, prerequisites), problem))
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot write depfile '{}': {}\n", cstdmf::toUtf8(path), problem);
    return false;
  }
  return true;
}

} // namespace vertexmill
