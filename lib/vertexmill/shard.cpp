#include "vertexmill/shard.hpp"

#include "content_cache/sha256.hpp"
#include "cstdmf/path_utils.hpp"
#include "cstdmf/platform.hpp"
#include "fw/bounded_number.hpp"
#include "vertexmill/tree_run.hpp"

#include <algorithm>
#include <charconv>

namespace vertexmill
{

namespace
{
constexpr uint32_t kMaxShards = 65536;

std::optional<uint32_t> parseNumber(std::string_view text)
{
  const std::optional<uint64_t> value = FW::parseBoundedNumber(text, 0, kMaxShards);
  return value ? std::optional<uint32_t>(static_cast<uint32_t>(*value)) : std::nullopt;
}
} // namespace

std::optional<Shard> parseShard(std::string_view text)
{
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos)
    return std::nullopt;
  const std::optional<uint32_t> index = parseNumber(text.substr(0, slash));
  const std::optional<uint32_t> count = parseNumber(text.substr(slash + 1));
  if (!index || !count || *count == 0 || *count > kMaxShards || *index == 0 || *index > *count)
    return std::nullopt;
  return Shard{*index, *count};
}

std::optional<Shard> shardFromEnvironment(std::string& problem)
{
  if (const std::optional<std::string> given = platform::environmentVariable("VERTEXMILL_SHARD"))
  {
    if (const std::optional<Shard> shard = parseShard(*given))
      return shard;
    problem = "VERTEXMILL_SHARD is '" + *given + "', not K/N with 1 <= K <= N <= 65536";
    return std::nullopt;
  }
  const std::optional<std::string> id = platform::environmentVariable("SLURM_ARRAY_TASK_ID");
  const std::optional<std::string> count = platform::environmentVariable("SLURM_ARRAY_TASK_COUNT");
  if (!id || !count)
  {
    problem = "it needs VERTEXMILL_SHARD=K/N, or a Slurm job array (SLURM_ARRAY_TASK_ID and SLURM_ARRAY_TASK_COUNT)";
    return std::nullopt;
  }
  const std::string min = platform::environmentVariable("SLURM_ARRAY_TASK_MIN").value_or("0");
  const std::string step = platform::environmentVariable("SLURM_ARRAY_TASK_STEP").value_or("1");
  constexpr uint64_t kLargest = 0xFFFFFFFFu;
  const std::optional<uint64_t> task = FW::parseBoundedNumber(*id, 0, kLargest);
  const std::optional<uint64_t> first = FW::parseBoundedNumber(min, 0, kLargest);
  const std::optional<uint64_t> stride = FW::parseBoundedNumber(step, 1, kLargest);
  const std::optional<uint64_t> tasks = FW::parseBoundedNumber(*count, 1, kMaxShards);
  if (!task || !first || !stride || !tasks || *task < *first || (*task - *first) % *stride != 0 ||
      (*task - *first) / *stride >= *tasks)
  {
    problem = "the Slurm array does not make a shard (SLURM_ARRAY_TASK_ID=" + *id + ", SLURM_ARRAY_TASK_MIN=" + min +
              ", SLURM_ARRAY_TASK_STEP=" + step + ", SLURM_ARRAY_TASK_COUNT=" + *count + ")";
    return std::nullopt;
  }
  return Shard{static_cast<uint32_t>((*task - *first) / *stride + 1), static_cast<uint32_t>(*tasks)};
}

void keepShard(ModelList& models, const Shard& shard)
{
  size_t kept = 0;
  for (size_t i = 0; i < models.sources.size(); ++i)
  {
    if (shardOf(models.sources[i].lexically_relative(models.sourceRoot), shard.count) != shard.index)
      continue;
    models.sources[kept] = std::move(models.sources[i]);
    if (i < models.sizes.size())
      models.sizes[kept] = models.sizes[i];
    ++kept;
  }
  models.sources.resize(kept);
  models.sizes.resize(std::min(models.sizes.size(), kept));
}

uint32_t shardOf(const std::filesystem::path& relativePath, uint32_t count)
{
  // A cryptographic hash is more than needed, but it is at hand and spreads any set of names
  // evenly; its first eight bytes, little-endian, pick the shard.
  const content_cache::Digest digest = content_cache::sha256(cstdmf::toGenericUtf8(relativePath));
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i)
    value = (value << 8) | digest[static_cast<size_t>(i)];
  return static_cast<uint32_t>(value % count) + 1;
}

} // namespace vertexmill
