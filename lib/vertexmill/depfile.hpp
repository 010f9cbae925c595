#pragma once
// Dependency files (--depfile) in the Makefile syntax that Make and Ninja read:
//   out/ship.geometry: art/ship.primitives art/ship.collision

#include <filesystem>
#include <string>
#include <vector>

namespace vertexmill
{

// One path as a Make/Ninja word: blanks and '#' escaped with a backslash (backslashes right before
// them doubled), '$' written "$$". Both read a colon followed by a blank as the end of the target;
// colons inside paths (a Windows drive) are left as they are.
std::string depfileWord(const std::string& path);

// "target ...: prerequisite ...\n", one prerequisite per continued line.
std::string depfileText(const std::vector<std::string>& targets, const std::vector<std::string>& prerequisites);

// Writes the text to `path` whole or not at all. False, after an ERROR naming the path and the
// system's reason, when it cannot be written.
[[nodiscard]] bool writeDepfile(const std::filesystem::path& path, const std::vector<std::string>& targets,
                                const std::vector<std::string>& prerequisites);

} // namespace vertexmill
