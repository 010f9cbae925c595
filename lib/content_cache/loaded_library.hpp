#pragma once
// A system library that is loaded when it is first needed rather than linked, so that runs which
// never need it do not pay for loading it (and the libraries it pulls in) at start-up.

#include "cstdmf/platform.hpp"

#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

namespace content_cache
{

// An API table whose first member is `std::unique_ptr<platform::SharedLibrary> library`, followed
// by function pointers. `bind(api, resolve)` calls resolve(slot, "name") for every function, then
// returns an empty text, or why the library cannot be used once it is bound (a failed
// initialisation). The library is loaded and bound once per process (per Api type) and never
// unloaded: calls may run on several threads until the end. Null, with `problem` set, when the
// library, one of its functions or its initialisation is missing.
template <typename Api, typename Bind>
const Api* loadLibraryOnce(const char* libraryName, Bind bind, std::string& problem)
{
  static std::once_flag s_once;
  static const Api* s_api = nullptr;
  static std::string s_problem;
  std::call_once(s_once, [&] {
    auto api = std::make_unique<Api>();
    api->library = std::make_unique<platform::SharedLibrary>(libraryName);
    const platform::SharedLibrary* library = api->library.get();
    if (!library->loaded())
    {
      s_problem = std::string("cannot load ") + libraryName + ": " + library->error();
      return;
    }
    std::string missing;
    const auto resolve = [&](auto& slot, const char* name) {
      if (!missing.empty())
        return;
      std::string reason;
      slot = library->function<std::remove_reference_t<decltype(slot)>>(name, &reason);
      if (!slot)
        missing = reason;
    };
    const std::string unusable = bind(*api, resolve);
    if (!missing.empty())
      s_problem = std::string("cannot use ") + libraryName + ": " + missing;
    else
      s_problem = unusable;
    if (s_problem.empty())
      s_api = api.release(); // the library stays loaded for as long as the process runs
  });
  if (!s_api)
    problem = s_problem;
  return s_api;
}

} // namespace content_cache
