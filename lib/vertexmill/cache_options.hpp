#pragma once
// The cache options of the command line (--cache, --cache-url, --cache-max-size, --cache-timeout,
// --no-cache) and the environment variables that stand in for them.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vertexmill
{

class ModelCache;

struct CacheOptions
{
  std::optional<std::string> directory; // UTF-8
  std::optional<std::string> url;
  std::optional<uint64_t> maxSize;
  long timeoutSeconds = 10;
  bool off = false; // --no-cache
};

// Bytes, or a whole number with a binary suffix K, M, G or T (optionally followed by "B" or
// "iB"): "20G". Nothing for any other text or a size beyond 64 bits.
[[nodiscard]] std::optional<uint64_t> parseCacheSize(std::string_view text);

// Whole seconds from 1 to 600.
[[nodiscard]] std::optional<long> parseCacheTimeout(std::string_view text);

// "http://" or "https://" (any case) and a host: the only servers a cache can be kept on.
[[nodiscard]] bool isHttpUrl(std::string_view url);

// Fills what the command line left unset from VERTEXMILL_CACHE, VERTEXMILL_CACHE_URL and
// VERTEXMILL_CACHE_MAX_SIZE (unless --no-cache). False, after an "ERROR: " line on standard error,
// for an invalid size in the environment, a cache URL that is not an HTTP one, or one in a build
// without the remote tier.
[[nodiscard]] bool resolveCacheOptions(CacheOptions& options);

// The run's cache, or null when none is asked for.
std::unique_ptr<ModelCache> makeModelCache(const CacheOptions& options);

} // namespace vertexmill
