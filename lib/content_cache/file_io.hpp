#pragma once
// Whole-file reads of the cache's files (they are written with fileio::writeWholeFile, whose
// temporary files the run's clean-up knows).

#include "content_cache/key_hash.hpp"

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

// A run reads one entry after another, each into a buffer as large as the last: fresh memory for
// each would be zeroed and faulted in again, which costs more than reading it. A buffer whose bytes
// are no longer needed is given back with keepSpareBuffer (one is kept per thread); takeSpareBuffer
// hands it out again, empty but with its storage, or an empty string.
std::string takeSpareBuffer();
void keepSpareBuffer(std::string&& buffer);

// Feeds the whole file to `hash` without holding it in memory. False with the reason.
[[nodiscard]] bool hashFile(const std::filesystem::path& path, KeyHash& hash, std::string& problem);

} // namespace content_cache
