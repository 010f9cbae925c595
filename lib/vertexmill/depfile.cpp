#include "vertexmill/depfile.hpp"

#include "cstdmf/debug.hpp"
#include "cstdmf/path_utils.hpp"
#include "resmgr/file_io.hpp"

#include <span>

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

std::string depfileText(const std::vector<std::string>& targets, const std::vector<std::string>& prerequisites)
{
  std::string text;
  for (const std::string& target : targets)
    text += (text.empty() ? "" : " ") + depfileWord(target);
  text += ":";
  for (const std::string& prerequisite : prerequisites)
    text += " \\\n  " + depfileWord(prerequisite);
  return text + "\n";
}

bool writeDepfile(const std::filesystem::path& path, const std::vector<std::string>& targets,
                  const std::vector<std::string>& prerequisites)
{
  const std::string text = depfileText(targets, prerequisites);
  const fileio::WriteResult written =
    fileio::writeWholeFile(cstdmf::toUtf8(path), std::as_bytes(std::span<const char>(text)));
  if (!written)
  {
    ZR_MSG_FMT(DebugMessagePriority::Error, "", "cannot write depfile '{}': {}\n", cstdmf::toUtf8(path),
               written.reason);
    return false;
  }
  return true;
}

} // namespace vertexmill
