#pragma once
// The version of these tools, one for all of them: what --version prints, what a report and a
// cache key carry, and the resource root's fallback where an executable has no version resource.

#include <string_view>

namespace cstdmf
{

// "0.1.0": the project's version, set by the build.
std::string_view toolsVersion();

} // namespace cstdmf
