#include "content_cache/http_request.hpp"

#include "content_cache/loaded_library.hpp"
#include "fw/string_utils.hpp"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winhttp.h>

#include <chrono>
#include <limits>
#include <memory>

namespace content_cache
{

namespace
{

// WinHTTP is loaded on the first request, as libcurl is elsewhere: only runs with a remote cache
// need it. One session serves every thread (WinHTTP allows it).
struct WinHttp
{
  std::unique_ptr<platform::SharedLibrary> library;
  decltype(&WinHttpOpen) open = nullptr;
  decltype(&WinHttpCrackUrl) crackUrl = nullptr;
  decltype(&WinHttpConnect) connect = nullptr;
  decltype(&WinHttpOpenRequest) openRequest = nullptr;
  decltype(&WinHttpSetTimeouts) setTimeouts = nullptr;
  decltype(&WinHttpSetCredentials) setCredentials = nullptr;
  decltype(&WinHttpSetOption) setOption = nullptr;
  decltype(&WinHttpSendRequest) sendRequest = nullptr;
  decltype(&WinHttpReceiveResponse) receiveResponse = nullptr;
  decltype(&WinHttpQueryHeaders) queryHeaders = nullptr;
  decltype(&WinHttpQueryDataAvailable) queryDataAvailable = nullptr;
  decltype(&WinHttpReadData) readData = nullptr;
  decltype(&WinHttpCloseHandle) closeHandle = nullptr;
  HINTERNET session = nullptr;
};

const WinHttp* loadWinHttp(std::string& problem)
{
  return loadLibraryOnce<WinHttp>(
    "winhttp.dll",
    [](WinHttp& api, auto& resolve) -> std::string {
      resolve(api.open, "WinHttpOpen");
      resolve(api.crackUrl, "WinHttpCrackUrl");
      resolve(api.connect, "WinHttpConnect");
      resolve(api.openRequest, "WinHttpOpenRequest");
      resolve(api.setTimeouts, "WinHttpSetTimeouts");
      resolve(api.setCredentials, "WinHttpSetCredentials");
      resolve(api.setOption, "WinHttpSetOption");
      resolve(api.sendRequest, "WinHttpSendRequest");
      resolve(api.receiveResponse, "WinHttpReceiveResponse");
      resolve(api.queryHeaders, "WinHttpQueryHeaders");
      resolve(api.queryDataAvailable, "WinHttpQueryDataAvailable");
      resolve(api.readData, "WinHttpReadData");
      resolve(api.closeHandle, "WinHttpCloseHandle");
      if (api.open)
        api.session = api.open(L"vertexmill", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                               WINHTTP_NO_PROXY_BYPASS, 0);
      if (api.open && api.session == nullptr)
        return "cannot open an HTTP session (WinHTTP error " + std::to_string(::GetLastError()) + ")";
      return {};
    },
    problem);
}

// The system's words for a WinHTTP error, with its number.
std::string describe(DWORD error)
{
  switch (error)
  {
  case ERROR_WINHTTP_TIMEOUT:
    return "timed out";
  case ERROR_WINHTTP_CANNOT_CONNECT:
    return "cannot connect to the server";
  case ERROR_WINHTTP_NAME_NOT_RESOLVED:
    return "the server's name cannot be resolved";
  case ERROR_WINHTTP_CONNECTION_ERROR:
    return "the connection was reset";
  case ERROR_WINHTTP_UNRECOGNIZED_SCHEME:
  case ERROR_WINHTTP_INVALID_URL:
    return "not an http:// or https:// URL";
  default:
    break;
  }
  wchar_t* text = nullptr;
  const DWORD length = ::FormatMessageW(
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM |
      FORMAT_MESSAGE_IGNORE_INSERTS,
    ::GetModuleHandleW(L"winhttp.dll"), error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string words = length != 0 && text != nullptr ? FW::StringUtils::wtoutf8(std::wstring_view(text, length)) : "";
  if (text != nullptr)
    ::LocalFree(text);
  while (!words.empty() && (words.back() == '\n' || words.back() == '\r' || words.back() == ' ' || words.back() == '.'))
    words.pop_back();
  return (words.empty() ? std::string("WinHTTP error") : words) + " (" + std::to_string(error) + ")";
}

class Handle
{
public:
  Handle(const WinHttp& api, HINTERNET handle) : m_api(api), m_handle(handle) {}
  ~Handle()
  {
    if (m_handle != nullptr)
      m_api.closeHandle(m_handle);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HINTERNET get() const { return m_handle; }
  explicit operator bool() const { return m_handle != nullptr; }

private:
  const WinHttp& m_api;
  HINTERNET m_handle;
};

} // namespace

long httpRequest(const std::string& url, long connectSeconds, long requestSeconds, const std::string_view* putBody,
                 HttpDownload* download, std::string& problem)
{
  const WinHttp* api = loadWinHttp(problem);
  if (!api)
    return 0;
  const auto fail = [&](DWORD error) {
    problem = describe(error);
    return 0L;
  };

  const std::wstring wideUrl = FW::StringUtils::utf8tow(url);
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof(parts);
  parts.dwSchemeLength = parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = DWORD(-1);
  parts.dwUserNameLength = parts.dwPasswordLength = DWORD(-1);
  if (!api->crackUrl(wideUrl.c_str(), static_cast<DWORD>(wideUrl.size()), 0, &parts))
    return fail(::GetLastError());
  const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
  std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
  path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  if (path.empty())
    path = L"/";

  const Handle connection(*api, api->connect(api->session, host.c_str(), parts.nPort, 0));
  if (!connection)
    return fail(::GetLastError());
  const DWORD flags = parts.nScheme == INTERNET_SCHEME_HTTPS ? WINHTTP_FLAG_SECURE : 0;
  const Handle request(*api, api->openRequest(connection.get(), putBody ? L"PUT" : L"GET", path.c_str(), nullptr,
                                              WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags));
  if (!request)
    return fail(::GetLastError());
  const auto milliseconds = [](long seconds) {
    return static_cast<int>(std::min<long long>(static_cast<long long>(seconds) * 1000, std::numeric_limits<int>::max()));
  };
  api->setTimeouts(request.get(), milliseconds(connectSeconds), milliseconds(connectSeconds),
                   milliseconds(requestSeconds), milliseconds(requestSeconds));
  // The timeouts above bound each step; a server that sends its headers a byte at a time is
  // bounded by this one (the body by the deadline below).
  DWORD headersTimeout = static_cast<DWORD>(milliseconds(requestSeconds));
  api->setOption(request.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &headersTimeout, sizeof(headersTimeout));
  if (parts.dwUserNameLength != 0)
  {
    const std::wstring user(parts.lpszUserName, parts.dwUserNameLength);
    const std::wstring password(parts.lpszPassword != nullptr ? parts.lpszPassword : L"", parts.dwPasswordLength);
    api->setCredentials(request.get(), WINHTTP_AUTH_TARGET_SERVER, WINHTTP_AUTH_SCHEME_BASIC, user.c_str(),
                        password.c_str(), nullptr);
  }

  // A whole request, transfer included, within requestSeconds (WinHTTP bounds each step only).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(requestSeconds);
  if (putBody && putBody->size() > std::numeric_limits<DWORD>::max())
  {
    problem = "upload too large";
    return 0;
  }
  const DWORD bodySize = putBody ? static_cast<DWORD>(putBody->size()) : 0;
  void* body = putBody ? const_cast<char*>(putBody->data()) : WINHTTP_NO_REQUEST_DATA;
  if (!api->sendRequest(request.get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0, body, bodySize, bodySize, 0) ||
      !api->receiveResponse(request.get(), nullptr))
    return fail(::GetLastError());

  DWORD status = 0;
  DWORD statusSize = sizeof(status);
  if (!api->queryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                         WINHTTP_HEADER_NAME_BY_INDEX, &status, &statusSize, WINHTTP_NO_HEADER_INDEX))
    return fail(::GetLastError());

  HttpDownload ignored;
  HttpDownload* sink = download ? download : &ignored;
  for (;;)
  {
    DWORD available = 0;
    if (!api->queryDataAvailable(request.get(), &available))
      return fail(::GetLastError());
    if (available == 0)
      break;
    if (sink->body.size() + available > sink->limit)
    {
      sink->tooLarge = true;
      problem = "answer too large";
      return 0;
    }
    if (std::chrono::steady_clock::now() > deadline)
      return fail(ERROR_WINHTTP_TIMEOUT);
    const size_t start = sink->body.size();
    sink->body.resize(start + available);
    DWORD read = 0;
    if (!api->readData(request.get(), sink->body.data() + start, available, &read))
      return fail(::GetLastError());
    sink->body.resize(start + read);
    if (read == 0)
      break;
  }
  return static_cast<long>(status);
}

} // namespace content_cache
