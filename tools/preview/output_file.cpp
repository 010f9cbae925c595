#include "preview/output_file.hpp"

#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace preview
{

bool writeWholeFile(const std::string& path, std::span<const char> bytes, std::string& error)
{
  const std::filesystem::path target = cstdmf::u8path(path);
  std::filesystem::path temporary = target;
  temporary += ".tmp" + std::to_string(platform::processId());
  const auto fail = [&](const std::error_code& reason) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    error = "cannot write '" + path + "': " + reason.message();
    return false;
  };

  errno = 0;
  std::FILE* file = platform::openFile(cstdmf::toUtf8(temporary), "wb");
  if (file == nullptr)
  {
    // The reason for the temporary file is the reason for its folder, which is the target's.
    error = "cannot write '" + path + "': " + std::error_code(errno != 0 ? errno : EIO, std::generic_category()).message();
    return false;
  }
  errno = 0;
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  const int writeErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed)
    return fail(std::error_code(writeErrno != 0 ? writeErrno : (errno != 0 ? errno : EIO), std::generic_category()));
  std::error_code renameError;
  std::filesystem::rename(temporary, target, renameError);
  if (renameError)
    return fail(renameError);
  return true;
}

} // namespace preview
