#pragma once
// Writing a whole output file: the bytes go to a temporary file beside the target, which is then
// renamed over it, so the target holds either its previous contents or all of the new ones.

#include <span>
#include <string>

namespace preview
{

// Writes `bytes` to `path` (UTF-8). False with `error` set to "cannot write '<path>': <reason>"
// (the operating system's reason; the path the caller gave, never the temporary one) when the
// file cannot be created, written or renamed; nothing is left behind then.
[[nodiscard]] bool writeWholeFile(const std::string& path, std::span<const char> bytes, std::string& error);

} // namespace preview
