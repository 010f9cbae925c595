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

// True when the path names something that exists and is neither a regular file nor a directory (a
// pipe, a socket, a device). Such a file is never opened for reading: a pipe would wait forever
// for a writer, a device may never end. Found without opening it (links are followed).
inline bool isSpecialFile(const std::filesystem::path& path)
{
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  return !error && std::filesystem::exists(status) && !std::filesystem::is_regular_file(status) &&
         !std::filesystem::is_directory(status);
}

inline constexpr std::string_view kSpecialFileReason = "it is not a regular file (a pipe, socket or device)";

// The file a path ends up in, whether or not it exists yet: links and "." and ".." resolved as far
// as the path exists, for telling whether two paths name one file.
inline std::filesystem::path resolvedPath(const std::filesystem::path& path)
{
  std::error_code error;
  std::filesystem::path result = std::filesystem::weakly_canonical(path, error);
  return error ? std::filesystem::absolute(path, error).lexically_normal() : result;
}

inline std::string toGenericUtf8(const std::filesystem::path& path)
{
  const std::u8string text = path.generic_u8string();
  return std::string(text.begin(), text.end());
}

} // namespace cstdmf
