#include "content_cache/remote_store.hpp"

#include "content_cache/file_io.hpp"
#include "content_cache/http_request.hpp"
#include "cstdmf/platform.hpp"

#include <algorithm>

namespace content_cache
{

namespace
{
// Bodies larger than this are not results of ours: refused rather than held in memory.
constexpr size_t kMaxBody = size_t(1) << 31;
// A result record is small and of a fixed size; anything much longer is not one.
constexpr size_t kMaxRecordBody = 4096;
// Storage reserved ahead for a download, at most: a record that lies about a larger size costs
// no more than this before the transfer shows it.
constexpr size_t kMaxReservedBody = size_t(256) << 20;

long request(const std::string& url, const RemoteTimeouts& timeouts, const std::string_view* putBody,
             HttpDownload* download, std::string& problem)
{
  return httpRequest(url, timeouts.connectSeconds, timeouts.requestSeconds, putBody, download, problem);
}
} // namespace

RemoteStore::RemoteStore(std::string url, RemoteTimeouts timeouts) : m_url(std::move(url)), m_timeouts(timeouts)
{
  while (!m_url.empty() && m_url.back() == '/')
    m_url.pop_back();
}

RemoteStore::Lookup RemoteStore::load(const Digest& key, CacheEntry& entry, const EntryBytes& keep,
                                      std::string& problem)
{
  if (!available())
    return Lookup::Unavailable;
  const std::string recordUrl = m_url + "/ac/" + toHex(key);
  HttpDownload record;
  record.limit = kMaxRecordBody;
  long status = request(recordUrl, m_timeouts, nullptr, &record, problem);
  if (status == 404)
    return Lookup::Miss;
  if (status != 200)
  {
    if (status != 0)
      problem = "HTTP status " + std::to_string(status);
    // Only the request that turned the tier off reports it.
    problem = turnOff() ? "GET " + shownUrl(recordUrl) + ": " + problem : std::string();
    return Lookup::Unavailable;
  }
  Digest content{};
  uint64_t size = 0;
  if (!decodeRecord(record.body, key, content, size))
  {
    problem = shownUrl(recordUrl) + " is not a result record";
    return Lookup::Corrupt;
  }

  const std::string contentUrl = m_url + "/cas/" + toHex(content);
  // The record declares the content's size: a longer answer is cut off there, not buffered.
  HttpDownload blob;
  blob.limit = static_cast<size_t>(std::min<uint64_t>(size, kMaxBody));
  // Received into storage of its own size at once (the record's word for it, up to a bound), and
  // the last entry's storage at that: growing it as the answer comes in would copy it and fault
  // in fresh memory several times over.
  blob.body = takeSpareBuffer();
  if (blob.limit > blob.body.capacity() && blob.limit <= kMaxReservedBody)
  {
    blob.body.reserve(blob.limit);
    platform::preferLargePages(blob.body.data(), blob.body.capacity());
  }
  status = request(contentUrl, m_timeouts, nullptr, &blob, problem);
  if (status == 404)
    return Lookup::Miss; // the record outlived its content
  if (status != 200)
  {
    if (status != 0)
      problem = "HTTP status " + std::to_string(status);
    // Only the request that turned the tier off reports it.
    problem = turnOff() ? "GET " + shownUrl(contentUrl) + ": " + problem : std::string();
    return Lookup::Unavailable;
  }
  // The content is not hashed again against its name: whoever can put a wrong blob on the server
  // can put a record naming it too, so the name proves nothing the entry's own checks do not. Those
  // checks (the key it was stored under, every size, the checksum of every byte) refuse a blob that
  // is damaged or another key's; hashing 23 MiB of hits cost a warm run more than its transfer.
  if (blob.body.size() != size)
  {
    problem = shownUrl(contentUrl) + " is not of the size its record declares";
    return Lookup::Corrupt;
  }
  std::string entryProblem;
  if (!decodeEntry(std::move(blob.body), key, entry, entryProblem, keep))
  {
    problem = shownUrl(contentUrl) + " is " + entryProblem;
    return Lookup::Corrupt;
  }
  return Lookup::Hit;
}

bool RemoteStore::store(const Digest& key, std::string_view encoded, std::string& problem)
{
  if (!available() || m_noUploads.load())
    return false;
  const Digest content = sha256(encoded);
  const std::string contentUrl = m_url + "/cas/" + toHex(content);
  const std::string record = encodeRecord(key, content, encoded.size());
  const std::string recordUrl = m_url + "/ac/" + toHex(key);
  // Content first: a record is never visible before what it names.
  for (const auto& [url, body] : {std::pair<const std::string&, std::string_view>(contentUrl, encoded),
                                  std::pair<const std::string&, std::string_view>(recordUrl, record)})
  {
    const long status = request(url, m_timeouts, &body, nullptr, problem);
    if (status == 0)
    {
      problem = turnOff() ? "PUT " + shownUrl(url) + ": " + problem : std::string();
      return false;
    }
    if (status < 200 || status > 299)
    {
      problem = stopUploads() ? "PUT " + shownUrl(url) + ": HTTP status " + std::to_string(status) : std::string();
      return false;
    }
  }
  return true;
}

} // namespace content_cache
