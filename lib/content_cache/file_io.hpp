#pragma once
// Whole-file reads of the cache's files (they are written with fileio::writeWholeFile, whose
// temporary files the run's clean-up knows).

#include "content_cache/key_hash.hpp"

#include <cstdint>
#include <cstddef>
#include <filesystem>
#include <span>
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

// Each thread's buffer for reading a file a piece at a time, made once and never zeroed: a fresh
// one per file would be faulted in again for every model, which on a warm cache costs more than
// the hashing. One user at a time: hashFile, then EntryReader::copyOutput.
std::span<std::byte> pieceBuffer();

// Feeds the whole file to `hash` without holding it in memory. False with the reason.
[[nodiscard]] bool hashFile(const std::filesystem::path& path, KeyHash& hash, std::string& problem);

} // namespace content_cache
