#include "cstdmf/version.hpp"

#ifndef VERTEXMILL_VERSION
#error "the build sets VERTEXMILL_VERSION for this file"
#endif

namespace cstdmf
{

std::string_view toolsVersion()
{
  return VERTEXMILL_VERSION;
}

} // namespace cstdmf
