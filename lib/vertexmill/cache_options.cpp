#include "vertexmill/cache_options.hpp"

#include "cstdmf/platform.hpp"

#include "content_cache/remote_store.hpp"
#include "content_cache/sha256.hpp"
#include "cstdmf/path_utils.hpp"
#include "fw/bounded_number.hpp"
#include "vertexmill/display_text.hpp"
#include "vertexmill/model_cache.hpp"

#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace vertexmill
{

namespace
{
// An environment variable's value; empty when it is not set.
std::string environment(const char* name)
{
  return platform::environmentVariable(name).value_or(std::string());
}
} // namespace

std::optional<uint64_t> parseCacheSize(std::string_view text)
{
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop == text.data())
    return std::nullopt;
  std::string_view suffix(stop, static_cast<size_t>(end - stop));
  if (!suffix.empty() && (suffix.back() == 'B' || suffix.back() == 'b'))
    suffix.remove_suffix(1);
  if (suffix.size() > 1 && suffix.back() == 'i')
    suffix.remove_suffix(1);
  unsigned shift = 0;
  if (suffix == "K" || suffix == "k")
    shift = 10;
  else if (suffix == "M" || suffix == "m")
    shift = 20;
  else if (suffix == "G" || suffix == "g")
    shift = 30;
  else if (suffix == "T" || suffix == "t")
    shift = 40;
  else if (!suffix.empty())
    return std::nullopt;
  if (shift > 0 && value > (UINT64_MAX >> shift))
    return std::nullopt;
  return value << shift;
}

std::optional<long> parseCacheTimeout(std::string_view text)
{
  const std::optional<uint64_t> value = FW::parseBoundedNumber(text, 1, 600);
  return value ? std::optional<long>(static_cast<long>(*value)) : std::nullopt;
}

bool isHttpUrl(std::string_view url)
{
  const auto startsWith = [url](std::string_view scheme) {
    if (url.size() <= scheme.size())
      return false;
    for (size_t i = 0; i < scheme.size(); ++i)
    {
      if (std::tolower(static_cast<unsigned char>(url[i])) != scheme[i])
        return false;
    }
    return true;
  };
  const size_t schemeEnd = startsWith("http://") ? 7 : startsWith("https://") ? 8 : 0;
  if (schemeEnd == 0)
    return false;
  const std::string_view rest = url.substr(schemeEnd);
  const std::string_view authority = rest.substr(0, rest.find('/'));
  const std::string_view host = authority.substr(authority.find('@') == std::string_view::npos ? 0 : authority.find('@') + 1);
  return !host.empty() && host.front() != ':' &&
         rest.find_first_of(" \t\r\n") == std::string_view::npos;
}

bool resolveCacheOptions(CacheOptions& options)
{
  if (options.off)
    return true;
  if (!options.directory && !environment("VERTEXMILL_CACHE").empty())
    options.directory = environment("VERTEXMILL_CACHE");
  const bool urlFromEnvironment = !options.url && !environment("VERTEXMILL_CACHE_URL").empty();
  if (urlFromEnvironment)
    options.url = environment("VERTEXMILL_CACHE_URL");
  const std::string maxSize = environment("VERTEXMILL_CACHE_MAX_SIZE");
  if (!options.maxSize && !maxSize.empty())
  {
    options.maxSize = parseCacheSize(maxSize);
    if (!options.maxSize)
    {
      std::fprintf(stderr,
                   "ERROR: invalid value '%s' in VERTEXMILL_CACHE_MAX_SIZE: expected a size such as 500M or 20G\n",
                   maxSize.c_str());
      return false;
    }
  }
  if (options.url && !isHttpUrl(*options.url))
  {
    // Only HTTP servers hold a cache; anything else would fail on every request, with the URL
    // (and any password in it) repeated in every warning.
    std::fprintf(stderr, "ERROR: invalid value '%s' for %s: expected an http:// or https:// URL\n",
                 toDisplayText(content_cache::RemoteStore::shownUrl(*options.url)).c_str(), urlFromEnvironment ? "VERTEXMILL_CACHE_URL" : "--cache-url");
    return false;
  }
  // The remote tier names contents by their SHA-256: without the library that computes it there
  // is no remote tier, which is said before any work rather than found in the middle of it. (The
  // keys' hash is compiled in.)
  std::string problem;
  if (options.url && !content_cache::sha256Available(problem))
  {
    std::fprintf(stderr, "ERROR: the remote cache needs SHA-256, which is not available: %s\n", problem.c_str());
    return false;
  }
  return true;
}

std::unique_ptr<ModelCache> makeModelCache(const CacheOptions& options)
{
  if (options.off || (!options.directory && !options.url))
    return nullptr;
  CacheSettings settings;
  if (options.directory)
    settings.directory = cstdmf::u8path(*options.directory);
  settings.url = options.url.value_or(std::string());
  settings.maxBytes = options.maxSize.value_or(0);
  settings.timeoutSeconds = options.timeoutSeconds;
  return std::make_unique<ModelCache>(settings);
}

} // namespace vertexmill
