#pragma once
// One HTTP request of the remote tier, over the system's client: libcurl on POSIX systems (loaded
// when first used), WinHTTP on Windows. Plain http:// and https:// URLs; a user and password in
// the URL are sent as basic authentication; redirections are followed.

#include <cstddef>
#include <string>
#include <string_view>

namespace content_cache
{

// Where an answer's body goes.
struct HttpDownload
{
  std::string body;
  size_t limit = size_t(1) << 31; // an answer longer than this ends the transfer
  bool tooLarge = false;
};

// A GET (no `putBody`) or a PUT of `*putBody`; the answer's body goes to `download` when given.
// Returns the HTTP status, or 0 with the transport's reason in `problem` (a server that cannot be
// reached, a time-out, an answer over the download's limit: "answer too large").
long httpRequest(const std::string& url, long connectSeconds, long requestSeconds, const std::string_view* putBody,
                 HttpDownload* download, std::string& problem);

} // namespace content_cache
