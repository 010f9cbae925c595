#pragma once
// Splitting a tree between machines (--shard K/N): each model belongs to exactly one of N shards,
// decided by its path relative to the source folder alone (its generic UTF-8 form, '/' between
// names), so every machine agrees whatever order its directory walk takes or wherever the tree is.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

namespace vertexmill
{

struct Shard
{
  uint32_t index = 1; // 1 .. count
  uint32_t count = 1;
};

// "K/N" with 1 <= K <= N <= 65536; nothing for any other text.
[[nodiscard]] std::optional<Shard> parseShard(std::string_view text);

struct ModelList;

// Keeps the models of the list that belong to `shard`, in their order.
void keepShard(ModelList& models, const Shard& shard);

// The shard (1 .. count) of a model by its relative path.
uint32_t shardOf(const std::filesystem::path& relativePath, uint32_t count);

} // namespace vertexmill
