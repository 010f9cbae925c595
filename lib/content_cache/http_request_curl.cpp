#include "content_cache/http_request.hpp"

#include "content_cache/loaded_library.hpp"
#include "cstdmf/platform.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace content_cache
{

namespace
{

size_t collect(char* data, size_t size, size_t count, void* user)
{
  auto* download = static_cast<HttpDownload*>(user);
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
  decltype(&curl_easy_reset) easyReset = nullptr;
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
      resolve(api.easyReset, "curl_easy_reset");
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

// Each thread's handle, kept for the run and reset before each request: it keeps its connection
// to the server open from one request to the next (a hit takes two), which saves a handshake each.
CURL* threadHandle(const Curl* api)
{
  thread_local const std::unique_ptr<CURL, EasyDeleter> handle(api->easyInit(), EasyDeleter{api});
  if (handle)
    api->easyReset(handle.get());
  return handle.get();
}

} // namespace

long httpRequest(const std::string& url, long connectSeconds, long requestSeconds, const std::string_view* putBody,
                 HttpDownload* download, std::string& problem)
{
  const Curl* api = loadCurl(problem);
  if (!api)
    return 0;
  CURL* curl = threadHandle(api);
  if (!curl)
  {
    problem = "cannot initialise the HTTP library";
    return 0;
  }
  const auto setopt = api->easySetopt; // the values below are of the types the options take
  char errorText[CURL_ERROR_SIZE] = {};
  setopt(curl, CURLOPT_URL, url.c_str());
  setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  setopt(curl, CURLOPT_NOSIGNAL, 1L); // several threads; no SIGALRM for timeouts
  setopt(curl, CURLOPT_CONNECTTIMEOUT, connectSeconds);
  setopt(curl, CURLOPT_TIMEOUT, requestSeconds);
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
  HttpDownload ignored;
  HttpDownload* sink = download ? download : &ignored;
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

} // namespace content_cache
