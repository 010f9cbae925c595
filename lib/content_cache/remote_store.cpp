#include "content_cache/remote_store.hpp"

#include "content_cache/file_io.hpp"
#include "content_cache/loaded_library.hpp"
#include "cstdmf/platform.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>

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

struct Download
{
  std::string body;
  size_t limit = kMaxBody; // an answer longer than this ends the transfer
  bool tooLarge = false;
};

size_t collect(char* data, size_t size, size_t count, void* user)
{
  auto* download = static_cast<Download*>(user);
  const size_t bytes = size * count;
  if (download->body.size() + bytes > download->limit)
  {
    download->tooLarge = true;
    return 0; // ends the transfer
  }
  download->body.append(data, bytes);
  return bytes;
}

struct Upload
{
  std::string_view body;
  size_t sent = 0;
};

size_t provide(char* buffer, size_t size, size_t count, void* user)
{
  auto* upload = static_cast<Upload*>(user);
  const size_t room = size * count;
  const size_t bytes = std::min(room, upload->body.size() - upload->sent);
  std::memcpy(buffer, upload->body.data() + upload->sent, bytes);
  upload->sent += bytes;
  return bytes;
}

// libcurl is loaded on the first request, not linked: it pulls in some twenty libraries of its
// own, which every run would pay for at start-up, and only runs with a remote cache use it. The
// header still gives the types and constants.
constexpr const char* kCurlLibrary = "libcurl.so.4";

struct Curl
{
  std::unique_ptr<platform::SharedLibrary> library;
  decltype(&curl_global_init) globalInit = nullptr;
  decltype(&curl_easy_init) easyInit = nullptr;
  decltype(&curl_easy_setopt) easySetopt = nullptr;
  decltype(&curl_easy_perform) easyPerform = nullptr;
  decltype(&curl_easy_getinfo) easyGetinfo = nullptr;
  decltype(&curl_easy_cleanup) easyCleanup = nullptr;
  decltype(&curl_easy_strerror) easyStrerror = nullptr;
};

// The library, loaded and initialised once for the process. Null with the reason when it cannot
// be used.
const Curl* loadCurl(std::string& problem)
{
  return loadLibraryOnce<Curl>(
    kCurlLibrary,
    [](Curl& api, auto& resolve) -> std::string {
      resolve(api.globalInit, "curl_global_init");
      resolve(api.easyInit, "curl_easy_init");
      resolve(api.easySetopt, "curl_easy_setopt");
      resolve(api.easyPerform, "curl_easy_perform");
      resolve(api.easyGetinfo, "curl_easy_getinfo");
      resolve(api.easyCleanup, "curl_easy_cleanup");
      resolve(api.easyStrerror, "curl_easy_strerror");
      if (api.globalInit && api.globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK)
        return "cannot initialise the HTTP library";
      return {};
    },
    problem);
}

struct EasyDeleter
{
  const Curl* api;
  void operator()(CURL* handle) const { api->easyCleanup(handle); }
};

// One request. Returns the HTTP status, or 0 with the transport's reason in `problem`.
long request(const std::string& url, const RemoteTimeouts& timeouts, const std::string_view* putBody,
             Download* download, std::string& problem)
{
  const Curl* api = loadCurl(problem);
  if (!api)
    return 0;
  std::unique_ptr<CURL, EasyDeleter> handle(api->easyInit(), EasyDeleter{api});
  if (!handle)
  {
    problem = "cannot initialise the HTTP library";
    return 0;
  }
  CURL* curl = handle.get();
  const auto setopt = api->easySetopt; // the values below are of the types the options take
  char errorText[CURL_ERROR_SIZE] = {};
  setopt(curl, CURLOPT_URL, url.c_str());
  setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  setopt(curl, CURLOPT_NOSIGNAL, 1L); // several threads; no SIGALRM for timeouts
  setopt(curl, CURLOPT_CONNECTTIMEOUT, timeouts.connectSeconds);
  setopt(curl, CURLOPT_TIMEOUT, timeouts.requestSeconds);
  setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  setopt(curl, CURLOPT_MAXREDIRS, 5L);
  Upload upload;
  if (putBody)
  {
    upload.body = *putBody;
    setopt(curl, CURLOPT_UPLOAD, 1L);
    setopt(curl, CURLOPT_READFUNCTION, provide);
    setopt(curl, CURLOPT_READDATA, &upload);
    setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(putBody->size()));
  }
  Download ignored;
  Download* sink = download ? download : &ignored;
  setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  setopt(curl, CURLOPT_WRITEDATA, sink);
  const CURLcode code = api->easyPerform(curl);
  if (code != CURLE_OK)
  {
    problem = sink->tooLarge ? std::string("answer too large") : std::string(errorText[0] ? errorText : api->easyStrerror(code));
    return 0;
  }
  long status = 0;
  api->easyGetinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  return status;
}
} // namespace

RemoteStore::RemoteStore(std::string url, RemoteTimeouts timeouts) : m_url(std::move(url)), m_timeouts(timeouts)
{
  while (!m_url.empty() && m_url.back() == '/')
    m_url.pop_back();
}

bool RemoteStore::supported()
{
  return true;
}

RemoteStore::Lookup RemoteStore::load(const Digest& key, CacheEntry& entry, std::string* encoded,
                                      std::string& problem)
{
  if (!available())
    return Lookup::Unavailable;
  const std::string recordUrl = m_url + "/ac/" + toHex(key);
  Download record;
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
  Download blob;
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
  if (blob.body.size() != size || sha256(blob.body) != content)
  {
    problem = shownUrl(contentUrl) + " does not hold the content its name promises";
    return Lookup::Corrupt;
  }
  if (encoded)
    *encoded = blob.body;
  std::string entryProblem;
  if (!decodeEntry(std::move(blob.body), key, entry, entryProblem))
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
