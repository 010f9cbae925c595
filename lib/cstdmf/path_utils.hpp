#pragma once
// UTF-8 text <-> std::filesystem::path, the same on every platform (on Windows a path holds
// UTF-16 and a plain std::string constructor would use the ANSI code page).

#include <filesystem>
#include <string>
#include <string_view>

namespace cstdmf
{

inline std::filesystem::path u8path(std::string_view utf8)
{
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

inline std::string toUtf8(const std::filesystem::path& path)
{
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

inline std::string toGenericUtf8(const std::filesystem::path& path)
{
  const std::u8string text = path.generic_u8string();
  return std::string(text.begin(), text.end());
}

} // namespace cstdmf
