#include "preview/output_file.hpp"

#include "resmgr/file_io.hpp"

namespace preview
{

bool writeWholeFile(const std::string& path, std::span<const char> bytes, std::string& error)
{
  // The project's one whole-or-nothing writer; the message names the path given, never the
  // temporary file beside it.
  const fileio::WriteResult written = fileio::writeWholeFile(path, std::as_bytes(bytes));
  if (!written)
    error = "cannot write '" + path + "': " + written.reason;
  return static_cast<bool>(written);
}

} // namespace preview
