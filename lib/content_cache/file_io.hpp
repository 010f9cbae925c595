#pragma once
// Whole-file reads and atomic whole-file writes for the cache's files.

#include "content_cache/sha256.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace content_cache
{

// Reads the whole file into `bytes`. False with the system's reason in `problem` when it cannot
// be opened or read; `missing` tells a file that is not there from one that cannot be read.
[[nodiscard]] bool readWholeFile(const std::filesystem::path& path, std::string& bytes, std::string& problem,
                                 bool* missing = nullptr);

// Feeds the whole file to `hash` without holding it in memory. False with the reason.
[[nodiscard]] bool hashFile(const std::filesystem::path& path, Sha256& hash, std::string& problem);

// Writes `bytes` to a temporary file beside `path` and renames it over `path`, so that a reader
// sees the old file, the whole new one or none, never a part. Several processes may write the same
// path at once: each uses its own temporary name and the last rename wins. False with the reason
// in `problem`; no temporary file is left behind.
[[nodiscard]] bool writeFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                                       std::string& problem);

// A name no other process or thread of this machine is using at the same time, for temporary files
// (process id, a random number drawn once per process and a counter: two machines sharing a
// folder may have the same process id).
std::string uniqueSuffix();

} // namespace content_cache
