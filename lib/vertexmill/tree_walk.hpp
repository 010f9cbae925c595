#pragma once
// Listing the models of a source tree before any of them is converted, so that what the
// conversion writes (possibly inside the tree) is never taken for input, and so that the models
// can be handed out to several threads in walk order.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vertexmill
{

// Appends to `models` every entry below `root` (recursively, in the file system's listing order,
// each directory's contents right after the directory itself) that is a regular file, links
// followed, and whose extension is exactly ".primitives". Links to directories are listed but not
// entered. Paths are root / relative path. When `sizes` is given, each model's file size is
// appended to it as well (0 when it cannot be read).
// Returns false with `error` set (a sentence naming the path and the system's reason) when a
// directory cannot be read or an entry cannot be examined for a reason other than being
// missing; `models` then holds what was found before.
[[nodiscard]] bool listModels(const std::filesystem::path& root, std::vector<std::filesystem::path>& models,
                              std::vector<std::uintmax_t>* sizes, std::string& error);

} // namespace vertexmill
