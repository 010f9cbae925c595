#pragma once
// Splitting a tree between machines (--shard K/N): each model belongs to exactly one of N shards,
// decided by its path relative to the source folder alone (its generic UTF-8 form, '/' between
// names), so every machine agrees whatever order its directory walk takes or wherever the tree is.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
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

// The shard of --shard auto: $VERTEXMILL_SHARD (K/N) when it is set, else the task of a Slurm job
// array (SLURM_ARRAY_TASK_ID, SLURM_ARRAY_TASK_MIN, SLURM_ARRAY_TASK_STEP, SLURM_ARRAY_TASK_COUNT:
// the first task is shard 1). Nothing, with what is wrong or missing in `problem`, otherwise.
[[nodiscard]] std::optional<Shard> shardFromEnvironment(std::string& problem);

struct ModelList;

// Keeps the models of the list that belong to `shard`, in their order.
void keepShard(ModelList& models, const Shard& shard);

// The shard (1 .. count) of a model by its relative path.
uint32_t shardOf(const std::filesystem::path& relativePath, uint32_t count);

} // namespace vertexmill
