#include "content_cache/remote_store.hpp"

namespace content_cache
{

RemoteStore::RemoteStore(std::string url, RemoteTimeouts timeouts) : m_url(std::move(url)), m_timeouts(timeouts)
{
  m_off = true;
}

bool RemoteStore::supported()
{
  return false;
}

RemoteStore::Lookup RemoteStore::load(const Digest&, CacheEntry&, std::string*, std::string&)
{
  return Lookup::Unavailable;
}

bool RemoteStore::store(const Digest&, std::string_view, std::string& problem)
{
  problem = "the remote cache is not available in this build";
  return false;
}

} // namespace content_cache
